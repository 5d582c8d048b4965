#include "geo.h"

#include <algorithm>
#include <cmath>
#include <numbers>

namespace tovrel_server {

double haversineMetres(double lat1, double lon1, double lat2, double lon2) {
    constexpr double kRad = std::numbers::pi / 180.0;
    const double dLat = (lat2 - lat1) * kRad;
    const double dLon = (lon2 - lon1) * kRad;
    const double sLat = std::sin(dLat / 2);
    const double sLon = std::sin(dLon / 2);
    const double h = sLat * sLat + std::cos(lat1 * kRad) * std::cos(lat2 * kRad) * sLon * sLon;
    return 2 * kEarthRadiusMetres * std::asin(std::min(1.0, std::sqrt(h)));
}

}  // namespace tovrel_server
