#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>

namespace tovrel::linuxbackend {

/// The thread of a location source, with an interruptible wait. Internal.
class SourceThread {
  public:
    SourceThread() = default;
    ~SourceThread() { stop(); }
    SourceThread(const SourceThread&) = delete;
    SourceThread& operator=(const SourceThread&) = delete;

    /// Starts `body` once; later calls do nothing.
    void start(std::function<void()> body) {
        std::lock_guard lock(mutex_);
        if (started_ || stopping_) {
            return;
        }
        started_ = true;
        thread_ = std::thread(std::move(body));
    }

    /// Asks the body to end, wakes its waits, and joins it (not from the body itself).
    void stop() {
        {
            std::lock_guard lock(mutex_);
            stopping_ = true;
        }
        changed_.notify_all();
        if (thread_.joinable() && thread_.get_id() != std::this_thread::get_id()) {
            thread_.join();
        }
    }

    /// Wakes a wait that allows it (waitFor with wakeable).
    void wake() {
        {
            std::lock_guard lock(mutex_);
            woken_ = true;
        }
        changed_.notify_all();
    }

    /// Body. Waits `duration` (forever when negative); false when stopping. A wake() ends a wakeable
    /// wait early.
    bool waitFor(std::chrono::duration<double> duration, bool wakeable = false) {
        std::unique_lock lock(mutex_);
        if (wakeable) {
            woken_ = false;
        }
        const auto done = [this, wakeable] { return stopping_ || (wakeable && woken_); };
        if (duration.count() < 0) {
            changed_.wait(lock, done);
        } else {
            changed_.wait_for(lock, duration, done);
        }
        return !stopping_;
    }

    [[nodiscard]] bool stopping() const {
        std::lock_guard lock(mutex_);
        return stopping_;
    }

  private:
    mutable std::mutex mutex_;
    std::condition_variable changed_;
    std::thread thread_;
    bool started_ = false;
    bool stopping_ = false;
    bool woken_ = false;
};

}  // namespace tovrel::linuxbackend
