#include "admin/access_admin.h"

#include <algorithm>
#include <charconv>

#include "admin/admin_routes.h"
#include "admin/admin_tokens.h"
#include "admin/query_string.h"
#include "common/request_fields.h"
#include "common/session_keys.h"
#include "store/access_store.h"

namespace tovrel::server {

namespace {

using nlohmann::json;

constexpr int64_t kAuditPage = 100;
constexpr int64_t kLongestAuditPage = 1000;

json tokenJson(const StoredToken& t) {
    return {{"name", t.name}, {"role", t.role}, {"createdAt", t.createdAt}, {"createdBy", t.createdBy}};
}

}  // namespace

AdminJsonReply tokensRequest(const AccessAdminRequest& r) {
    if (r.parts.size() == 1 && r.method == "GET") {
        std::vector<StoredToken> tokens;
        r.transact([&](const SqlSource& db) { tokens = readTokens(db); });
        json list = json::array();
        for (const StoredToken& t : tokens) {
            list.push_back(tokenJson(t));
        }
        return {200, {{"tokens", std::move(list)}}};
    }
    if (r.parts.size() == 1 && r.method == "POST") {
        const json posted = parseObjectBody(r.body);
        StoredToken stored;
        stored.name = requireString(posted, "name", 64);
        if (const std::string problem = tokenNameProblem(stored.name); !problem.empty()) {
            throw ApiError(400, problem);
        }
        stored.role = requireString(posted, "role", 16);
        if (!roleNamed(stored.role)) {
            throw ApiError(400, "role must be read, support, campaigns or admin");
        }
        const std::string token = newAdminToken();
        stored.hash = sessionKeyHash(token);
        stored.createdAt = r.now;
        stored.createdBy = std::string(r.by);
        bool inserted = false;
        r.transact([&](const SqlSource& db) { inserted = insertToken(db, stored); });
        if (!inserted) {
            throw ApiError(409, "there is a token named " + stored.name + " already; revoke it first");
        }
        json answer = tokenJson(stored);
        answer["token"] = token;
        return {201, std::move(answer)};
    }
    if (r.parts.size() == 2 && r.method == "DELETE") {
        if (r.parts[1] == AdminTokens::kFileTokenName) {
            throw ApiError(409, "the token of --admin-token-file is changed in its file");
        }
        bool removed = false;
        r.transact([&](const SqlSource& db) { removed = deleteToken(db, r.parts[1]); });
        if (!removed) {
            throw ApiError(404, "there is no token " + r.parts[1]);
        }
        return {200, {{"revoked", r.parts[1]}}};
    }
    throw ApiError(404, "there is no admin endpoint " + std::string(r.method) + " /admin/v1/tokens");
}

AdminJsonReply auditRequest(const AccessAdminRequest& r) {
    const int64_t limit = std::min(countParameter(r.target, "limit", kAuditPage), kLongestAuditPage);
    const std::optional<int64_t> before = queryValue(r.target, "before").empty()
                                              ? std::nullopt
                                              : std::optional(countParameter(r.target, "before", 1));
    std::vector<AuditEntry> entries;
    r.transact([&](const SqlSource& db) { entries = readAudit(db, before, static_cast<int>(limit)); });
    json list = json::array();
    for (const AuditEntry& e : entries) {
        list.push_back({{"id", e.id},
                        {"at", e.at},
                        {"token", e.token},
                        {"action", e.action},
                        {"item", e.item},
                        {"status", e.status}});
    }
    const json next = static_cast<int64_t>(entries.size()) == limit ? json(entries.back().id) : json(nullptr);
    return {200, {{"entries", std::move(list)}, {"next", next}}};
}

}  // namespace tovrel::server
