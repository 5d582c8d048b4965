#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "store/sql_source.h"

namespace tovrel::server {

/// A named admin token as stored: never the token, only its SHA-256.
struct StoredToken {
    std::string name;
    std::string role;
    std::string hash;  ///< sessionKeyHash() of the token
    double createdAt = 0;
    std::string createdBy;  ///< the name of the token that made it; "" from the command line
};

/// Inserts `token`; false when a token of that name exists. Caller's thread and transaction.
bool insertToken(const SqlSource& db, const StoredToken& token);
/// Every stored token, by name.
std::vector<StoredToken> readTokens(const SqlSource& db);
/// Removes the token named `name`; false when there is none.
bool deleteToken(const SqlSource& db, std::string_view name);

/// One change made through the admin API, as the audit trail keeps it.
struct AuditEntry {
    int64_t id = 0;
    double at = 0;
    std::string token;   ///< the name of the token (or the console session's token) that made it
    std::string action;  ///< "places.remove", "devices.erase", ...
    std::string item;    ///< what it changed: an id, a name; a device as auditDeviceHash()
    int status = 0;      ///< the HTTP status it was answered
};

/// Appends `entry` (its id is ignored).
void appendAudit(const SqlSource& db, const AuditEntry& entry);
/// At most `limit` entries, newest first, with ids below `before` when given.
std::vector<AuditEntry> readAudit(const SqlSource& db, std::optional<int64_t> before, int limit);

/// What the audit trail writes for a device id: "hmac:" and the first 32 hex digits of its HMAC-SHA256
/// under the key the database made when it was created, the same on every replica. The trail then
/// holds no device id, and an erasure of a given id can still be shown to have happened.
std::string auditDeviceHash(const SqlSource& db, std::string_view deviceId);

}  // namespace tovrel::server
