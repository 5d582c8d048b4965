#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <queue>
#include <thread>
#include <vector>

#include "tovrel/platform/background.h"
#include "tovrel/platform/clock.h"
#include "tovrel/platform/main_loop.h"

namespace tovrel::scenarios {

/// A main loop on a thread of its own, for tests that need real concurrency. Timers run in real time
/// scaled by `timeScale` (a 1800 s timer with a scale of 1e-4 fires every 0.18 s), and the clock
/// reads virtual seconds on the same scale. "Fresh background threads" are real threads (joined by
/// stop()); the background queue is one worker thread.
class RealThreadLoop final : public platform::MainLoop,
                             public platform::BackgroundWork,
                             public platform::Clock {
  public:
    explicit RealThreadLoop(double timeScale, double startTime = 1'750'000'000.0);
    ~RealThreadLoop() override;
    RealThreadLoop(const RealThreadLoop&) = delete;
    RealThreadLoop& operator=(const RealThreadLoop&) = delete;

    /// Any thread.
    void post(platform::Task task) override;
    /// Any thread.
    std::shared_ptr<platform::Timer> scheduleTimer(double seconds, bool repeats,
                                                   platform::Task action) override;
    /// Any thread.
    [[nodiscard]] bool isMainThread() const override;
    /// Any thread. A real thread, joined by stop().
    void detachNewThread(platform::Task task) override;
    /// Any thread. Runs on the background worker, in submission order.
    void dispatchBackground(platform::Task task) override;
    /// Any thread. Virtual seconds since 1970: the start time plus the scaled-up elapsed real time.
    [[nodiscard]] double now() const override;
    /// Any thread. Sleeps the scaled-down time.
    void sleepFor(double seconds) override;

    /// Any thread but the loop's. Runs `task` on the loop and waits for it.
    void runSync(const platform::Task& task);
    /// Stops the loop and the background worker, joins every thread, then drops what never ran.
    /// Idempotent.
    void stop();

  private:
    struct TimerState;
    struct Entry {
        double due;  ///< real seconds since the loop started
        std::uint64_t sequence;
        platform::Task task;
        std::shared_ptr<TimerState> timer;
        double interval;
    };
    struct Later {
        bool operator()(const Entry& a, const Entry& b) const {
            return a.due != b.due ? a.due > b.due : a.sequence > b.sequence;
        }
    };

    [[nodiscard]] double elapsed() const;
    void runLoop();
    void runWorker();

    const double scale_;
    const double startTime_;
    const std::chrono::steady_clock::time_point origin_;

    mutable std::mutex mutex_;
    std::condition_variable wake_;
    std::priority_queue<Entry, std::vector<Entry>, Later> queue_;
    std::uint64_t nextSequence_ = 0;
    bool stopping_ = false;
    std::deque<platform::Task> backgroundQueue_;
    std::condition_variable backgroundWake_;
    std::vector<std::thread> detached_;
    std::thread loopThread_;
    std::thread workerThread_;
};

}  // namespace tovrel::scenarios
