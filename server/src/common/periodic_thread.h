#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>
#include <utility>

namespace tovrel::server {

/// A thread of its own that runs a task every few seconds until stopped (retention, webhook delivery).
class PeriodicThread {
  public:
    PeriodicThread() = default;
    /// Stops the thread (as stop()).
    ~PeriodicThread() { stop(); }
    PeriodicThread(const PeriodicThread&) = delete;
    PeriodicThread& operator=(const PeriodicThread&) = delete;

    /// Runs `task` every `seconds` (real time, the first run after one interval) until stop(); nothing
    /// when the thread already runs. Any thread.
    void start(double seconds, std::function<void()> task) {
        std::lock_guard lock(mutex_);
        if (thread_.joinable()) {
            return;
        }
        stopping_ = false;
        thread_ =
            std::thread([this, interval = std::chrono::duration<double>(seconds), task = std::move(task)] {
                std::unique_lock wait(mutex_);
                while (!wake_.wait_for(wait, interval, [this] { return stopping_; })) {
                    wait.unlock();
                    task();
                    wait.lock();
                }
            });
    }
    /// Ends the thread after its run in progress and joins it. Safe twice or before start(). Any thread
    /// but the task's own.
    void stop() {
        std::thread ending;
        {
            std::lock_guard lock(mutex_);
            stopping_ = true;
            ending = std::move(thread_);
        }
        wake_.notify_all();
        if (ending.joinable()) {
            ending.join();
        }
    }

  private:
    std::mutex mutex_;
    std::condition_variable wake_;
    bool stopping_ = false;
    std::thread thread_;
};

}  // namespace tovrel::server
