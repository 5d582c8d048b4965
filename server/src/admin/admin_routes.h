#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tovrel::server {

/// What an admin token may do. `read`: the catalogue, the funnel and a device's data (look up, day,
/// export). `support`: read, and the replay routes. `campaigns`: the catalogue, read and changed, and the
/// funnel. `admin`: everything, erasure, webhooks, tokens and the audit trail included.
enum class Role : std::uint8_t { read, support, campaigns, admin };

/// "read", "support", "campaigns", "admin". Pure.
std::string_view roleName(Role role);
/// The role named `name`; nullopt for any other text. Pure.
std::optional<Role> roleNamed(std::string_view name);

/// What a route needs of a token's role.
enum class Need : std::uint8_t {
    catalogue,      ///< list and read apps, campaigns, offers, places; the funnel
    deviceData,     ///< look a device up, read its day, export it
    replay,         ///< run a device's day again
    editCatalogue,  ///< change apps, campaigns, offers, places; import place files
    admin,          ///< erase a device; webhooks, tokens, the audit trail
};

/// Whether `role` may do what `need` names. Pure.
bool allows(Role role, Need need);

/// One route of the admin API: a method and a path under /admin/v1/ whose segments are literal or "*"
/// (any one segment), what it needs, and the name the audit trail gives what it does.
struct AdminRoute {
    std::string_view method;
    std::string_view pattern;
    Need need;
    std::string_view action;
};

/// Every route of the admin API. The handlers answer these and no other; a path that matches none is 404,
/// a path that matches with another method 405.
inline constexpr std::array<AdminRoute, 43> kAdminRoutes{{
    {"GET", "apps", Need::catalogue, "apps.list"},
    {"POST", "apps", Need::editCatalogue, "apps.add"},
    {"DELETE", "apps/*", Need::editCatalogue, "apps.remove"},
    {"POST", "apps/*/rotate", Need::editCatalogue, "apps.rotate"},
    {"POST", "apps/*/disable", Need::editCatalogue, "apps.disable"},
    {"POST", "apps/*/enable", Need::editCatalogue, "apps.enable"},
    {"GET", "campaigns", Need::catalogue, "campaigns.list"},
    {"POST", "campaigns", Need::editCatalogue, "campaigns.save"},
    {"GET", "campaigns/*", Need::catalogue, "campaigns.show"},
    {"DELETE", "campaigns/*", Need::editCatalogue, "campaigns.remove"},
    {"POST", "campaigns/*/disable", Need::editCatalogue, "campaigns.disable"},
    {"POST", "campaigns/*/enable", Need::editCatalogue, "campaigns.enable"},
    {"GET", "offers", Need::catalogue, "offers.list"},
    {"DELETE", "offers/*", Need::editCatalogue, "offers.remove"},
    {"POST", "offers/*/disable", Need::editCatalogue, "offers.disable"},
    {"POST", "offers/*/enable", Need::editCatalogue, "offers.enable"},
    {"GET", "places", Need::catalogue, "places.list"},
    {"POST", "places", Need::editCatalogue, "places.save"},
    {"GET", "places/*", Need::catalogue, "places.show"},
    {"DELETE", "places/*", Need::editCatalogue, "places.remove"},
    {"POST", "places/*/disable", Need::editCatalogue, "places.disable"},
    {"POST", "places/*/enable", Need::editCatalogue, "places.enable"},
    {"POST", "import", Need::editCatalogue, "import"},
    {"GET", "catalogue", Need::catalogue, "catalogue.export"},
    {"POST", "preview", Need::editCatalogue, "catalogue.preview"},
    {"GET", "funnel", Need::catalogue, "funnel"},
    {"GET", "devices/*", Need::deviceData, "devices.show"},
    {"GET", "devices/*/day", Need::deviceData, "devices.day"},
    {"GET", "devices/*/export", Need::deviceData, "devices.export"},
    {"DELETE", "devices/*", Need::admin, "devices.erase"},
    {"GET", "webhooks", Need::admin, "webhooks.list"},
    {"POST", "webhooks", Need::admin, "webhooks.add"},
    {"GET", "webhooks/*", Need::admin, "webhooks.show"},
    {"PATCH", "webhooks/*", Need::admin, "webhooks.change"},
    {"DELETE", "webhooks/*", Need::admin, "webhooks.remove"},
    {"POST", "webhooks/*/rotate", Need::admin, "webhooks.rotate"},
    {"POST", "webhooks/*/test", Need::admin, "webhooks.test"},
    {"POST", "webhooks/*/replay", Need::admin, "webhooks.replay"},
    {"GET", "webhooks/*/attempts", Need::admin, "webhooks.attempts"},
    {"GET", "tokens", Need::admin, "tokens.list"},
    {"POST", "tokens", Need::admin, "tokens.add"},
    {"DELETE", "tokens/*", Need::admin, "tokens.revoke"},
    {"GET", "audit", Need::admin, "audit.list"},
}};

/// How a request stands with the route table.
struct RouteMatch {
    const AdminRoute* route = nullptr;  ///< the route; null when none has the request's method
    const char* allow = nullptr;        ///< when there is none: the methods the path has (null for none)
};

/// The route of `method` on a path split into its decoded segments after /admin/v1/. Pure.
RouteMatch matchAdminRoute(std::string_view method, const std::vector<std::string>& parts);

/// Whether a request changes state (and goes into the audit trail): any method but GET and HEAD. Pure.
bool changesState(std::string_view method);

}  // namespace tovrel::server
