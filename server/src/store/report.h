#pragma once

#include <cstddef>
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

/// How a store answers the funnel's queries: each row's columns as text, and its SQL for the UTC day
/// ("YYYY-MM-DD") of a column of seconds since 1970.
struct FunnelSource {
    std::function<std::vector<std::vector<std::string>>(const std::string& sql)> rows;
    std::function<std::string(const std::string& secondsColumn)> utcDay;
};

/// The funnel from any store's SQL. Runs on the caller's thread.
Funnel readFunnel(const FunnelSource& source, bool byDay);

/// The funnel as JSON: {"campaigns": [...], "offers": [...]} and, when it has them, "days":
/// {"campaigns": [...], "offers": [...]}; each row with its counts (links, ack, seen, saved, declined).
nlohmann::json funnelJson(const Funnel& funnel);

}  // namespace tovrel::server
