#pragma once

#include "tovrel/export.h"
#include "tovrel/platform/main_loop.h"

namespace tovrel::platform {

/// Work off the main thread.
class TOVREL_EXPORT BackgroundWork {
  public:
    virtual ~BackgroundWork() = default;
    /// Any thread. Runs `task` on a fresh background thread of its own.
    virtual void detachNewThread(Task task) = 0;
    /// Any thread. Runs `task` on the shared background-priority queue (concurrent; tasks start in
    /// submission order).
    virtual void dispatchBackground(Task task) = 0;
};

}  // namespace tovrel::platform
