#include "foundation/format.h"

#include <cstdarg>
#include <cstdio>

namespace tovrel {

std::string strprintf(const char* format, ...) {
    va_list args;
    va_start(args, format);
    va_list copy;
    va_copy(copy, args);
    const int size = std::vsnprintf(nullptr, 0, format, copy);
    va_end(copy);
    std::string out;
    if (size > 0) {
        out.resize(static_cast<std::size_t>(size));
        std::vsnprintf(out.data(), out.size() + 1, format, args);
    }
    va_end(args);
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
