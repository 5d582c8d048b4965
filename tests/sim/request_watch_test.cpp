#include "request_watch.h"

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace tovrel::sim {
namespace {

using namespace std::chrono_literals;

constexpr auto kInterval = 100ms;
const std::string kSession = "POST http://127.0.0.1:9/v1/session";
const std::string kPlaces = "POST http://127.0.0.1:9/v2/place";

/// The lines a watch reports, as they come from its thread.
class Lines {
  public:
    RequestWatch::Report sink() {
        return [this](const std::string& line) {
            {
                std::lock_guard lock(mutex_);
                lines_.push_back(line);
            }
            arrived_.notify_all();
        };
    }
    /// Waits (at most `limit`) until there are `count` lines; the lines then.
    std::vector<std::string> waitFor(std::size_t count, std::chrono::milliseconds limit = 5s) {
        std::unique_lock lock(mutex_);
        arrived_.wait_for(lock, limit, [&] { return lines_.size() >= count; });
        return lines_;
    }
    std::vector<std::string> now() {
        std::lock_guard lock(mutex_);
        return lines_;
    }

  private:
    std::mutex mutex_;
    std::condition_variable arrived_;
    std::vector<std::string> lines_;
};

/// The whole intervals a line says were waited, or -1 when it is not a line about `what`.
long intervalsIn(const std::string& line, const std::string& what, double timeoutSeconds) {
    for (long k = 1; k <= 100; ++k) {
        if (line == RequestWatch::line(kInterval * k, what, timeoutSeconds)) {
            return k;
        }
    }
    return -1;
}

TEST(RequestWatch, TheLineSaysHowLongItWaitedForWhatAndWhenItGivesUp) {
    EXPECT_EQ(RequestWatch::line(5s, kSession, 30),
              "waiting 5 s for POST http://127.0.0.1:9/v1/session (gives up after 30 s, --http-timeout)");
    EXPECT_EQ(RequestWatch::line(250ms, kSession, 0.1),
              "waiting 0.25 s for POST http://127.0.0.1:9/v1/session (gives up after 0.1 s, --http-timeout)");
    EXPECT_EQ(
        RequestWatch::line(3600s, kSession, 3600),
        "waiting 3600 s for POST http://127.0.0.1:9/v1/session (gives up after 3600 s, --http-timeout)");
}

TEST(RequestWatch, AnOpenRequestIsReportedEveryIntervalUntilItEnds) {
    Lines lines;
    RequestWatch watch(30, lines.sink(), kInterval);
    watch.begin(7, kSession);
    const auto two = lines.waitFor(2);
    ASSERT_GE(two.size(), 2u);
    // A loaded machine may wake the watch late; each line still says whole intervals, and more each time.
    const long first = intervalsIn(two[0], kSession, 30);
    const long second = intervalsIn(two[1], kSession, 30);
    EXPECT_GE(first, 1) << two[0];
    EXPECT_GT(second, first) << two[1];

    watch.end(7);
    const std::size_t reported = lines.now().size();
    std::this_thread::sleep_for(kInterval * 3);
    EXPECT_EQ(lines.now().size(), reported) << "an answered request is still reported";
}

TEST(RequestWatch, OnlyTheRequestsStillOpenAreReported) {
    Lines lines;
    RequestWatch watch(30, lines.sink(), kInterval);
    watch.begin(1, kPlaces);
    watch.begin(2, kSession);
    watch.end(1);
    watch.begin(3, "GET http://127.0.0.1:9/pages/1");
    std::this_thread::sleep_for(kInterval / 4);
    watch.end(3);
    watch.end(99);  // never began

    const auto seen = lines.waitFor(2);
    ASSERT_GE(seen.size(), 2u);
    for (const std::string& line : seen) {
        EXPECT_GE(intervalsIn(line, kSession, 30), 1) << line;
    }
}

TEST(RequestWatch, ARequestBeganWhileTheWatchIdlesIsReported) {
    // With nothing open the watch sleeps without a deadline: the request that begins must wake it.
    Lines lines;
    RequestWatch watch(30, lines.sink(), kInterval);
    watch.begin(1, kPlaces);
    watch.end(1);
    std::this_thread::sleep_for(kInterval * 2);
    watch.begin(2, kSession);
    const auto seen = lines.waitFor(1);
    ASSERT_EQ(seen.size(), 1u);
    EXPECT_GE(intervalsIn(seen[0], kSession, 30), 1) << seen[0];
}

TEST(RequestWatch, StopReturnsAtOnceAndSilencesTheWatch) {
    Lines lines;
    {
        // Asleep without a deadline (nothing open), then with one an hour away.
        RequestWatch idle(30, lines.sink(), 1h);
        const auto start = std::chrono::steady_clock::now();
        idle.stop();
        EXPECT_LT(std::chrono::steady_clock::now() - start, 1s);

        RequestWatch waiting(30, lines.sink(), 1h);
        waiting.begin(1, kSession);
        std::this_thread::sleep_for(10ms);
        const auto again = std::chrono::steady_clock::now();
        waiting.stop();
        waiting.stop();
        EXPECT_LT(std::chrono::steady_clock::now() - again, 1s);
    }

    RequestWatch watch(30, lines.sink(), kInterval);
    watch.begin(1, kSession);
    watch.stop();
    std::this_thread::sleep_for(kInterval * 3);
    EXPECT_EQ(lines.now(), std::vector<std::string>{});
}

TEST(RequestWatch, TheReportMayEndTheRequestItReports) {
    // Lines are reported without the watch's lock: a report that calls back into the watch must not
    // deadlock, and a request it ends is not reported again.
    std::mutex mutex;
    std::condition_variable reported;
    int count = 0;
    RequestWatch* self = nullptr;
    RequestWatch watch(
        30,
        [&](const std::string&) {
            self->end(1);
            std::lock_guard lock(mutex);
            ++count;
            reported.notify_all();
        },
        kInterval);
    self = &watch;
    watch.begin(1, kSession);
    {
        std::unique_lock lock(mutex);
        ASSERT_TRUE(reported.wait_for(lock, 5s, [&] { return count > 0; }));
    }
    std::this_thread::sleep_for(kInterval * 3);
    std::lock_guard lock(mutex);
    EXPECT_EQ(count, 1);
}

}  // namespace
}  // namespace tovrel::sim
