#include "tovrel/virtual/virtual_scheduler.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>

namespace tovrel::virtualbackend {

struct VirtualScheduler::TimerState final : platform::Timer {
    void invalidate() override { valid = false; }
    [[nodiscard]] bool isValid() const override { return valid; }
    std::atomic<bool> valid{true};
};

VirtualScheduler::VirtualScheduler(double startTime)
    : now_(startTime), loopThread_(std::this_thread::get_id()) {}

VirtualScheduler::~VirtualScheduler() = default;

void VirtualScheduler::push(double due, platform::Task task, std::shared_ptr<TimerState> timer,
                            double interval, bool background) {
    queue_.push_back(Entry{due, nextSequence_++, std::move(task), std::move(timer), interval, background});
    std::push_heap(queue_.begin(), queue_.end(), Later{});
    changed_.notify_all();
}

void VirtualScheduler::post(platform::Task task) {
    platform::Lock lock(mutex_);
    push(now_, std::move(task), nullptr, 0, false);
}

std::shared_ptr<platform::Timer> VirtualScheduler::scheduleTimer(double seconds, bool repeats,
                                                                 platform::Task action) {
    auto state = std::make_shared<TimerState>();
    // A non-positive repeating interval would fire forever at one instant; the platform clamps it too.
    const double interval = repeats ? std::max(seconds, 0.0001) : 0;
    platform::Lock lock(mutex_);
    push(now_ + std::max(seconds, 0.0), std::move(action), state, interval, false);
    return state;
}

bool VirtualScheduler::isMainThread() const {
    platform::Lock lock(mutex_);
    return std::this_thread::get_id() == loopThread_ && !inBackgroundTask_;
}

double VirtualScheduler::now() const {
    return now_.load(std::memory_order_relaxed);
}

void VirtualScheduler::sleepFor(double seconds) {
    platform::Lock lock(mutex_);
    now_ = now_ + std::max(seconds, 0.0);
    waitForExternalWork(seconds);
}

void VirtualScheduler::detachNewThread(platform::Task task) {
    platform::Lock lock(mutex_);
    push(now_, std::move(task), nullptr, 0, true);
}

void VirtualScheduler::dispatchBackground(platform::Task task) {
    platform::Lock lock(mutex_);
    push(now_, std::move(task), nullptr, 0, true);
}

VirtualScheduler::Entry VirtualScheduler::popEarliest() const {
    std::pop_heap(queue_.begin(), queue_.end(), Later{});
    Entry entry = std::move(queue_.back());
    queue_.pop_back();
    return entry;
}

void VirtualScheduler::dropDeadEntries() const {
    while (!queue_.empty() && queue_.front().timer && !queue_.front().timer->valid) {
        popEarliest();
    }
}

bool VirtualScheduler::runOneDue() {
    dropDeadEntries();
    if (queue_.empty() || queue_.front().due > now_) {
        return false;
    }
    Entry entry = popEarliest();
    if (entry.timer) {
        if (entry.interval > 0) {
            double next = entry.due + entry.interval;
            if (next <= now_) {
                next += std::ceil((now_ - next) / entry.interval) * entry.interval;
                if (next <= now_) {
                    next += entry.interval;
                }
            }
            push(next, entry.task, entry.timer, entry.interval, false);
        } else {
            entry.timer->valid = false;
        }
    }
    loopThread_ = std::this_thread::get_id();
    inBackgroundTask_ = entry.background;
    mutex_.unlock();
    try {
        entry.task();
        entry.task = nullptr;
    } catch (...) {
        // The caller's scoped lock releases the mutex again on the way out.
        mutex_.lock();
        throw;
    }
    mutex_.lock();
    inBackgroundTask_ = false;
    return true;
}

bool VirtualScheduler::waitForChange(WallDeadline deadline) {
    // The condition variable needs the std::mutex itself; the lock stays held as far as the analysis
    // (and the caller) can tell.
    std::unique_lock native(mutex_.native(), std::adopt_lock);
    const bool changed = changed_.wait_until(native, deadline) == std::cv_status::no_timeout;
    native.release();
    return changed;
}

void VirtualScheduler::waitForExternalWork(double wallSeconds) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(wallSeconds);
    while (externalWork_ != 0) {
        if (!waitForChange(deadline)) {
            return;
        }
    }
}

void VirtualScheduler::runUntilIdle() {
    platform::Lock lock(mutex_);
    runUntilIdleLocked();
}

void VirtualScheduler::runUntilIdleLocked() {
    loopThread_ = std::this_thread::get_id();
    for (;;) {
        while (runOneDue()) {
        }
        if (externalWork_ == 0) {
            return;
        }
        // Results of external work arrive as posted tasks; wait for one (or for the work to end).
        const std::uint64_t before = nextSequence_;
        const auto deadline =
            std::chrono::steady_clock::now() + std::chrono::duration<double>(externalTimeout_);
        while (externalWork_ != 0 && nextSequence_ == before) {
            if (!waitForChange(deadline)) {
                break;
            }
        }
        if (externalWork_ != 0 && nextSequence_ == before) {
            return;
        }
    }
}

void VirtualScheduler::fastForwardTo(double time) {
    platform::Lock lock(mutex_);
    for (;;) {
        runUntilIdleLocked();
        dropDeadEntries();
        if (queue_.empty() || queue_.front().due > time) {
            now_ = std::max(now_.load(), time);
            break;
        }
        now_ = std::max(now_.load(), queue_.front().due);
    }
    runUntilIdleLocked();
}

void VirtualScheduler::fastForwardBy(double seconds) {
    fastForwardTo(now() + std::max(seconds, 0.0));
}

std::optional<double> VirtualScheduler::nextEventTime() const {
    platform::Lock lock(mutex_);
    dropDeadEntries();
    if (queue_.empty()) {
        return std::nullopt;
    }
    return queue_.front().due;
}

std::size_t VirtualScheduler::pendingCount() const {
    platform::Lock lock(mutex_);
    return static_cast<std::size_t>(std::count_if(
        queue_.begin(), queue_.end(), [](const Entry& entry) { return !entry.timer || entry.timer->valid; }));
}

void VirtualScheduler::beginExternalWork() {
    platform::Lock lock(mutex_);
    ++externalWork_;
}

void VirtualScheduler::endExternalWork() {
    platform::Lock lock(mutex_);
    --externalWork_;
    changed_.notify_all();
}

}  // namespace tovrel::virtualbackend
