#pragma once

#include <cmath>
#include <ctime>
#include <string>

namespace tovrel::server {

/// "YYYY-MM-DDTHH:MM:SSZ" of seconds since 1970 (the fraction dropped). Pure.
inline std::string isoTime(double seconds) {
    const auto whole = static_cast<std::time_t>(std::floor(seconds));
    std::tm utc{};
    gmtime_r(&whole, &utc);
    char text[32];
    std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &utc);
    return text;
}

}  // namespace tovrel::server
