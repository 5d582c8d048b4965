#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "store/sql_source.h"
#include "tovrel_server/admin.h"

namespace tovrel::server {

class Database;

/// Counts links and answers per offer (log messages are the log store's).
Report readReport(Database& db);

/// Rows as text columns padded to their widest cell in terminal columns (wide and combining characters
/// counted as a terminal shows them); columns from `numericFrom` on are right-aligned. Pure.
std::string formatTable(const std::vector<std::vector<std::string>>& rows, std::size_t numericFrom);
/// The funnel per campaign and per offer, and by UTC day when byDay. Runs on the caller's thread
/// with the caller's connection.
Funnel readFunnel(Database& db, bool byDay);

/// SQLite's SqlSource on the caller's connection.
SqlSource sqliteSource(Database& db);

/// The funnel from any store's SQL: the links and answers held, and those of erased devices. Runs on
/// the caller's thread.
Funnel readFunnel(const SqlSource& source, bool byDay);

/// The funnel as JSON: {"campaigns": [...], "offers": [...]} and, when it has them, "days":
/// {"campaigns": [...], "offers": [...]}; each row with its counts (links, ack, seen, saved, declined).
nlohmann::json funnelJson(const Funnel& funnel);

}  // namespace tovrel::server
