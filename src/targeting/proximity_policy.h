#pragma once

#include <cmath>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>

#include "tovrel/platform/distance.h"
#include "tovrel/platform/location.h"

namespace tovrel {
struct hRegion;
}

namespace tovrel::targeting {

using platform::kDegreesToRadians;

/// The haversine distance in metres from `first` to `second` (platform::haversineMetres).
inline double haversineMeters(const platform::Coordinate& first, const platform::Coordinate& second) {
    return platform::haversineMetres(first, second);
}

/// Desired accuracy and distance filter for the location source.
struct LocationSettings {
    double desiredAccuracy;
    double distanceFilter;
    bool operator==(const LocationSettings&) const = default;
};

/// The accuracy ladder, keyed by the distance to the nearest target. Exactly 300, 500 or 1000 m (and
/// a distance that is not a number) leave the settings unchanged: nullopt.
std::optional<LocationSettings> accuracyLadder(double nearest, bool accuracyError);

/// Farther than this from every target, the check asks for fresh targets.
inline constexpr double kRefreshDistance = 4500;

/// The text handed to delivery: the event name and the alert text on two lines.
std::string offerMessage(const nlohmann::json& eventName, const nlohmann::json& alertText);

/// One targeting-check record of logHistoryArray, kept as numbers and formatted when uploaded.
struct HistoryRecord {
    double timestamp;
    double distance;
    double desiredAccuracy;
    double distanceFilter;
    double radius;
    double latitude;
    double longitude;
};

/// One nearby-target record of logTargetsArray.
struct TargetRecord {
    double timestamp;
    std::shared_ptr<const hRegion> target;
};

/// Appends the record as the diagnostics upload sends it: {"distance_from_target", "lat", "lng",
/// "location_accuracy", "location_distancefilter", "target_size", "timestamp"}, seven strings, as a
/// dump prints them.
void writeJson(std::string& out, const HistoryRecord& record);
/// {"event_centroidlat", "event_centroidlon", "event_id" (as stored), "timestamp"}.
void writeJson(std::string& out, const TargetRecord& record);
/// The same records as values.
nlohmann::json toJson(const HistoryRecord& record);
nlohmann::json toJson(const TargetRecord& record);

/// The proximity check's log message for one nearest target.
std::string nearestTargetMessage(double distance, double desiredAccuracy, double distanceFilter,
                                 double radius);
/// Appends that message to `out`.
void appendNearestTargetMessage(std::string& out, double distance, double desiredAccuracy,
                                double distanceFilter, double radius);

}  // namespace tovrel::targeting
