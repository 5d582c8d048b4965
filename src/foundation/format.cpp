#include "foundation/format.h"

#include <array>
#include <charconv>
#include <cmath>
#include <cstdarg>
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

}  // namespace

std::string formatF(double value) {
    auto text = fixed(value, 6);
    return text ? std::move(*text) : strprintf("%f", value);
}
std::string format0f(double value) {
    auto text = fixed(value, 0);
    return text ? std::move(*text) : strprintf("%0.f", value);
}
std::string formatD(int value) {
    return strprintf("%d", value);
}
std::string formatLd(long value) {
    return strprintf("%ld", value);
}

}  // namespace tovrel
