#include <gtest/gtest.h>

#include "scenarios/scenario_device.h"

namespace tovrel::scenarios {
namespace {

/// A delivered local notification as the host forwards it.
std::any openedNotification(int deviceEventId) {
    platform::LocalNotification notification;
    notification.alertBody = "x";
    notification.userInfo = {{"deviceeventId", std::to_string(deviceEventId)}};
    return notification;
}

/// The monitor with offers already waiting, as link answers leave them.
class DeliveryScenario : public ::testing::Test {
  protected:
    ScenarioDevice device;
    const platform::Coordinate shop{48.137154, 11.575400};

    /// Links visits to places with the given event ids (dwell 0, type 1: no delivery of their own) and
    /// answers each with `deviceEventId`, leaving one offer per answer.
    void makeOffers(const std::vector<std::pair<std::string, Json>>& visits) {
        device.vp.preferences->setObject("currentLocation", {{"latitude", 48.2}, {"longitude", 11.6}});
        double side = 1;
        for (const auto& [eventId, deviceEventId] : visits) {
            PlaceSpec place{shop};
            place.eventId = eventId;
            place.eventTypeId = 1;
            device.lm->getTargets();
            device.answerPlaces({place});
            device.lm->locationManager()->setDesiredAccuracy(platform::accuracy::kNearestTenMeters);
            device.deliverFix(offset(shop, 3 * side, 3 * side));
            side = -side;
            device.answer("/v1/deviceevent/link", linkAnswer(deviceEventId, eventId));
        }
        device.vp.preferences->removeObject("deviceEventId");
    }
    std::vector<std::string> viewedEventIds() const {
        std::vector<std::string> out;
        for (const auto& view : device.lm->offerViewRequests()) {
            out.push_back(view.eventId.get<std::string>());
        }
        return out;
    }
    std::vector<std::string> offerEventIds() const {
        std::vector<std::string> out;
        for (const auto& offer : device.lm->offers()) {
            out.push_back(offer[0]["eventId"].get<std::string>());
        }
        return out;
    }
    platform::AlertId lastAlert() const { return device.vp.alerts->all().back().id; }
};

TEST_F(DeliveryScenario, VisitOfTypeOneIsOnlyLogged) {
    device.start();
    makeOffers({{"a", 1}});
    EXPECT_TRUE(device.vp.notifications->presented().empty());
    EXPECT_TRUE(device.vp.alerts->all().empty());
    EXPECT_TRUE(device.vp.log->contains("LocationManager::checkForLocationTarget [Line "));
    EXPECT_TRUE(device.vp.log->contains("] TODO intercept"));
    EXPECT_EQ(device.updates().size(), 1u) << "still acknowledged";
    EXPECT_EQ(device.vp.application->applicationIconBadgeNumber(), 1);
}

TEST_F(DeliveryScenario, BackgroundDeliveryIsALocalNotificationWithFullWidthPercent) {
    device.start();
    device.lm->sendNotification("Save 20% now, 100%!", 42);
    const auto presented = device.vp.notifications->presented();
    ASSERT_EQ(presented.size(), 1u);
    EXPECT_EQ(presented[0].alertBody, "Save 20\xEF\xBC\x85 now, 100\xEF\xBC\x85!");
    EXPECT_EQ(presented[0].userInfo, (Json{{"deviceeventId", "42"}}));
    EXPECT_FALSE(presented[0].fireDate);
    EXPECT_EQ(presented[0].applicationIconBadgeNumber, 0);
    ASSERT_TRUE(device.lm->localNotification());
    EXPECT_EQ(device.lm->localNotification()->alertBody, presented[0].alertBody);
    EXPECT_TRUE(device.vp.alerts->all().empty());
}

TEST_F(DeliveryScenario, ForegroundDeliveryShowsTheTextUnchanged) {
    device.vp.application->setState(platform::ApplicationState::kActive);
    device.start(true, false);
    device.lm->sendNotification("Save 20%", 42);
    EXPECT_TRUE(device.vp.notifications->presented().empty());
    const auto alert = device.vp.alerts->all().back();
    EXPECT_EQ(alert.alert.message, "Save 20%");
    EXPECT_EQ(alert.alert.cancelButtonTitle, "OK");
    EXPECT_TRUE(alert.alert.otherButtonTitles.empty());
    device.vp.alerts->press(alert.id, 0);
    EXPECT_EQ(device.updates(), (std::vector<std::pair<Json, std::string>>{{"42", "declined"}}));
}

TEST_F(DeliveryScenario, NeverAndLaterReportAndKeepTheOffer) {
    device.start();
    makeOffers({{"a", 7}});
    const auto before = device.updates().size();
    device.lm->showEventAlert("m", 7);
    device.vp.alerts->press(lastAlert(), 2);
    device.lm->showEventAlert("m", 7);
    device.vp.alerts->press(lastAlert(), 0);
    device.lm->showEventAlert("m", 7);
    device.vp.alerts->press(lastAlert(), 5);
    const auto updates = device.updates();
    ASSERT_EQ(updates.size(), before + 2);
    EXPECT_EQ(updates[before], (std::pair<Json, std::string>{"7", "saved"}));
    EXPECT_EQ(updates[before + 1], (std::pair<Json, std::string>{"7", "declined"}));
    EXPECT_EQ(device.lm->offers().size(), 1u);
    EXPECT_TRUE(device.lm->offerViewRequests().empty());
}

TEST_F(DeliveryScenario, ViewOpensAndRemovesOnlyTheLastMatchingOffer) {
    device.start();
    makeOffers({{"11", 7}, {"12", 8}, {"13", 7}});
    ASSERT_EQ(offerEventIds(), (std::vector<std::string>{"11", "12", "13"}));
    Json viewedObject;
    device.environment->notificationCenter().addObserver(
        kTovrelMessageViewed, nullptr,
        [&](const Notification& n) { viewedObject = std::any_cast<Json>(n.object); });
    const auto before = device.updates().size();
    device.lm->showEventAlert("m", 7);
    device.vp.alerts->press(lastAlert(), 1);

    EXPECT_EQ(viewedEventIds(), (std::vector<std::string>{"13"}));
    EXPECT_EQ(device.lm->offerViewRequests()[0].tag, 13);
    EXPECT_EQ(offerEventIds(), (std::vector<std::string>{"11", "12"}));
    EXPECT_EQ(viewedObject[0]["eventId"], "13");
    ASSERT_EQ(device.updates().size(), before + 1);
    EXPECT_EQ(device.updates().back(), (std::pair<Json, std::string>{"7", "seen"}));
}

TEST_F(DeliveryScenario, ViewWithoutMatchOrWithoutMediaDoesNothing) {
    device.start();
    makeOffers({{"11", 7}});
    const auto before = device.updates().size();
    device.lm->showEventAlert("m", 99);
    device.vp.alerts->press(lastAlert(), 1);
    EXPECT_EQ(device.updates().size(), before);

    // An offer whose record lacks "mediaUrl" is never shown and stays.
    PlaceSpec place{shop};
    place.eventId = "bare";
    place.eventTypeId = 1;
    device.lm->getTargets();
    device.answerPlaces({place});
    device.lm->locationManager()->setDesiredAccuracy(platform::accuracy::kNearestTenMeters);
    device.deliverFix(offset(shop, 2, 2));
    device.answer("/v1/deviceevent/link",
                  {{"places", Json::array({{{"deviceEventId", 55}, {"eventId", "bare"}}})}});
    const auto offers = device.lm->offers().size();
    const auto updates = device.updates().size();
    device.lm->showEventAlert("m", 55);
    device.vp.alerts->press(lastAlert(), 1);
    EXPECT_EQ(device.lm->offers().size(), offers);
    EXPECT_EQ(device.updates().size(), updates);
    EXPECT_TRUE(device.lm->offerViewRequests().empty());
}

TEST_F(DeliveryScenario, OpenedNotificationOpensEveryMatchingOffer) {
    device.start();
    makeOffers({{"11", 7}, {"12", 8}, {"13", "7"}});
    std::vector<OfferViewRequest> opened;
    device.lm->setOfferViewOpener([&opened](const OfferViewRequest& r) { opened.push_back(r); });
    const auto before = device.updates().size();
    device.posted.clear();

    // The host forwards the notification it received, as the platform handed it over.
    device.environment->notificationCenter().post(kTovrelNotificationReceived, openedNotification(7));
    EXPECT_EQ(device.postedNames(), (std::vector<std::string>{kTovrelNotificationReceived, kTovrelInBounds}));
    ASSERT_EQ(opened.size(), 2u);
    EXPECT_EQ(opened[0].eventId, "11");
    EXPECT_EQ(opened[1].eventId, "13");
    const auto updates = device.updates();
    ASSERT_EQ(updates.size(), before + 2);
    EXPECT_EQ(updates[before], (std::pair<Json, std::string>{7, "seen"})) << "the record's own value";
    EXPECT_EQ(updates[before + 1], (std::pair<Json, std::string>{"7", "seen"}));
    EXPECT_EQ(offerEventIds(), (std::vector<std::string>{"12"}));
}

TEST_F(DeliveryScenario, OpenedNotificationWithoutOfferViewOnlyTellsTheMap) {
    device.start(true, false);
    makeOffers({{"11", 7}});
    const auto before = device.updates().size();
    device.posted.clear();
    device.environment->notificationCenter().post(kTovrelNotificationReceived, openedNotification(7));
    EXPECT_EQ(device.postedNames(), (std::vector<std::string>{kTovrelNotificationReceived, kTovrelInBounds}));
    EXPECT_EQ(device.updates().size(), before);
    EXPECT_EQ(device.lm->offers().size(), 1u);
}

TEST_F(DeliveryScenario, LaunchFromNotificationMatchesOnlyIdentifierZero) {
    device.start();
    makeOffers({{"11", 0}, {"12", 7}});
    device.vp.application->setApplicationIconBadgeNumber(2);
    const Json notification{{"alertBody", "x"}, {"userInfo", {{"deviceeventId", "7"}, {"type", "promo"}}}};
    device.posted.clear();
    device.vp.application->finishLaunching(
        {{"UIApplicationLaunchOptionsLocalNotificationKey", notification}});
    device.loop().runUntilIdle();

    ASSERT_GE(device.posted.size(), 1u);
    EXPECT_EQ(device.posted[0].name, kTovrelNotificationReceived);
    EXPECT_NE(std::any_cast<Notification>(&device.posted[0].object), nullptr)
        << "the launch notification itself";
    EXPECT_EQ(viewedEventIds(), (std::vector<std::string>{"11"}));
    EXPECT_EQ(offerEventIds(), (std::vector<std::string>{"12"}));
    EXPECT_EQ(device.vp.application->applicationIconBadgeNumber(), 3);
    EXPECT_TRUE(device.vp.log->contains("app finished launching"));
    EXPECT_TRUE(
        device.vp.log->contains("launchOptions: {\"UIApplicationLaunchOptionsLocalNotificationKey\""));
    EXPECT_TRUE(device.vp.log->contains("] promo"));
}

TEST_F(DeliveryScenario, LaunchByLocationEventStartsMonitoringAgain) {
    device.start();
    ASSERT_EQ(device.location->providers().size(), 1u);
    device.vp.application->finishLaunching({{"UIApplicationLaunchOptionsLocationKey", true}});
    EXPECT_EQ(device.location->providers().size(), 2u);
    device.vp.application->finishLaunching(nullptr);
    EXPECT_EQ(device.location->providers().size(), 2u);
}

TEST_F(DeliveryScenario, RenumberingGivesScheduledNotificationsBadgesInOrder) {
    device.start();
    device.lm->renumberBadgesOfPendingNotifications();
    EXPECT_EQ(device.vp.application->badgeHistory().back(), 0);
    for (const char* body : {"a", "b", "c"}) {
        platform::LocalNotification n;
        n.alertBody = body;
        n.applicationIconBadgeNumber = 9;
        device.vp.notifications->scheduleLocalNotification(n);
    }
    device.vp.application->setApplicationIconBadgeNumber(5);
    device.lm->renumberBadgesOfPendingNotifications();
    const auto scheduled = device.vp.notifications->scheduledLocalNotifications();
    ASSERT_EQ(scheduled.size(), 3u);
    for (std::size_t i = 0; i < scheduled.size(); ++i) {
        EXPECT_EQ(scheduled[i].alertBody, std::string(1, static_cast<char>('a' + i)));
        EXPECT_EQ(scheduled[i].applicationIconBadgeNumber, static_cast<long>(i + 1));
    }
    EXPECT_EQ(device.vp.application->applicationIconBadgeNumber(), 0);
}

TEST_F(DeliveryScenario, ToastGoesAwayAfterTwoSeconds) {
    LocationManager::showToastMessage("Saved");
    const auto shown = device.vp.alerts->visible();
    ASSERT_EQ(shown.size(), 1u);
    EXPECT_FALSE(shown[0].alert.title);
    EXPECT_FALSE(shown[0].alert.cancelButtonTitle);
    device.loop().fastForwardBy(1.99);
    EXPECT_EQ(device.vp.alerts->visible().size(), 1u);
    device.loop().fastForwardBy(0.01);
    EXPECT_TRUE(device.vp.alerts->visible().empty());
    EXPECT_EQ(device.vp.alerts->all()[0].dismissedWith, 0);
}

}  // namespace
}  // namespace tovrel::scenarios
