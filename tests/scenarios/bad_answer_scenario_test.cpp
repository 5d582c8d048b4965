#include <gtest/gtest.h>

#include "scenarios/scenario_device.h"
#include "tovrel/session_manager.h"

namespace tovrel::scenarios {
namespace {

/// Service answers and posted objects of every wrong shape: nothing throws, nothing crashes, and the
/// monitor carries on.
class BadAnswerScenario : public ::testing::Test {
  protected:
    ScenarioDevice device;
    const platform::Coordinate shop{48.137154, 11.575400};

    void SetUp() override {
        device.start();
        device.vp.preferences->setObject("currentLocation", {{"latitude", 48.2}, {"longitude", 11.6}});
    }
    /// Refreshes and answers the places request with the raw `body` (not necessarily JSON).
    void refreshWith(const std::string& body, int status = 200) {
        device.lm->getTargets();
        ASSERT_TRUE(device.http().respondTo("/v2/place", Reply{status, body, "application/json", {}}));
        device.loop().runUntilIdle();
    }
    void loadShop() {
        device.lm->getTargets();
        device.answerPlaces({PlaceSpec{shop}});
        device.lm->locationManager()->setDesiredAccuracy(platform::accuracy::kNearestTenMeters);
    }
    /// Enters the shop and answers the link with `answer`.
    void visitWith(const Json& answer) {
        loadShop();
        device.deliverFix(offset(shop, side_, side_));
        side_ = -side_;
        device.answer("/v1/deviceevent/link", answer);
    }

