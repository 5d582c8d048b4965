#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "store/report.h"
#include "store/store.h"

namespace tovrel::server {

/// Everything held about the device whose row is `device`, as the admin API answers it: the device,
/// its sessions (never their keys), its links with their status history, its tags, and its log
/// messages counted by event name, or whole when `withLogs`. nullopt when there is no such row. Runs
/// on the caller's thread and connection; read it in one snapshot.
std::optional<nlohmann::json> readDeviceRecord(const SqlSource& source, int64_t device, bool withLogs);

/// Removes every row about the device whose row is `device`, after adding its links and answers to
/// the funnel's counts that belong to nobody, so that the funnel counts what it counted. Run it in one
/// transaction.
ErasedDevice eraseDeviceRows(const SqlSource& source, int64_t device);

/// Removes at most `limit` rows of `kind` written before `before`, oldest first (see
/// Store::pruneBatch). Run it in one transaction.
int64_t pruneRows(const SqlSource& source, Retained kind, double before, int limit);

/// When the oldest row of `kind` was written; nullopt when there is none.
std::optional<double> oldestRowTime(const SqlSource& source, Retained kind);

/// {"sessions": n, "links": n, "statuses": n, "tags": n, "logMessages": n}.
nlohmann::json erasedJson(const ErasedDevice& erased);

/// The device's log messages received in [from, to), at most `limit`, and its links made then.
DeviceDayRows readDeviceDay(const SqlSource& source, int64_t device, double from, double to, int limit);

}  // namespace tovrel::server
