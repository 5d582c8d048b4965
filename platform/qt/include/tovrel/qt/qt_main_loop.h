#pragma once

#include <QObject>
#include <QPointer>
#include <memory>

#include "tovrel/export.h"
#include "tovrel/linux/asio_main_loop.h"
#include "tovrel/platform/main_loop.h"

namespace tovrel::qtbackend {

/// The main loop on Qt's event loop: the thread that makes it (the thread of the QApplication) is the
/// main thread. Posted tasks become queued events of one receiver, which Qt delivers in posting order
/// whatever thread posted them; timers are QTimers that the loop owns; descriptors are watched with
/// QSocketNotifier. Linux parts (netlink reachability) watch their sockets through DescriptorWatcher.
class TOVREL_EXPORT QtMainLoop final : public platform::MainLoop, public linuxbackend::DescriptorWatcher {
  public:
    /// Main thread (a QCoreApplication must exist).
    QtMainLoop();
    /// Main thread. Stops every timer; tasks still queued are dropped.
    ~QtMainLoop() override;
    QtMainLoop(const QtMainLoop&) = delete;
    QtMainLoop& operator=(const QtMainLoop&) = delete;

    /// Any thread. Queues `task` after every task posted before it.
    void post(platform::Task task) override;
    /// Any thread. A QTimer on the main thread; scheduled from another thread it starts when the
    /// loop takes the request, and invalidate() from any thread stops it for good at once.
    std::shared_ptr<platform::Timer> scheduleTimer(double seconds, bool repeats,
                                                   platform::Task action) override;
    /// Any thread.
    [[nodiscard]] bool isMainThread() const override;
    /// Main thread. A QSocketNotifier on `fd` for reading.
    [[nodiscard]] std::unique_ptr<linuxbackend::FdWatch> watchReadable(
        int fd, std::function<void()> onReadable) override;

    /// Main thread. How many timers the loop holds now (valid ones and those not yet collected).
    [[nodiscard]] std::size_t timerCount() const;

    class Impl;

  private:
    std::shared_ptr<Impl> impl_;
};

}  // namespace tovrel::qtbackend
