#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "store/log_store.h"
#include "store/report.h"
#include "store/store.h"

namespace tovrel::server {

/// Everything held about the device whose row is `device`, as the admin API answers it, its log
/// messages aside: the device, its sessions (never their keys), its links with their status history,
/// and its tags. nullopt when there is no such row. Runs on the caller's thread and connection; read it
/// in one snapshot.
std::optional<nlohmann::json> readDeviceRecord(const SqlSource& source, int64_t device);

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

/// The links the device made in [from, to).
DeviceDayRows readDeviceDay(const SqlSource& source, int64_t device, double from, double to);

/// The device's record (Store::deviceRecord()) with its log messages counted by event name, and whole
/// when `withMessages`; nullopt when unknown. Caller's thread, on a store it may use.
std::optional<nlohmann::json> deviceRecordWithLogs(Store& store, LogStore& logs, const std::string& deviceId,
                                                   bool withMessages);

/// Erases the device's log messages, then its rows; nullopt, with nothing erased, when unknown. Caller's
/// thread, on a store it may use.
std::optional<ErasedDevice> eraseDeviceAndLogs(Store& store, LogStore& logs, const std::string& deviceId);

/// The device's log messages received in [from, to) (at most `limit`) and the links it made then;
/// nullopt when unknown. Caller's thread, on a store it may use.
std::optional<DeviceDayRows> deviceDayWithLogs(Store& store, LogStore& logs, const std::string& deviceId,
                                               double from, double to, int limit);

}  // namespace tovrel::server
