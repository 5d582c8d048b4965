#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <optional>
#include <thread>
#include <vector>

#include "tovrel/export.h"
#include "tovrel/platform/background.h"
#include "tovrel/platform/clock.h"
#include "tovrel/platform/main_loop.h"
#include "tovrel/platform/thread_annotations.h"

namespace tovrel::virtualbackend {

/// A discrete-event main loop on a virtual clock. Posted tasks, timers and background work all run on
/// the thread that drives the loop, one at a time, ordered by due time and then by submission, so a
/// run is reproducible. Background tasks run with isMainThread() false.
///
/// The clock moves only when the driver asks (fastForwardBy) and only while the loop is idle and no
/// external work (a real HTTP request) is in flight.
class TOVREL_EXPORT VirtualScheduler final : public platform::MainLoop,
                                             public platform::Clock,
                                             public platform::BackgroundWork {
  public:
    /// `startTime`: the virtual clock's first reading, in seconds since 1970.
    explicit VirtualScheduler(double startTime = 1'750'000'000.0);
    ~VirtualScheduler() override;

    void post(platform::Task task) override;
    std::shared_ptr<platform::Timer> scheduleTimer(double seconds, bool repeats,
                                                   platform::Task action) override;
    [[nodiscard]] bool isMainThread() const override;

    [[nodiscard]] double now() const override;
    /// On the loop: the clock jumps forward by `seconds`, and in-flight external work gets up to that
    /// much wall time to finish. Tasks that fall due meanwhile run afterwards, late.
    void sleepFor(double seconds) override;

    void detachNewThread(platform::Task task) override;
    void dispatchBackground(platform::Task task) override;

    /// Runs every task that is due now, including those that running tasks make due, and waits for
    /// in-flight external work to post its results, until nothing is left to do at this instant.
    void runUntilIdle();
    /// Runs everything due within the next `seconds`, jumping from event to event; the clock then
    /// reads now + seconds.
    void fastForwardBy(double seconds);
    /// fastForwardBy up to an absolute time (no-op when `time` is not in the future).
    void fastForwardTo(double time);
    /// When the next live task or timer falls due, if any.
    [[nodiscard]] std::optional<double> nextEventTime() const;
    /// The number of live (not invalidated) tasks and timers waiting.
    [[nodiscard]] std::size_t pendingCount() const;

    /// External work (a real request) started or ended; the clock does not move while any is open.
    void beginExternalWork();
    void endExternalWork();
    /// Upper bound, in wall seconds, on waiting for one piece of external work.
    void setExternalWorkTimeout(double seconds) { externalTimeout_ = seconds; }

  private:
    struct TimerState;
    struct Entry {
        double due;
        std::uint64_t sequence;
        platform::Task task;
        std::shared_ptr<TimerState> timer;
        double interval;
        bool background;
    };
    struct Later {
        bool operator()(const Entry& a, const Entry& b) const {
            return a.due != b.due ? a.due > b.due : a.sequence > b.sequence;
        }
    };

    void push(double due, platform::Task task, std::shared_ptr<TimerState> timer, double interval,
              bool background) TOVREL_REQUIRES(mutex_);
    /// Runs the task due first, if any, with the lock released while it runs.
    bool runOneDue() TOVREL_REQUIRES(mutex_);
    void runUntilIdleLocked() TOVREL_REQUIRES(mutex_);
    void dropDeadEntries() const TOVREL_REQUIRES(mutex_);
    /// Takes the earliest entry off the heap by moving it: a posted completion may hold a whole answer.
    Entry popEarliest() const TOVREL_REQUIRES(mutex_);
    void waitForExternalWork(double wallSeconds) TOVREL_REQUIRES(mutex_);
    using WallDeadline =
        std::chrono::time_point<std::chrono::steady_clock, std::chrono::duration<double, std::nano>>;
    /// Waits for a change, the lock released meanwhile; false once `deadline` has passed.
    bool waitForChange(WallDeadline deadline) TOVREL_REQUIRES(mutex_);

    mutable platform::Mutex mutex_;
    std::condition_variable changed_;
    /// A heap ordered by Later (the earliest entry at the front). Mutable so that a reader may drop
    /// invalidated timers from its top, which no one can observe.
    mutable std::vector<Entry> queue_ TOVREL_GUARDED_BY(mutex_);
    /// Written under mutex_; read without it, since every timer and clock reading asks for it.
    std::atomic<double> now_;
    std::uint64_t nextSequence_ TOVREL_GUARDED_BY(mutex_) = 0;
    int externalWork_ TOVREL_GUARDED_BY(mutex_) = 0;
    double externalTimeout_ = 60;
    std::thread::id loopThread_ TOVREL_GUARDED_BY(mutex_);
    bool inBackgroundTask_ TOVREL_GUARDED_BY(mutex_) = false;
};

}  // namespace tovrel::virtualbackend
