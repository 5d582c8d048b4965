#include "tovrel/reachability.h"

#include <gtest/gtest.h>

#include "support/test_device.h"
#include "tovrel/notification_names.h"

namespace tovrel {
namespace {

using Json = nlohmann::json;

using namespace platform;

class ReachabilityTest : public ::testing::Test {
  protected:
    testing::TestDevice device;
    std::unique_ptr<Reachability> internet =
        Reachability::reachabilityForInternetConnection(device.environment);
    std::unique_ptr<Reachability> wifi = Reachability::reachabilityForLocalWiFi(device.environment);
};

TEST_F(ReachabilityTest, NetworkStatusFollowsTheFlagRules) {
    struct Case {
        std::uint32_t flags;
        NetworkStatus expected;
    };
    const Case cases[] = {
        {0x2, StatusViaWiFi},
        {0x2 | 0x4, StatusNotReachable},
        {0x2 | 0x4 | 0x8, StatusViaWiFi},
        {0x2 | 0x4 | 0x20, StatusViaWiFi},
        {0x2 | 0x4 | 0x8 | 0x10, StatusNotReachable},
        {0x2 | 0x40000, StatusViaWWAN},
        {0x2 | 0x4 | 0x40000, StatusViaWWAN},
        {0x40000, StatusNotReachable},
        {0, StatusNotReachable},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(internet->networkStatusForFlags(c.flags), c.expected) << std::hex << c.flags;
    }
}

TEST_F(ReachabilityTest, LocalWiFiNeedsReachableAndDirect) {
    EXPECT_TRUE(wifi->alwaysReturnLocalWiFiStatus);
    EXPECT_FALSE(internet->alwaysReturnLocalWiFiStatus);
    EXPECT_EQ(wifi->localWiFiStatusForFlags(0x2 | 0x20000), StatusViaWiFi);
    EXPECT_EQ(wifi->localWiFiStatusForFlags(0x2), StatusNotReachable);
    EXPECT_EQ(wifi->localWiFiStatusForFlags(0x20000), StatusNotReachable);
}

TEST_F(ReachabilityTest, FlagLineHasOneLetterPerFlag) {
    EXPECT_EQ(Reachability::flagStatusLine(0x40002, "networkStatusForFlags"),
              "Reachability Flag Status: WR ------- networkStatusForFlags\n");
    EXPECT_EQ(Reachability::flagStatusLine(0x7003F, "x"), "Reachability Flag Status: WR tcCiDld x\n");
    EXPECT_EQ(Reachability::flagStatusLine(0, "x"), "Reachability Flag Status: -- ------- x\n");
}

TEST_F(ReachabilityTest, EveryEvaluationLogsTheFlagsWithItsTag) {
    device.vp.reachability->setFlags(0x2 | 0x20000);
    device.log().clear();
    EXPECT_EQ(internet->currentReachabilityStatus(), StatusViaWiFi);
    EXPECT_EQ(wifi->currentReachabilityStatus(), StatusViaWiFi);
    const auto lines = device.log().lines();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0], "Reachability Flag Status: -R ------d networkStatusForFlags\n");
    EXPECT_EQ(lines[1], "Reachability Flag Status: -R ------d localWiFiStatusForFlags\n");
}

TEST_F(ReachabilityTest, UnreadableFlagsMeanNotReachable) {
    device.vp.reachability->setFlags(0x2 | 0x4);
    EXPECT_TRUE(internet->connectionRequired());
    device.vp.reachability->setUnreadable(true);
    EXPECT_EQ(internet->currentReachabilityStatus(), StatusNotReachable);
    EXPECT_FALSE(internet->connectionRequired());
}

TEST_F(ReachabilityTest, FactoriesAnswerNullWhenNoHandleCanBeMade) {
    device.vp.reachability->setCreationFails(true);
    EXPECT_EQ(Reachability::reachabilityWithHostName(device.environment, "http://service.test"), nullptr);
    EXPECT_EQ(Reachability::reachabilityForInternetConnection(device.environment), nullptr);
    EXPECT_EQ(Reachability::reachabilityForLocalWiFi(device.environment), nullptr);
}

TEST_F(ReachabilityTest, NotifierPostsTheMonitorOnEachChangeUntilStopped) {
    std::vector<const void*> posted;
    device.environment.notificationCenter().addObserver(
        kReachabilityChangedNotification, nullptr,
        [&](const Notification& n) { posted.push_back(std::any_cast<Reachability*>(n.object)); });
    internet->stopNotifier();  // never started: harmless
    ASSERT_TRUE(internet->startNotifier());
    device.vp.reachability->setFlags("0.0.0.0", 0);
    device.loop().runUntilIdle();
    ASSERT_EQ(posted.size(), 1u);
    EXPECT_EQ(posted[0], internet.get());

    internet->stopNotifier();
    device.vp.reachability->setFlags("0.0.0.0", 0x2);
    device.loop().runUntilIdle();
    EXPECT_EQ(posted.size(), 1u);
}

}  // namespace
}  // namespace tovrel
