#include "common/routes.h"

namespace tovrel::server {

namespace {

constexpr bool routesInRouteOrder() {
    for (std::size_t i = 0; i < kApiRoutes.size(); ++i) {
        if (static_cast<std::size_t>(kApiRoutes[i].route) != i) {
            return false;
        }
    }
    return true;
}
static_assert(routesInRouteOrder(), "kApiRoutes[i] must name Route(i): the metrics index by it");

}  // namespace

const ApiRoute* findApiRoute(std::string_view path) {
    for (const ApiRoute& route : kApiRoutes) {
        if (route.path == path) {
            return &route;
        }
    }
    return nullptr;
}

}  // namespace tovrel::server
