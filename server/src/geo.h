#pragma once

namespace tovrel_server {

/// Radius of the sphere on which every distance is measured.
inline constexpr double kEarthRadiusMetres = 6371000.0;

/// Great-circle distance in metres between two points given in degrees (haversine formula).
double haversineMetres(double lat1, double lon1, double lat2, double lon2);

}  // namespace tovrel_server
