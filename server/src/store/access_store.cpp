#include "store/access_store.h"

#include <stdexcept>

#include "common/session_keys.h"

namespace tovrel::server {

namespace {

double real(const std::string& text) {
    return text.empty() ? 0 : std::stod(text);
}

}  // namespace

bool insertToken(const SqlSource& db, const StoredToken& token) {
    return !db.query(
                  "INSERT INTO admin_tokens(name, role, token_hash, created_at, created_by) VALUES(CAST(? AS "
                  "TEXT), CAST(? AS TEXT), CAST(? AS TEXT), CAST(? AS DOUBLE PRECISION), CAST(? AS TEXT)) "
                  "ON CONFLICT DO NOTHING RETURNING name",
                  {token.name, token.role, token.hash, sqlNumber(token.createdAt), token.createdBy})
                .empty();
}

std::vector<StoredToken> readTokens(const SqlSource& db) {
    std::vector<StoredToken> tokens;
    for (auto& r : db.rows("SELECT name, role, token_hash, created_at, created_by FROM admin_tokens ORDER BY "
                           "name")) {
        tokens.push_back(
            StoredToken{std::move(r[0]), std::move(r[1]), std::move(r[2]), real(r[3]), std::move(r[4])});
    }
    return tokens;
}

bool deleteToken(const SqlSource& db, std::string_view name) {
    return !db.query("DELETE FROM admin_tokens WHERE name = CAST(? AS TEXT) RETURNING name",
                     {std::string(name)})
                .empty();
}

void appendAudit(const SqlSource& db, const AuditEntry& e) {
    db.query(
        "INSERT INTO audit_log(at, token, action, item, status) VALUES(CAST(? AS DOUBLE PRECISION), "
        "CAST(? AS TEXT), CAST(? AS TEXT), CAST(? AS TEXT), CAST(? AS BIGINT))",
        {sqlNumber(e.at), e.token, e.action, e.item, sqlNumber(static_cast<int64_t>(e.status))});
}

std::vector<AuditEntry> readAudit(const SqlSource& db, std::optional<int64_t> before, int limit) {
    std::vector<AuditEntry> entries;
    const std::string sql = "SELECT id, at, token, action, item, status FROM audit_log" +
                            (before ? " WHERE id < " + std::to_string(*before) : std::string()) +
                            " ORDER BY id DESC LIMIT " + std::to_string(limit);
    for (auto& r : db.rows(sql)) {
        entries.push_back(AuditEntry{std::stoll(r[0]), real(r[1]), std::move(r[2]), std::move(r[3]),
                                     std::move(r[4]), std::stoi(r[5])});
    }
    return entries;
}

std::string auditDeviceHash(const SqlSource& db, std::string_view deviceId) {
    const SqlRows key = db.rows("SELECT value FROM settings WHERE name = 'audit_key'");
    if (key.empty() || key[0][0].empty()) {
        throw std::runtime_error("the database has no audit key");
    }
    return "hmac:" + keyedHash(key[0][0], deviceId).substr(0, 32);
}

}  // namespace tovrel::server
