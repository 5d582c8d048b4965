#include "tovrel/linux/fix_filter.h"

#include <gtest/gtest.h>

#include <cmath>

#include "tovrel/linux/speed_motion.h"

namespace tovrel::linuxbackend {
namespace {

/// A fix `northMetres` north of 48.0 N, 11.0 E (one degree of latitude is about 111.2 km).
platform::Location fixAt(double northMetres, double time, double accuracy = 5, double speed = -1) {
    platform::Location fix;
    fix.coordinate = {48.0 + northMetres / 111194.93, 11.0};
    fix.horizontalAccuracy = accuracy;
    fix.timestamp = time;
    fix.speed = speed;
    return fix;
}

class FixFilterTest : public ::testing::Test {
  protected:
    FixFilter filter;
    FixFilterSettings standard{platform::accuracy::kNearestTenMeters, 10, true, false};
};

TEST_F(FixFilterTest, NothingPassesWhileNoUpdatesRun) {
    EXPECT_FALSE(filter.accept(fixAt(0, 1), FixFilterSettings{}));
}

TEST_F(FixFilterTest, DistanceFilterIsMeasuredFromTheLastDeliveredFix) {
    EXPECT_TRUE(filter.accept(fixAt(0, 1), standard));
    EXPECT_FALSE(filter.accept(fixAt(6, 2), standard));
    EXPECT_FALSE(filter.accept(fixAt(9.9, 3), standard))
        << "9.9 m from the delivered fix, not from the last seen";
    EXPECT_TRUE(filter.accept(fixAt(10.01, 4), standard));
    EXPECT_FALSE(filter.accept(fixAt(15, 5), standard));
}

TEST_F(FixFilterTest, InvalidFixesNeverPass) {
    EXPECT_FALSE(filter.accept(fixAt(0, 1, -1), standard));
    auto nan = fixAt(0, 1);
    nan.coordinate.latitude = std::nan("");
    EXPECT_FALSE(filter.accept(nan, standard));
}

TEST_F(FixFilterTest, PoorFixesWaitWhileAccurateOnesKeepComingThenPassAfterTheGrace) {
    EXPECT_TRUE(filter.accept(fixAt(0, 100, 5), standard));
    EXPECT_FALSE(filter.accept(fixAt(50, 101, 40), standard)) << "an accurate fix came a second ago";
    EXPECT_FALSE(filter.accept(fixAt(60, 109, 40), standard));
    EXPECT_TRUE(filter.accept(fixAt(70, 110, 40), standard)) << "ten seconds without an accurate fix";
    standard.desiredAccuracy = platform::accuracy::kThreeKilometers;
    EXPECT_TRUE(filter.accept(fixAt(90, 111, 40), standard)) << "a coarse request takes any fix";
}

TEST_F(FixFilterTest, ResetMakesTheNextFixPassAgain) {
    EXPECT_TRUE(filter.accept(fixAt(0, 1), standard));
    filter.reset();
    EXPECT_TRUE(filter.accept(fixAt(1, 2), standard));
}

class SpeedActivityClassifierTest : public ::testing::Test {
  protected:
    SpeedMotionOptions options;
    SpeedActivityClassifier classifier{options};
};

TEST_F(SpeedActivityClassifierTest, BandsOfSpeedGiveTheActivityWithConfidence) {
    auto walking = classifier.update(fixAt(0, 1, 5, 1.4));
    ASSERT_TRUE(walking);
    EXPECT_TRUE(walking->walking);
    EXPECT_EQ(walking->confidence, platform::MotionConfidence::kHigh);
    EXPECT_FALSE(classifier.update(fixAt(2, 2, 5, 1.5))) << "same activity, same confidence: no update";
    auto driving = classifier.update(fixAt(20, 3, 5, 14));
    ASSERT_TRUE(driving);
    EXPECT_TRUE(driving->automotive);
    auto edge = classifier.update(fixAt(30, 4, 5, 8.5));
    ASSERT_TRUE(edge);
    EXPECT_TRUE(edge->automotive);
    EXPECT_EQ(edge->confidence, platform::MotionConfidence::kMedium);
}

TEST_F(SpeedActivityClassifierTest, StationaryOnlyAfterTheStillPeriod) {
    ASSERT_TRUE(classifier.update(fixAt(0, 0, 5, 1.4)));
    EXPECT_FALSE(classifier.update(fixAt(0, 10, 5, 0.1)));
    EXPECT_FALSE(classifier.update(fixAt(0, 59, 5, 0.1)));
    auto still = classifier.update(fixAt(0, 70, 5, 0.1));
    ASSERT_TRUE(still);
    EXPECT_TRUE(still->stationary);
    EXPECT_EQ(still->confidence, platform::MotionConfidence::kMedium);
    EXPECT_DOUBLE_EQ(still->startDate, 10);
    auto sure = classifier.update(fixAt(0, 130, 5, 0.1));
    ASSERT_TRUE(sure);
    EXPECT_EQ(sure->confidence, platform::MotionConfidence::kHigh);
    EXPECT_DOUBLE_EQ(sure->startDate, 10);
}

TEST_F(SpeedActivityClassifierTest, SpeedIsDerivedFromPositionsWhenTheFixHasNone) {
    EXPECT_TRUE(classifier.update(fixAt(0, 0)));  // unknown at first
    auto running = classifier.update(fixAt(35, 10));
    ASSERT_TRUE(running);
    EXPECT_TRUE(running->running);
}

TEST_F(SpeedActivityClassifierTest, PoorFixesGiveLowConfidence) {
    auto activity = classifier.update(fixAt(0, 0, 500, 1.4));
    ASSERT_TRUE(activity);
    EXPECT_EQ(activity->confidence, platform::MotionConfidence::kLow);
}

}  // namespace
}  // namespace tovrel::linuxbackend
