#pragma once

#include <cstdint>
#include <string>

namespace tovrel::server {

struct ListenAddress {
    std::string host;
    uint16_t port = 0;
};

/// Parses "127.0.0.1:8080", "[::1]:8080" or ":8080" (all IPv4 interfaces is not assumed: an empty
/// host means 127.0.0.1). Throws std::invalid_argument with a sentence naming the fault.
ListenAddress parseListenAddress(const std::string& text);

}  // namespace tovrel::server
