#include "tovrel/location_archive.h"

namespace tovrel {

nlohmann::json archiveLocation(const platform::Location& location) {
    return {
        {"latitude", location.coordinate.latitude},
        {"longitude", location.coordinate.longitude},
        {"altitude", location.altitude},
        {"horizontalAccuracy", location.horizontalAccuracy},
        {"verticalAccuracy", location.verticalAccuracy},
        {"speed", location.speed},
        {"course", location.course},
        {"timestamp", location.timestamp},
    };
}

std::optional<platform::Location> unarchiveLocation(const std::optional<nlohmann::json>& archived) {
    if (!archived || !archived->is_object()) {
        return std::nullopt;
    }
    const auto& object = *archived;
    const auto number = [&object](const char* key, double fallback) {
        const auto it = object.find(key);
        return it != object.end() && it->is_number() ? it->get<double>() : fallback;
    };
    const auto lat = object.find("latitude");
    const auto lon = object.find("longitude");
    if (lat == object.end() || lon == object.end() || !lat->is_number() || !lon->is_number()) {
        return std::nullopt;
    }
    platform::Location location;
    location.coordinate = {lat->get<double>(), lon->get<double>()};
    location.altitude = number("altitude", 0);
    location.horizontalAccuracy = number("horizontalAccuracy", 0);
    location.verticalAccuracy = number("verticalAccuracy", -1);
    location.speed = number("speed", -1);
    location.course = number("course", -1);
    location.timestamp = number("timestamp", 0);
    return location;
}

}  // namespace tovrel
