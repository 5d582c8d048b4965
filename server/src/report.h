#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "tovrel_server/admin.h"

namespace tovrel_server {

class Database;

/// Counts links and answers per offer and log messages per event name.
Report readReport(Database& db);

/// Rows as text columns padded to their widest cell in terminal columns (wide and combining characters
/// counted as a terminal shows them); columns from `numericFrom` on are right-aligned. Pure.
std::string formatTable(const std::vector<std::vector<std::string>>& rows, std::size_t numericFrom);

}  // namespace tovrel_server
