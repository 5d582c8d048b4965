#include <gtest/gtest.h>

#include <atomic>
#include <fstream>
#include <mutex>

#include "process_support.h"
#include "recording_delegate.h"
#include "tovrel/linux/fix_filter.h"
#include "tovrel/linux/linux_location_services.h"
#include "tovrel/linux/speed_motion.h"
#include "tovrel/linux/system_clock.h"
#include "track_samples.h"

namespace tovrel::linuxbackend {
namespace {

using namespace std::chrono_literals;

class ReplayLocationTest : public ::testing::Test {
  protected:
    test::TempDir directory;
    std::shared_ptr<AsioMainLoop> loop = std::make_shared<AsioMainLoop>();
    std::shared_ptr<SystemClock> clock = std::make_shared<SystemClock>();
    std::shared_ptr<test::RecordingDelegate> delegate = std::make_shared<test::RecordingDelegate>(*loop);

    std::shared_ptr<LinuxLocationServices> servicesFor(const std::string& content, double speed) {
        const auto file = directory.path() / "route.gpx";
        std::ofstream(file) << content;
        ReplayOptions options;
        options.file = file;
        options.speed = speed;
        return std::make_shared<LinuxLocationServices>(loop, clock, makeReplaySource(options, clock));
    }
};

TEST_F(ReplayLocationTest, GeneratedGpxReachesTheDelegateThroughTheDistanceFilter) {
    // 30 points 4 m apart, one a second, played fifty times faster.
    auto services = servicesFor(test::gpxTrack(30, 4, 1), 50);
    auto manager = services->createLocationManager();
    manager->setDistanceFilter(10);
    manager->setDesiredAccuracy(platform::accuracy::kNearestTenMeters);
    manager->setDelegate(delegate);
    manager->startUpdatingLocation();
    loop->runUntil(
        [&] {
            return services->publishedCount() == 30 && services->deliveredCount() == delegate->fixes.size();
        },
        10s);
    loop->runFor(50ms);
    ASSERT_EQ(services->publishedCount(), 30u);
    // Delivered: 0, 12, 24, ... 108 m.
    ASSERT_EQ(delegate->fixes.size(), 10u);
    for (std::size_t i = 1; i < delegate->fixes.size(); ++i) {
        EXPECT_GE(metresBetween(delegate->fixes[i - 1].coordinate, delegate->fixes[i].coordinate), 10 - 0.05);
        EXPECT_GE(delegate->fixes[i].timestamp, delegate->fixes[i - 1].timestamp);
    }
    EXPECT_NEAR(delegate->fixes.front().coordinate.latitude, 48.0, 1e-7);
    EXPECT_GT(delegate->fixes.back().speed, 3.9) << "speed derived from the recorded times";
    EXPECT_NEAR(delegate->fixes.back().timestamp, clock->now(), 30)
        << "fixes carry the time they were played";
    EXPECT_EQ(delegate->offLoopCalls, 0);
    EXPECT_TRUE(delegate->errors.empty());
}

TEST_F(ReplayLocationTest, SignificantChangeMonitoringAloneReportsAboutEveryFiveHundredMetres) {
    auto services = servicesFor(test::gpxTrack(30, 40, 1), 100);
    auto manager = services->createLocationManager();
    manager->setDistanceFilter(10);
    manager->setDelegate(delegate);
    manager->startMonitoringSignificantLocationChanges();
    loop->runUntil([&] { return services->publishedCount() == 30; }, 10s);
    loop->runFor(50ms);
    // 0, 520 and 1040 m of a 1160 m track.
    EXPECT_EQ(delegate->fixes.size(), 3u);
}

TEST_F(ReplayLocationTest, StoppedOrReleasedManagersHearNothingMore) {
    auto services = servicesFor(test::gpxTrack(40, 20, 1), 40);
    auto first = services->createLocationManager();
    auto second = services->createLocationManager();
    auto otherDelegate = std::make_shared<test::RecordingDelegate>(*loop);
    first->setDelegate(delegate);
    second->setDelegate(otherDelegate);
    first->startUpdatingLocation();
    second->startUpdatingLocation();
    loop->runUntil([&] { return delegate->fixes.size() >= 3 && otherDelegate->fixes.size() >= 3; }, 10s);
    first->stopUpdatingLocation();
    second.reset();
    const auto firstCount = delegate->fixes.size();
    const auto secondCount = otherDelegate->fixes.size();
    loop->runUntil([&] { return services->publishedCount() == 40; }, 10s);
    loop->runFor(50ms);
    EXPECT_EQ(delegate->fixes.size(), firstCount);
    EXPECT_EQ(otherDelegate->fixes.size(), secondCount);
}

TEST_F(ReplayLocationTest, ANewManagerGetsTheLatestFreshFixAtOnce) {
    auto services = servicesFor(test::gpxTrack(2, 5, 1), 100);
    services->startSource();
    ASSERT_TRUE(test::waitUntil([&] { return services->publishedCount() == 2; }, 5s));
    auto manager = services->createLocationManager();
    manager->setDelegate(delegate);
    manager->startUpdatingLocation();
    loop->runUntil([&] { return !delegate->fixes.empty(); }, 2s);
    ASSERT_EQ(delegate->fixes.size(), 1u);
    EXPECT_NEAR(metresBetween({48.0, 11.0}, delegate->fixes[0].coordinate), 5, 0.01);
}

TEST_F(ReplayLocationTest, MotionComesFromTheFileWhenItRecordsActivities) {
    auto services = servicesFor(test::gpxTrack(5, 1, 1, "cycling"), 100);
    SpeedMotionServices motion(services);
    auto manager = motion.createMotionActivityManager();
    std::mutex mutex;
    std::vector<platform::MotionActivity> activities;
    std::atomic<bool> onLoop{false};
    manager->startActivityUpdates([&](const platform::MotionActivity& activity) {
        onLoop = onLoop || loop->isMainThread();
        std::lock_guard lock(mutex);
        activities.push_back(activity);
    });
    ASSERT_TRUE(test::waitUntil([&] { return services->publishedCount() == 5; }, 5s));
    manager->stopActivityUpdates();
    std::lock_guard lock(mutex);
    ASSERT_EQ(activities.size(), 1u) << "one update per change, not per fix";
    EXPECT_TRUE(activities[0].cycling);
    EXPECT_EQ(activities[0].confidence, platform::MotionConfidence::kHigh);
    EXPECT_FALSE(onLoop);
}

TEST_F(ReplayLocationTest, MotionIsDerivedFromSpeedWithoutRecordedActivities) {
    // 15 m per second: automotive.
    auto services = servicesFor(test::gpxTrack(6, 15, 1), 100);
    SpeedMotionServices motion(services);
    auto manager = motion.createMotionActivityManager();
    std::mutex mutex;
    std::vector<platform::MotionActivity> activities;
    manager->startActivityUpdates([&](const platform::MotionActivity& activity) {
        std::lock_guard lock(mutex);
        activities.push_back(activity);
    });
    ASSERT_TRUE(test::waitUntil([&] { return services->publishedCount() == 6; }, 5s));
    manager->stopActivityUpdates();
    std::lock_guard lock(mutex);
    ASSERT_FALSE(activities.empty());
    EXPECT_TRUE(activities.back().automotive);
}

TEST_F(ReplayLocationTest, ServicesAnswerTheirQuestionsFromTheOptions) {
    LocationServicesOptions options;
    options.servicesEnabled = false;
    options.regionMonitoringAvailable = false;
    options.authorization = platform::AuthorizationStatus::kDenied;
    LinuxLocationServices services(loop, clock, nullptr, options);
    EXPECT_FALSE(services.locationServicesEnabled());
    EXPECT_FALSE(services.isMonitoringAvailableForCircularRegion());
    EXPECT_EQ(services.authorizationStatus(), platform::AuthorizationStatus::kDenied);
    auto manager = services.createLocationManager();
    EXPECT_DOUBLE_EQ(manager->desiredAccuracy(), platform::accuracy::kBest);
    EXPECT_DOUBLE_EQ(manager->distanceFilter(), -1);
    manager->startUpdatingLocation();  // no source: nothing happens
}

TEST_F(ReplayLocationTest, UnreadableReplayFileThrows) {
    ReplayOptions options;
    options.file = directory.path() / "missing.gpx";
    EXPECT_THROW(makeReplaySource(options, clock), std::runtime_error);
}

}  // namespace
}  // namespace tovrel::linuxbackend
