#pragma once

#include <algorithm>
#include <cmath>

namespace tovrel::platform {

/// Degrees to radians, as every distance has always been computed.
inline constexpr double kDegreesToRadians = 0.017453292519943295;
/// The earth's radius in kilometres, held as an integer and applied last.
inline constexpr int kEarthRadiusKm = 6371;

/// Any thread. The haversine distance in metres between two points given in degrees, on a sphere of
/// radius 6371 km, evaluated in exactly this order so that the component, the backends, the simulator
/// and the server get the same bits for the same coordinates. Near the antipode a may round above 1:
/// 1 - a is then held at 0, so the result is half the circumference, never NaN.
inline double haversineMetres(double lat1, double lon1, double lat2, double lon2) {
    const double dLat = (lat2 - lat1) * kDegreesToRadians;
    const double dLon = (lon2 - lon1) * kDegreesToRadians;
    const double sinHalfLat = std::sin(dLat / 2);
    const double sinHalfLon = std::sin(dLon / 2);
    const double a = sinHalfLat * sinHalfLat + std::cos(lat1 * kDegreesToRadians) *
                                                   std::cos(lat2 * kDegreesToRadians) * sinHalfLon *
                                                   sinHalfLon;
    const double angle = 2 * std::atan2(std::sqrt(a), std::sqrt(std::max(0.0, 1 - a)));
    return kEarthRadiusKm * angle * 1000;
}

/// Any thread. The same for two values with `latitude` and `longitude` in degrees (a Coordinate).
template <class Point>
double haversineMetres(const Point& first, const Point& second) {
    return haversineMetres(first.latitude, first.longitude, second.latitude, second.longitude);
}

}  // namespace tovrel::platform
