#include "targeting/proximity_policy.h"

#include <charconv>
#include <cmath>
#include <cstdint>

#include "foundation/format.h"
#include "foundation/json_writer.h"
#include "foundation/value.h"
#include "tovrel/region.h"

namespace tovrel::targeting {

namespace accuracy = platform::accuracy;

std::optional<LocationSettings> accuracyLadder(double nearest, bool accuracyError) {
    const auto coarse = [accuracyError](double level) {
        return accuracyError ? accuracy::kNearestTenMeters : level;
    };
    if (nearest < 300) {
        return LocationSettings{accuracy::kNearestTenMeters, 10};
    }
    if (nearest > 300 && nearest < 500) {
        return LocationSettings{coarse(accuracy::kHundredMeters), 300};
    }
    if (nearest > 500 && nearest < 1000) {
        return LocationSettings{coarse(accuracy::kKilometer), 500};
    }
    if (nearest > 1000) {
        return LocationSettings{coarse(accuracy::kThreeKilometers), 1000};
    }
    return std::nullopt;
}

std::string offerMessage(const nlohmann::json& eventName, const nlohmann::json& alertText) {
    return describe(eventName) + "\n" + describe(alertText);
}

// Written as text: thousands of records go out at once, and a tree of them is several times their size.
void writeJson(std::string& out, const HistoryRecord& record) {
    const auto member = [&out](std::string_view name, const std::string& value, bool first = false) {
        appendMemberName(out, name, first);
        appendJsonString(out, value);
    };
    out += '{';
    member("distance_from_target", formatF(record.distance), true);
    member("lat", formatF(record.latitude));
    member("lng", formatF(record.longitude));
    member("location_accuracy", format0f(record.desiredAccuracy));
    member("location_distancefilter", format0f(record.distanceFilter));
    member("target_size", formatF(record.radius));
    member("timestamp", format0f(record.timestamp));
    out += '}';
}

void writeJson(std::string& out, const TargetRecord& record) {
    const hRegion* target = record.target.get();
    out += '{';
    appendMemberName(out, "event_centroidlat", true);
    appendJsonString(out, formatF(target != nullptr ? target->center.latitude : 0.0));
    appendMemberName(out, "event_centroidlon");
    appendJsonString(out, formatF(target != nullptr ? target->center.longitude : 0.0));
    appendMemberName(out, "event_id");
    appendJson(out, target != nullptr ? target->eventId : nlohmann::json());
    appendMemberName(out, "timestamp");
    appendJsonString(out, format0f(record.timestamp));
    out += '}';
}

nlohmann::json toJson(const HistoryRecord& record) {
    std::string text;
    writeJson(text, record);
    return nlohmann::json::parse(text);
}

nlohmann::json toJson(const TargetRecord& record) {
    std::string text;
    writeJson(text, record);
    return nlohmann::json::parse(text);
}

namespace {

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

void appendFixed6(std::string& out, double value) {
    if (appendFixed6Exact(out, value)) {
        return;
    }
    // Wide enough for "%f" of any double: 309 integer digits, sign, point and six decimals.
    char buffer[330];
    const auto result = std::to_chars(buffer, buffer + sizeof buffer, value, std::chars_format::fixed, 6);
    out.append(buffer, static_cast<std::size_t>(result.ptr - buffer));
}

void appendNearestTargetMessage(std::string& out, double distance, double desiredAccuracy,
                                double distanceFilter, double radius) {
    out.append("\n\ncurrent distance in meters to closest target: ");
    appendFixed6(out, distance);
    out.append("\ncurrent accuracy: ");
    appendFixed6(out, desiredAccuracy);
    out.append("\ncurrent distance filter: ");
    appendFixed6(out, distanceFilter);
    out.append("\ncurrent target bounds area^: ");
    appendFixed6(out, radius);
    out.append("\n\n");
}

std::string nearestTargetMessage(double distance, double desiredAccuracy, double distanceFilter,
                                 double radius) {
    std::string message;
    appendNearestTargetMessage(message, distance, desiredAccuracy, distanceFilter, radius);
    return message;
}

}  // namespace tovrel::targeting
