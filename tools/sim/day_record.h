#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "route.h"

namespace tovrel::sim {

/// One position a device reported in its diagnostics.
struct DayPoint {
    double at = 0;  ///< seconds since 1970, the device's clock
    double latitude = 0;
    double longitude = 0;
    double accuracy = 0;  ///< metres the device asked for
};

/// A link the service stored that day.
struct RecordedLink {
    std::string eventId;
    std::string placeId;
    double linkedAt = 0;
    bool suppressed = false;
};

/// A device's day as the admin API answers it (GET /admin/v1/devices/ID/day): its positions by time and
/// the links the service stored.
struct DayRecord {
    std::string deviceId;
    std::string date;
    std::vector<DayPoint> positions;
    std::vector<RecordedLink> links;
};

/// Reads a day's JSON. Throws RouteError naming `name` when it is not such a document, has fewer than two
/// positions or spans more than two days. Pure.
DayRecord parseDayRecord(std::string_view text, const std::string& name);

/// The track the positions make: time 0 at the first, each position a route point. Pure.
Route routeOfDay(const DayRecord& day);

}  // namespace tovrel::sim
