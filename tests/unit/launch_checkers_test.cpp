#include "tovrel/launch_checkers.h"

#include <gtest/gtest.h>

#include "support/test_device.h"
#include "tovrel/notification_names.h"

namespace tovrel {
namespace {

using Json = nlohmann::json;

class LaunchCheckersTest : public ::testing::Test {
  protected:
    testing::TestDevice device;
};

TEST_F(LaunchCheckersTest, BothAnswerNoBeforeTheLaunch) {
    EXPECT_FALSE(NotificationChecker::applicationWasLaunchedWithNotification());
    EXPECT_TRUE(NotificationChecker::getLocalNotification().is_null());
    EXPECT_FALSE(LocationChecker::applicationWasLaunchedWithNotification());
}

TEST_F(LaunchCheckersTest, PlainLaunchRecordsNothing) {
    device.vp.application->finishLaunching(nullptr);
    EXPECT_FALSE(NotificationChecker::applicationWasLaunchedWithNotification());
    EXPECT_FALSE(LocationChecker::applicationWasLaunchedWithNotification());
    EXPECT_TRUE(LocationChecker::getLocalNotification().is_null());
}

TEST_F(LaunchCheckersTest, NotificationLaunchKeepsTheNotification) {
    const Json notification{{"alertBody", "50% off"}, {"userInfo", {{"deviceeventId", "17"}}}};
    device.vp.application->finishLaunching({{kLaunchOptionsLocalNotificationKey, notification}});
    EXPECT_TRUE(NotificationChecker::applicationWasLaunchedWithNotification());
    EXPECT_EQ(NotificationChecker::getLocalNotification(), notification);
    EXPECT_FALSE(LocationChecker::applicationWasLaunchedWithNotification());
}

TEST_F(LaunchCheckersTest, LocationLaunchKeepsTheOptionValue) {
    device.vp.application->finishLaunching({{kLaunchOptionsLocationKey, true}});
    EXPECT_TRUE(LocationChecker::applicationWasLaunchedWithNotification());
    EXPECT_EQ(LocationChecker::getLocalNotification(), Json(true));
    EXPECT_FALSE(NotificationChecker::applicationWasLaunchedWithNotification());
}

TEST_F(LaunchCheckersTest, ALaterPlainLaunchClearsTheFlagButKeepsTheValue) {
    device.vp.application->finishLaunching({{kLaunchOptionsLocationKey, true}});
    device.vp.application->finishLaunching(nullptr);
    EXPECT_FALSE(LocationChecker::applicationWasLaunchedWithNotification());
    EXPECT_EQ(LocationChecker::getLocalNotification(), Json(true));
}

TEST_F(LaunchCheckersTest, EachEnvironmentKeepsItsOwnRecord) {
    testing::TestDevice other;
    other.vp.application->finishLaunching({{kLaunchOptionsLocationKey, true}});
    EXPECT_TRUE(LocationChecker::applicationWasLaunchedWithNotification());  // `other` is current now
    {
        Environment::Scope scope(device.environment);
        EXPECT_FALSE(LocationChecker::applicationWasLaunchedWithNotification());
    }
}

}  // namespace
}  // namespace tovrel
