#include "store/work_queue.h"

#include <algorithm>
#include <cstdio>
#include <exception>

namespace tovrel::server {

WorkQueue::WorkQueue(int threads, std::size_t capacity) : capacity_(capacity) {
    Lock lock(mutex_);
    for (int i = 0; i < std::max(1, threads); ++i) {
        threads_.emplace_back([this] { run(); });
    }
}

WorkQueue::~WorkQueue() {
    stop();
}

bool WorkQueue::post(std::function<void()> job) {
    {
        Lock lock(mutex_);
        if (stopping_ || jobs_.size() >= capacity_) {
            return false;
        }
        jobs_.push_back(std::move(job));
    }
    wake_.notify_one();
    return true;
}

std::size_t WorkQueue::waiting() const {
    Lock lock(mutex_);
    return jobs_.size();
}

void WorkQueue::drain() {
    Lock lock(mutex_);
    while (!jobs_.empty() || running_ > 0) {
        idle_.wait(mutex_);
    }
}

void WorkQueue::stop() {
    std::vector<std::thread> threads;
    {
        Lock lock(mutex_);
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
            Lock lock(mutex_);
            while (!stopping_ && jobs_.empty()) {
                wake_.wait(mutex_);
            }
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
        Lock lock(mutex_);
        if (--running_ == 0 && jobs_.empty()) {
            idle_.notify_all();
        }
    }
}

}  // namespace tovrel::server
