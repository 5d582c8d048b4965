#pragma once

#include <functional>
#include <memory>

#include "tovrel/export.h"

namespace tovrel::platform {

using Task = std::function<void()>;

/// A scheduled timer. The loop owns it: dropping every handle does not stop it; only invalidate()
/// (or the firing of a one-shot timer) does.
class TOVREL_EXPORT Timer {
  public:
    virtual ~Timer() = default;
    /// Any thread. Stops the timer for good; calling it again does nothing.
    virtual void invalidate() = 0;
    /// Any thread. True until the timer is invalidated or, for a one-shot timer, has fired.
    [[nodiscard]] virtual bool isValid() const = 0;
};

/// The main run loop of one environment. Handlers run one at a time, each to completion, in the
/// order in which they became due (posted tasks in posting order).
class TOVREL_EXPORT MainLoop {
  public:
    virtual ~MainLoop() = default;
    /// Any thread. Queues `task` to run on the main thread after every task posted before it.
    virtual void post(Task task) = 0;
    /// Any thread (the component calls it on the main thread). Runs `action` on the main thread after
    /// `seconds`, and then every `seconds` when `repeats`, until invalidated.
    virtual std::shared_ptr<Timer> scheduleTimer(double seconds, bool repeats, Task action) = 0;
    /// Any thread. True when called on the loop's own thread.
    [[nodiscard]] virtual bool isMainThread() const = 0;
};

}  // namespace tovrel::platform
