#pragma once

#include <cmath>

#include "tovrel/platform/distance.h"
#include "tovrel/platform/location.h"

namespace tovrel::platform {

/// How far a device moves before significant-change monitoring alone reports it, in metres.
inline constexpr double kSignificantChangeMeters = 500;

/// Any thread. Whether a location source delivers a fix at `next`, given the last fix it delivered
/// (null: none since updates started, so the fix passes) and what runs: with standard updates the
/// fix must lie at least `distanceFilter` metres away (zero or negative lets every fix through); with
/// significant-change monitoring alone, at least kSignificantChangeMeters; with neither, nothing
/// passes. A backend whose standard updates are paused passes `standardUpdates` false.
inline bool passesDistanceFilter(const Coordinate* lastDelivered, const Coordinate& next,
                                 bool standardUpdates, bool significantChanges, double distanceFilter) {
    if (!standardUpdates && !significantChanges) {
        return false;
    }
    if (lastDelivered == nullptr) {
        return true;
    }
    if (standardUpdates && distanceFilter <= 0) {
        return true;
    }
    const double threshold = standardUpdates ? distanceFilter : kSignificantChangeMeters;
    // Most fixes lie well inside the threshold: a bound without trigonometry (the way along the meridian,
    // then along a parallel no longer than the equator) settles those, with room for rounding.
    const double bound = kEarthRadiusKm * 1000 *
                         (std::abs(next.latitude - lastDelivered->latitude) +
                          std::abs(next.longitude - lastDelivered->longitude)) *
                         kDegreesToRadians;
    if (bound * (1 + 1e-9) < threshold) {
        return false;
    }
    return haversineMetres(*lastDelivered, next) >= threshold;
}

}  // namespace tovrel::platform
