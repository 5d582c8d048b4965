#include "tovrel/session_manager.h"

#include <gtest/gtest.h>

#include "support/test_device.h"
#include "tovrel/data_service.h"
#include "tovrel/location_manager.h"
#include "tovrel/notification_names.h"

namespace tovrel {
namespace {

using Json = nlohmann::json;

using virtualbackend::Reply;

constexpr const char* kAdvertisingId = "6D92078A-8246-4BA4-AE5B-76104861E7DC";

class SessionManagerTest : public ::testing::Test {
  protected:
    testing::TestDevice device;

    SessionManager& session() { return SessionManager::sharedInstance(); }
    std::optional<Json> stored(const char* key) { return device.prefs().objectForKey(key); }
    std::size_t sessionRequests() { return device.http().requestsTo("/v1/session").size(); }
};

TEST_F(SessionManagerTest, FirstLaunchStoresTheAdvertisingIdentifierOnce) {
    EXPECT_FALSE(stored("adid"));
    session();
    EXPECT_EQ(stored("adid"), Json(kAdvertisingId));

    testing::TestDevice relaunch;
    relaunch.prefs().setObject("adid", "11111111-1111-1111-1111-111111111111");
    relaunch.vp.device->setAdvertisingIdentifier("22222222-2222-2222-2222-222222222222");
    auto& manager = SessionManager::sharedInstance();
    EXPECT_EQ(relaunch.prefs().objectForKey("adid"), Json("11111111-1111-1111-1111-111111111111"));
    EXPECT_EQ(manager.deviceId(), "22222222-2222-2222-2222-222222222222");
}

TEST_F(SessionManagerTest, SharedInstanceIsOnePerEnvironment) {
    EXPECT_EQ(&SessionManager::sharedInstance(), &SessionManager::sharedInstance());
    EXPECT_FALSE(session().presentNotifications());
    EXPECT_FALSE(session().presentOfferView());
    EXPECT_FALSE(session().isReachable());
    EXPECT_EQ(session().lm(), nullptr);
}

TEST_F(SessionManagerTest, SessionRequestCarriesTheDeviceAndKey) {
    session().startSession("sdk-key-1");
    const auto requests = device.http().requestsTo("/v1/session");
    ASSERT_EQ(requests.size(), 1u);
    EXPECT_EQ(requests[0].url, "http://service.test/v1/session");
    EXPECT_EQ(requests[0].body, (Json{{"deviceId", kAdvertisingId},
                                      {"deviceType", "iOS"},
                                      {"deviceModel", "iPhone"},
                                      {"sdkkey", "sdk-key-1"}}));
}

TEST_F(SessionManagerTest, StartReturnsTheKeyStoredBeforeTheRequest) {
    EXPECT_EQ(session().startSession("k"), std::nullopt);
    device.http().respondTo("/v1/session", Reply::json(200, {{"sessionKey", "first"}}));
    device.loop().runUntilIdle();
    EXPECT_EQ(stored("sessionid"), Json("first"));

    EXPECT_EQ(session().startSession("k"), "first");
    device.http().respondTo("/v1/session", Reply::json(200, {{"sessionKey", "second"}}));
    device.loop().runUntilIdle();
    EXPECT_EQ(stored("sessionid"), Json("second"));
    EXPECT_TRUE(device.log().contains("\n\nSESSIONKEY: second\n\n"));
    EXPECT_TRUE(device.log().contains(std::string("\n\nDEVICEID: ") + kAdvertisingId + "\n\n"));
}

TEST_F(SessionManagerTest, AKeyThatIsNotTextIsReadAsItsTextByEveryCaller) {
    session().startSession("k");
    device.http().respondTo("/v1/session", Reply::json(200, {{"sessionKey", 12345}}));
    device.loop().runUntilIdle();
    EXPECT_EQ(stored("sessionid"), Json(12345));
    EXPECT_EQ(session().startSession("k"), "12345");

    DataService::instance().sendDeviceClearWithSessionKey(session().startSession("k"), nullptr);
    EXPECT_EQ(device.http().requestsTo("/v1/deviceevent/clear").back().body["sessionKey"], "12345");
}

TEST_F(SessionManagerTest, AnswerWithoutSessionKeyRemovesTheStoredOne) {
    device.prefs().setObject("sessionid", "old");
    session().startSession("k");
    device.http().respondTo("/v1/session", Reply::json(200, Json::object()));
    device.loop().runUntilIdle();
    EXPECT_FALSE(stored("sessionid"));
}

TEST_F(SessionManagerTest, PlainStartFailureIsLoggedOnceAndKeepsTheKey) {
    device.prefs().setObject("sessionid", "old");
    session().startSession("k");
    device.http().respondTo("/v1/session", Reply::json(503, {{"error", "down"}}));
    device.loop().runUntilIdle();
    EXPECT_EQ(stored("sessionid"), Json("old"));
    EXPECT_EQ(sessionRequests(), 1u);
    EXPECT_EQ(device.log().count("Error: "), 1u);
}

TEST_F(SessionManagerTest, LocationStartRetriesBackToBackUntilItSucceeds) {
    session().startSessionUsingLocation("k");
    for (int attempt = 1; attempt <= 5; ++attempt) {
        ASSERT_EQ(device.http().pending().size(), 1u);
        device.http().respondTo("/v1/session", Reply::failure(platform::HttpErrorKind::kTransport,
                                                              "Could not connect: refused."));
        device.loop().runUntilIdle();
        EXPECT_EQ(sessionRequests(), static_cast<std::size_t>(attempt + 1));
    }
    const auto requests = device.http().requestsTo("/v1/session");
    EXPECT_DOUBLE_EQ(requests.front().time, requests.back().time);  // no pause between attempts
    EXPECT_EQ(session().lm(), nullptr);

    device.http().respondTo("/v1/session", Reply::json(200, {{"sessionKey", "k1"}}));
    device.loop().runUntilIdle();
    EXPECT_EQ(sessionRequests(), 6u);
    EXPECT_NE(session().lm(), nullptr);
}

TEST_F(SessionManagerTest, LocationStartStartsMonitoringAndLogsTheStart) {
    device.vp.application->setApplicationIconBadgeNumber(3);
    session().setPresentNotifications(true);
    session().startSessionUsingLocation("k");
    device.http().respondTo("/v1/session", Reply::json(200, {{"sessionKey", "k1"}}));
    device.loop().runUntilIdle();

    ASSERT_NE(session().lm(), nullptr);
    EXPECT_TRUE(session().lm()->presentNotifications);
    EXPECT_FALSE(session().lm()->presentOfferView);
    EXPECT_EQ(device.vp.application->applicationIconBadgeNumber(), 0);

    const auto logs = device.http().requestsTo("/v1/log");
    ASSERT_EQ(logs.size(), 1u);
    const Json& body = logs[0].body;
    EXPECT_EQ(body["deviceid"], kAdvertisingId);
    ASSERT_TRUE(body["message"].is_object());
    const Json& started = body["message"]["session_started"];
    EXPECT_EQ(started["timestamp"], "1750000000");
    EXPECT_EQ(started["environment"], "PRD");
    EXPECT_EQ(started["application"], "com.example.tovrel.host");
    EXPECT_EQ(started["version"], "1.2.4");
    EXPECT_EQ(started["client"], "iOS");
    EXPECT_EQ(started["model"], "iPhone");
    EXPECT_EQ(body["message"].size(), 1u);
}

TEST_F(SessionManagerTest, SwitchesChangedAfterTheStartDoNotReachTheMonitor) {
    session().startSessionUsingLocation("k");
    device.http().respondTo("/v1/session", Reply::json(200, {{"sessionKey", "k1"}}));
    device.loop().runUntilIdle();
    session().setPresentNotifications(true);
    session().setPresentOfferView(true);
    EXPECT_FALSE(session().lm()->presentNotifications);
    EXPECT_FALSE(session().lm()->presentOfferView);
}

TEST_F(SessionManagerTest, SecondSuccessReplacesTheMonitor) {
    session().startSessionUsingLocation("k");
    session().startSessionUsingLocation("k");
    device.http().respondTo("/v1/session", Reply::json(200, {{"sessionKey", "a"}}));
    device.loop().runUntilIdle();
    std::weak_ptr<LocationManager> first = session().lm();
    device.http().respondTo("/v1/session", Reply::json(200, {{"sessionKey", "b"}}));
    device.loop().runUntilIdle();
    EXPECT_NE(session().lm(), first.lock());
    EXPECT_EQ(stored("sessionid"), Json("b"));
    EXPECT_EQ(device.http().requestsTo("/v1/log").size(), 2u);
}

TEST_F(SessionManagerTest, StopDropsTheMonitorButKeepsTheKey) {
    session().stopSession();  // before any start: nothing happens
    session().startSessionUsingLocation("k");
    device.http().respondTo("/v1/session", Reply::json(200, {{"sessionKey", "k1"}}));
    device.loop().runUntilIdle();
    const auto requestsBefore = device.http().requests().size();
    session().stopSession();
    EXPECT_EQ(session().lm(), nullptr);
    EXPECT_EQ(stored("sessionid"), Json("k1"));
    device.loop().runUntilIdle();
    EXPECT_EQ(device.http().requests().size(), requestsBefore);
}

TEST_F(SessionManagerTest, ReachabilityChangesUpdateIsReachable) {
    session();
    device.vp.reachability->setFlags(0x2);
    device.loop().runUntilIdle();
    EXPECT_TRUE(session().isReachable());
    device.vp.reachability->setFlags("0.0.0.0", 0);
    device.loop().runUntilIdle();
    EXPECT_FALSE(session().isReachable());
    EXPECT_EQ(session().lm(), nullptr);
    device.vp.reachability->setFlags("0.0.0.0", 0x2 | 0x40000);
    device.loop().runUntilIdle();
    EXPECT_TRUE(session().checkNetworkStatus());
}

TEST_F(SessionManagerTest, ToastGoesAwayAfterTwoSecondsAlone) {
    SessionManager::showToastMessage("Saved");
    auto shown = device.vp.alerts->visible();
    ASSERT_EQ(shown.size(), 1u);
    EXPECT_FALSE(shown[0].alert.title);
    EXPECT_EQ(shown[0].alert.message, "Saved");
    EXPECT_FALSE(shown[0].alert.cancelButtonTitle);
    EXPECT_TRUE(shown[0].alert.otherButtonTitles.empty());
    device.loop().fastForwardBy(1.9);
    EXPECT_EQ(device.vp.alerts->visible().size(), 1u);
    device.loop().fastForwardBy(0.1);
    EXPECT_TRUE(device.vp.alerts->visible().empty());
    EXPECT_EQ(device.vp.alerts->all()[0].dismissedWith, 0);
}

TEST_F(SessionManagerTest, AlertHasTitleMessageAndOk) {
    session().showAlert("Hello");
    const auto shown = device.vp.alerts->visible();
    ASSERT_EQ(shown.size(), 1u);
    EXPECT_EQ(shown[0].alert.title, "Message");
    EXPECT_EQ(shown[0].alert.cancelButtonTitle, "OK");
}

}  // namespace
}  // namespace tovrel
