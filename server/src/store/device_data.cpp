#include "store/device_data.h"

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

// The message as the device sent it: JSON when it parses (it was checked on the way in), text otherwise.
json logMessage(const std::string& text) {
    json parsed = json::parse(text, nullptr, false);
    return parsed.is_discarded() ? json(text) : parsed;
}

json links(const SqlSource& source, const std::string& device) {
    json out = json::array();
    std::vector<std::pair<int64_t, std::size_t>> index;
    for (const auto& r :
         source.rows("SELECT id, offer, place, campaign, suppressed, created_at, cleared_at FROM "
                     "device_events WHERE device = " +
                     device + " ORDER BY id")) {
        out.push_back({{"deviceEventId", std::stoll(r[0])},
                       {"offerId", std::stoll(r[1])},
                       {"placeId", std::stoll(r[2])},
                       {"campaignId", std::stoll(r[3])},
                       {"suppressed", r[4] == "1" || r[4] == "t"},
                       {"linkedAt", seconds(r[5])},
                       {"clearedAt", optionalSeconds(r[6])},
                       {"statuses", json::array()}});
    }
    std::size_t at = 0;
    for (const auto& r : source.rows("SELECT s.device_event, s.status, s.at FROM device_event_status s JOIN "
                                     "device_events e ON e.id = s.device_event WHERE e.device = " +
                                     device + " ORDER BY s.device_event, s.id")) {
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

std::optional<json> readDeviceRecord(const SqlSource& source, int64_t deviceRow, bool withLogs) {
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
    const std::string ofDevice =
        " FROM log_messages WHERE device_id = (SELECT device_id FROM devices WHERE id = " + device + ")";
    json logs = {{"count", 0}, {"byEvent", json::object()}};
    int64_t count = 0;
    for (const auto& r :
         source.rows("SELECT event_name, COUNT(*)" + ofDevice + " GROUP BY event_name ORDER BY 1")) {
        logs["byEvent"][r[0]] = std::stoll(r[1]);
        count += std::stoll(r[1]);
    }
    logs["count"] = count;
    if (withLogs) {
        logs["messages"] = json::array();
        for (const auto& r :
             source.rows("SELECT event_name, received_at, message" + ofDevice + " ORDER BY id")) {
            logs["messages"].push_back(
                {{"eventName", r[0]}, {"receivedAt", seconds(r[1])}, {"message", logMessage(r[2])}});
        }
    }
    record["logMessages"] = std::move(logs);
    return record;
}

ErasedDevice eraseDeviceRows(const SqlSource& source, int64_t deviceRow) {
    const std::string device = std::to_string(deviceRow);
    // The totals ('') apart from the days: one device event answered "seen" on two days counts once in
    // the totals, as the funnel counts the rows held.
    for (const std::string& day : {std::string("''"), source.utcDay("created_at")}) {
        source.run("INSERT INTO funnel_erased(day, campaign, offer, kind, count) SELECT " + day +
                   ", campaign, offer, 'link', COUNT(*) FROM device_events WHERE device = " + device +
                   " GROUP BY 1, 2, 3");
    }
    for (const std::string& day : {std::string("''"), source.utcDay("s.at")}) {
        source.run(
            "INSERT INTO funnel_erased(day, campaign, offer, kind, count) SELECT " + day +
            ", e.campaign, e.offer, s.status, COUNT(DISTINCT s.device_event) FROM device_event_status s "
            "JOIN device_events e ON e.id = s.device_event WHERE e.device = " +
            device + " GROUP BY 1, 2, 3, 4");
    }
    ErasedDevice erased;
    erased.device = deviceRow;
    erased.statuses = source.run(
        "DELETE FROM device_event_status WHERE device_event IN (SELECT id FROM device_events WHERE device "
        "= " +
        device + ")");
    erased.links = source.run("DELETE FROM device_events WHERE device = " + device);
    erased.tags = source.run("DELETE FROM device_tags WHERE device = " + device);
    erased.sessions = source.run("DELETE FROM sessions WHERE device = " + device);
    erased.logMessages = source.run(
        "DELETE FROM log_messages WHERE device_id = (SELECT device_id FROM devices WHERE id = " + device +
        ")");
    source.run("DELETE FROM devices WHERE id = " + device);
    return erased;
}

json erasedJson(const ErasedDevice& erased) {
    return {{"sessions", erased.sessions},
            {"links", erased.links},
            {"statuses", erased.statuses},
            {"tags", erased.tags},
            {"logMessages", erased.logMessages}};
}

}  // namespace tovrel::server
