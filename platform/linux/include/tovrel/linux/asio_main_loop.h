#pragma once

// The main loop is built on standalone asio (Debian libasio-dev) rather than sd-event: it is header-only,
// needs no systemd at run time (kiosks and containers often run without it), keeps posted tasks in one
// FIFO queue shared by every thread, and watches descriptors (netlink) with the same reactor that
// drives the timers.

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>

#include "tovrel/export.h"
#include "tovrel/platform/main_loop.h"

namespace tovrel::linuxbackend {

/// A watch on a readable descriptor, made by DescriptorWatcher::watchReadable.
class TOVREL_EXPORT FdWatch {
  public:
    virtual ~FdWatch() = default;
    /// Main thread. Stops the watch; the callback does not run again. The descriptor stays open (the
    /// caller owns it) and may be closed once this returns.
    virtual void cancel() = 0;
};

/// A main loop's reactor for descriptors: the Linux parts that read sockets (netlink) reach the loop
/// through this, so a host can run them on its own event loop (asio here, a toolkit's loop elsewhere).
class TOVREL_EXPORT DescriptorWatcher {
  public:
    virtual ~DescriptorWatcher() = default;
    /// Main thread. `onReadable` runs on the main loop each time `fd` has data to read, until the watch
    /// is cancelled (it must read, or it is called again at once). The caller keeps `fd` open while
    /// the watch lives; dropping the returned handle cancels the watch. Cancel every watch before the
    /// loop is destroyed.
    [[nodiscard]] virtual std::unique_ptr<FdWatch> watchReadable(int fd,
                                                                 std::function<void()> onReadable) = 0;
};

/// The real main loop: a single-threaded asio io_context. Posted tasks run in posting order (across
/// threads: a task posted after another, in the happens-before sense, runs after it); timers run on the
/// loop thread when they fall due, ties broken by the order in which they were scheduled. A scheduled
/// timer belongs to the loop: dropping every handle does not stop it, only invalidate() or the firing
/// of a one-shot timer does.
///
/// The main thread is the thread that constructed the loop until some thread calls run() (or one of
/// the run variants); from then on it is that thread.
class TOVREL_EXPORT AsioMainLoop final : public platform::MainLoop, public DescriptorWatcher {
  public:
    AsioMainLoop();
    /// Main thread, after run() has returned. Drops every pending task and timer without running it.
    ~AsioMainLoop() override;
    AsioMainLoop(const AsioMainLoop&) = delete;
    AsioMainLoop& operator=(const AsioMainLoop&) = delete;

    /// Any thread. Queues `task` after every task posted before it.
    void post(platform::Task task) override;
    /// Any thread. Runs `action` on the loop after `seconds` (clamped to at least 0.1 ms for repeating
    /// timers), and then every `seconds` when `repeats`, on the original cadence: a repeating timer that
    /// fell behind fires once and then keeps its schedule. invalidate() from another thread takes effect
    /// at once, except that an action already being started by the loop at that moment still runs.
    std::shared_ptr<platform::Timer> scheduleTimer(double seconds, bool repeats,
                                                   platform::Task action) override;
    /// Any thread.
    [[nodiscard]] bool isMainThread() const override;

    /// Main thread. See DescriptorWatcher: the descriptor is watched by the io_context's reactor.
    [[nodiscard]] std::unique_ptr<FdWatch> watchReadable(int fd, std::function<void()> onReadable) override;

    /// The calling thread becomes the main thread and runs the loop until stop(); returns at once when
    /// stop() was called before (and clears that request).
    void run();
    /// Any thread. Makes run() return after the task in progress.
    void stop();
    /// Runs the loop on the calling thread until `done()` holds (checked after every handler and at
    /// least every 10 ms), `timeout` passes or stop() is called; returns `done()`. For hosts' start-up
    /// steps and for tests.
    bool runUntil(const std::function<bool()>& done, std::chrono::milliseconds timeout);
    /// Runs the loop on the calling thread for `duration`.
    void runFor(std::chrono::milliseconds duration);
    /// Runs, on the calling thread, the handlers that are ready now without waiting for more; returns
    /// how many ran. For hosts that drive the loop from their own.
    std::size_t runReady();
    /// Main thread, after run() has returned. Drops every scheduled timer without firing it, with the
    /// action it holds: an action holding an object that holds this loop would otherwise keep both
    /// alive for good.
    void discardTimers();

    class Impl;

  private:
    std::shared_ptr<Impl> impl_;
};

}  // namespace tovrel::linuxbackend
