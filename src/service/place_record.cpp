#include "tovrel/place_record.h"

#include "foundation/value.h"
#include "tovrel/protocol.h"

namespace tovrel {

PlaceRecord PlaceRecord::read(const nlohmann::json& record) {
    namespace field = protocol::place;
    const auto raw = [&record](const char* key) { return memberOrNull(record, key); };
    PlaceRecord out;
    out.centroidLat = raw(field::kLatitude);
    out.centroidLon = raw(field::kLongitude);
    out.latitude = doubleValue(out.centroidLat);
    out.longitude = doubleValue(out.centroidLon);
    out.radius = doubleValueFor(record, field::kRadius);
    out.dwellTime = intValueFor(record, field::kDwellTime);
    out.eventTypeId = intValueFor(record, field::kEventTypeId);
    out.placeId = raw(field::kPlaceId);
    out.eventId = raw(field::kEventId);
    out.eventName = raw(field::kEventName);
    out.alertText = raw(field::kAlertText);
    out.mediaType = raw(field::kMediaType);
    out.mediaURL = raw(field::kMediaURL);
    out.mediaUrl = raw(field::kMediaUrl);
    out.campaignName = raw(field::kCampaignName);
    out.endDate = raw(field::kEndDate);
    out.isLinked = raw(field::kIsLinked);
    return out;
}

}  // namespace tovrel
