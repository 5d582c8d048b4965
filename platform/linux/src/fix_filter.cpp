#include "tovrel/linux/fix_filter.h"

#include <cmath>

namespace tovrel::linuxbackend {

double metresBetween(const platform::Coordinate& a, const platform::Coordinate& b) {
    constexpr double kRadians = 0.017453292519943295;
    const double dLat = (b.latitude - a.latitude) * kRadians;
    const double dLon = (b.longitude - a.longitude) * kRadians;
    const double s = std::sin(dLat / 2) * std::sin(dLat / 2) + std::cos(a.latitude * kRadians) *
                                                                   std::cos(b.latitude * kRadians) *
                                                                   std::sin(dLon / 2) * std::sin(dLon / 2);
    return 6371000.0 * 2 * std::atan2(std::sqrt(s), std::sqrt(1 - s));
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
    if (lastDelivered_) {
        const double moved = metresBetween(lastDelivered_->coordinate, fix.coordinate);
        const bool passes = settings.standardUpdates
                                ? (settings.distanceFilter <= 0 || moved >= settings.distanceFilter)
                                : moved >= kSignificantChangeMeters;
        if (!passes) {
            return false;
        }
    }
    lastDelivered_ = fix;
    return true;
}

}  // namespace tovrel::linuxbackend
