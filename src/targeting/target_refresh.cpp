#include "targeting/monitor_support.h"
#include "targeting/shared_targets.h"
#include "tovrel/data_service.h"
#include "tovrel/location_manager.h"
#include "tovrel/region.h"

namespace tovrel {

void LocationManager::getTargets() {
    const auto& prefs = *platform_.preferences;
    const auto location = targeting::storedLocation(prefs);
    if (!location) {
        return;
    }
    service_.getLocationsWithLocation(
        *location, storedSessionKey(prefs),
        [self = shared_from_this()](std::vector<PlaceRecord> places, const ServiceError& error) {
            if (error) {
                return;
            }
            self->replaceTargets(std::move(places));
        });
}

void LocationManager::replaceTargets(std::vector<PlaceRecord> places) {
    std::vector<std::shared_ptr<hRegion>> fresh;
    fresh.reserve(places.size());
    for (PlaceRecord& record : places) {
        auto target = hRegion::fromRecord(std::move(record));
        if (target->linked == 0) {
            fresh.push_back(std::move(target));
        }
    }
    // The ranking data is worked out before the lock is taken.
    targeting::TargetList list;
    list.assign(fresh);
    targets_->replace(std::move(list));
}

}  // namespace tovrel
