#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>

#include "tovrel/platform/main_loop.h"

namespace tovrel::curl::test {

/// A main loop for HTTP tests: a thread-safe task queue that the test thread drains itself, with a
/// bounded wait. The HTTP client schedules no timers, so asking for one fails the test.
class TestMainLoop final : public platform::MainLoop {
  public:
    void post(platform::Task task) override {
        {
            std::lock_guard lock(mutex_);
            tasks_.push_back(std::move(task));
        }
        posted_.notify_all();
    }

    std::shared_ptr<platform::Timer> scheduleTimer(double /*seconds*/, bool /*repeats*/,
                                                   platform::Task /*action*/) override {
        ADD_FAILURE() << "the HTTP client is not expected to schedule timers";
        return std::make_shared<SpentTimer>();
    }

    [[nodiscard]] bool isMainThread() const override { return std::this_thread::get_id() == owner_; }

    /// Runs posted tasks on this thread until `done()` holds or `timeout` passes; returns `done()`.
    bool runUntil(const std::function<bool()>& done,
                  std::chrono::milliseconds timeout = std::chrono::milliseconds(5000)) {
        const auto deadline = std::chrono::steady_clock::now() + timeout;
        while (!done()) {
            if (!runOne(deadline)) {
                return done();
            }
        }
        return true;
    }

    /// Runs whatever is posted during `window` (to see that nothing more arrives).
    void runFor(std::chrono::milliseconds window) {
        const auto deadline = std::chrono::steady_clock::now() + window;
        while (runOne(deadline)) {
        }
    }

  private:
    class SpentTimer final : public platform::Timer {
      public:
        void invalidate() override {}
        [[nodiscard]] bool isValid() const override { return false; }
    };

    bool runOne(std::chrono::steady_clock::time_point deadline) {
        platform::Task task;
        {
            std::unique_lock lock(mutex_);
            if (!posted_.wait_until(lock, deadline, [this] { return !tasks_.empty(); })) {
                return false;
            }
            task = std::move(tasks_.front());
            tasks_.pop_front();
        }
        task();
        return true;
    }

    const std::thread::id owner_ = std::this_thread::get_id();
    std::mutex mutex_;
    std::condition_variable posted_;
    std::deque<platform::Task> tasks_;
};

}  // namespace tovrel::curl::test
