#include "store/webhook_store.h"

#include <openssl/rand.h>

#include <algorithm>
#include <stdexcept>

namespace tovrel::server {
namespace {

constexpr const char* kEndpointColumns =
    "id, url, event_types, enabled, include_device, secret, previous_secret, previous_until, "
    "disabled_reason, created_at";

std::string typesText(const std::vector<std::string>& types) {
    if (types.empty()) {
        return "*";
    }
    std::string text;
    for (const std::string& t : types) {
        text += (text.empty() ? "" : ",") + t;
    }
    return text;
}

std::vector<std::string> typesFrom(const std::string& text) {
    std::vector<std::string> types;
    if (text == "*") {
        return types;
    }
    std::size_t start = 0;
    while (start <= text.size()) {
        const std::size_t comma = std::min(text.find(',', start), text.size());
        if (comma > start) {
            types.push_back(text.substr(start, comma - start));
        }
        start = comma + 1;
    }
    return types;
}

double real(const std::string& text) {
    return text.empty() ? 0 : std::stod(text);
}

int64_t integer(const std::string& text) {
    return text.empty() ? 0 : std::stoll(text);
}

std::string idList(const SqlRows& rows) {
    std::string list;
    for (const auto& row : rows) {
        list += (list.empty() ? "" : ",") + std::to_string(integer(row.at(0)));
    }
    return list;
}

}  // namespace

std::string newMessageId() {
    unsigned char bytes[12];
    if (RAND_bytes(bytes, sizeof bytes) != 1) {
        throw std::runtime_error("no random bytes for a message id");
    }
    static constexpr char kHex[] = "0123456789abcdef";
    std::string id = "msg_";
    for (const unsigned char b : bytes) {
        id += kHex[b >> 4];
        id += kHex[b & 15];
    }
    return id;
}

std::string takesType(std::string_view endpoints, std::string_view pattern) {
    const std::string e(endpoints);
    return e + ".enabled = 1 AND (" + e + ".event_types = '*' OR ',' || " + e + ".event_types || ',' LIKE " +
           std::string(pattern) + ")";
}

SqlParam typePattern(std::string_view type) {
    return "%," + std::string(type) + ",%";
}

bool isWebhookEventType(std::string_view type) {
    return std::find(kWebhookEventTypes.begin(), kWebhookEventTypes.end(), type) != kWebhookEventTypes.end();
}

std::string_view statusEventType(std::string_view statusCode) {
    if (statusCode == "ack") {
        return "offer.acknowledged";
    }
    if (statusCode == "seen") {
        return "offer.seen";
    }
    if (statusCode == "saved") {
        return "offer.saved";
    }
    if (statusCode == "declined") {
        return "offer.declined";
    }
    return "";
}

OutboxInsert outboxInsert(const OutboxEvent& event, double now, std::optional<int64_t> endpoint) {
    const std::string type(event.type);
    OutboxInsert insert{
        "INSERT INTO webhook_messages(message_id, endpoint, type, device, data, created_at, next_attempt) "
        "SELECT CAST(? AS TEXT), id, CAST(? AS TEXT), CAST(? AS BIGINT), CAST(? AS TEXT), CAST(? AS DOUBLE "
        "PRECISION), CAST(? AS DOUBLE PRECISION) FROM webhook_endpoints WHERE ",
        {newMessageId(), type, event.device ? sqlNumber(*event.device) : std::nullopt, event.data.dump(),
         sqlNumber(now), sqlNumber(now)}};
    if (endpoint) {
        insert.sql += "enabled = 1 AND id = CAST(? AS BIGINT)";
        insert.params.push_back(sqlNumber(*endpoint));
    } else {
        insert.sql += takesType("webhook_endpoints", "CAST(? AS TEXT)");
        insert.params.push_back(typePattern(type));
    }
    insert.sql += " RETURNING id";
    return insert;
}

int64_t enqueueEvent(const SqlSource& db, const OutboxEvent& event, double now,
                     std::optional<int64_t> endpoint) {
    const OutboxInsert insert = outboxInsert(event, now, endpoint);
    return static_cast<int64_t>(db.query(insert.sql, insert.params).size());
}

OutboxEvent sessionStarted(const DeviceInfo& device, int64_t deviceRow) {
    return {kSessionStartedType,
            deviceRow,
            {{"deviceType", device.deviceType}, {"deviceModel", device.deviceModel}}};
}

bool anyEndpointTakes(const SqlSource& db, std::string_view type) {
    return !db.query("SELECT 1 FROM webhook_endpoints WHERE " +
                         takesType("webhook_endpoints", "CAST(? AS TEXT)") + " LIMIT 1",
                     {typePattern(type)})
                .empty();
}

OutboxEvent visitLinked(int64_t device, const LinkRow& link, std::string_view campaignName) {
    return {kVisitLinkedType,
            device,
            {{"deviceEventId", link.id},
             {"offerId", link.offer},
             {"placeId", link.place},
             {"campaignId", link.campaign},
             {"campaign", campaignName},
             {"suppressed", link.suppressed},
             {"suppressedBy", link.suppressed ? nlohmann::json(suppressionName(link.reason)) : nullptr}}};
}

OutboxEvent deviceTagged(int64_t device, const std::string& group, const std::string& tag,
                         const std::string& value) {
    return {kDeviceTaggedType, device, {{"group", group}, {"tag", tag}, {"value", value}}};
}

OutboxEvent linksCleared(int64_t device, int64_t links) {
    return {kLinksClearedType, device, {{"links", links}}};
}

void enqueueStatusEvent(const SqlSource& db, int64_t deviceEvent, std::string_view statusCode, double now) {
    const std::string_view type = statusEventType(statusCode);
    if (type.empty()) {
        return;
    }
    if (!anyEndpointTakes(db, type)) {
        return;
    }
    const SqlRows link =
        db.query("SELECT device, offer, place, campaign FROM device_events WHERE id = CAST(? AS BIGINT)",
                 {sqlNumber(deviceEvent)});
    if (link.empty()) {
        return;
    }
    const auto& r = link.front();
    enqueueEvent(db,
                 {type,
                  integer(r[0]),
                  {{"deviceEventId", deviceEvent},
                   {"offerId", integer(r[1])},
                   {"placeId", integer(r[2])},
                   {"campaignId", integer(r[3])},
                   {"status", statusCode}}},
                 now);
}

int64_t insertEndpoint(const SqlSource& db, const WebhookEndpoint& e) {
    const SqlRows rows = db.query(
        "INSERT INTO webhook_endpoints(url, event_types, enabled, include_device, secret, previous_secret, "
        "previous_until, disabled_reason, created_at) VALUES(CAST(? AS TEXT), CAST(? AS TEXT), CAST(? AS "
        "BIGINT), CAST(? AS BIGINT), CAST(? AS TEXT), CAST(? AS TEXT), CAST(? AS DOUBLE PRECISION), CAST(? "
        "AS TEXT), CAST(? AS DOUBLE PRECISION)) RETURNING id",
        {e.url, typesText(e.eventTypes), e.enabled ? "1" : "0", e.includeDevice ? "1" : "0", e.secret,
         e.previousSecret, sqlNumber(e.previousUntil), e.disabledReason, sqlNumber(e.createdAt)});
    return integer(rows.at(0).at(0));
}

std::vector<WebhookEndpoint> readEndpoints(const SqlSource& db, std::optional<int64_t> id) {
    const std::string sql = std::string("SELECT ") + kEndpointColumns + " FROM webhook_endpoints" +
                            (id ? " WHERE id = " + std::to_string(*id) : "") + " ORDER BY id";
    std::vector<WebhookEndpoint> endpoints;
    for (const auto& r : db.rows(sql)) {
        endpoints.push_back(WebhookEndpoint{integer(r[0]), r[1], typesFrom(r[2]), r[3] == "1", r[4] == "1",
                                            r[5], r[6], real(r[7]), r[8], real(r[9])});
    }
    return endpoints;
}

bool updateEndpoint(const SqlSource& db, const WebhookEndpoint& e) {
    return !db.query(
                  "UPDATE webhook_endpoints SET url = CAST(? AS TEXT), event_types = CAST(? AS TEXT), "
                  "enabled = CAST(? AS BIGINT), include_device = CAST(? AS BIGINT), secret = CAST(? AS "
                  "TEXT), previous_secret = CAST(? AS TEXT), previous_until = CAST(? AS DOUBLE "
                  "PRECISION), disabled_reason = CAST(? AS TEXT) WHERE id = CAST(? AS BIGINT) RETURNING id",
                  {e.url, typesText(e.eventTypes), e.enabled ? "1" : "0", e.includeDevice ? "1" : "0",
                   e.secret, e.previousSecret, sqlNumber(e.previousUntil), e.disabledReason, sqlNumber(e.id)})
                .empty();
}

bool deleteEndpoint(const SqlSource& db, int64_t id) {
    const std::string which = std::to_string(id);
    db.run("DELETE FROM webhook_attempts WHERE endpoint = " + which);
    db.run("DELETE FROM webhook_messages WHERE endpoint = " + which);
    return db.run("DELETE FROM webhook_endpoints WHERE id = " + which) > 0;
}

std::vector<DueMessage> claimDueMessages(const SqlSource& db, double now, double claimUntil, int limit) {
    const SqlRows claimed = db.query(
        "UPDATE webhook_messages SET claimed_until = CAST(? AS DOUBLE PRECISION) WHERE id IN (SELECT id FROM "
        "webhook_messages WHERE state = 'pending' AND next_attempt <= CAST(? AS DOUBLE PRECISION) AND "
        "claimed_until <= CAST(? AS DOUBLE PRECISION) AND endpoint IN (SELECT id FROM webhook_endpoints "
        "WHERE enabled = 1) ORDER BY next_attempt, id LIMIT " +
            std::to_string(std::max(limit, 0)) + (db.forUpdate.empty() ? "" : db.forUpdate + " SKIP LOCKED") +
            ") RETURNING id",
        {sqlNumber(claimUntil), sqlNumber(now), sqlNumber(now)});
    std::vector<DueMessage> due;
    if (claimed.empty()) {
        return due;
    }
    const SqlRows rows = db.query(
        "SELECT m.id, m.message_id, m.endpoint, m.type, m.data, CASE WHEN e.include_device = 1 THEN "
        "coalesce(d.device_id, '') ELSE '' END, m.created_at, m.attempts, e.url, e.secret, CASE WHEN "
        "e.previous_until > CAST(? AS DOUBLE PRECISION) THEN e.previous_secret ELSE '' END FROM "
        "webhook_messages m JOIN webhook_endpoints e ON e.id = m.endpoint LEFT JOIN devices d ON d.id = "
        "m.device WHERE m.id IN (" +
            idList(claimed) + ") ORDER BY m.next_attempt, m.id",
        {sqlNumber(now)});
    for (const auto& r : rows) {
        DueMessage m{integer(r[0]), r[1],  integer(r[2]), r[3],
                     r[4],          r[5],  real(r[6]),    static_cast<int>(integer(r[7])),
                     r[8],          {r[9]}};
        if (!r[10].empty()) {
            m.secrets.push_back(r[10]);
        }
        due.push_back(std::move(m));
    }
    return due;
}

void recordAttempt(const SqlSource& db, const AttemptRecord& a) {
    db.query(
        "INSERT INTO webhook_attempts(message, endpoint, at, status, seconds, error) VALUES(CAST(? AS "
        "BIGINT), CAST(? AS BIGINT), CAST(? AS DOUBLE PRECISION), CAST(? AS BIGINT), CAST(? AS DOUBLE "
        "PRECISION), CAST(? AS TEXT)) RETURNING id",
        {sqlNumber(a.message), sqlNumber(a.endpoint), sqlNumber(a.at),
         sqlNumber(static_cast<int64_t>(a.status)), sqlNumber(a.seconds), a.error});
    const char* state = a.next == AttemptRecord::Next::delivered ? "delivered"
                        : a.next == AttemptRecord::Next::failed  ? "failed"
                                                                 : "pending";
    const bool ended = a.next != AttemptRecord::Next::retry;
    db.query(
        "UPDATE webhook_messages SET attempts = attempts + 1, last_status = CAST(? AS BIGINT), "
        "claimed_until = 0, state = CAST(? AS TEXT), next_attempt = CAST(? AS DOUBLE PRECISION), ended_at "
        "= CAST(? AS DOUBLE PRECISION) WHERE id = CAST(? AS BIGINT) RETURNING id",
        {sqlNumber(static_cast<int64_t>(a.status)), std::string(state),
         sqlNumber(ended ? a.at : a.nextAttempt), ended ? sqlNumber(a.at) : std::nullopt,
         sqlNumber(a.message)});
    if (!a.disableEndpoint.empty()) {
        db.query(
            "UPDATE webhook_endpoints SET enabled = 0, disabled_reason = CAST(? AS TEXT) WHERE id = "
            "CAST(? AS BIGINT) RETURNING id",
            {a.disableEndpoint, sqlNumber(a.endpoint)});
    }
}

int64_t replayMessages(const SqlSource& db, int64_t endpoint, double since, bool all,
                       std::optional<int64_t> message, double now) {
    std::vector<SqlParam> params{sqlNumber(now), sqlNumber(endpoint), sqlNumber(since)};
    std::string sql =
        "UPDATE webhook_messages SET state = 'pending', attempts = 0, next_attempt = CAST(? AS DOUBLE "
        "PRECISION), claimed_until = 0, ended_at = NULL WHERE endpoint = CAST(? AS BIGINT) AND created_at >= "
        "CAST(? AS DOUBLE PRECISION)";
    if (!all) {
        sql += " AND state = 'failed'";
    }
    if (message) {
        sql += " AND id = CAST(? AS BIGINT)";
        params.push_back(sqlNumber(*message));
    }
    return static_cast<int64_t>(db.query(sql + " RETURNING id", params).size());
}

nlohmann::json recentAttempts(const SqlSource& db, int64_t endpoint, int limit) {
    nlohmann::json attempts = nlohmann::json::array();
    for (const auto& r : db.rows("SELECT a.message, m.message_id, m.type, a.at, a.status, a.seconds, a.error "
                                 "FROM webhook_attempts a LEFT JOIN webhook_messages m ON m.id = a.message "
                                 "WHERE a.endpoint = " +
                                 std::to_string(endpoint) + " ORDER BY a.id DESC LIMIT " +
                                 std::to_string(std::max(limit, 0)))) {
        attempts.push_back({{"message", integer(r[0])},
                            {"messageId", r[1]},
                            {"type", r[2]},
                            {"at", real(r[3])},
                            {"status", integer(r[4])},
                            {"seconds", real(r[5])},
                            {"error", r[6]}});
    }
    return attempts;
}

OutboxDepth outboxDepth(const SqlSource& db) {
    const SqlRows rows =
        db.rows("SELECT count(*), min(created_at) FROM webhook_messages WHERE state = 'pending'");
    OutboxDepth depth;
    if (!rows.empty()) {
        depth.pending = integer(rows[0][0]);
        if (!rows[0][1].empty()) {
            depth.oldestCreatedAt = real(rows[0][1]);
        }
    }
    return depth;
}

int64_t pruneEndedMessages(const SqlSource& db, double before, int limit) {
    const SqlRows ended = db.query(
        "SELECT id FROM webhook_messages WHERE state <> 'pending' AND ended_at < "
        "CAST(? AS DOUBLE PRECISION) ORDER BY ended_at LIMIT " +
            std::to_string(std::max(limit, 0)),
        {sqlNumber(before)});
    if (ended.empty()) {
        return 0;
    }
    const std::string ids = idList(ended);
    db.run("DELETE FROM webhook_attempts WHERE message IN (" + ids + ")");
    return db.run("DELETE FROM webhook_messages WHERE id IN (" + ids + ")");
}

}  // namespace tovrel::server
