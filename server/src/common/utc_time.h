#pragma once

#include <cmath>
#include <ctime>
#include <string>

namespace tovrel::server {

/// The UTC calendar fields of seconds since 1970 (the fraction dropped). Pure.
inline std::tm utcFields(double seconds) {
    const auto whole = static_cast<std::time_t>(std::floor(seconds));
    std::tm utc{};
    gmtime_r(&whole, &utc);
    return utc;
}

/// "YYYY-MM-DDTHH:MM:SSZ" of seconds since 1970 (the fraction dropped). Pure.
inline std::string isoTime(double seconds) {
    const std::tm utc = utcFields(seconds);
    char text[32];
    std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &utc);
    return text;
}

/// "YYYY-MM-DD", the UTC day of seconds since 1970. Pure.
inline std::string utcDay(double seconds) {
    const std::tm utc = utcFields(seconds);
    char text[16];
    std::strftime(text, sizeof text, "%Y-%m-%d", &utc);
    return text;
}

}  // namespace tovrel::server
