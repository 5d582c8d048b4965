#include <gtest/gtest.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <mutex>
#include <thread>
#include <vector>

#include "tovrel/linux/asio_main_loop.h"
#include "tovrel/linux/system_clock.h"
#include "tovrel/linux/thread_background_work.h"

namespace tovrel::linuxbackend {
namespace {

using namespace std::chrono_literals;

/// Waits (bounded) until a second task has arrived as well.
void waitForPeer(const std::atomic<int>& arrived) {
    const auto deadline = std::chrono::steady_clock::now() + 2s;
    while (arrived.load() < 2 && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(1ms);
    }
}

class AsioMainLoopTest : public ::testing::Test {
  protected:
    AsioMainLoop loop;
    std::vector<std::string> events;

    auto record(std::string event) {
        return [this, event = std::move(event)] { events.push_back(event); };
    }
};

TEST_F(AsioMainLoopTest, PostedTasksRunInPostingOrderOnTheLoopThread) {
    for (int i = 0; i < 5; ++i) {
        loop.post(record("task" + std::to_string(i)));
    }
    bool onLoop = false;
    loop.post([&] { onLoop = loop.isMainThread(); });
    loop.runUntil([&] { return events.size() == 5 && onLoop; }, 2s);
    EXPECT_EQ(events, (std::vector<std::string>{"task0", "task1", "task2", "task3", "task4"}));
    EXPECT_TRUE(onLoop);
}

TEST_F(AsioMainLoopTest, TaskPostedFromATaskRunsAfterTasksAlreadyQueued) {
    loop.post([&] {
        events.push_back("a");
        loop.post(record("c"));
    });
    loop.post(record("b"));
    loop.runUntil([&] { return events.size() == 3; }, 2s);
    EXPECT_EQ(events, (std::vector<std::string>{"a", "b", "c"}));
}

TEST_F(AsioMainLoopTest, PostsFromOtherThreadsKeepEachThreadsOrderAndHappensBefore) {
    constexpr int kPerThread = 500;
    std::mutex mutex;
    std::vector<std::pair<int, int>> seen;
    std::vector<std::thread> threads;
    std::atomic<bool> workerThreadWasMain{false};
    for (int t = 0; t < 3; ++t) {
        threads.emplace_back([&, t] {
            workerThreadWasMain = workerThreadWasMain || loop.isMainThread();
            for (int i = 0; i < kPerThread; ++i) {
                loop.post([&, t, i] {
                    std::lock_guard lock(mutex);
                    seen.emplace_back(t, i);
                });
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    // Posted after every worker's posts (the joins order them): it must run last.
    loop.post([&] {
        std::lock_guard lock(mutex);
        seen.emplace_back(-1, -1);
    });
    loop.runUntil(
        [&] {
            std::lock_guard lock(mutex);
            return seen.size() == 3 * kPerThread + 1;
        },
        5s);
    ASSERT_EQ(seen.size(), 3u * kPerThread + 1);
    EXPECT_EQ(seen.back(), std::make_pair(-1, -1));
    std::vector<int> next(3, 0);
    for (std::size_t k = 0; k + 1 < seen.size(); ++k) {
        const auto [t, i] = seen[k];
        EXPECT_EQ(i, next[static_cast<std::size_t>(t)]) << "thread " << t;
        next[static_cast<std::size_t>(t)] = i + 1;
    }
    EXPECT_FALSE(workerThreadWasMain);
}

TEST_F(AsioMainLoopTest, OneShotTimerFiresOnceAndThenIsInvalid) {
    int fired = 0;
    auto timer = loop.scheduleTimer(0.02, false, [&] { ++fired; });
    EXPECT_TRUE(timer->isValid());
    loop.runFor(150ms);
    EXPECT_EQ(fired, 1);
    EXPECT_FALSE(timer->isValid());
}

TEST_F(AsioMainLoopTest, DroppingTheHandleDoesNotStopARepeatingTimer) {
    int fired = 0;
    std::weak_ptr<platform::Timer> weak;
    {
        auto timer = loop.scheduleTimer(0.01, true, [&] { ++fired; });
        weak = timer;
    }
    loop.runUntil([&] { return fired >= 3; }, 2s);
    EXPECT_GE(fired, 3);
    auto kept = weak.lock();
    ASSERT_NE(kept, nullptr) << "the loop owns a scheduled timer";
    kept->invalidate();
    const int atInvalidate = fired;
    loop.runFor(60ms);
    EXPECT_EQ(fired, atInvalidate);
}

TEST_F(AsioMainLoopTest, InvalidateFromTheActionStopsARepeatingTimer) {
    int fired = 0;
    std::shared_ptr<platform::Timer> timer;
    timer = loop.scheduleTimer(0.005, true, [&] {
        if (++fired == 2) {
            timer->invalidate();
        }
    });
    loop.runFor(100ms);
    EXPECT_EQ(fired, 2);
    EXPECT_FALSE(timer->isValid());
    timer->invalidate();  // again: nothing happens
}

TEST_F(AsioMainLoopTest, InvalidateFromAnotherThreadStopsAPendingTimer) {
    bool fired = false;
    auto timer = loop.scheduleTimer(0.05, false, [&] { fired = true; });
    std::thread([timer] { timer->invalidate(); }).join();
    EXPECT_FALSE(timer->isValid());
    loop.runFor(120ms);
    EXPECT_FALSE(fired);
}

TEST_F(AsioMainLoopTest, TimersFireInDueOrderAndTiesInSchedulingOrder) {
    loop.scheduleTimer(0.03, false, record("late"));
    loop.scheduleTimer(0.01, false, record("early"));
    loop.scheduleTimer(0, false, record("zero-a"));
    loop.scheduleTimer(0, false, record("zero-b"));
    loop.runUntil([&] { return events.size() == 4; }, 2s);
    EXPECT_EQ(events, (std::vector<std::string>{"zero-a", "zero-b", "early", "late"}));
}

TEST_F(AsioMainLoopTest, TimerScheduledFromAnotherThreadFiresOnTheLoop) {
    std::atomic<bool> onLoop{false};
    std::thread([&] { loop.scheduleTimer(0.01, false, [&] { onLoop = loop.isMainThread(); }); }).join();
    EXPECT_TRUE(loop.runUntil([&] { return onLoop.load(); }, 2s));
}

TEST_F(AsioMainLoopTest, StopEndsRunFromAnotherThread) {
    loop.scheduleTimer(0.02, false, [&] { std::thread([&] { loop.stop(); }).detach(); });
    const auto start = std::chrono::steady_clock::now();
    loop.run();
    EXPECT_LT(std::chrono::steady_clock::now() - start, 5s);
    // The loop can run again afterwards.
    bool ran = false;
    loop.post([&] { ran = true; });
    EXPECT_TRUE(loop.runUntil([&] { return ran; }, 1s));
}

TEST_F(AsioMainLoopTest, WatchReportsReadableDescriptorUntilCancelled) {
    const int fd = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    ASSERT_GE(fd, 0);
    int reads = 0;
    auto watch = loop.watchReadable(fd, [&] {
        std::uint64_t value = 0;
        [[maybe_unused]] const auto got = ::read(fd, &value, sizeof value);
        ++reads;
    });
    const std::uint64_t one = 1;
    std::thread([&] { [[maybe_unused]] const auto put = ::write(fd, &one, sizeof one); }).join();
    EXPECT_TRUE(loop.runUntil([&] { return reads == 1; }, 2s));
    watch->cancel();
    [[maybe_unused]] const auto put = ::write(fd, &one, sizeof one);
    loop.runFor(50ms);
    EXPECT_EQ(reads, 1);
    watch.reset();
    ::close(fd);
}

TEST_F(AsioMainLoopTest, DestroyingTheLoopDropsPendingWorkWithoutRunningIt) {
    auto owned = std::make_unique<AsioMainLoop>();
    auto token = std::make_shared<int>(0);
    std::weak_ptr<int> weak = token;
    owned->post([token] { FAIL() << "must not run"; });
    owned->scheduleTimer(10, true, [token] { FAIL() << "must not run"; });
    token.reset();
    owned.reset();
    EXPECT_TRUE(weak.expired());
}

TEST_F(AsioMainLoopTest, DiscardingTimersFreesWhatHoldsTheLoopThroughAnAction) {
    // An object that holds the loop and is held by its own timer's action: a cycle only discarding
    // the timers breaks (as a component object holding its ports does).
    struct Holder {
        std::shared_ptr<AsioMainLoop> loop;
        std::shared_ptr<platform::Timer> timer;
    };
    auto shared = std::make_shared<AsioMainLoop>();
    std::weak_ptr<AsioMainLoop> weakLoop = shared;
    auto holder = std::make_shared<Holder>();
    holder->loop = shared;
    holder->timer = shared->scheduleTimer(3600, true, [holder] { FAIL() << "must not run"; });
    std::weak_ptr<Holder> weakHolder = holder;
    holder.reset();
    shared->discardTimers();
    shared.reset();
    EXPECT_TRUE(weakHolder.expired());
    EXPECT_TRUE(weakLoop.expired());
}

TEST(ThreadBackgroundWorkTest, QueueStartsTasksInSubmissionOrderOffTheMainThread) {
    ThreadBackgroundWork work(1);
    std::mutex mutex;
    std::vector<int> order;
    const auto caller = std::this_thread::get_id();
    std::atomic<bool> ranOnCaller{false};
    for (int i = 0; i < 50; ++i) {
        work.dispatchBackground([&, i] {
            ranOnCaller = ranOnCaller || std::this_thread::get_id() == caller;
            std::lock_guard lock(mutex);
            order.push_back(i);
        });
    }
    work.shutdown();
    ASSERT_EQ(order.size(), 50u);
    for (int i = 0; i < 50; ++i) {
        EXPECT_EQ(order[static_cast<std::size_t>(i)], i);
    }
    EXPECT_FALSE(ranOnCaller);
}

TEST(ThreadBackgroundWorkTest, QueueRunsTasksConcurrentlyOnSeveralWorkers) {
    ThreadBackgroundWork work(2);
    std::atomic<int> arrived{0};
    for (int i = 0; i < 2; ++i) {
        work.dispatchBackground([&] {
            ++arrived;
            waitForPeer(arrived);
        });
    }
    const auto start = std::chrono::steady_clock::now();
    work.shutdown();
    EXPECT_EQ(arrived.load(), 2);
    EXPECT_LT(std::chrono::steady_clock::now() - start, 1900ms)
        << "the second task waited for the first to end";
}

TEST(ThreadBackgroundWorkTest, ShutdownJoinsDetachedThreadsAndRefusesLaterWork) {
    auto work = std::make_unique<ThreadBackgroundWork>();
    std::atomic<int> finished{0};
    for (int i = 0; i < 4; ++i) {
        work->detachNewThread([&] {
            std::this_thread::sleep_for(30ms);
            ++finished;
        });
    }
    work->shutdown();
    EXPECT_EQ(finished.load(), 4);
    EXPECT_EQ(work->runningThreadCount(), 0u);
    work->detachNewThread([&] { ++finished; });
    work->dispatchBackground([&] { ++finished; });
    work.reset();
    EXPECT_EQ(finished.load(), 4);
}

TEST(SystemClockTest, SleepForReallySleepsAndNowIsWallTime) {
    SystemClock clock;
    const double before = clock.now();
    EXPECT_GT(before, 1.7e9);
    clock.sleepFor(0.05);
    EXPECT_GE(clock.now() - before, 0.045);
    clock.sleepFor(-1);
}

}  // namespace
}  // namespace tovrel::linuxbackend
