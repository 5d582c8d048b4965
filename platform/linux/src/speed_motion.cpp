#include "tovrel/linux/speed_motion.h"

#include <cmath>
#include <mutex>

#include "tovrel/linux/fix_filter.h"

namespace tovrel::linuxbackend {
namespace {

enum class Kind { kStationary, kWalking, kRunning, kCycling, kAutomotive, kUnknown };

Kind kindOf(const platform::MotionActivity& activity) {
    if (activity.stationary) {
        return Kind::kStationary;
    }
    if (activity.walking) {
        return Kind::kWalking;
    }
    if (activity.running) {
        return Kind::kRunning;
    }
    if (activity.cycling) {
        return Kind::kCycling;
    }
    if (activity.automotive) {
        return Kind::kAutomotive;
    }
    return Kind::kUnknown;
}

platform::MotionActivity activityOf(Kind kind, platform::MotionConfidence confidence, double startDate) {
    platform::MotionActivity activity;
    activity.stationary = kind == Kind::kStationary;
    activity.walking = kind == Kind::kWalking;
    activity.running = kind == Kind::kRunning;
    activity.cycling = kind == Kind::kCycling;
    activity.automotive = kind == Kind::kAutomotive;
    activity.unknown = kind == Kind::kUnknown;
    activity.confidence = confidence;
    activity.startDate = startDate;
    return activity;
}

}  // namespace

std::optional<platform::MotionActivity> SpeedActivityClassifier::update(const platform::Location& fix) {
    double speed = fix.speed;
    if (!(speed >= 0) && previous_) {
        const double seconds = fix.timestamp - previous_->timestamp;
        if (seconds > 0) {
            speed = metresBetween(previous_->coordinate, fix.coordinate) / seconds;
        }
    }
    previous_ = fix;

    Kind kind = Kind::kUnknown;
    auto confidence = platform::MotionConfidence::kLow;
    double startDate = fix.timestamp;
    if (!(speed >= 0)) {
        kind = Kind::kUnknown;
    } else if (speed < options_.stillSpeed) {
        if (!stillSince_) {
            stillSince_ = fix.timestamp;
        }
        const double still = fix.timestamp - *stillSince_;
        if (still < options_.stillSeconds) {
            return std::nullopt;
        }
        kind = Kind::kStationary;
        startDate = *stillSince_;
        confidence = still >= 2 * options_.stillSeconds ? platform::MotionConfidence::kHigh
                                                        : platform::MotionConfidence::kMedium;
    } else {
        stillSince_.reset();
        double low = options_.stillSpeed;
        double high = options_.walkingMax;
        kind = Kind::kWalking;
        if (speed >= options_.cyclingMax) {
            kind = Kind::kAutomotive;
            low = options_.cyclingMax;
            high = INFINITY;
        } else if (speed >= options_.runningMax) {
            kind = Kind::kCycling;
            low = options_.runningMax;
            high = options_.cyclingMax;
        } else if (speed >= options_.walkingMax) {
            kind = Kind::kRunning;
            low = options_.walkingMax;
            high = options_.runningMax;
        }
        const bool nearEdge = speed < low * 1.15 || (std::isfinite(high) && speed > high * 0.85);
        confidence = nearEdge ? platform::MotionConfidence::kMedium : platform::MotionConfidence::kHigh;
    }
    if (!(fix.horizontalAccuracy >= 0) || fix.horizontalAccuracy > options_.poorAccuracy) {
        confidence = platform::MotionConfidence::kLow;
    }
    if (current_ && kindOf(*current_) == kind && current_->confidence == confidence) {
        return std::nullopt;
    }
    if (current_ && kindOf(*current_) == kind) {
        startDate = current_->startDate;
    }
    current_ = activityOf(kind, confidence, startDate);
    return current_;
}

namespace {

class SpeedMotionManager final : public platform::MotionActivityManager {
  public:
    SpeedMotionManager(std::shared_ptr<LinuxLocationServices> location, SpeedMotionOptions options)
        : location_(std::move(location)), options_(options) {}

    void startActivityUpdates(platform::MotionActivityHandler handler) override {
        auto state = std::make_shared<State>(options_, std::move(handler));
        auto token = location_->observeRawFixes([state](const TrackPoint& point) { state->consider(point); });
        std::lock_guard lock(mutex_);
        subscription_ = std::move(token);
        location_->startSource();
    }

    void stopActivityUpdates() override {
        std::shared_ptr<void> ended;
        std::lock_guard lock(mutex_);
        ended.swap(subscription_);
    }

  private:
    struct State {
        State(SpeedMotionOptions options, platform::MotionActivityHandler h)
            : classifier(options), handler(std::move(h)) {}
        void consider(const TrackPoint& point) {
            std::optional<platform::MotionActivity> activity;
            if (point.activity) {
                const bool same = recorded && kindOf(*recorded) == kindOf(*point.activity) &&
                                  recorded->confidence == point.activity->confidence;
                if (!same) {
                    recorded = point.activity;
                    recorded->startDate = point.fix.timestamp;
                    activity = recorded;
                }
            } else {
                activity = classifier.update(point.fix);
            }
            if (activity && handler) {
                handler(*activity);
            }
        }
        SpeedActivityClassifier classifier;
        platform::MotionActivityHandler handler;
        std::optional<platform::MotionActivity> recorded;
    };

    std::shared_ptr<LinuxLocationServices> location_;
    SpeedMotionOptions options_;
    std::mutex mutex_;
    std::shared_ptr<void> subscription_;
};

}  // namespace

SpeedMotionServices::SpeedMotionServices(std::shared_ptr<LinuxLocationServices> location,
                                         SpeedMotionOptions options)
    : location_(std::move(location)), options_(options) {}

std::shared_ptr<platform::MotionActivityManager> SpeedMotionServices::createMotionActivityManager() {
    return std::make_shared<SpeedMotionManager>(location_, options_);
}

}  // namespace tovrel::linuxbackend
