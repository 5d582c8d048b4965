#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "tovrel/protocol.h"

namespace tovrel::server {

/// What a request was, as the metrics and the access log name it.
enum class Route : std::uint8_t {
    session,
    place,
    link,
    update,
    clear,
    tagUpdate,
    tagDelete,
    log,
    page,
    admin,
    health,
    metrics,
    other,
};
inline constexpr std::size_t kRouteCount = static_cast<std::size_t>(Route::other) + 1;

/// The largest request body a listener reads unless its handler admits less.
inline constexpr std::size_t kMaxRequestBody = 1024 * 1024;

/// The largest /v1/log body accepted; a diagnostics message is a few hundred bytes.
inline constexpr std::size_t kMaxLogBody = 256 * 1024;

/// One endpoint of the public listener's JSON API, read by every part of the server that treats
/// endpoints apart: the HTTP front (its body limit, before the body is read), the service (whether
/// memory may answer it, whether it writes) and the metrics (its label is its path).
struct ApiRoute {
    std::string_view path;
    Route route;
    std::size_t bodyLimit;
    /// The connection's thread may answer it from memory: a known session's places, refusals.
    bool fromMemory;
    /// It writes to the database: refused at once while the database is known to be busy.
    bool writes;
};

/// Every endpoint is a POST of a JSON object.
inline constexpr std::string_view kApiMethod = "POST";

/// The JSON API, in the order of the Route values it names.
inline constexpr std::array<ApiRoute, 8> kApiRoutes = {{
    {protocol::kSessionPath, Route::session, kMaxRequestBody, true, true},
    {protocol::kPlacePath, Route::place, kMaxRequestBody, true, false},
    {protocol::kLinkPath, Route::link, kMaxRequestBody, false, true},
    {protocol::kLinkStatusPath, Route::update, kMaxRequestBody, false, true},
    {protocol::kClearLinksPath, Route::clear, kMaxRequestBody, false, true},
    {protocol::kTagUpdatePath, Route::tagUpdate, kMaxRequestBody, false, true},
    {protocol::kTagDeletePath, Route::tagDelete, kMaxRequestBody, false, true},
    {protocol::kLogPath, Route::log, kMaxLogBody, true, true},
}};

/// The endpoint at `path` (without a query); null when there is none. Pure; any thread.
const ApiRoute* findApiRoute(std::string_view path);

}  // namespace tovrel::server
