#pragma once

#include <charconv>
#include <cstdint>
#include <optional>
#include <string_view>
#include <system_error>

namespace tovrel::platform {

/// Reads `text`, all of it, as a double exactly as std::from_chars does (correctly rounded; nullopt for
/// text it does not read whole or a result out of range). Plain decimals of up to 15 significant
/// digits scaled by at most 10^22 take a short way: both are exact doubles, and IEEE arithmetic rounds
/// their product or quotient correctly too, several times faster than the general conversion. Pure;
/// any thread.
[[nodiscard]] inline std::optional<double> readDouble(std::string_view text) {
    static constexpr double kPowersOfTen[] = {1e0,  1e1,  1e2,  1e3,  1e4,  1e5,  1e6,  1e7,
                                              1e8,  1e9,  1e10, 1e11, 1e12, 1e13, 1e14, 1e15,
                                              1e16, 1e17, 1e18, 1e19, 1e20, 1e21, 1e22};
    const char* p = text.data();
    const char* const end = p + text.size();
    const bool negative = p != end && *p == '-';
    p += negative ? 1 : 0;
    std::uint64_t mantissa = 0;
    int significant = 0;
    int power = 0;
    int digits = 0;
    const auto readDigits = [&](bool fraction) {
        const char* first = p;
        for (; p != end && *p >= '0' && *p <= '9'; ++p) {
            if (significant <= 15) {
                mantissa = mantissa * 10 + static_cast<unsigned>(*p - '0');
                significant += mantissa != 0 ? 1 : 0;
                power -= fraction ? 1 : 0;
            } else if (!fraction) {
                ++power;
            }
        }
        digits += static_cast<int>(p - first);
        return p != first;
    };
    bool plain = readDigits(false);
    if (plain && p != end && *p == '.') {
        ++p;
        plain = readDigits(true);
    }
    if (plain && p != end && (*p == 'e' || *p == 'E')) {
        ++p;
        const bool below = p != end && *p == '-';
        p += p != end && (*p == '+' || *p == '-') ? 1 : 0;
        int exponent = 0;
        const char* first = p;
        for (; p != end && *p >= '0' && *p <= '9'; ++p) {
            exponent = exponent < 100'000 ? exponent * 10 + (*p - '0') : exponent;
        }
        plain = p != first;
        power += below ? -exponent : exponent;
    }
    if (plain && p == end && significant <= 15 && power >= -22 && power <= 22) {
        const auto whole = static_cast<double>(mantissa);
        const double magnitude = power < 0 ? whole / kPowersOfTen[-power] : whole * kPowersOfTen[power];
        return negative ? -magnitude : magnitude;
    }
    double value = 0;
    const auto read = std::from_chars(text.data(), end, value);
    if (read.ec != std::errc() || read.ptr != end) {
        return std::nullopt;
    }
    return value;
}

}  // namespace tovrel::platform
