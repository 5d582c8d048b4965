#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "route.h"

namespace tovrel::sim {

/// A place's circle, as a place file (GeoJSON) gives it.
struct PlaceCircle {
    std::string placeId;
    std::string name;
    double latitude = 0;
    double longitude = 0;
    double radius = 0;  ///< metres
};

/// The circles of a GeoJSON place file (Point features; "radius" and "placeId" in their properties,
/// 50 m when a radius is missing). Features of other shapes are skipped. Throws RouteError naming the
/// file when the text is not such a file or has no usable place. Pure (any thread).
std::vector<PlaceCircle> parsePlaceCircles(std::string_view text, const std::string& fileName);
std::vector<PlaceCircle> readPlaceCircles(const std::filesystem::path& file);

/// Every route file of a folder (.gpx, .nmea, .csv), sorted by name. Throws RouteError naming the
/// folder when it cannot be read or holds no route, and the file when one cannot be used. Any thread.
std::vector<Route> loadRouteFolder(const std::filesystem::path& folder);

enum class RouteKind { kWalk, kDrive };

/// A made-up route around `places`, one position a second, the same for the same seed:
/// a walk goes from place to place at walking pace, stopping inside some of them for a few minutes
/// and passing others by; a drive comes in from 5 to 9 km out, parks inside a place for a while,
/// visits another and drives off. Activities are set (walking, automotive, stationary). Pure.
Route generateRoute(RouteKind kind, const std::vector<PlaceCircle>& places, std::uint64_t seed,
                    std::string name);

}  // namespace tovrel::sim
