#include "geo.h"

#include "tovrel/platform/distance.h"

namespace tovrel_server {

double haversineMetres(double lat1, double lon1, double lat2, double lon2) {
    return tovrel::platform::haversineMetres(lat1, lon1, lat2, lon2);
}

}  // namespace tovrel_server
