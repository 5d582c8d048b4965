#include "foundation/value.h"

#include <cctype>
#include <charconv>
#include <cmath>
#include <limits>
#include <string_view>

namespace tovrel {
namespace {

const Json kNull;

std::string_view skipWhitespace(std::string_view text) {
    std::size_t i = 0;
    while (i < text.size() && std::isspace(static_cast<unsigned char>(text[i])) != 0) {
        ++i;
    }
    return text.substr(i);
}

/// Leading integer text, saturating at the bounds of T.
template <typename T>
T scanInteger(std::string_view text) {
    text = skipWhitespace(text);
    bool negative = false;
    if (!text.empty() && (text.front() == '+' || text.front() == '-')) {
        negative = text.front() == '-';
        text.remove_prefix(1);
    }
    T value = 0;
    for (char c : text) {
        if (c < '0' || c > '9') {
            break;
        }
        const T digit = c - '0';
        if (negative) {
            if (value < (std::numeric_limits<T>::min() + digit) / 10) {
                return std::numeric_limits<T>::min();
            }
            value = value * 10 - digit;
        } else {
            if (value > (std::numeric_limits<T>::max() - digit) / 10) {
                return std::numeric_limits<T>::max();
            }
            value = value * 10 + digit;
        }
    }
    return value;
}

/// Leading decimal floating-point text: [sign] digits [. digits] [e [sign] digits].
double scanDouble(std::string_view text) {
    text = skipWhitespace(text);
    bool negative = false;
    if (!text.empty() && (text.front() == '+' || text.front() == '-')) {
        negative = text.front() == '-';
        text.remove_prefix(1);
    }
    std::size_t end = 0;
    std::size_t digits = 0;
    while (end < text.size() && std::isdigit(static_cast<unsigned char>(text[end])) != 0) {
        ++end;
        ++digits;
    }
    if (end < text.size() && text[end] == '.') {
        ++end;
        while (end < text.size() && std::isdigit(static_cast<unsigned char>(text[end])) != 0) {
            ++end;
            ++digits;
        }
    }
    if (digits == 0) {
        return 0;
    }
    bool hugeExponent = false;
    if (end < text.size() && (text[end] == 'e' || text[end] == 'E')) {
        std::size_t exp = end + 1;
        if (exp < text.size() && (text[exp] == '+' || text[exp] == '-')) {
            hugeExponent = text[exp] == '+';
            ++exp;
        } else {
            hugeExponent = true;
        }
        const std::size_t expDigits = exp;
        while (exp < text.size() && std::isdigit(static_cast<unsigned char>(text[exp])) != 0) {
            ++exp;
        }
        if (exp > expDigits) {
            end = exp;
        }
    }
    double value = 0;
    const auto [ptr, ec] = std::from_chars(text.data(), text.data() + end, value);
    (void)ptr;
    if (ec == std::errc::result_out_of_range) {
        value = hugeExponent ? std::numeric_limits<double>::infinity() : 0.0;
    }
    return negative ? -value : value;
}

template <typename T>
T saturatingTruncation(double value) {
    if (std::isnan(value)) {
        return 0;
    }
    if (value >= static_cast<double>(std::numeric_limits<T>::max())) {
        return std::numeric_limits<T>::max();
    }
    if (value <= static_cast<double>(std::numeric_limits<T>::min())) {
        return std::numeric_limits<T>::min();
    }
    return static_cast<T>(value);
}

}  // namespace

long long integerValue(const Json& value) {
    switch (value.type()) {
        case Json::value_t::number_integer:
            return value.get<long long>();
        case Json::value_t::number_unsigned: {
            const auto u = value.get<unsigned long long>();
            return static_cast<long long>(u);
        }
        case Json::value_t::number_float:
            return saturatingTruncation<long long>(value.get<double>());
        case Json::value_t::boolean:
            return value.get<bool>() ? 1 : 0;
        case Json::value_t::string:
            return scanInteger<long long>(value.get_ref<const std::string&>());
        default:
            return 0;
    }
}

int intValue(const Json& value) {
    switch (value.type()) {
        case Json::value_t::number_integer:
        case Json::value_t::number_unsigned:
            return static_cast<int>(static_cast<std::uint32_t>(value.get<unsigned long long>()));
        case Json::value_t::number_float:
            return saturatingTruncation<int>(value.get<double>());
        case Json::value_t::boolean:
            return value.get<bool>() ? 1 : 0;
        case Json::value_t::string:
            return scanInteger<int>(value.get_ref<const std::string&>());
        default:
            return 0;
    }
}

double doubleValue(const Json& value) {
    switch (value.type()) {
        case Json::value_t::number_integer:
        case Json::value_t::number_unsigned:
        case Json::value_t::number_float:
            return value.get<double>();
        case Json::value_t::boolean:
            return value.get<bool>() ? 1.0 : 0.0;
        case Json::value_t::string:
            return scanDouble(value.get_ref<const std::string&>());
        default:
            return 0;
    }
}

float floatValue(const Json& value) {
    return static_cast<float>(doubleValue(value));
}

const Json& memberOrNull(const Json& object, const char* key) {
    if (!object.is_object()) {
        return kNull;
    }
    const auto it = object.find(key);
    return it == object.end() ? kNull : *it;
}

long long integerValueFor(const Json& object, const char* key) {
    return integerValue(memberOrNull(object, key));
}
int intValueFor(const Json& object, const char* key) {
    return intValue(memberOrNull(object, key));
}
double doubleValueFor(const Json& object, const char* key) {
    return doubleValue(memberOrNull(object, key));
}
float floatValueFor(const Json& object, const char* key) {
    return floatValue(memberOrNull(object, key));
}

std::string describe(const Json& value) {
    switch (value.type()) {
        case Json::value_t::string:
            return value.get<std::string>();
        case Json::value_t::null:
        case Json::value_t::discarded:
            return "(null)";
        case Json::value_t::boolean:
            return value.get<bool>() ? "1" : "0";
        default:
            return value.dump(-1, ' ', false, Json::error_handler_t::replace);
    }
}

}  // namespace tovrel
