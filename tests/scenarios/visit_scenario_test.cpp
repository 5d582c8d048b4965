#include <gtest/gtest.h>

#include "scenarios/scenario_device.h"

namespace tovrel::scenarios {
namespace {

namespace accuracy = platform::accuracy;

/// A shop with one place target, and points around it: far away, approaching, inside (two points 28 m
/// apart, both within the 50 m circle) and outside (250 m away).
class VisitScenario : public ::testing::Test {
  protected:
    ScenarioDevice device;
    const platform::Coordinate shop{48.137154, 11.575400};
    const platform::Coordinate far = offset(shop, 1200, 900);
    const platform::Coordinate approach = offset(shop, 1100, 850);
    const platform::Coordinate inside1 = offset(shop, 10, 10);
    const platform::Coordinate inside2 = offset(shop, -10, -10);
    const platform::Coordinate outside = offset(shop, 200, 150);

    /// A place 2 km away, for judging the exit once the visited place has left the list.
    PlaceSpec remote() const {
        PlaceSpec place{offset(shop, 2000, 0)};
        place.eventId = "remote";
        return place;
    }
    std::size_t links() const { return device.requestsTo("/v1/deviceevent/link").size(); }
    std::vector<platform::LocalNotification> presented() const {
        return device.vp.notifications->presented();
    }
};

TEST_F(VisitScenario, EntryWithoutDwellLinksAtOnceAndAlternateUpdatesLinkAgain) {
    device.start();
    device.loadTargets(far, approach, {PlaceSpec{shop}});
    ASSERT_EQ(device.lm->targets().size(), 1u);

    device.moveTo(inside1);
    const auto first = device.requestsTo("/v1/deviceevent/link");
    ASSERT_EQ(first.size(), 1u);
    EXPECT_EQ(first[0].body, (Json{{"sessionKey", "sk-1"}, {"eventId", "e1"}, {"placeId", "p1"}}));
    EXPECT_EQ(device.provider().desiredAccuracy, accuracy::kBest);

    device.moveTo(inside2);
    EXPECT_EQ(links(), 1u) << "the update after a link only switches back to ten metres";
    EXPECT_EQ(device.provider().desiredAccuracy, accuracy::kNearestTenMeters);

    device.moveTo(inside1);
    EXPECT_EQ(links(), 2u);
    EXPECT_EQ(device.provider().desiredAccuracy, accuracy::kBest);
    EXPECT_FALSE(device.lm->deviceHasExited());
}

TEST_F(VisitScenario, LinkAnswerDeliversAcknowledgesAndFollowsUp) {
    device.start();
    device.loadTargets(far, approach, {PlaceSpec{shop}});
    device.moveTo(inside1);
    device.moveTo(inside2);
    device.moveTo(inside1);
    ASSERT_EQ(links(), 2u);

    device.answer("/v1/deviceevent/link", linkAnswer(77));
    ASSERT_EQ(presented().size(), 1u);
    EXPECT_EQ(presented()[0].alertBody, "Coffee\n50\xEF\xBC\x85 off");
    EXPECT_EQ(presented()[0].alertAction, "Resume");
    EXPECT_EQ(presented()[0].soundName, "default");
    EXPECT_EQ(presented()[0].userInfo, (Json{{"deviceeventId", "77"}}));
    EXPECT_EQ(device.vp.application->applicationIconBadgeNumber(), 1);
    EXPECT_EQ(device.vp.preferences->objectForKey("deviceEventId"), Json(77));
    EXPECT_TRUE(device.lm->targets().empty()) << "the first target leaves the list";
    ASSERT_EQ(device.lm->offers().size(), 1u);
    const auto acks = device.requestsTo("/v1/deviceevent/update");
    ASSERT_EQ(acks.size(), 1u);
    EXPECT_EQ(acks[0].body, (Json{{"sessionKey", "sk-1"}, {"deviceEventId", 77}, {"statusCode", "ack"}}));

    // The acknowledgement's answer, success or not, refreshes, tells the map and logs the visit.
    const auto placesBefore = device.requestsTo("/v2/place").size();
    device.answer("/v1/deviceevent/update", {{"status", "error"}}, 500);
    EXPECT_EQ(device.requestsTo("/v2/place").size(), placesBefore + 1);
    ASSERT_EQ(device.postedCount(kTovrelInBounds), 1u);
    const auto* target = std::any_cast<std::shared_ptr<hRegion>>(&device.posted.back().object);
    ASSERT_NE(target, nullptr);
    EXPECT_EQ((*target)->eventId, "e1");
    const auto messages = device.logMessages();
    ASSERT_FALSE(messages.empty());
    EXPECT_EQ(messages.back(),
              (Json{{"event_notification_sent", {{"timestamp", "1750000000"}, {"eventid", "e1"}}}}));
    EXPECT_EQ(device.requestsTo("/v1/log").back().body["deviceid"], ScenarioDevice::kAdid);

    // The second link of the same visit comes back with the same identifier: kept, not delivered.
    device.answer("/v1/deviceevent/link", linkAnswer(77));
    EXPECT_EQ(presented().size(), 1u);
    EXPECT_EQ(device.updates().size(), 1u);
    EXPECT_EQ(device.lm->offers().size(), 2u);
}

TEST_F(VisitScenario, RepeatedDeviceEventIdentifierDeliversNothingButDropsTheFirstTarget) {
    device.vp.preferences->setObject("deviceEventId", "77");
    PlaceSpec remote{offset(shop, 3000, 0)};
    remote.eventId = "remote";
    device.start();
    device.loadTargets(far, approach, {remote, PlaceSpec{shop}});
    device.moveTo(inside1);
    ASSERT_EQ(links(), 1u);
    const auto badges = device.vp.application->badgeHistory();

    device.answer("/v1/deviceevent/link", linkAnswer(77));
    EXPECT_TRUE(presented().empty());
    EXPECT_TRUE(device.vp.alerts->all().empty());
    EXPECT_TRUE(device.updates().empty()) << "no acknowledgement";
    EXPECT_EQ(device.vp.application->badgeHistory(), badges);
    EXPECT_EQ(device.lm->offers().size(), 1u);
    const auto targets = device.lm->targets();
    ASSERT_EQ(targets.size(), 1u);
    EXPECT_EQ(targets[0]->eventId, "e1") << "the first target goes, whichever was linked";
}

TEST_F(VisitScenario, SuppressedMessageDeliversNothing) {
    device.start();
    device.loadTargets(far, approach, {PlaceSpec{shop}});
    device.moveTo(inside1);
    device.answer("/v1/deviceevent/link", linkAnswer(91, "e1", 1));
    EXPECT_TRUE(presented().empty());
    EXPECT_TRUE(device.updates().empty());
    EXPECT_FALSE(device.vp.preferences->objectForKey("deviceEventId"));
    EXPECT_EQ(device.lm->offers().size(), 1u);
    EXPECT_TRUE(device.lm->targets().empty());
}

TEST_F(VisitScenario, FailedOrEmptyLinkAnswerKeepsTheTarget) {
    device.start();
    device.loadTargets(far, approach, {PlaceSpec{shop}});
    device.moveTo(inside1);
    ASSERT_TRUE(device.http().respondTo("/v1/deviceevent/link",
                                        Reply::failure(platform::HttpErrorKind::kTransport, "refused")));
    device.loop().runUntilIdle();
    device.moveTo(inside2);
    device.moveTo(inside1);
    device.answer("/v1/deviceevent/link", {{"places", Json::array()}});
    EXPECT_EQ(device.lm->targets().size(), 1u);
    EXPECT_TRUE(device.lm->offers().empty());
    EXPECT_TRUE(presented().empty());
}

TEST_F(VisitScenario, DwellTimeLinksAfterItsMinutesEvenAfterLeaving) {
    PlaceSpec place{shop};
    place.dwellTime = 2;
    device.start();
    device.loadTargets(far, approach, {place});
    const double entered = device.loop().now();
    device.moveTo(inside1);
    EXPECT_EQ(links(), 0u);
    device.loop().fastForwardBy(60);
    device.moveTo(outside);
    EXPECT_TRUE(device.lm->deviceHasExited());
    device.loop().fastForwardBy(59.9);
    EXPECT_EQ(links(), 0u);
    device.loop().fastForwardBy(0.1);
    const auto requests = device.requestsTo("/v1/deviceevent/link");
    ASSERT_EQ(requests.size(), 1u);
    EXPECT_DOUBLE_EQ(requests[0].time, entered + 120);
}

TEST_F(VisitScenario, WithoutPresentNotificationsEntryOnlyRaisesAccuracy) {
    device.start(false);
    device.loadTargets(far, approach, {PlaceSpec{shop}});
    device.moveTo(inside1);
    EXPECT_EQ(device.provider().desiredAccuracy, accuracy::kBest);
    EXPECT_EQ(links(), 0u);
}

TEST_F(VisitScenario, HeldMessageWaitsForTheExitAndIsDeliveredOnce) {
    PlaceSpec place{shop};
    place.eventTypeId = 2;
    device.start();
    device.loadTargets(far, approach, {place});
    device.moveTo(inside1);
    device.answer("/v1/deviceevent/link", linkAnswer(101));
    EXPECT_EQ(device.updates().size(), 1u);
    EXPECT_EQ(device.vp.application->applicationIconBadgeNumber(), 1);
    ASSERT_NE(device.lm->queueMessageTimer(), nullptr);

    device.loop().fastForwardBy(30);
    EXPECT_TRUE(presented().empty());
    EXPECT_EQ(device.postedCount(kTovrelNotificationQueued), 6u);

    // The linked place has left the list; the exit is judged against the refreshed targets.
    device.answer("/v1/deviceevent/update", {{"status", 1}});
    device.answerPlaces({remote()});
    device.moveTo(outside);
    const auto placesBefore = device.requestsTo("/v2/place").size();
    device.loop().fastForwardBy(5);
    ASSERT_EQ(presented().size(), 1u);
    EXPECT_EQ(presented()[0].alertBody, "Coffee\n50\xEF\xBC\x85 off");
    EXPECT_EQ(presented()[0].userInfo, (Json{{"deviceeventId", "101"}}));
    EXPECT_EQ(device.lm->queueMessageTimer(), nullptr);
    EXPECT_EQ(device.requestsTo("/v2/place").size(), placesBefore + 1);
    EXPECT_EQ(device.postedNames().back(), kTovrelInBounds);

    device.loop().fastForwardBy(60);
    EXPECT_EQ(presented().size(), 1u);
}

TEST_F(VisitScenario, ReplacedHeldMessageTimerKeepsDeliveringItsMessage) {
    PlaceSpec alpha{shop};
    alpha.eventTypeId = 2;
    alpha.eventName = "Alpha";
    PlaceSpec beta = alpha;
    beta.eventId = "e2";
    beta.eventName = "Beta";
    device.start();
    device.loadTargets(far, approach, {alpha, beta});

    const double t = device.loop().now();
    device.moveTo(inside1);
    device.answer("/v1/deviceevent/link", linkAnswer(101));  // alpha's timer fires at t+5, t+10...
    device.loop().fastForwardBy(2);
    device.moveTo(inside2);                                        // back to ten metres
    device.moveTo(inside1);                                        // links beta
    device.answer("/v1/deviceevent/link", linkAnswer(102, "e2"));  // beta's timer: t+7, t+12...
    ASSERT_EQ(device.updates().size(), 2u);
    device.answer("/v1/deviceevent/update", {{"status", 1}});
    device.answerPlaces({remote()});

    device.loop().fastForwardTo(t + 5.5);
    EXPECT_TRUE(presented().empty());
    device.moveTo(outside);
    device.loop().fastForwardTo(t + 7);
    ASSERT_EQ(presented().size(), 1u);
    EXPECT_EQ(presented()[0].userInfo, (Json{{"deviceeventId", "102"}}));
    device.loop().fastForwardTo(t + 20);
    std::vector<std::string> ids;
    for (const auto& n : presented()) {
        ids.push_back(n.userInfo.value("deviceeventId", ""));
    }
    EXPECT_EQ(ids, (std::vector<std::string>{"102", "101", "101", "101"}));
    EXPECT_EQ(presented()[1].alertBody, "Alpha\n50\xEF\xBC\x85 off");
}

TEST_F(VisitScenario, ForegroundDeliveryIsTheEventAlert) {
    device.vp.application->setState(platform::ApplicationState::kActive);
    device.start(true, true);
    device.loadTargets(far, approach, {PlaceSpec{shop}});
    device.moveTo(inside1);
    device.answer("/v1/deviceevent/link", linkAnswer(77));
    EXPECT_TRUE(presented().empty());
    const auto alerts = device.vp.alerts->visible();
    ASSERT_EQ(alerts.size(), 1u);
    EXPECT_FALSE(alerts[0].alert.title);
    EXPECT_EQ(alerts[0].alert.message, "Coffee\n50% off");
    EXPECT_EQ(alerts[0].alert.cancelButtonTitle, "Never");
    EXPECT_EQ(alerts[0].alert.otherButtonTitles, (std::vector<std::string>{"View", "Later"}));
    EXPECT_EQ(alerts[0].alert.tag, 77);

    device.vp.alerts->press(alerts[0].id, 1);
    device.loop().runUntilIdle();
    const auto views = device.lm->offerViewRequests();
    ASSERT_EQ(views.size(), 1u);
    EXPECT_EQ(views[0].eventId, "e1");
    EXPECT_EQ(views[0].deviceEventId, 77);
    EXPECT_EQ(views[0].mediaType, "html");
    EXPECT_EQ(views[0].mediaURL, "http://m.test/x");
    EXPECT_EQ(views[0].tag, 0) << "\"e1\" has no leading number";
    const auto updates = device.updates();
    ASSERT_EQ(updates.size(), 2u);
    EXPECT_EQ(updates[1], (std::pair<Json, std::string>{"77", "seen"}));
    EXPECT_TRUE(device.lm->offers().empty());
    EXPECT_EQ(device.postedCount(kTovrelMessageViewed), 1u);
}

TEST_F(VisitScenario, FarFromEveryTargetPostsBothNotificationsAndRefreshes) {
    PlaceSpec remote{offset(shop, 5000, 0)};
    remote.radius = 6000;  // inside it, and still farther than 4500 m from its centre
    device.start();
    device.loadTargets(far, approach, {remote});
    const auto placesBefore = device.requestsTo("/v2/place").size();
    device.posted.clear();
    device.deliverFix(offset(shop, 1, 1));
    EXPECT_EQ(device.requestsTo("/v2/place").size(), placesBefore + 1);
    EXPECT_EQ(links(), 1u) << "inside a wide circle the visit links as well";
    EXPECT_EQ(device.postedNames(), (std::vector<std::string>{kTovrelInBounds, kTovrelRefreshUserLocation}));
    EXPECT_FALSE(device.posted[0].object.has_value());
    EXPECT_FALSE(device.posted[1].object.has_value());
}

TEST_F(VisitScenario, TiedTargetsAreEachHandledInListOrder) {
    // Offsets of 2^-8 degrees are exact, so due north of the middle both targets are at the very same
    // computed distance.
    PlaceSpec east{{48.0, 11.5 + 0.00390625}};
    east.eventId = "east";
    PlaceSpec west{{48.0, 11.5 - 0.00390625}};
    west.eventId = "west";
    device.start();
    device.loadTargets({48.02, 11.52}, {48.021, 11.521}, {east, west});
    const auto before = device.lm->logTargetsArray().size();
    device.deliverFix({48.001, 11.5});
    const auto records = device.lm->logTargetsArray();
    ASSERT_EQ(records.size(), before + 2);
    EXPECT_EQ(records[before]["event_id"], "east");
    EXPECT_EQ(records[before + 1]["event_id"], "west");
    const auto history = device.lm->logHistoryArray();
    EXPECT_EQ(history[before]["distance_from_target"], history[before + 1]["distance_from_target"]);
}

}  // namespace
}  // namespace tovrel::scenarios
