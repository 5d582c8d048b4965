#pragma once

#include <limits>
#include <optional>

#include "tovrel/export.h"
#include "tovrel/platform/distance_filter.h"
#include "tovrel/platform/location.h"

namespace tovrel::linuxbackend {

/// Great-circle distance in metres (haversine on a sphere of radius 6371 km). Pure.
TOVREL_EXPORT double metresBetween(const platform::Coordinate& a, const platform::Coordinate& b);

/// What one location manager asked for.
struct TOVREL_EXPORT FixFilterSettings {
    double desiredAccuracy = platform::accuracy::kBest;
    double distanceFilter = -1;  ///< metres; zero or negative lets every fix through
    bool standardUpdates = false;
    bool significantChanges = false;
};

/// The software stand-in for what a phone's location manager does with its settings, one per manager:
/// - nothing is delivered unless standard updates or significant-change monitoring run, and a fix
///   without a valid horizontal accuracy is never delivered;
/// - the distance from the last delivered fix is platform::passesDistanceFilter's: at least the
///   distance filter with standard updates, at least 500 m with significant-change monitoring alone;
/// - a fix less accurate than the desired accuracy is held back while fixes that meet it keep coming
///   (one was seen within the grace period); when none has come for that long, the best the source
///   has is delivered, as a phone does when it cannot reach the accuracy asked for.
/// The first fix after a reset passes the distance test. Not thread-safe (the caller locks).
class TOVREL_EXPORT FixFilter {
  public:
    static constexpr double kSignificantChangeMeters = platform::kSignificantChangeMeters;

    explicit FixFilter(double poorFixGraceSeconds = 10) : grace_(poorFixGraceSeconds) {}

    /// True when `fix` is to be delivered; the filter then remembers it as the last delivered fix.
    bool accept(const platform::Location& fix, const FixFilterSettings& settings);
    /// Forgets the last delivered fix (updates started again).
    void reset() { lastDelivered_.reset(); }
    [[nodiscard]] const std::optional<platform::Location>& lastDelivered() const { return lastDelivered_; }

  private:
    double grace_;
    std::optional<platform::Location> lastDelivered_;
    double lastAccurateSeen_ = -std::numeric_limits<double>::infinity();
};

}  // namespace tovrel::linuxbackend
