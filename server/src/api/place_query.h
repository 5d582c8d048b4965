#pragma once

#include <optional>
#include <string_view>

namespace tovrel::server {

/// The widest search /v2/place accepts, in metres (the component asks for 8047).
inline constexpr double kMaxDistanceThreshold = 50'000;

/// What a place answer reads from its request.
struct PlaceQuery {
    double latitude = 0;
    double longitude = 0;
    double threshold = 0;  ///< metres
};

/// A place request as the component writes it, read without building a JSON value: one object with
/// exactly "sessionKey" (ASCII, no escapes), "coordinatesList" (one {"lat", "lon"} object) and
/// "distanceThreshold", the numbers as JSON numbers or strings holding one, each within its range.
/// Anything else is nullopt, and the request goes to the general reader, which answers it (errors
/// included) as it always has; whatever this reads, that reader reads alike. Pure.
struct PlainPlaceRequest {
    std::string_view sessionKey;  ///< within the body
    PlaceQuery query;
};
std::optional<PlainPlaceRequest> readPlainPlaceRequest(std::string_view body);

}  // namespace tovrel::server
