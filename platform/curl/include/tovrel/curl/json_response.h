#pragma once

#include <string_view>

#include "tovrel/export.h"
#include "tovrel/platform/http.h"

namespace tovrel::curl {

/// Judges a server's answer to a JSON request: success only for a 2xx `status` whose `body` parses as
/// JSON (any value, fragments included). A status outside 2xx is kStatus (the parsed error body, if
/// any, in `value`; a JSON {"error": "..."} is quoted in the description); an empty or malformed 2xx
/// body is kBadBody. `hostPort` ("127.0.0.1:8080") names the server in descriptions. Pure; any thread.
TOVREL_EXPORT platform::JsonResult classifyJsonResponse(int status, std::string_view body,
                                                        std::string_view hostPort);

/// The standard reason phrase of an HTTP status ("Service Unavailable"), or "" when unknown.
TOVREL_EXPORT std::string_view httpReasonPhrase(int status);

}  // namespace tovrel::curl
