#include "admin/device_day.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdlib>

namespace tovrel::server {
namespace {

using nlohmann::json;

// A number the device wrote as a number or as text ("48.137000"); nullopt for anything else.
std::optional<double> number(const json& object, const char* name) {
    const auto it = object.find(name);
    if (it == object.end()) {
        return std::nullopt;
    }
    double value = 0;
    if (it->is_number()) {
        value = it->get<double>();
    } else if (it->is_string() && !it->get_ref<const std::string&>().empty() &&
               it->get_ref<const std::string&>().size() < 40) {
        const std::string& text = it->get_ref<const std::string&>();
        char* end = nullptr;
        value = std::strtod(text.c_str(), &end);
        if (end != text.c_str() + text.size()) {
            return std::nullopt;
        }
    } else {
        return std::nullopt;
    }
    return std::isfinite(value) ? std::optional(value) : std::nullopt;
}

std::optional<DayPosition> position(const json& record, const char* kind) {
    if (!record.is_object()) {
        return std::nullopt;
    }
    const auto at = number(record, "timestamp");
    const auto lat = number(record, "lat");
    const auto lon = number(record, "lng");
    if (!at || !lat || !lon || *lat < -90 || *lat > 90 || *lon < -180 || *lon > 180) {
        return std::nullopt;
    }
    DayPosition p{*at,          *lat,         *lon, number(record, "location_accuracy").value_or(0),
                  std::nullopt, std::nullopt, kind};
    if (std::string_view(kind) == "check") {
        p.distanceToTarget = number(record, "distance_from_target");
        p.targetRadius = number(record, "target_size");
    }
    return p;
}

}  // namespace

std::vector<DayPosition> dayPositions(const std::vector<std::pair<double, std::string>>& messages,
                                      double from, double to, std::size_t limit) {
    std::vector<DayPosition> out;
    const auto keep = [&](const std::optional<DayPosition>& p) {
        if (p && p->at >= from && p->at < to && out.size() < limit) {
            out.push_back(*p);
        }
    };
    for (const auto& [receivedAt, text] : messages) {
        const json message = json::parse(text, nullptr, false);
        if (!message.is_object()) {
            continue;
        }
        if (const auto it = message.find("location_updates"); it != message.end()) {
            keep(position(*it, "location"));
        }
        if (const auto it = message.find("targeting_updates"); it != message.end() && it->is_array()) {
            for (const json& record : *it) {
                keep(position(record, "check"));
            }
        }
    }
    std::sort(out.begin(), out.end(), [](const DayPosition& a, const DayPosition& b) {
        return a.at != b.at ? a.at < b.at : a.kind < b.kind;
    });
    // A message sent again (a retried upload) repeats its positions.
    out.erase(std::unique(out.begin(), out.end()), out.end());
    return out;
}

json dayJson(std::string_view deviceId, std::string_view date, const std::vector<DayPosition>& positions,
             const json& links) {
    json list = json::array();
    for (const DayPosition& p : positions) {
        json item{{"at", p.at}, {"lat", p.lat}, {"lon", p.lon}, {"accuracy", p.accuracy}, {"kind", p.kind}};
        if (p.distanceToTarget) {
            item["distanceToTarget"] = *p.distanceToTarget;
        }
        if (p.targetRadius) {
            item["targetRadius"] = *p.targetRadius;
        }
        list.push_back(std::move(item));
    }
    return {{"deviceId", deviceId}, {"date", date}, {"positions", std::move(list)}, {"links", links}};
}

json dayGeoJson(std::string_view deviceId, std::string_view date, const std::vector<DayPosition>& positions) {
    json features = json::array();
    if (positions.size() >= 2) {
        json line = json::array();
        for (const DayPosition& p : positions) {
            line.push_back({p.lon, p.lat});
        }
        features.push_back({{"type", "Feature"},
                            {"geometry", {{"type", "LineString"}, {"coordinates", std::move(line)}}},
                            {"properties", {{"deviceId", deviceId}, {"date", date}}}});
    }
    for (const DayPosition& p : positions) {
        features.push_back({{"type", "Feature"},
                            {"geometry", {{"type", "Point"}, {"coordinates", {p.lon, p.lat}}}},
                            {"properties", {{"at", p.at}, {"kind", p.kind}, {"accuracy", p.accuracy}}}});
    }
    return {{"type", "FeatureCollection"}, {"features", std::move(features)}};
}

std::optional<double> utcDayStart(std::string_view date) {
    if (date.size() != 10 || date[4] != '-' || date[7] != '-') {
        return std::nullopt;
    }
    int parts[3] = {0, 0, 0};
    const std::size_t starts[3] = {0, 5, 8};
    const std::size_t sizes[3] = {4, 2, 2};
    for (int i = 0; i < 3; ++i) {
        for (std::size_t c = starts[i]; c < starts[i] + sizes[i]; ++c) {
            if (date[c] < '0' || date[c] > '9') {
                return std::nullopt;
            }
            parts[i] = parts[i] * 10 + (date[c] - '0');
        }
    }
    const std::chrono::year_month_day day{std::chrono::year(parts[0]),
                                          std::chrono::month(static_cast<unsigned>(parts[1])),
                                          std::chrono::day(static_cast<unsigned>(parts[2]))};
    if (!day.ok()) {
        return std::nullopt;
    }
    return static_cast<double>(std::chrono::sys_days(day).time_since_epoch().count()) * 86400;
}

}  // namespace tovrel::server
