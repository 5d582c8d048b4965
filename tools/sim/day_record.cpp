#include "day_record.h"

#include <algorithm>
#include <cmath>
#include <nlohmann/json.hpp>

namespace tovrel::sim {

namespace {

using nlohmann::json;

double number(const json& object, const char* name, const std::string& where) {
    const auto it = object.find(name);
    if (it == object.end() || !it->is_number() || !std::isfinite(it->get<double>())) {
        throw RouteError(where + ": \"" + name + "\" must be a number");
    }
    return it->get<double>();
}

std::string idText(const json& value) {
    return value.is_string() ? value.get<std::string>() : value.is_number_integer() ? value.dump() : "";
}

// Metres between two positions on a local flat map: enough to tell walking from driving.
double flatMetres(const DayPoint& a, const DayPoint& b) {
    constexpr double kMetresPerDegree = 111'195;
    const double scale = std::cos(a.latitude * M_PI / 180);
    return std::hypot((b.latitude - a.latitude) * kMetresPerDegree,
                      (b.longitude - a.longitude) * scale * kMetresPerDegree);
}

}  // namespace

DayRecord parseDayRecord(std::string_view text, const std::string& name) {
    const json doc = json::parse(text, nullptr, false);
    if (!doc.is_object() || !doc.contains("positions") || !doc["positions"].is_array()) {
        throw RouteError(name + ": not a device's day (GET /admin/v1/devices/ID/day): no \"positions\" list");
    }
    DayRecord day;
    day.deviceId = doc.value("deviceId", json("")).is_string() ? doc.value("deviceId", "") : "";
    day.date = doc.value("date", json("")).is_string() ? doc.value("date", "") : "";
    for (const json& p : doc["positions"]) {
        const std::string where = name + ": position " + std::to_string(day.positions.size() + 1);
        if (!p.is_object()) {
            throw RouteError(where + " is not an object");
        }
        // A negative accuracy is the device asking for the best it has.
        DayPoint point{number(p, "at", where), number(p, "lat", where), number(p, "lon", where),
                       std::max(0.0, p.contains("accuracy") ? number(p, "accuracy", where) : 0)};
        if (std::abs(point.latitude) > 90 || std::abs(point.longitude) > 180) {
            throw RouteError(where + " is out of range");
        }
        day.positions.push_back(point);
    }
    std::stable_sort(day.positions.begin(), day.positions.end(),
                     [](const DayPoint& a, const DayPoint& b) { return a.at < b.at; });
    // Two checks at one instant (a location and a check) are one position of the track.
    day.positions.erase(std::unique(day.positions.begin(), day.positions.end(),
                                    [](const DayPoint& a, const DayPoint& b) { return a.at == b.at; }),
                        day.positions.end());
    constexpr double kLongestSpan = 2 * 86400;
    if (day.positions.size() >= 2 && day.positions.back().at - day.positions.front().at > kLongestSpan) {
        throw RouteError(name + ": the positions span more than two days; a replay takes one day");
    }
    if (day.positions.size() < 2) {
        throw RouteError(name + ": the day has " + std::to_string(day.positions.size()) +
                         " position(s); a replay needs two at least");
    }
    if (doc.contains("links") && doc["links"].is_array()) {
        for (const json& l : doc["links"]) {
            if (l.is_object() && l.contains("offerId") && l.contains("placeId")) {
                const json at = l.value("linkedAt", json(0));
                day.links.push_back(RecordedLink{idText(l["offerId"]), idText(l["placeId"]),
                                                 at.is_number() ? at.get<double>() : 0,
                                                 l.value("suppressed", json(false)) == true});
            }
        }
    }
    return day;
}

Route routeOfDay(const DayRecord& day) {
    Route route;
    route.name = day.deviceId.empty() ? "day" : day.deviceId + " " + day.date;
    const double start = day.positions.front().at;
    for (std::size_t i = 0; i < day.positions.size(); ++i) {
        // A device reported checks only while its location updates ran: moving as far as the component
        // could tell. A pause between two checks is not a stop that would turn them off in the replay.
        const DayPoint& a = day.positions[i == 0 ? 0 : i - 1];
        const DayPoint& b = day.positions[i == 0 ? 1 : i];
        const double speed = flatMetres(a, b) / std::max(1.0, b.at - a.at);
        const Activity moving = activityForSpeed(speed);
        route.points.push_back(RoutePoint{day.positions[i].at - start, day.positions[i].latitude,
                                          day.positions[i].longitude,
                                          moving == Activity::kStationary ? Activity::kWalking : moving});
    }
    route.hasActivity = true;
    return route;
}

}  // namespace tovrel::sim
