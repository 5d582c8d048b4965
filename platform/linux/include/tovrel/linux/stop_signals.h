#pragma once

#include <functional>
#include <memory>

#include "tovrel/export.h"
#include "tovrel/linux/asio_main_loop.h"
#include "tovrel/platform/thread_check.h"

namespace tovrel::linuxbackend {

/// SIGINT and SIGTERM as a readable descriptor, so a host ends its main loop in order (the component
/// hears will-terminate) instead of dying inside a signal handler. Blocks both signals in the thread
/// that makes it: make it on the main thread before any other thread starts, so that every thread
/// inherits the mask.
class TOVREL_EXPORT StopSignals {
  public:
    /// Main thread. Throws std::system_error when the signal descriptor cannot be made.
    StopSignals();
    /// Main thread. Closes the descriptor; the signals stay blocked.
    ~StopSignals();
    StopSignals(const StopSignals&) = delete;
    StopSignals& operator=(const StopSignals&) = delete;

    /// Main thread. `onStop` runs on `loop`'s main thread each time stop signals have arrived (once
    /// for several that arrive together) while the returned watch lives.
    [[nodiscard]] std::unique_ptr<FdWatch> watch(DescriptorWatcher& loop, std::function<void()> onStop) const;

  private:
    int fd_ = -1;
    platform::ThreadChecker thread_;
};

}  // namespace tovrel::linuxbackend
