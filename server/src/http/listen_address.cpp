#include "http/listen_address.h"

#include <charconv>
#include <stdexcept>

namespace tovrel::server {

ListenAddress parseListenAddress(const std::string& text) {
    const std::size_t colon = text.rfind(':');
    const std::size_t bracket = text.rfind(']');
    if (colon == std::string::npos || (bracket != std::string::npos && colon < bracket)) {
        throw std::invalid_argument("listen address \"" + text +
                                    "\" lacks a port (use HOST:PORT, e.g. 127.0.0.1:8080)");
    }
    ListenAddress result;
    result.host = text.substr(0, colon);
    if (result.host.size() >= 2 && result.host.front() == '[' && result.host.back() == ']') {
        result.host = result.host.substr(1, result.host.size() - 2);
    } else if (result.host.find(':') != std::string::npos) {
        throw std::invalid_argument("listen address \"" + text +
                                    "\": write IPv6 addresses in brackets, e.g. [::1]:8080");
    }
    if (result.host.empty()) {
        result.host = "127.0.0.1";
    }
    const std::string port = text.substr(colon + 1);
    unsigned value = 0;
    const auto [end, ec] = std::from_chars(port.data(), port.data() + port.size(), value);
    if (port.empty() || ec != std::errc() || end != port.data() + port.size() || value > 65535) {
        throw std::invalid_argument("listen address \"" + text +
                                    "\": the port must be a number from 0 to 65535");
    }
    result.port = static_cast<uint16_t>(value);
    return result;
}

}  // namespace tovrel::server