    double side_ = 2;
};

TEST_F(BadAnswerScenario, PlacesAnswersOfTheWrongShapeGiveNoTargets) {
    for (const char* body :
         {"[1,2,3]", "\"places\"", "42", "null", "{}", "{\"places\":7}", "{\"places\":{\"a\":1}}",
          "{\"places\":\"x\"}", "not json at all", "{\"places\":[1,\"two\",null,[3]]}"}) {
        device.http().clear();
        loadShop();
        ASSERT_EQ(device.lm->targets().size(), 1u);
        refreshWith(body);
        const auto targets = device.lm->targets();
        if (std::string(body) == "not json at all") {
            EXPECT_EQ(targets.size(), 1u) << "an unparsable body is a failure: the list stays";
        } else if (std::string(body).find("[1,\"two\"") != std::string::npos) {
            EXPECT_EQ(targets.size(), 4u) << "records that are not objects still make (empty) targets";
        } else {
            EXPECT_TRUE(targets.empty()) << body;
        }
        device.deliverFix(offset(shop, side_, side_));
        side_ = -side_;
    }
}

TEST_F(BadAnswerScenario, RecordsWithWrongMemberTypesStillMakeTargets) {
    const Json records = Json::array({
        {{"centroidLat", "48.137154abc"},
         {"centroidLon", "11.5754"},
         {"centroidRadius", "50"},
         {"dwellTime", "x"},
         {"eventTypeId", nullptr},
         {"isLinked", "0"},
         {"eventId", Json::array({1})},
         {"placeId", {{"a", 1}}}},
        {{"centroidLat", nullptr},
         {"centroidLon", true},
         {"centroidRadius", Json::object()},
         {"eventTypeId", 3.9}},
        {{"centroidLat", 1e308}, {"centroidLon", -1e308}, {"centroidRadius", 1e308}, {"eventName", 5}},
        {{"centroidLat", 400.0}, {"centroidLon", 99999.0}, {"centroidRadius", -5}, {"dwellTime", 2147483647}},
    });
    device.lm->getTargets();
    device.answer("/v2/place", {{"places", records}});
    ASSERT_EQ(device.lm->targets().size(), 4u);
    for (int i = 0; i < 6; ++i) {
        device.deliverFix(offset(shop, 1 + i, 1 + i));
    }
    // The first record is a target at the shop with a 50 m circle: entering it links the visit.
    const auto links = device.requestsTo("/v1/deviceevent/link");
    ASSERT_FALSE(links.empty());
    EXPECT_EQ(links[0].body["eventId"], Json::array({1}));
    device.answer("/v1/deviceevent/link", linkAnswer(3));
    device.lm->sendLogs();
    EXPECT_FALSE(device.logMessages().empty());
}

TEST_F(BadAnswerScenario, LinkAnswersOfTheWrongShapeAreSurvived) {
    const std::vector<Json> answers = {
        Json::array(),
        {{"places", "x"}},
        {{"places", Json::array({1, 2})}},
        {{"places", Json::array({Json::array()})}},
        {{"places", Json::array({{{"deviceEventId", {{"nested", true}}}}})}},
        {{"places", Json::array({{{"deviceEventId", Json::array({1})}, {"suppressMessage", "1x"}}})}},
        {{"places", Json::array({{{"deviceEventId", true}, {"suppressMessage", Json::object()}}})}},
        {{"places", Json::array({{{"deviceEventId", "99999999999999999999"}}})}},
        {{"places", Json::array({{{"deviceEventId", -3.7}}})}},
        {{"places", Json::array({{{"deviceEventId", nullptr}}})}},
    };
    for (const auto& answer : answers) {
        visitWith(answer);
        device.loop().fastForwardBy(10);
    }
    // Whatever came back, offers can be walked by a notification and by the alert.
    platform::LocalNotification opened;
    opened.userInfo = {{"deviceeventId", "1"}};
    device.environment->notificationCenter().post(kTovrelNotificationReceived, opened);
    device.lm->showEventAlert("m", 1);
    device.vp.alerts->press(device.vp.alerts->all().back().id, 1);
    SUCCEED();
}

TEST_F(BadAnswerScenario, PostedObjectsOfAnyKindAreSurvived) {
    auto& center = device.environment->notificationCenter();
    device.lm->setDeviceHasExited(true);
    for (const std::any& object :
         {std::any(), std::any(42), std::any(std::string("x")), std::any(Json(7)), std::any(Json::array()),
          std::any(Json{{"userInfo", 5}}), std::any(std::shared_ptr<platform::LocalNotification>())}) {
        center.post(kTovrelNotificationReceived, object);
        center.post(kTovrelNotificationQueued, object);
    }
    device.vp.application->finishLaunching(Json::array({1, 2}));
    device.vp.application->finishLaunching(
        {{"UIApplicationLaunchOptionsLocalNotificationKey", "\xff\xfe bad utf-8"}});
    device.loop().runUntilIdle();
    EXPECT_TRUE(device.vp.log->contains("launchOptions: "));
}

TEST_F(BadAnswerScenario, AcknowledgementAndRefreshFailuresChangeNothingElse) {
    visitWith(linkAnswer(12));
    ASSERT_TRUE(device.http().respondTo("/v1/deviceevent/update",
                                        Reply::failure(platform::HttpErrorKind::kTimeout, "timed out")));
    device.loop().runUntilIdle();
    EXPECT_EQ(device.postedCount(kTovrelInBounds), 1u) << "the follow-up runs on failure too";
    refreshWith("<html>502</html>", 502);
    EXPECT_TRUE(device.lm->targets().empty());
}

/// `{"places":` followed by `depth - 1` opening brackets: `depth` levels in all, never closed when
/// `closed` is false (a hostile answer need not be well-formed to hurt a recursive reader).
std::string nestedPlaces(std::size_t depth, bool closed = true) {
    std::string body = "{\"places\":" + std::string(depth - 1, '[');
    if (closed) {
        body += std::string(depth - 1, ']') + "}";
    }
    return body;
}

TEST_F(BadAnswerScenario, DeeplyNestedAnswersAreRefusedOnEveryEndpointAndChangeNothing) {
    const std::string deep = nestedPlaces(100'000);
    loadShop();
    refreshWith(deep);
    EXPECT_EQ(device.lm->targets().size(), 1u) << "a refused answer is a failed refresh: the list stays";
    EXPECT_TRUE(device.vp.log->contains("nested deeper than 64 levels"));

    device.deliverFix(offset(shop, 2, 2));
    ASSERT_TRUE(
        device.http().respondTo("/v1/deviceevent/link", Reply{200, nestedPlaces(100'000, false), "", {}}));
    device.loop().fastForwardBy(10);
    EXPECT_EQ(device.postedCount(kTovrelInBounds), 0u) << "nothing is delivered for a refused link answer";
    EXPECT_TRUE(device.http().requestsTo("/v1/deviceevent/update").empty());

    auto& session = SessionManager::sharedInstance();
    device.vp.log->clear();
    session.startSession("sdk");
    ASSERT_TRUE(
        device.http().respondTo("/v1/session", Reply{200, "{\"sessionKey\":" + deep.substr(11), "", {}}));
    device.loop().runUntilIdle();
    EXPECT_EQ(device.vp.preferences->objectForKey("sessionid"), Json(ScenarioDevice::kSessionKey));
    EXPECT_TRUE(device.vp.log->contains("nested deeper than 64 levels"));
}

TEST_F(BadAnswerScenario, AnswersNestedToTheLimitAreRead) {
    loadShop();
    device.vp.log->clear();
    refreshWith(nestedPlaces(64));
    EXPECT_FALSE(device.vp.log->contains("nested deeper")) << "64 levels are within the limit";
    refreshWith(nestedPlaces(65));
    EXPECT_TRUE(device.vp.log->contains("nested deeper than 64 levels"));
}

}  // namespace
}  // namespace tovrel::scenarios
