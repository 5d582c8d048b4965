#include "tovrel/region.h"

#include "foundation/value.h"

namespace tovrel {

std::shared_ptr<hRegion> hRegion::fromPlaceRecord(const nlohmann::json& record) {
    const auto raw = [&record](const char* key) { return memberOrNull(record, key); };
    auto target = std::make_shared<hRegion>();
    target->center = {doubleValueFor(record, "centroidLat"), doubleValueFor(record, "centroidLon")};
    target->radius = doubleValueFor(record, "centroidRadius");
    target->identifier = kTargetIdentifier;

    target->eventId = raw("eventId");
    target->placeId = raw("placeId");
    target->alertText = raw("alertText");
    target->centroidLat = raw("centroidLat");
    target->eventName = raw("eventName");
    target->mediaType = raw("mediaType");
    target->mediaURL = raw("mediaURL");
    // centroidLon, then the five later fields (placeId, campaignName, tags, startDate, endDate), have
    // always been written into centroidLon in turn: only the last stays, so only it is copied.
    target->centroidLon = raw("endDate");

    target->linked = intValueFor(record, "isLinked");
    target->dwelltime = intValueFor(record, "dwellTime");
    target->eventTypeId = intValueFor(record, "eventTypeId");
    return target;
}

}  // namespace tovrel
