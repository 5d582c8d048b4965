#pragma once

#include <memory>
#include <nlohmann/json.hpp>
#include <string>

#include "tovrel/export.h"
#include "tovrel/place_record.h"
#include "tovrel/platform/location.h"

namespace tovrel {

/// A place target: a geofenced circle with the offer that belongs to it. The offer fields hold the
/// place record's values as they stand (a string, a number, or null for nothing); only the centre,
/// radius, `linked`, `dwelltime` and `eventTypeId` are ever read as numbers.
struct TOVREL_EXPORT hRegion {
    platform::Coordinate center;
    double radius = 0;       ///< metres
    std::string identifier;  ///< "target" for every place target

    nlohmann::json eventId;
    nlohmann::json alertText;
    nlohmann::json eventName;
    nlohmann::json mediaType;
    nlohmann::json mediaURL;
    nlohmann::json placeId;
    nlohmann::json campaignName;
    nlohmann::json tags;
    nlohmann::json centroidLat;
    nlohmann::json centroidLon;
    nlohmann::json centroidRadius;
    nlohmann::json startDate;
    nlohmann::json endDate;
    long linked = 0;       ///< non-zero when the device is already linked to this target
    long dwelltime = 0;    ///< minutes inside before the visit is linked; 0 or less: at once
    long eventTypeId = 0;  ///< 1, 2 or 3: how the offer is delivered

    /// Builds a target from one record of a service answer's "places". `centroidLon` ends up holding
    /// the record's "endDate", and `campaignName`, `tags`, `startDate` and `endDate` stay null: the
    /// record's later fields are all written into `centroidLon`, in order, and that is kept as it is.
    static std::shared_ptr<hRegion> fromPlaceRecord(const nlohmann::json& record);
    /// The same from a record already read; its values move into the target.
    static std::shared_ptr<hRegion> fromRecord(PlaceRecord place);
};

inline constexpr const char* kTargetIdentifier = "target";

}  // namespace tovrel
