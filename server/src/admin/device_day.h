#pragma once

#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace tovrel::server {

/// One position a device reported: a location check ("check", from "targeting_updates", with the
/// distance to its nearest target and that target's radius) or the position it last stored ("location",
/// from "location_updates").
struct DayPosition {
    double at = 0;  ///< seconds since 1970, the device's own clock
    double lat = 0;
    double lon = 0;
    double accuracy = 0;  ///< the accuracy the device asked for, metres
    std::optional<double> distanceToTarget;
    std::optional<double> targetRadius;
    std::string kind;

    bool operator==(const DayPosition&) const = default;
};

/// The positions in the messages (as /v1/log stored them) stamped within [from, to), by time, each
/// once; at most `limit`. What is not a position of a known kind, or has a value out of range, is left
/// out: the messages are the device's own words. Pure.
std::vector<DayPosition> dayPositions(const std::vector<std::pair<double, std::string>>& messages,
                                      double from, double to, std::size_t limit);

/// {"deviceId", "date", "positions": [{"at", "lat", "lon", "accuracy", "kind", ...}], "links": [...]}.
nlohmann::json dayJson(std::string_view deviceId, std::string_view date,
                       const std::vector<DayPosition>& positions, const nlohmann::json& links);

/// The day as a GeoJSON FeatureCollection: the track as a LineString (when there are two positions or
/// more), then every position as a Point with its time, kind and accuracy.
nlohmann::json dayGeoJson(std::string_view deviceId, std::string_view date,
                          const std::vector<DayPosition>& positions);

/// Seconds since 1970 of the start of a UTC day written "YYYY-MM-DD"; nullopt for anything else. Pure.
std::optional<double> utcDayStart(std::string_view date);

}  // namespace tovrel::server
