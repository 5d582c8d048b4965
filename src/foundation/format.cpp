#include "foundation/format.h"

#include <array>
#include <cstdarg>
#include <cstdio>

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

std::string formatF(double value) {
    return strprintf("%f", value);
}
std::string format0f(double value) {
    return strprintf("%0.f", value);
}
std::string formatD(int value) {
    return strprintf("%d", value);
}
std::string formatLd(long value) {
    return strprintf("%ld", value);
}

}  // namespace tovrel
