#include "request_watch.h"

#include <algorithm>
#include <cstdio>
#include <utility>

namespace tovrel::sim {
namespace {

/// Seconds as a person writes them: 5, 0.25, 3600.
std::string seconds(double value) {
    char text[32];
    std::snprintf(text, sizeof text, "%g", value);
    return text;
}

}  // namespace

RequestWatch::RequestWatch(double timeoutSeconds, Report report, Clock::duration interval)
    : timeoutSeconds_(timeoutSeconds),
      report_(std::move(report)),
      interval_(std::max(interval, Clock::duration(1))) {
    thread_ = std::thread([this] { run(); });
}

RequestWatch::~RequestWatch() {
    stop();
}

void RequestWatch::begin(std::uint64_t id, std::string what) {
    {
        platform::Lock lock(mutex_);
        open_[id] = Open{std::move(what), Clock::now(), 0};
    }
    // The thread may be asleep without a deadline, or with a later one than this request's.
    changed_.notify_one();
}

void RequestWatch::end(std::uint64_t id) {
    platform::Lock lock(mutex_);
    open_.erase(id);
}

void RequestWatch::stop() {
    {
        platform::Lock lock(mutex_);
        stopping_ = true;
    }
    changed_.notify_one();
    if (thread_.joinable()) {
        thread_.join();
    }
}

std::string RequestWatch::line(Clock::duration waited, const std::string& what, double timeoutSeconds) {
    return "waiting " + seconds(std::chrono::duration<double>(waited).count()) + " s for " + what +
           " (gives up after " + seconds(timeoutSeconds) + " s, --http-timeout)";
}

std::optional<RequestWatch::Clock::time_point> RequestWatch::collectDue(Clock::time_point now,
                                                                        std::vector<std::string>& lines) {
    std::optional<Clock::time_point> next;
    for (auto& [id, open] : open_) {
        // Whole intervals waited: a watch that woke late reports once, with the time actually waited.
        const std::int64_t intervals = (now - open.since) / interval_;
        if (intervals > open.intervalsReported) {
            open.intervalsReported = intervals;
            lines.push_back(line(interval_ * intervals, open.what, timeoutSeconds_));
        }
        const Clock::time_point due = open.since + interval_ * (open.intervalsReported + 1);
        if (!next || due < *next) {
            next = due;
        }
    }
    return next;
}

void RequestWatch::waitUntil(std::optional<Clock::time_point> deadline) {
    // The condition variable needs the std::mutex itself; the lock stays held as far as the analysis
    // (and the caller) can tell.
    std::unique_lock native(mutex_.native(), std::adopt_lock);
    if (deadline) {
        changed_.wait_until(native, *deadline);
    } else {
        changed_.wait(native);
    }
    native.release();
}

void RequestWatch::run() {
    for (;;) {
        std::vector<std::string> lines;
        {
            platform::Lock lock(mutex_);
            for (;;) {
                if (stopping_) {
                    return;
                }
                const auto next = collectDue(Clock::now(), lines);
                if (!lines.empty()) {
                    break;
                }
                waitUntil(next);
            }
        }
        // Outside the lock: writing to a terminal may block, and requests keep beginning and ending.
        for (const std::string& text : lines) {
            report_(text);
        }
    }
}

}  // namespace tovrel::sim
