#pragma once

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
    const double moved = haversineMetres(*lastDelivered, next);
    if (standardUpdates) {
        return distanceFilter <= 0 || moved >= distanceFilter;
    }
    return moved >= kSignificantChangeMeters;
}

}  // namespace tovrel::platform
