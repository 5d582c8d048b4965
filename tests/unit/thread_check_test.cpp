#include "tovrel/platform/thread_check.h"

#include <gtest/gtest.h>

#include <thread>

#include "delivery/offer_desk.h"
#include "support/test_device.h"
#include "tovrel/location_manager.h"

namespace tovrel {
namespace {

#if TOVREL_THREAD_CHECKS_ON

using platform::ThreadChecker;

// Death tests fork: "threadsafe" re-executes the binary, so the child does not inherit the threads
// of earlier tests.
class ThreadCheckDeathTest : public ::testing::Test {
  protected:
    void SetUp() override { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};

TEST_F(ThreadCheckDeathTest, ACheckerBindsToItsFirstCallerUntilDetached) {
    ThreadChecker checker;
    bool otherThreadValid = true;
    std::thread([&] { otherThreadValid = checker.calledOnValidThread(); }).join();
    EXPECT_FALSE(checker.calledOnValidThread());
    EXPECT_TRUE(otherThreadValid);

    checker.detach();
    EXPECT_TRUE(checker.calledOnValidThread());
    TOVREL_ASSERT_CALLED_ON_VALID_THREAD(checker);
    EXPECT_DEATH(std::thread([&] { TOVREL_ASSERT_CALLED_ON_VALID_THREAD(checker); }).join(),
                 "called off its bound thread");
}

TEST_F(ThreadCheckDeathTest, AMainThreadMemberCalledFromAnotherThreadAborts) {
    testing::TestDevice device;
    const auto manager =
        LocationManager::create(device.environment, delivery::OfferDesk::create(device.environment));
    manager->setAccuracyError(true);
    EXPECT_TRUE(manager->accuracyError());
    EXPECT_DEATH(std::thread([&] { manager->setAccuracyError(false); }).join(),
                 "setAccuracyError called off the main thread");
    EXPECT_DEATH(std::thread([&] { manager->stopMonitoringLocation(); }).join(),
                 "stopMonitoringLocation called off the main thread");
}

TEST_F(ThreadCheckDeathTest, ABackgroundTaskOnTheLoopsOwnThreadIsNotTheMainThread) {
    testing::TestDevice device;
    const auto manager =
        LocationManager::create(device.environment, delivery::OfferDesk::create(device.environment));
    device.loop().dispatchBackground([&] { manager->getTargets(); });
    device.loop().runUntilIdle();
    device.loop().dispatchBackground([&] { manager->resumePausedLocationManager(); });
    EXPECT_DEATH(device.loop().runUntilIdle(), "resumePausedLocationManager called off the main thread");
}

#else

TEST(ThreadCheckTest, ReleaseBuildsCompileTheChecksOut) {
    platform::ThreadChecker checker;
    std::thread([&] { EXPECT_TRUE(checker.calledOnValidThread()); }).join();
    // Bound to the other thread, yet the compiled-out check does not abort.
    TOVREL_ASSERT_CALLED_ON_VALID_THREAD(checker);
    GTEST_SKIP() << "thread checks are compiled out of this build (NDEBUG)";
}

#endif

}  // namespace
}  // namespace tovrel
