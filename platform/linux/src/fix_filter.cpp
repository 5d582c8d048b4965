#include "tovrel/linux/fix_filter.h"

#include <cmath>

#include "tovrel/platform/distance.h"
#include "tovrel/platform/distance_filter.h"

namespace tovrel::linuxbackend {

double metresBetween(const platform::Coordinate& a, const platform::Coordinate& b) {
    return platform::haversineMetres(a, b);
}

bool FixFilter::accept(const platform::Location& fix, const FixFilterSettings& settings) {
    if (!settings.standardUpdates && !settings.significantChanges) {
        return false;
    }
    if (!(fix.horizontalAccuracy >= 0) || !std::isfinite(fix.coordinate.latitude) ||
        !std::isfinite(fix.coordinate.longitude)) {
        return false;
    }
    const bool accurateEnough =
        settings.desiredAccuracy <= 0 || fix.horizontalAccuracy <= settings.desiredAccuracy;
    if (accurateEnough) {
        lastAccurateSeen_ = fix.timestamp;
    } else if (fix.timestamp - lastAccurateSeen_ < grace_) {
        return false;
    }
    if (!platform::passesDistanceFilter(lastDelivered_ ? &lastDelivered_->coordinate : nullptr,
                                        fix.coordinate, settings.standardUpdates, settings.significantChanges,
                                        settings.distanceFilter)) {
        return false;
    }
    lastDelivered_ = fix;
    return true;
}

}  // namespace tovrel::linuxbackend
