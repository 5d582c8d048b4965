#include "admin/admin_routes.h"

#include <algorithm>

namespace tovrel::server {

namespace {

constexpr std::array<std::string_view, 4> kRoleNames{"read", "support", "campaigns", "admin"};
constexpr std::array<std::string_view, 4> kMethods{"GET", "POST", "PATCH", "DELETE"};
// Every set of kMethods (bit i: kMethods[i]) as an Allow header.
constexpr std::array<const char*, 16> kAllow{nullptr,
                                             "GET",
                                             "POST",
                                             "GET, POST",
                                             "PATCH",
                                             "GET, PATCH",
                                             "POST, PATCH",
                                             "GET, POST, PATCH",
                                             "DELETE",
                                             "GET, DELETE",
                                             "POST, DELETE",
                                             "GET, POST, DELETE",
                                             "PATCH, DELETE",
                                             "GET, PATCH, DELETE",
                                             "POST, PATCH, DELETE",
                                             "GET, POST, PATCH, DELETE"};

bool matches(std::string_view pattern, const std::vector<std::string>& parts) {
    for (const std::string& part : parts) {
        if (pattern.empty()) {
            return false;
        }
        const std::size_t slash = pattern.find('/');
        const std::string_view segment = pattern.substr(0, slash);
        if (segment != "*" && segment != part) {
            return false;
        }
        pattern = slash == std::string_view::npos ? std::string_view() : pattern.substr(slash + 1);
    }
    return pattern.empty();
}

}  // namespace

std::string_view roleName(Role role) {
    return kRoleNames[static_cast<std::size_t>(role)];
}

std::optional<Role> roleNamed(std::string_view name) {
    const auto found = std::find(kRoleNames.begin(), kRoleNames.end(), name);
    return found == kRoleNames.end() ? std::nullopt
                                     : std::optional(static_cast<Role>(found - kRoleNames.begin()));
}

bool allows(Role role, Need need) {
    switch (role) {
        case Role::read:
            return need == Need::catalogue || need == Need::deviceData;
        case Role::support:
            return need == Need::catalogue || need == Need::deviceData || need == Need::replay;
        case Role::campaigns:
            return need == Need::catalogue || need == Need::editCatalogue;
        case Role::admin:
            return true;
    }
    return false;
}

RouteMatch matchAdminRoute(std::string_view method, const std::vector<std::string>& parts) {
    RouteMatch match;
    std::size_t methods = 0;
    for (const AdminRoute& route : kAdminRoutes) {
        if (!matches(route.pattern, parts)) {
            continue;
        }
        if (route.method == method) {
            match.route = &route;
            return match;
        }
        methods |=
            std::size_t{1} << (std::find(kMethods.begin(), kMethods.end(), route.method) - kMethods.begin());
    }
    match.allow = kAllow[methods];
    return match;
}

bool changesState(std::string_view method) {
    return method != "GET" && method != "HEAD";
}

}  // namespace tovrel::server
