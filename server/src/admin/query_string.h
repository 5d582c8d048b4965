#pragma once

#include <string>
#include <string_view>

namespace tovrel::server {

/// The value of parameter `name` in the query of a request target ("/x?a=1&b=%20"), percent-decoded; "1"
/// for a parameter without '=', "" when it is absent or its escapes are malformed. Pure.
std::string queryValue(std::string_view target, std::string_view name);

}  // namespace tovrel::server
