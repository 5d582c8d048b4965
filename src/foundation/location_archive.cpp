#include "tovrel/location_archive.h"

namespace tovrel {

nlohmann::json archiveLocation(const platform::Location& location) {
    // Member by member: an initializer list copies every member it holds, and this runs for every fix.
    nlohmann::json archived(nlohmann::json::value_t::object);
    auto& members = archived.get_ref<nlohmann::json::object_t&>();
    members.emplace("altitude", location.altitude);
    members.emplace("course", location.course);
    members.emplace("horizontalAccuracy", location.horizontalAccuracy);
    members.emplace("latitude", location.coordinate.latitude);
    members.emplace("longitude", location.coordinate.longitude);
    members.emplace("speed", location.speed);
    members.emplace("timestamp", location.timestamp);
    members.emplace("verticalAccuracy", location.verticalAccuracy);
    return archived;
}

std::optional<platform::Location> unarchiveLocation(const std::optional<nlohmann::json>& archived) {
    return unarchiveLocation(archived ? &*archived : nullptr);
}

std::optional<platform::Location> unarchiveLocation(const nlohmann::json* archived) {
    if (archived == nullptr || !archived->is_object()) {
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
