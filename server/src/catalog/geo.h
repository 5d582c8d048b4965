#pragma once

namespace tovrel::server {

/// Radius of the sphere on which every distance is measured.
inline constexpr double kEarthRadiusMetres = 6371000.0;

/// Great-circle distance in metres between two points given in degrees: the SDK's own haversine
/// (tovrel/platform/distance.h), so the server ranks places as the devices measure them.
double haversineMetres(double lat1, double lon1, double lat2, double lon2);

}  // namespace tovrel::server
