#include "catalog/geo.h"

#include "tovrel/platform/distance.h"

namespace tovrel::server {

double haversineMetres(double lat1, double lon1, double lat2, double lon2) {
    return tovrel::platform::haversineMetres(lat1, lon1, lat2, lon2);
}

}  // namespace tovrel::server
