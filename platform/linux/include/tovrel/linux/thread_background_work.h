#pragma once

#include <cstddef>
#include <memory>

#include "tovrel/export.h"
#include "tovrel/platform/background.h"

namespace tovrel::linuxbackend {

/// Background work on real threads: one fresh thread per detachNewThread(), and a small pool for the
/// background-priority queue that takes tasks in submission order (so they start in that order and
/// run concurrently). Every thread is tracked: shutdown() waits for the detached threads and for the
/// queued tasks, so no task outlives the objects it was handed.
class TOVREL_EXPORT ThreadBackgroundWork final : public platform::BackgroundWork {
  public:
    /// `queueThreads`: workers of the background-priority queue (at least 1). They run at a lower
    /// scheduling priority (nice 10) than the main thread.
    explicit ThreadBackgroundWork(std::size_t queueThreads = 2);
    /// Calls shutdown().
    ~ThreadBackgroundWork() override;
    ThreadBackgroundWork(const ThreadBackgroundWork&) = delete;
    ThreadBackgroundWork& operator=(const ThreadBackgroundWork&) = delete;

    /// Any thread. Runs `task` on a new thread. After shutdown() the task is dropped.
    void detachNewThread(platform::Task task) override;
    /// Any thread. Queues `task` on the background-priority queue. After shutdown() it is dropped.
    void dispatchBackground(platform::Task task) override;

    /// Any thread but a background one. Refuses new work, runs what is queued, and joins every thread.
    void shutdown();
    /// Any thread. Detached threads still running.
    [[nodiscard]] std::size_t runningThreadCount() const;

    class Impl;

  private:
    std::unique_ptr<Impl> impl_;
};

}  // namespace tovrel::linuxbackend
