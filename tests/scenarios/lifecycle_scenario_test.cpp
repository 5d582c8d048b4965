#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>

#include "scenarios/scenario_device.h"
#include "tovrel/session_manager.h"

namespace tovrel::scenarios {
namespace {

namespace accuracy = platform::accuracy;
using platform::AuthorizationStatus;
using Settings = std::pair<double, double>;

constexpr const char* kServicesOff =
    "This app requires location services enabled on your device. Please enable location services before "
    "running this app.";
constexpr const char* kAuthorization =
    "This app requires authorization to track your location. Please allow and enable location services for "
    "this app.";

class MonitoringScenario : public ::testing::Test {
  protected:
    ScenarioDevice device;
    const platform::Coordinate shop{48.137154, 11.575400};

    Settings settings() const {
        const auto record = device.provider();
        return {record.desiredAccuracy, record.distanceFilter};
    }
    std::size_t calls(const std::string& name) const {
        const auto record = device.provider();
        return static_cast<std::size_t>(std::count(record.calls.begin(), record.calls.end(), name));
    }
};

TEST_F(MonitoringScenario, InitLocationConfiguresAFreshLocationManager) {
    device.start();
    EXPECT_EQ(device.vp.notifications->registeredTypes(), 7);
    const auto record = device.provider();
    EXPECT_EQ(record.distanceFilter, 10);
    EXPECT_EQ(record.desiredAccuracy, accuracy::kNearestTenMeters);
    EXPECT_FALSE(record.pausesLocationUpdatesAutomatically);
    EXPECT_EQ(record.activityType, platform::ActivityType::kFitness);
    EXPECT_EQ(record.calls, (std::vector<std::string>{
                                "setDelegate", "requestAlwaysAuthorization", "requestWhenInUseAuthorization",
                                "startUpdatingLocation", "startMonitoringSignificantLocationChanges"}));
    EXPECT_EQ(device.motion->activeManagerCount(), 1u);
    EXPECT_TRUE(device.http().requests().empty()) << "no stored position yet: no places, no diagnostics";
    EXPECT_TRUE(device.vp.log->contains("LocationManager::startMonitoringLocation [Line "));
}

TEST_F(MonitoringScenario, WithoutSessionKeyNothingStartsAndNothingIsSaid) {
    device.vp.preferences->removeObject("sessionid");
    device.start();
    EXPECT_TRUE(device.location->providers().empty());
    EXPECT_TRUE(device.vp.alerts->all().empty());
    EXPECT_EQ(device.lm->locationManager(), nullptr);
    device.loop().fastForwardBy(3600);  // the hourly timer has nothing to stop
}

TEST_F(MonitoringScenario, LocationServicesOffShowsTheirAlertAndStartsNothing) {
    device.location->setLocationServicesEnabled(false);
    device.start();
    const auto alerts = device.vp.alerts->all();
    ASSERT_EQ(alerts.size(), 1u);
    EXPECT_EQ(alerts[0].alert.title, "Message");
    EXPECT_EQ(alerts[0].alert.message, kServicesOff);
    EXPECT_EQ(alerts[0].alert.cancelButtonTitle, "OK");
    EXPECT_TRUE(alerts[0].alert.otherButtonTitles.empty());
    EXPECT_FALSE(alerts[0].alert.onDismiss) << "the plain alert has no delegate";
    EXPECT_TRUE(device.location->providers().empty());
}

TEST_F(MonitoringScenario, RegionMonitoringUnavailableShowsItsAlert) {
    device.location->setMonitoringAvailable(false);
    device.start();
    const auto alerts = device.vp.alerts->all();
    ASSERT_EQ(alerts.size(), 1u);
    EXPECT_EQ(alerts[0].alert.message, "Region Monitoring is not available!");
    EXPECT_TRUE(device.location->providers().empty());
}

TEST_F(MonitoringScenario, DeniedOrRestrictedAuthorisationAlertsAndOpensTheSettings) {
    for (const auto status : {AuthorizationStatus::kDenied, AuthorizationStatus::kRestricted}) {
        ScenarioDevice d;
        d.location->setAuthorizationStatus(status);
        d.start();
        const auto alerts = d.vp.alerts->all();
        ASSERT_EQ(alerts.size(), 1u);
        EXPECT_EQ(alerts[0].alert.message, kAuthorization);
        EXPECT_EQ(d.vp.application->openedURLs(), (std::vector<std::string>{"app-settings:"}));
        EXPECT_TRUE(d.location->providers().empty());
    }
}

TEST_F(MonitoringScenario, NotDeterminedAuthorisationStartsAndAsks) {
    device.location->setAuthorizationStatus(AuthorizationStatus::kNotDetermined);
    device.start();
    EXPECT_TRUE(device.vp.alerts->all().empty());
    EXPECT_EQ(calls("requestAlwaysAuthorization"), 1u);
    EXPECT_EQ(calls("requestWhenInUseAuthorization"), 1u);
}

TEST_F(MonitoringScenario, OlderSystemsStartAsynchronouslyAndNeverOpenSettings) {
    device.vp.device->setSystem("iOS", "7.1");
    device.lm =
        LocationManager::create(*device.environment, delivery::OfferDesk::create(*device.environment));
    device.lm->initLocation();
    EXPECT_FALSE(device.vp.notifications->registeredTypes());
    EXPECT_EQ(device.provider().calls, (std::vector<std::string>{"setDelegate"}));
    device.loop().runUntilIdle();
    EXPECT_EQ(device.provider().calls,
              (std::vector<std::string>{"setDelegate", "startUpdatingLocation",
                                        "startMonitoringSignificantLocationChanges"}));

    ScenarioDevice denied;
    denied.vp.device->setSystem("iOS", "7.1");
    denied.location->setAuthorizationStatus(AuthorizationStatus::kDenied);
    denied.start();
    EXPECT_EQ(denied.vp.alerts->all().size(), 1u);
    EXPECT_TRUE(denied.vp.application->openedURLs().empty());
}

TEST_F(MonitoringScenario, PositionUpdatesAreStoredAndAnnounced) {
    std::vector<Json> announced;
    device.environment->notificationCenter().addObserver(
        kTovrelLocationNotification, nullptr, [&announced](const Notification& n) {
            if (const auto* object = std::any_cast<Json>(&n.object)) {
                announced.push_back(*object);
            }
        });
    device.start();
    device.lm->locationManagerDidUpdateLocations({});
    EXPECT_FALSE(device.vp.preferences->objectForKey("currentLocation"));
    EXPECT_TRUE(announced.empty());

    device.moveTo(shop);
    const auto stored = device.vp.preferences->objectForKey("currentLocation");
    ASSERT_TRUE(stored);
    EXPECT_EQ((*stored)["latitude"], shop.latitude);
    ASSERT_EQ(announced.size(), 1u);
    EXPECT_EQ(announced[0]["Location"]["longitude"], shop.longitude);
    // The first fix ran the check (no targets: a refresh, which finds no stored position yet).
    EXPECT_TRUE(device.requestsTo("/v2/place").empty());

    // Same latitude, another longitude: stored and announced, but no check (so no refresh either).
    device.deliverFix({shop.latitude, shop.longitude + 0.01});
    EXPECT_EQ(announced.size(), 2u);
    EXPECT_EQ((*device.vp.preferences->objectForKey("currentLocation"))["longitude"], shop.longitude + 0.01);
    EXPECT_TRUE(device.requestsTo("/v2/place").empty());

    device.deliverFix({shop.latitude + 0.01, shop.longitude + 0.02});
    const auto places = device.requestsTo("/v2/place");
    ASSERT_EQ(places.size(), 1u);
    EXPECT_EQ(places[0].body,
              (Json{{"sessionKey", "sk-1"},
                    {"coordinatesList", Json::array({{{"lat", "48.137154"}, {"lon", "11.585400"}}})},
                    {"distanceThreshold", "8047"}}))
        << "the places request carries the position stored before this fix";
}

TEST_F(MonitoringScenario, MotionRetunesAccuracyFromTheBackgroundQueue) {
    device.start();
    device.motion->deliverStationary(platform::MotionConfidence::kLow);
    device.loop().runUntilIdle();
    EXPECT_EQ(settings(), Settings(accuracy::kNearestTenMeters, 10));

    device.motion->deliverStationary(platform::MotionConfidence::kMedium);
    device.loop().runUntilIdle();
    EXPECT_EQ(settings(), Settings(accuracy::kThreeKilometers, 3000));

    device.motion->deliverWalking(platform::MotionConfidence::kHigh);
    device.loop().runUntilIdle();
    EXPECT_EQ(settings(), Settings(accuracy::kNearestTenMeters, 3000)) << "the filter stays after stillness";
}

/// A point exactly `metres` (as the component computes it) north of `centre`, its longitude nudged by
/// about `nudge` degrees so that successive points differ in both coordinates. Near due north the
/// distance barely depends on the longitude, so stepping the longitude one unit in the last place at
/// a time moves the computed distance by less than one unit in its last place, and it hits the exact
/// value.
std::optional<platform::Coordinate> pointAtExactDistance(const platform::Coordinate& centre, double metres,
                                                         double nudge) {
    const auto distance = [&centre](double lat, double lon) {
        return LocationManager::calculateDistanceInMetersBetweenCoord(centre, {lat, lon});
    };
    for (int attempt = 0; attempt < 20; ++attempt) {
        const double lonBase = centre.longitude + nudge * (1 + attempt * 0.05);
        double lo = centre.latitude;
        double hi = centre.latitude + 0.1;
        for (int i = 0; i < 200; ++i) {
            const double mid = lo + (hi - lo) / 2;
            (distance(mid, lonBase) < metres ? lo : hi) = mid;
        }
        double lat = std::nextafter(lo, 0.0);
        for (int latStep = 0; latStep < 4; ++latStep, lat = std::nextafter(lat, 90.0)) {
            double lon = lonBase;
            for (int lonStep = 0; lonStep < 4000; ++lonStep, lon = std::nextafter(lon, 180.0)) {
                if (distance(lat, lon) == metres) {
                    return platform::Coordinate{lat, lon};
                }
            }
        }
    }
    return std::nullopt;
}

TEST_F(MonitoringScenario, LadderBoundariesLeaveSettingsAsTheyAre) {
    device.start();
    PlaceSpec place{shop};
    device.loadTargets(offset(shop, 3000, 10), offset(shop, 3100, 20), {place});

    const auto at = [&](double metres, double nudge) {
        const auto point = pointAtExactDistance(shop, metres, nudge);
        EXPECT_TRUE(point) << "no point at exactly " << metres;
        device.deliverFix(point.value_or(shop));
        return settings();
    };
    EXPECT_EQ(at(301, 1e-6), Settings(accuracy::kHundredMeters, 300));
    EXPECT_EQ(at(500, 2e-6), Settings(accuracy::kHundredMeters, 300));
    EXPECT_EQ(at(700, 3e-6), Settings(accuracy::kKilometer, 500));
    EXPECT_EQ(at(1000, 4e-6), Settings(accuracy::kKilometer, 500));
    EXPECT_EQ(at(2000, 5e-6), Settings(accuracy::kThreeKilometers, 1000));
    EXPECT_EQ(at(300, 6e-6), Settings(accuracy::kThreeKilometers, 1000));
    EXPECT_EQ(at(299, 7e-6), Settings(accuracy::kNearestTenMeters, 10));

    device.lm->setAccuracyError(true);
    EXPECT_EQ(at(700, 8e-6), Settings(accuracy::kNearestTenMeters, 500));
    EXPECT_EQ(at(2000, 9e-6), Settings(accuracy::kNearestTenMeters, 1000));
}

TEST_F(MonitoringScenario, LocationUnknownErrorSetsAccuracyErrorAndRestartsWithoutOffers) {
    device.start();
    device.loadTargets(offset(shop, 900, 900), offset(shop, 800, 800), {PlaceSpec{shop}});
    device.moveTo(offset(shop, 5, 5));
    device.answer("/v1/deviceevent/link", linkAnswer(5));
    ASSERT_EQ(device.lm->offers().size(), 1u);
    device.answer("/v1/deviceevent/update", {{"status", 1}});
    device.answerPlaces({PlaceSpec{shop}});
    ASSERT_EQ(device.lm->targets().size(), 1u);

    device.location->failWithError({0, "unknown"});
    device.loop().runUntilIdle();
    EXPECT_TRUE(device.lm->accuracyError());
    const auto providers = device.location->providers();
    ASSERT_EQ(providers.size(), 2u);
    EXPECT_TRUE(providers[0].released);
    EXPECT_EQ(providers[0].calls.back(), "stopMonitoringSignificantLocationChanges");
    EXPECT_FALSE(providers[1].released);
    EXPECT_TRUE(providers[1].updatingLocation);
    EXPECT_TRUE(device.lm->offers().empty());
    EXPECT_TRUE(device.lm->targets().empty());
    EXPECT_TRUE(device.vp.log->contains("location service error: Code=0 \"unknown\""));

    ScenarioDevice other;
    other.start();
    other.location->failWithError({1, "denied"});
    other.loop().runUntilIdle();
    EXPECT_FALSE(other.lm->accuracyError()) << "only code 0 marks the accuracy error";
    EXPECT_EQ(other.location->providers().size(), 2u);
}

TEST_F(MonitoringScenario, PausedUpdatesResumeAfterThirtyMinutes) {
    device.start();
    device.location->pauseUpdates();
    device.loop().runUntilIdle();
    EXPECT_TRUE(device.vp.log->contains("Location Manager Paused - Starting 30 minute timer"));
    EXPECT_TRUE(device.provider().paused);
    device.loop().fastForwardBy(1799);
    EXPECT_EQ(calls("startUpdatingLocation"), 1u);
    device.loop().fastForwardBy(1);
    EXPECT_EQ(calls("startUpdatingLocation"), 2u);
    EXPECT_FALSE(device.provider().paused);
    EXPECT_TRUE(device.vp.log->contains("resumePausedLocationManager"));

    device.location->pauseUpdates();
    device.location->resumeUpdates();
    device.loop().runUntilIdle();
    EXPECT_TRUE(device.vp.log->contains("Location Manager Resumed"));
}

TEST_F(MonitoringScenario, HourlyTimerStopsStandardUpdatesOnlyOutsideTheForeground) {
    device.vp.application->setState(platform::ApplicationState::kActive);
    device.start();
    device.loop().fastForwardBy(3600);
    EXPECT_EQ(calls("stopUpdatingLocation"), 0u);
    device.vp.application->setState(platform::ApplicationState::kInactive);
    device.loop().fastForwardBy(3600);
    EXPECT_EQ(calls("stopUpdatingLocation"), 1u);
    EXPECT_FALSE(device.provider().updatingLocation);
    EXPECT_TRUE(device.provider().monitoringSignificantChanges);
}

TEST_F(MonitoringScenario, SignificantChangesAloneReportOnlyLongMoves) {
    device.vp.application->setState(platform::ApplicationState::kBackground);
    device.start();
    device.moveTo(shop);
    device.loop().fastForwardBy(3600);
    ASSERT_FALSE(device.provider().updatingLocation);
    const auto delivered = device.provider().delivered.size();
    device.moveTo(offset(shop, 300, 300));
    EXPECT_EQ(device.provider().delivered.size(), delivered);
    device.moveTo(offset(shop, 400, 400));
    EXPECT_EQ(device.provider().delivered.size(), delivered + 1);
}

TEST_F(MonitoringScenario, RefreshTimerAsksForPlacesEveryHalfHour) {
    device.start();
    device.moveTo(shop);
    EXPECT_TRUE(device.requestsTo("/v2/place").empty());
    device.loop().fastForwardBy(1800);
    ASSERT_EQ(device.requestsTo("/v2/place").size(), 1u);

    PlaceSpec linked{offset(shop, 100, 0)};
    linked.isLinked = 1;
    PlaceSpec third{offset(shop, 200, 0)};
    third.eventId = "e3";
    device.answerPlaces({PlaceSpec{shop}, linked, third});
    auto targets = device.lm->targets();
    ASSERT_EQ(targets.size(), 2u);
    EXPECT_EQ(targets[1]->eventId, "e3");

    device.loop().fastForwardBy(1800);
    ASSERT_TRUE(device.http().respondTo("/v2/place", Reply::json(503, {{"places", Json::array()}})));
    device.loop().runUntilIdle();
    EXPECT_EQ(device.lm->targets().size(), 2u) << "a failed refresh keeps the list";

    device.loop().fastForwardBy(1800);
    device.answer("/v2/place", {{"places", Json::array()}});
    EXPECT_TRUE(device.lm->targets().empty());
}

TEST_F(MonitoringScenario, ApplicationStateHandlers) {
    device.start();
    device.vp.application->setApplicationIconBadgeNumber(4);
    device.posted.clear();
    device.vp.application->becomeActive();
    EXPECT_EQ(device.vp.application->applicationIconBadgeNumber(), 0);
    EXPECT_EQ(device.postedNames(), (std::vector<std::string>{kTovrelRefreshUserLocation}));
    EXPECT_TRUE(device.vp.log->contains("app became active mode"));
    EXPECT_TRUE(device.vp.log->contains("app entered foreground mode"));
    device.vp.application->enterBackground();
    EXPECT_TRUE(device.vp.log->contains("] applicationWillResignActive"));
    EXPECT_TRUE(device.vp.log->contains("app entered background mode"));
}

TEST_F(MonitoringScenario, TerminationSendsSessionStoppedAndWaitsTwoSeconds) {
    device.start();
    const double before = device.loop().now();
    device.vp.application->terminate();
    EXPECT_DOUBLE_EQ(device.loop().now(), before + 2);
    const auto logs = device.requestsTo("/v1/log");
    ASSERT_EQ(logs.size(), 1u);
    EXPECT_EQ(logs[0].body, (Json{{"deviceid", ScenarioDevice::kAdid},
                                  {"message", {{"session_stopped", {{"timestamp", "1750000000"}}}}}}));
    EXPECT_TRUE(device.vp.log->contains("app will teminate"));
}

TEST_F(MonitoringScenario, StopDropsTheLocationManager) {
    device.start();
    device.lm->stopMonitoringLocation();
    EXPECT_EQ(device.lm->locationManager(), nullptr);
    const auto record = device.provider();
    EXPECT_TRUE(record.released);
    EXPECT_FALSE(record.updatingLocation);
    EXPECT_FALSE(record.monitoringSignificantChanges);
}

TEST_F(MonitoringScenario, SessionStartWiresTheMonitorEndToEnd) {
    auto& session = SessionManager::sharedInstance();
    session.setPresentNotifications(true);
    session.startSessionUsingLocation("sdk");
    device.answer("/v1/session", {{"sessionKey", "live"}});
    ASSERT_NE(session.lm(), nullptr);
    EXPECT_EQ(device.location->liveProviderCount(), 1u);
    session.stopSession();
    EXPECT_EQ(device.location->liveProviderCount(), 0u);
}

}  // namespace
}  // namespace tovrel::scenarios
