#pragma once

#include <string>
#include <string_view>

#include "tovrel/export.h"
#include "tovrel/platform/http.h"

namespace tovrel::curl {

/// Judges a server's answer to a JSON request: success only for a 2xx `status` whose `body` is JSON
/// (any value, fragments included), checked without being parsed into a tree. A status outside 2xx is
/// kStatus (a JSON {"error": "..."} body is quoted in the description); an empty or malformed 2xx body
/// is kBadBody. The body is kept as `text` in every case. `hostPort` ("127.0.0.1:8080") names the
/// server in descriptions. Pure; any thread.
TOVREL_EXPORT platform::JsonResult classifyJsonResponse(int status, std::string body,
                                                        std::string_view hostPort);

/// The standard reason phrase of an HTTP status ("Service Unavailable"), or "" when unknown.
TOVREL_EXPORT std::string_view httpReasonPhrase(int status);

}  // namespace tovrel::curl
