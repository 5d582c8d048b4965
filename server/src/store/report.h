#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "tovrel_server/admin.h"

namespace tovrel::server {

class Database;

/// Counts links and answers per offer and log messages per event name.
Report readReport(Database& db);

/// Rows as text columns padded to their widest cell in terminal columns (wide and combining characters
/// counted as a terminal shows them); columns from `numericFrom` on are right-aligned. Pure.
std::string formatTable(const std::vector<std::vector<std::string>>& rows, std::size_t numericFrom);
/// The funnel per campaign and per offer, and by UTC day when byDay. Runs on the caller's thread
/// with the caller's connection.
Funnel readFunnel(Database& db, bool byDay);

/// How a store answers SQL that both dialects share: each row's columns as text (NULL as ""), the
/// number of rows a statement changed, and its SQL for the UTC day ("YYYY-MM-DD") of a column of
/// seconds since 1970. The SQL holds no parameters: callers put in numbers only.
struct SqlSource {
    std::function<std::vector<std::vector<std::string>>(const std::string& sql)> rows;
    std::function<std::string(const std::string& secondsColumn)> utcDay;
    std::function<int64_t(const std::string& sql)> run;
    /// Put after a SELECT to lock the rows it reads until the transaction ends (PostgreSQL's
    /// " FOR UPDATE"; "" where one writer at a time is all there is).
    std::string forUpdate;
};

/// SQLite's SqlSource on the caller's connection.
SqlSource sqliteSource(Database& db);

/// The funnel from any store's SQL: the links and answers held, and those of erased devices. Runs on
/// the caller's thread.
Funnel readFunnel(const SqlSource& source, bool byDay);

/// The funnel as JSON: {"campaigns": [...], "offers": [...]} and, when it has them, "days":
/// {"campaigns": [...], "offers": [...]}; each row with its counts (links, ack, seen, saved, declined).
nlohmann::json funnelJson(const Funnel& funnel);

}  // namespace tovrel::server
