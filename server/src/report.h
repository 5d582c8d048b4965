#pragma once

#include "tovrel_server/admin.h"

namespace tovrel_server {

class Database;

/// Counts links and answers per offer and log messages per event name.
Report readReport(Database& db);

}  // namespace tovrel_server
