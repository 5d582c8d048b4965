#pragma once

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <thread>
#include <vector>

#include "tovrel/platform/thread_annotations.h"

namespace tovrel::server {

using tovrel::platform::Lock;
using tovrel::platform::Mutex;
using tovrel::platform::ReaderLock;
using tovrel::platform::SharedMutex;

/// Runs jobs in the order they were posted on threads of its own, so that the threads serving
/// connections never wait for the database. Bounded: post() refuses a job while `capacity` jobs are
/// waiting, and the caller answers 503 instead of queueing without end. Thread-safe.
class WorkQueue {
  public:
    WorkQueue(int threads, std::size_t capacity);
    /// Runs the jobs already posted, then joins the threads (as stop()).
    ~WorkQueue();
    WorkQueue(const WorkQueue&) = delete;
    WorkQueue& operator=(const WorkQueue&) = delete;

    /// Queues a job; false (the job dropped) when the queue is full or stopping. Any thread.
    bool post(std::function<void()> job);
    /// Jobs waiting, not counting those running. Any thread.
    std::size_t waiting() const;
    /// Waits until no job is waiting or running. Any thread but the queue's own.
    void drain();
    /// Refuses new jobs, runs those already posted and joins the threads. Idempotent; any thread but
    /// the queue's own.
    void stop();

  private:
    void run();

    const std::size_t capacity_;
    mutable Mutex mutex_;
    std::condition_variable_any wake_;
    std::condition_variable_any idle_;
    int running_ TOVREL_GUARDED_BY(mutex_) = 0;
    std::deque<std::function<void()>> jobs_ TOVREL_GUARDED_BY(mutex_);
    bool stopping_ TOVREL_GUARDED_BY(mutex_) = false;
    std::vector<std::thread> threads_ TOVREL_GUARDED_BY(mutex_);
};

}  // namespace tovrel::server
