#include "scenarios/real_thread_loop.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <future>

namespace tovrel::scenarios {

struct RealThreadLoop::TimerState final : platform::Timer {
    void invalidate() override { valid = false; }
    [[nodiscard]] bool isValid() const override { return valid; }
    std::atomic<bool> valid{true};
};

RealThreadLoop::RealThreadLoop(double timeScale, double startTime)
    : scale_(timeScale), startTime_(startTime), origin_(std::chrono::steady_clock::now()) {
    loopThread_ = std::thread([this] { runLoop(); });
    workerThread_ = std::thread([this] { runWorker(); });
}

RealThreadLoop::~RealThreadLoop() {
    stop();
}

double RealThreadLoop::elapsed() const {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - origin_).count();
}

void RealThreadLoop::post(platform::Task task) {
    std::lock_guard lock(mutex_);
    queue_.push(Entry{elapsed(), nextSequence_++, std::move(task), nullptr, 0});
    wake_.notify_all();
}

std::shared_ptr<platform::Timer> RealThreadLoop::scheduleTimer(double seconds, bool repeats,
                                                               platform::Task action) {
    auto timer = std::make_shared<TimerState>();
    const double delay = std::max(seconds, 0.0001) * scale_;
    std::lock_guard lock(mutex_);
    queue_.push(Entry{elapsed() + delay, nextSequence_++, std::move(action), timer, repeats ? delay : 0});
    wake_.notify_all();
    return timer;
}

bool RealThreadLoop::isMainThread() const {
    return std::this_thread::get_id() == loopThread_.get_id();
}

void RealThreadLoop::detachNewThread(platform::Task task) {
    std::lock_guard lock(mutex_);
    if (stopping_) {
        return;
    }
    detached_.emplace_back(std::move(task));
}

void RealThreadLoop::dispatchBackground(platform::Task task) {
    std::lock_guard lock(mutex_);
    backgroundQueue_.push_back(std::move(task));
    backgroundWake_.notify_one();
}

double RealThreadLoop::now() const {
    return startTime_ + elapsed() / scale_;
}

void RealThreadLoop::sleepFor(double seconds) {
    std::this_thread::sleep_for(std::chrono::duration<double>(seconds * scale_));
}

void RealThreadLoop::runSync(const platform::Task& task) {
    std::promise<void> done;
    post([&task, &done] {
        task();
        done.set_value();
    });
    done.get_future().wait();
}

void RealThreadLoop::runLoop() {
    std::unique_lock lock(mutex_);
    while (!stopping_) {
        if (queue_.empty()) {
            wake_.wait(lock);
            continue;
        }
        const double due = queue_.top().due;
        const double now = elapsed();
        if (due > now) {
            wake_.wait_for(lock, std::chrono::duration<double>(due - now));
            continue;
        }
        Entry entry = queue_.top();
        queue_.pop();
        if (entry.timer) {
            if (!entry.timer->valid) {
                continue;
            }
            if (entry.interval > 0) {
                queue_.push(Entry{entry.due + entry.interval, nextSequence_++, entry.task, entry.timer,
                                  entry.interval});
            } else {
                entry.timer->valid = false;
            }
        }
        lock.unlock();
        entry.task();
        entry.task = nullptr;
        lock.lock();
    }
}

void RealThreadLoop::runWorker() {
    std::unique_lock lock(mutex_);
    for (;;) {
        backgroundWake_.wait(lock, [this] { return stopping_ || !backgroundQueue_.empty(); });
        if (stopping_) {
            return;
        }
        platform::Task task = std::move(backgroundQueue_.front());
        backgroundQueue_.pop_front();
        lock.unlock();
        task();
        task = nullptr;
        lock.lock();
    }
}

void RealThreadLoop::stop() {
    {
        std::lock_guard lock(mutex_);
        if (stopping_ && !loopThread_.joinable()) {
            return;
        }
        stopping_ = true;
        wake_.notify_all();
        backgroundWake_.notify_all();
    }
    if (loopThread_.joinable()) {
        loopThread_.join();
    }
    if (workerThread_.joinable()) {
        workerThread_.join();
    }
    std::vector<std::thread> detached;
    {
        std::lock_guard lock(mutex_);
        detached.swap(detached_);
    }
    for (auto& thread : detached) {
        thread.join();
    }
    // What never ran is dropped here, on the caller's thread, once no other thread is left.
    decltype(queue_) queue;
    std::deque<platform::Task> background;
    {
        std::lock_guard lock(mutex_);
        queue.swap(queue_);
        background.swap(backgroundQueue_);
    }
}

}  // namespace tovrel::scenarios
