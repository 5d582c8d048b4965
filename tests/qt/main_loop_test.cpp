#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <thread>
#include <vector>

#include "qt_test_support.h"
#include "tovrel/qt/qt_main_loop.h"

namespace tovrel::qtbackend {
namespace {

using namespace std::chrono_literals;
using qttest::waitFor;

class QtMainLoopTest : public ::testing::Test {
  protected:
    std::shared_ptr<QtMainLoop> loop = std::make_shared<QtMainLoop>();
};

TEST_F(QtMainLoopTest, TasksFromManyThreadsRunOnTheMainThreadInEachThreadsPostingOrder) {
    constexpr int kThreads = 4;
    constexpr int kTasks = 400;
    std::vector<std::vector<int>> seen(kThreads);
    std::atomic<int> done{0};
    bool allOnMain = true;
    std::vector<std::thread> workers;
    for (int t = 0; t < kThreads; ++t) {
        workers.emplace_back([&, t] {
            EXPECT_FALSE(loop->isMainThread());
            for (int i = 0; i < kTasks; ++i) {
                loop->post([&, t, i] {
                    allOnMain = allOnMain && loop->isMainThread();
                    seen[static_cast<std::size_t>(t)].push_back(i);
                    ++done;
                });
            }
        });
    }
    for (auto& worker : workers) {
        worker.join();
    }
    // Posted after every worker's tasks (the joins order them): it must run last.
    int lastSeenTotal = -1;
    loop->post([&] { lastSeenTotal = done.load(); });
    ASSERT_TRUE(waitFor([&] { return lastSeenTotal >= 0; }, 10s));
    EXPECT_EQ(lastSeenTotal, kThreads * kTasks);
    EXPECT_TRUE(allOnMain);
    for (const auto& order : seen) {
        ASSERT_EQ(order.size(), static_cast<std::size_t>(kTasks));
        EXPECT_TRUE(std::is_sorted(order.begin(), order.end()));
    }
}

TEST_F(QtMainLoopTest, ATaskPostedByATaskRunsAfterEverythingAlreadyQueued) {
    std::vector<std::string> order;
    loop->post([&] {
        order.push_back("first");
        loop->post([&] { order.push_back("posted by first"); });
    });
    loop->post([&] { order.push_back("second"); });
    ASSERT_TRUE(waitFor([&] { return order.size() == 3; }, 5s));
    EXPECT_EQ(order, (std::vector<std::string>{"first", "second", "posted by first"}));
}

TEST_F(QtMainLoopTest, ARepeatingTimerKeepsFiringAfterEveryHandleIsDropped) {
    int fired = 0;
    loop->scheduleTimer(0.01, true, [&] { ++fired; });
    EXPECT_TRUE(waitFor([&] { return fired >= 3; }, 5s));
    EXPECT_EQ(loop->timerCount(), 1U);
}

TEST_F(QtMainLoopTest, AnInvalidatedTimerNeverFiresAgainAndIsCollected) {
    int fired = 0;
    auto timer = loop->scheduleTimer(0.01, true, [&] { ++fired; });
    ASSERT_TRUE(waitFor([&] { return fired >= 1; }, 5s));
    timer->invalidate();
    timer->invalidate();
    EXPECT_FALSE(timer->isValid());
    const int atInvalidation = fired;
    qttest::pump(100ms);
    EXPECT_EQ(fired, atInvalidation);
    EXPECT_EQ(loop->timerCount(), 0U);
}

TEST_F(QtMainLoopTest, AOneShotTimerFiresOnceAndIsThenInvalid) {
    int fired = 0;
    auto timer = loop->scheduleTimer(0.01, false, [&] { ++fired; });
    EXPECT_TRUE(timer->isValid());
    ASSERT_TRUE(waitFor([&] { return fired == 1; }, 5s));
    EXPECT_FALSE(timer->isValid());
    qttest::pump(60ms);
    EXPECT_EQ(fired, 1);
}

TEST_F(QtMainLoopTest, TimersScheduledAndInvalidatedOnOtherThreadsObeyTheMainThread) {
    std::atomic<int> kept{0};
    std::atomic<int> cancelled{0};
    std::shared_ptr<platform::Timer> keptTimer;
    std::thread worker([&] {
        keptTimer = loop->scheduleTimer(0.01, false, [&] { ++kept; });
        auto doomed = loop->scheduleTimer(0.05, false, [&] { ++cancelled; });
        // Invalidated before the loop has even started it.
        doomed->invalidate();
    });
    worker.join();
    ASSERT_TRUE(waitFor([&] { return kept.load() == 1; }, 5s));
    qttest::pump(120ms);
    EXPECT_EQ(cancelled.load(), 0);
    EXPECT_FALSE(keptTimer->isValid());
}

TEST_F(QtMainLoopTest, ADescriptorWatchCallsBackUntilCancelledFromItsOwnCallback) {
    int fds[2];
    ASSERT_EQ(::pipe(fds), 0);
    int calls = 0;
    std::unique_ptr<linuxbackend::FdWatch> watch;
    watch = loop->watchReadable(fds[0], [&] {
        char buffer[16];
        (void)::read(fds[0], buffer, sizeof buffer);
        ++calls;
        watch->cancel();
    });
    ASSERT_EQ(::write(fds[1], "x", 1), 1);
    ASSERT_TRUE(waitFor([&] { return calls == 1; }, 5s));
    ASSERT_EQ(::write(fds[1], "y", 1), 1);
    qttest::pump(50ms);
    EXPECT_EQ(calls, 1);
    watch.reset();
    ::close(fds[0]);
    ::close(fds[1]);
}

}  // namespace
}  // namespace tovrel::qtbackend
