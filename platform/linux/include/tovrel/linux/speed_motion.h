#pragma once

#include <memory>
#include <optional>

#include "tovrel/export.h"
#include "tovrel/linux/linux_location_services.h"
#include "tovrel/platform/motion.h"

namespace tovrel::linuxbackend {

struct TOVREL_EXPORT SpeedMotionOptions {
    /// Slower than this (m/s) counts as still.
    double stillSpeed = 0.5;
    /// Still for this long (seconds, by fix timestamps) before the activity becomes stationary.
    double stillSeconds = 60;
    /// Upper speed bounds (m/s) of walking, running and cycling; faster is automotive.
    double walkingMax = 2.5;
    double runningMax = 4.5;
    double cyclingMax = 8.0;
    /// Fixes less accurate than this (metres) give low-confidence activities.
    double poorAccuracy = 100;
};

/// Motion activity derived from speed: the fix's speed, else the distance from the previous fix over
/// the time between them. Confidence is high in the middle of a speed band, medium within 15 % of its
/// edges (and for a stationary spell shorter than twice the still period), low for an unknown speed or a
/// poor fix. update() answers a new activity only when the kind or the confidence changes. Pure.
class TOVREL_EXPORT SpeedActivityClassifier {
  public:
    explicit SpeedActivityClassifier(SpeedMotionOptions options = {}) : options_(options) {}
    std::optional<platform::MotionActivity> update(const platform::Location& fix);

  private:
    SpeedMotionOptions options_;
    std::optional<platform::Location> previous_;
    std::optional<double> stillSince_;
    std::optional<platform::MotionActivity> current_;
};

/// Motion services on the location source: each started activity manager derives activities from the
/// source's raw fixes (SpeedActivityClassifier), or passes on the activity that a replayed point
/// carries. The handler runs on the location source's thread, off the main thread, in order.
class TOVREL_EXPORT SpeedMotionServices final : public platform::MotionServices {
  public:
    SpeedMotionServices(std::shared_ptr<LinuxLocationServices> location, SpeedMotionOptions options = {});

    /// Any thread.
    std::shared_ptr<platform::MotionActivityManager> createMotionActivityManager() override;

  private:
    std::shared_ptr<LinuxLocationServices> location_;
    SpeedMotionOptions options_;
};

}  // namespace tovrel::linuxbackend
