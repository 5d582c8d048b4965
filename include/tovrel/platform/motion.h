#pragma once

#include <functional>
#include <memory>

#include "tovrel/export.h"

namespace tovrel::platform {

enum class MotionConfidence { kLow = 0, kMedium = 1, kHigh = 2 };

/// What the device's motion says it is doing.
struct TOVREL_EXPORT MotionActivity {
    bool stationary = false;
    bool walking = false;
    bool running = false;
    bool automotive = false;
    bool cycling = false;
    bool unknown = false;
    MotionConfidence confidence = MotionConfidence::kLow;
    double startDate = 0;  ///< seconds since 1970
};

using MotionActivityHandler = std::function<void(const MotionActivity&)>;

/// One motion activity manager.
class TOVREL_EXPORT MotionActivityManager {
  public:
    virtual ~MotionActivityManager() = default;
    /// Main thread. Starts updates; `handler` runs off the main thread, once per update, in order.
    virtual void startActivityUpdates(MotionActivityHandler handler) = 0;
    /// Main thread.
    virtual void stopActivityUpdates() = 0;
};

/// The device's motion services.
class TOVREL_EXPORT MotionServices {
  public:
    virtual ~MotionServices() = default;
    /// Main thread. A new activity manager.
    virtual std::shared_ptr<MotionActivityManager> createMotionActivityManager() = 0;
};

}  // namespace tovrel::platform
