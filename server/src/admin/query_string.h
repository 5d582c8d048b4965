#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace tovrel::server {

/// The value of parameter `name` in the query of a request target ("/x?a=1&b=%20"), percent-decoded; "1"
/// for a parameter without '=', "" when it is absent or its escapes are malformed. Pure.
std::string queryValue(std::string_view target, std::string_view name);

/// Parameter `name` as a whole number from 1 to `most`; `fallback` when it is absent. Throws ApiError 400
/// naming the parameter otherwise. Pure.
int64_t countParameter(std::string_view target, std::string_view name, int64_t fallback,
                       int64_t most = INT64_MAX);

}  // namespace tovrel::server
