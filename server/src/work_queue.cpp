#include "work_queue.h"

#include <algorithm>
#include <cstdio>
#include <exception>

namespace tovrel_server {

WorkQueue::WorkQueue(int threads, std::size_t capacity) : capacity_(capacity) {
    for (int i = 0; i < std::max(1, threads); ++i) {
        threads_.emplace_back([this] { run(); });
    }
}

WorkQueue::~WorkQueue() {
    stop();
}

bool WorkQueue::post(std::function<void()> job) {
    {
        std::lock_guard lock(mutex_);
        if (stopping_ || jobs_.size() >= capacity_) {
            return false;
        }
        jobs_.push_back(std::move(job));
    }
    wake_.notify_one();
    return true;
}

std::size_t WorkQueue::waiting() const {
    std::lock_guard lock(mutex_);
    return jobs_.size();
}

void WorkQueue::drain() {
    std::unique_lock lock(mutex_);
    idle_.wait(lock, [this] { return jobs_.empty() && running_ == 0; });
}

void WorkQueue::stop() {
    std::vector<std::thread> threads;
    {
        std::lock_guard lock(mutex_);
        stopping_ = true;
        threads.swap(threads_);
    }
    wake_.notify_all();
    for (std::thread& thread : threads) {
        thread.join();
    }
}

void WorkQueue::run() {
    for (;;) {
        std::function<void()> job;
        {
            std::unique_lock lock(mutex_);
            wake_.wait(lock, [this] { return stopping_ || !jobs_.empty(); });
            if (jobs_.empty()) {
                return;
            }
            job = std::move(jobs_.front());
            jobs_.pop_front();
            ++running_;
        }
        try {
            job();
        } catch (const std::exception& e) {
            std::fprintf(stderr, "tovrel-server: a queued job failed: %s\n", e.what());
        }
        job = nullptr;
        std::lock_guard lock(mutex_);
        if (--running_ == 0 && jobs_.empty()) {
            idle_.notify_all();
        }
    }
}

}  // namespace tovrel_server
