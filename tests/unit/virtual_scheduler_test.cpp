#include "tovrel/virtual/virtual_scheduler.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

namespace tovrel::virtualbackend {
namespace {

class VirtualSchedulerTest : public ::testing::Test {
  protected:
    VirtualScheduler loop{1000.0};
    std::vector<std::string> trace;
};

TEST_F(VirtualSchedulerTest, PostedTasksRunInOrderOnlyWhenDriven) {
    loop.post([&] { trace.push_back("a"); });
    loop.post([&] {
        trace.push_back("b");
        loop.post([&] { trace.push_back("d"); });
    });
    loop.post([&] { trace.push_back("c"); });
    EXPECT_TRUE(trace.empty());
    loop.runUntilIdle();
    EXPECT_EQ(trace, (std::vector<std::string>{"a", "b", "c", "d"}));
    EXPECT_DOUBLE_EQ(loop.now(), 1000.0);
}

TEST_F(VirtualSchedulerTest, TimersFireAtTheirVirtualTimes) {
    loop.scheduleTimer(1800, false,
                       [&] { trace.push_back("once@" + std::to_string(int(loop.now()) - 1000)); });
    loop.scheduleTimer(600, true,
                       [&] { trace.push_back("every@" + std::to_string(int(loop.now()) - 1000)); });
    loop.fastForwardBy(1799);
    EXPECT_EQ(trace, (std::vector<std::string>{"every@600", "every@1200"}));
    loop.fastForwardBy(1);
    // The one-shot was scheduled before the repeating timer re-armed for 1800, so it runs first.
    EXPECT_EQ(trace, (std::vector<std::string>{"every@600", "every@1200", "once@1800", "every@1800"}));
    EXPECT_DOUBLE_EQ(loop.now(), 2800.0);
}

TEST_F(VirtualSchedulerTest, DroppingTheHandleDoesNotStopATimer) {
    int fired = 0;
    loop.scheduleTimer(5, true, [&] { ++fired; });
    loop.fastForwardBy(20);
    EXPECT_EQ(fired, 4);
}

TEST_F(VirtualSchedulerTest, InvalidateStopsATimerAndIsValidFollows) {
    int fired = 0;
    auto repeating = loop.scheduleTimer(5, true, [&] { ++fired; });
    auto once = loop.scheduleTimer(3, false, [] {});
    EXPECT_TRUE(repeating->isValid());
    loop.fastForwardBy(3);
    EXPECT_FALSE(once->isValid());
    loop.fastForwardBy(7);
    EXPECT_EQ(fired, 2);
    repeating->invalidate();
    repeating->invalidate();
    EXPECT_FALSE(repeating->isValid());
    loop.fastForwardBy(60);
    EXPECT_EQ(fired, 2);
    EXPECT_EQ(loop.pendingCount(), 0u);
}

TEST_F(VirtualSchedulerTest, ATimerCanInvalidateItselfWhileFiring) {
    int fired = 0;
    std::shared_ptr<platform::Timer> timer;
    timer = loop.scheduleTimer(5, true, [&] {
        if (++fired == 3) {
            timer->invalidate();
        }
    });
    loop.fastForwardBy(100);
    EXPECT_EQ(fired, 3);
}

TEST_F(VirtualSchedulerTest, EqualDueTimesKeepSubmissionOrder) {
    loop.scheduleTimer(10, false, [&] { trace.push_back("t1"); });
    loop.scheduleTimer(10, false, [&] { trace.push_back("t2"); });
    loop.fastForwardBy(10);
    EXPECT_EQ(trace, (std::vector<std::string>{"t1", "t2"}));
}

TEST_F(VirtualSchedulerTest, BackgroundTasksAreNotOnTheMainThread) {
    std::vector<bool> main;
    loop.post([&] { main.push_back(loop.isMainThread()); });
    loop.detachNewThread([&] { main.push_back(loop.isMainThread()); });
    loop.dispatchBackground([&] { main.push_back(loop.isMainThread()); });
    loop.runUntilIdle();
    EXPECT_EQ(main, (std::vector<bool>{true, false, false}));
    bool fromOtherThread = true;
    std::thread([&] { fromOtherThread = loop.isMainThread(); }).join();
    EXPECT_FALSE(fromOtherThread);
}

TEST_F(VirtualSchedulerTest, SleepMovesTheClockAndLateTasksStillRun) {
    loop.scheduleTimer(1, false, [&] { trace.push_back("timer"); });
    loop.post([&] {
        loop.sleepFor(2);
        trace.push_back("woke@" + std::to_string(int(loop.now()) - 1000));
    });
    loop.runUntilIdle();
    EXPECT_EQ(trace, (std::vector<std::string>{"woke@2", "timer"}));
}

TEST_F(VirtualSchedulerTest, ClockWaitsForExternalWork) {
    loop.beginExternalWork();
    std::thread worker([this] {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        loop.post([this] {
            trace.push_back("answer@" + std::to_string(int(loop.now()) - 1000));
            loop.endExternalWork();
        });
    });
    loop.scheduleTimer(30, false, [&] { trace.push_back("timer"); });
    loop.fastForwardBy(60);
    worker.join();
    EXPECT_EQ(trace, (std::vector<std::string>{"answer@0", "timer"}));
}

TEST_F(VirtualSchedulerTest, NextEventTimeSkipsInvalidatedTimers) {
    auto early = loop.scheduleTimer(5, false, [] {});
    loop.scheduleTimer(50, false, [] {});
    EXPECT_DOUBLE_EQ(*loop.nextEventTime(), 1005);
    early->invalidate();
    EXPECT_DOUBLE_EQ(*loop.nextEventTime(), 1050);
}

}  // namespace
}  // namespace tovrel::virtualbackend
