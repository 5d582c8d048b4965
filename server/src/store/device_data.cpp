#include "store/device_data.h"

#include <algorithm>
#include <cstdio>
#include <string>
#include <utility>
#include <vector>

namespace tovrel::server {

using nlohmann::json;

namespace {

double seconds(const std::string& text) {
    return text.empty() ? 0 : std::stod(text);
}

json optionalSeconds(const std::string& text) {
    return text.empty() ? json(nullptr) : json(std::stod(text));
}

// The device's links, or those made in [from, to) when `from < to`.
json links(const SqlSource& source, const std::string& device, double from = 0, double to = 0) {
    const std::string made = from < to ? " AND e.created_at >= " + std::to_string(from) +
                                             " AND e.created_at < " + std::to_string(to)
                                       : std::string();
    json out = json::array();
    std::vector<std::pair<int64_t, std::size_t>> index;
    for (const auto& r :
         source.rows("SELECT id, offer, place, campaign, suppressed, created_at, cleared_at, suppressed_by "
                     "FROM device_events e WHERE device = " +
                     device + made + " ORDER BY id")) {
        json& link = out.emplace_back(json{{"deviceEventId", std::stoll(r[0])},
                                           {"offerId", std::stoll(r[1])},
                                           {"placeId", std::stoll(r[2])},
                                           {"campaignId", std::stoll(r[3])},
                                           {"suppressed", r[4] == "1" || r[4] == "t"},
                                           {"linkedAt", seconds(r[5])},
                                           {"clearedAt", optionalSeconds(r[6])},
                                           {"statuses", json::array()}});
        if (!r[7].empty()) {
            link["suppressedBy"] = r[7];
        }
    }
    std::size_t at = 0;
    for (const auto& r : source.rows("SELECT s.device_event, s.status, s.at FROM device_event_status s JOIN "
                                     "device_events e ON e.id = s.device_event WHERE e.device = " +
                                     device + made + " ORDER BY s.device_event, s.id")) {
        const int64_t event = std::stoll(r[0]);
        while (at < out.size() && out[at]["deviceEventId"].get<int64_t>() != event) {
            ++at;
        }
        if (at < out.size()) {
            out[at]["statuses"].push_back({{"status", r[1]}, {"at", seconds(r[2])}});
        }
    }
    return out;
}

}  // namespace

std::optional<json> readDeviceRecord(const SqlSource& source, int64_t deviceRow) {
    const std::string device = std::to_string(deviceRow);
    const auto row = source.rows(
        "SELECT device_id, device_type, device_model, app_key, first_seen, last_seen FROM devices WHERE id "
        "= " +
        device);
    if (row.empty()) {
        return std::nullopt;
    }
    json record = {
        {"deviceId", row[0][0]},     {"deviceType", row[0][1]},         {"deviceModel", row[0][2]},
        {"appKey", row[0][3]},       {"firstSeen", seconds(row[0][4])}, {"lastSeen", seconds(row[0][5])},
        {"sessions", json::array()}, {"links", links(source, device)},  {"tags", json::array()}};
    for (const auto& r : source.rows("SELECT created_at, app_key FROM sessions WHERE device = " + device +
                                     " ORDER BY created_at")) {
        record["sessions"].push_back({{"startedAt", seconds(r[0])}, {"appKey", r[1]}});
    }
    for (const auto& r :
         source.rows("SELECT group_tag, tag, value, updated_at FROM device_tags WHERE device = " + device +
                     " ORDER BY group_tag, tag")) {
        record["tags"].push_back(
            {{"group", r[0]}, {"tag", r[1]}, {"value", r[2]}, {"updatedAt", seconds(r[3])}});
    }
    return record;
}

namespace {

// Adds the links of device_events e that `where` selects, and their answers, to the counts that name
// no device. The totals ('') apart from the days: one device event answered "seen" on two days counts
// once in the totals, as the funnel counts the rows held.
void keepFunnelCounts(const SqlSource& source, const std::string& where) {
    for (const std::string& day : {std::string("''"), source.utcDay("e.created_at")}) {
        source.run("INSERT INTO funnel_erased(day, campaign, offer, kind, count) SELECT " + day +
                   ", e.campaign, e.offer, 'link', COUNT(*) FROM device_events e WHERE " + where +
                   " GROUP BY 1, 2, 3");
    }
    for (const std::string& day : {std::string("''"), source.utcDay("s.at")}) {
        source.run(
            "INSERT INTO funnel_erased(day, campaign, offer, kind, count) SELECT " + day +
            ", e.campaign, e.offer, s.status, COUNT(DISTINCT s.device_event) FROM device_event_status s "
            "JOIN device_events e ON e.id = s.device_event WHERE " +
            where + " GROUP BY 1, 2, 3, 4");
    }
}

std::string idList(const std::vector<std::vector<std::string>>& rows) {
    std::string list;
    for (const auto& row : rows) {
        list += (list.empty() ? "" : ", ") + std::to_string(std::stoll(row[0]));
    }
    return list;
}

std::string number(double v) {
    char text[40];
    std::snprintf(text, sizeof text, "%.6f", v);
    return text;
}

}  // namespace

ErasedDevice eraseDeviceRows(const SqlSource& source, int64_t deviceRow) {
    const std::string device = std::to_string(deviceRow);
    // Counted once: a retention pass of another replica waits, or skips these rows.
    source.rows("SELECT id FROM device_events WHERE device = " + device + source.forUpdate);
    keepFunnelCounts(source, "e.device = " + device);
    ErasedDevice erased;
    erased.device = deviceRow;
    erased.statuses = source.run(
        "DELETE FROM device_event_status WHERE device_event IN (SELECT id FROM device_events WHERE device "
        "= " +
        device + ")");
    erased.links = source.run("DELETE FROM device_events WHERE device = " + device);
    erased.tags = source.run("DELETE FROM device_tags WHERE device = " + device);
    erased.sessions = source.run("DELETE FROM sessions WHERE device = " + device);
    // Events not yet delivered carry what the device did (a tag's value): they go with it.
    source.run(
        "DELETE FROM webhook_attempts WHERE message IN (SELECT id FROM webhook_messages WHERE device = " +
        device + ")");
    source.run("DELETE FROM webhook_messages WHERE device = " + device);
    source.run("DELETE FROM devices WHERE id = " + device);
    return erased;
}

int64_t pruneRows(const SqlSource& source, Retained kind, double before, int limit) {
    const std::string cutoff = number(before);
    const std::string count = std::to_string(std::max(1, limit));
    switch (kind) {
        case Retained::logs:
            return 0;  // the log store's (LogStore::prune())
        case Retained::links: {
            // Live links are what replicas mirror of a device: they go when the device clears them. Rows
            // another replica's pass or an erasure holds are theirs to count.
            const std::string ids =
                idList(source.rows("SELECT id FROM device_events WHERE created_at < " + cutoff +
                                   " AND cleared_at IS NOT NULL ORDER BY id LIMIT " + count +
                                   (source.forUpdate.empty() ? "" : source.forUpdate + " SKIP LOCKED")));
            if (ids.empty()) {
                return 0;
            }
            keepFunnelCounts(source, "e.id IN (" + ids + ")");
            source.run("DELETE FROM device_event_status WHERE device_event IN (" + ids + ")");
            return source.run("DELETE FROM device_events WHERE id IN (" + ids + ")");
        }
        case Retained::sessions: {
            const int64_t removed = source.run(
                "DELETE FROM sessions WHERE key_hash IN (SELECT key_hash FROM sessions WHERE created_at < " +
                cutoff + " ORDER BY created_at LIMIT " + count + ")");
            const std::string gone =
                idList(source.rows("SELECT id FROM devices d WHERE last_seen < " + cutoff +
                                   " AND NOT EXISTS (SELECT 1 FROM sessions s WHERE s.device = d.id) AND NOT "
                                   "EXISTS (SELECT 1 FROM "
                                   "device_events e WHERE e.device = d.id) ORDER BY id LIMIT " +
                                   count));
            if (!gone.empty()) {
                source.run("DELETE FROM device_tags WHERE device IN (" + gone + ")");
                source.run("DELETE FROM devices WHERE id IN (" + gone + ")");
            }
            return removed;
        }
        case Retained::audit:
            return source.run("DELETE FROM audit_log WHERE id IN (SELECT id FROM audit_log WHERE at < " +
                              cutoff + " ORDER BY id LIMIT " + count + ")");
    }
    return 0;
}

std::optional<double> oldestRowTime(const SqlSource& source, Retained kind) {
    // Ids grow with time: the first row is the oldest, read from the primary key alone.
    if (kind == Retained::logs) {
        return std::nullopt;  // the log store's (LogStore::oldest())
    }
    const char* sql = kind == Retained::links   ? "SELECT created_at FROM device_events ORDER BY id LIMIT 1"
                      : kind == Retained::audit ? "SELECT at FROM audit_log ORDER BY id LIMIT 1"
                                                : "SELECT MIN(created_at) FROM sessions";
    const auto rows = source.rows(sql);
    return rows.empty() || rows[0][0].empty() ? std::nullopt : std::optional<double>(std::stod(rows[0][0]));
}

json erasedJson(const ErasedDevice& erased) {
    return {{"sessions", erased.sessions},
            {"links", erased.links},
            {"statuses", erased.statuses},
            {"tags", erased.tags},
            {"logMessages", erased.logMessages}};
}

DeviceDayRows readDeviceDay(const SqlSource& source, int64_t device, double from, double to) {
    DeviceDayRows day;
    day.links = links(source, std::to_string(device), from, to);
    return day;
}

std::optional<json> deviceRecordWithLogs(Store& store, LogStore& logs, const std::string& deviceId,
                                         bool withMessages) {
    std::optional<json> record = store.deviceRecord(deviceId);
    if (record) {
        (*record)["logMessages"] = logs.ofDevice(deviceId, withMessages);
    }
    return record;
}

std::optional<ErasedDevice> eraseDeviceAndLogs(Store& store, LogStore& logs, const std::string& deviceId) {
    if (!store.findDevice(deviceId)) {
        return std::nullopt;
    }
    // The messages go first: when the rows cannot go after them, the device is still there to erase again.
    const int64_t messages = logs.erase(deviceId);
    std::optional<ErasedDevice> erased = store.eraseDevice(deviceId);
    if (erased) {
        erased->logMessages = messages;
    }
    return erased;
}

std::optional<DeviceDayRows> deviceDayWithLogs(Store& store, LogStore& logs, const std::string& deviceId,
                                               double from, double to, int limit) {
    std::optional<DeviceDayRows> day = store.deviceDay(deviceId, from, to);
    if (day) {
        day->messages = logs.between(deviceId, from, to, limit);
    }
    return day;
}

}  // namespace tovrel::server
