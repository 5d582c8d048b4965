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
    // The values are formatted numbers: plain ASCII, quoted as they stand.
    const auto member = [&out](std::string_view name, double value, void (*format)(std::string&, double),
                               bool first = false) {
        appendMemberName(out, name, first);
        out += '"';
        format(out, value);
        out += '"';
    };
    out += '{';
    member("distance_from_target", record.distance, appendFormatF, true);
    member("lat", record.latitude, appendFormatF);
    member("lng", record.longitude, appendFormatF);
    member("location_accuracy", record.desiredAccuracy, appendFormat0f);
    member("location_distancefilter", record.distanceFilter, appendFormat0f);
    member("target_size", record.radius, appendFormatF);
    member("timestamp", record.timestamp, appendFormat0f);
    out += '}';
}

void writeJson(std::string& out, const TargetRecord& record) {
    const hRegion* target = record.target.get();
    out += '{';
    appendMemberName(out, "event_centroidlat", true);
    out += '"';
    appendFormatF(out, target != nullptr ? target->center.latitude : 0.0);
    out += '"';
    appendMemberName(out, "event_centroidlon");
    out += '"';
    appendFormatF(out, target != nullptr ? target->center.longitude : 0.0);
    out += '"';
    appendMemberName(out, "event_id");
    appendJson(out, target != nullptr ? target->eventId : nlohmann::json());
    appendMemberName(out, "timestamp");
    out += '"';
    appendFormat0f(out, record.timestamp);
    out += '"';
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

void appendNearestTargetMessage(std::string& out, double distance, double desiredAccuracy,
                                double distanceFilter, double radius) {
    out.append("\n\ncurrent distance in meters to closest target: ");
    appendFormatF(out, distance);
    out.append("\ncurrent accuracy: ");
    appendFormatF(out, desiredAccuracy);
    out.append("\ncurrent distance filter: ");
    appendFormatF(out, distanceFilter);
    out.append("\ncurrent target bounds area^: ");
    appendFormatF(out, radius);
    out.append("\n\n");
}

std::string nearestTargetMessage(double distance, double desiredAccuracy, double distanceFilter,
                                 double radius) {
    std::string message;
    appendNearestTargetMessage(message, distance, desiredAccuracy, distanceFilter, radius);
    return message;
}

}  // namespace tovrel::targeting
