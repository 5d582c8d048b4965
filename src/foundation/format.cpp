#include "foundation/format.h"

#include <array>
#include <charconv>
#include <cmath>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <optional>
#include <system_error>

namespace tovrel {

std::string strprintf(const char* format, ...) {
    va_list args;
    va_start(args, format);
    va_list copy;
    va_copy(copy, args);
    // Most texts fit here, and are formatted once instead of measured first.
    std::array<char, 256> small;
    const int size = std::vsnprintf(small.data(), small.size(), format, args);
    va_end(args);
    std::string out;
    if (size > 0 && static_cast<std::size_t>(size) < small.size()) {
        out.assign(small.data(), static_cast<std::size_t>(size));
    } else if (size > 0) {
        out.resize(static_cast<std::size_t>(size));
        std::vsnprintf(out.data(), out.size() + 1, format, copy);
    }
    va_end(copy);
    return out;
}

namespace {

/// Fixed-point with `decimals` digits after the point, as printf's "%.*f" writes it (to_chars rounds
/// the exact binary value the same way, ties to even); nothing for what it leaves to printf.
std::optional<std::string> fixed(double value, int decimals) {
    std::array<char, 64> buffer;
    if (!std::isfinite(value)) {
        return std::nullopt;
    }
    const auto written = std::to_chars(buffer.data(), buffer.data() + buffer.size(), value,
                                       std::chars_format::fixed, decimals);
    if (written.ec != std::errc()) {
        return std::nullopt;
    }
    return std::string(buffer.data(), written.ptr);
}

__extension__ typedef unsigned __int128 Uint128;

/// "%f" of `value` when |value| < 1e12, computed exactly: value = m · 2^e, so value · 10^6 = m · 10^6 ·
/// 2^e is an exact 128-bit fraction, rounded half to even as printf rounds. False outside that range.
bool appendFixed6Exact(std::string& out, double value) {
    if (!(std::abs(value) < 1e12)) {
        return false;
    }
    int exponent = 0;
    const double fraction = std::frexp(std::abs(value), &exponent);
    // |value| = mantissa · 2^(exponent - 53), mantissa a 53-bit integer.
    const auto mantissa = static_cast<std::uint64_t>(std::ldexp(fraction, 53));
    const int shift = 53 - exponent;
    const Uint128 scaled = static_cast<Uint128>(mantissa) * 1'000'000U;
    Uint128 micros = 0;
    if (shift <= 0) {
        micros = scaled << -shift;
    } else if (shift < 127) {
        const Uint128 one = 1;
        micros = scaled >> shift;
        const Uint128 rest = scaled & ((one << shift) - 1);
        const Uint128 half = one << (shift - 1);
        if (rest > half || (rest == half && (micros & 1U) != 0)) {
            ++micros;
        }
    }
    const auto whole = static_cast<std::uint64_t>(micros / 1'000'000U);
    const auto decimals = static_cast<std::uint32_t>(micros % 1'000'000U);
    char buffer[40];
    char* end = buffer;
    if (std::signbit(value)) {
        *end++ = '-';
    }
    end = std::to_chars(end, buffer + sizeof buffer, whole).ptr;
    *end++ = '.';
    for (std::uint32_t divisor = 100'000; divisor > 0; divisor /= 10) {
        *end++ = static_cast<char>('0' + decimals / divisor % 10);
    }
    out.append(buffer, static_cast<std::size_t>(end - buffer));
    return true;
}

}  // namespace

void appendFormatF(std::string& out, double value) {
    if (appendFixed6Exact(out, value)) {
        return;
    }
    const auto text = fixed(value, 6);
    out += text ? *text : strprintf("%f", value);
}

void appendFormat0f(std::string& out, double value) {
    // Below 2^53 every double rounds to an integer a 64-bit integer holds; nearbyint rounds half to
    // even, as printf does.
    if (std::abs(value) < 9007199254740992.0) {
        const double whole = std::nearbyint(value);
        if (whole == 0 && std::signbit(value)) {
            out += "-0";
            return;
        }
        char buffer[24];
        const auto result = std::to_chars(buffer, buffer + sizeof buffer, static_cast<long long>(whole));
        out.append(buffer, static_cast<std::size_t>(result.ptr - buffer));
        return;
    }
    const auto text = fixed(value, 0);
    out += text ? *text : strprintf("%0.f", value);
}

std::string formatF(double value) {
    std::string out;
    appendFormatF(out, value);
    return out;
}
std::string format0f(double value) {
    std::string out;
    appendFormat0f(out, value);
    return out;
}
std::string formatD(int value) {
    return strprintf("%d", value);
}
std::string formatLd(long value) {
    return strprintf("%ld", value);
}

}  // namespace tovrel
