#include <cmath>
#include <numbers>
#include <stdexcept>

#include "screens_fixture.h"
#include "tovrel/location_archive.h"
#include "tovrel/map_manager.h"
#include "tovrel/notification_names.h"
#include "tovrel/offer_full_view_controller.h"

namespace tovrel {
namespace {

using nlohmann::json;
using platform::Coordinate;
using virtualbackend::Reply;

constexpr double kDegreesPerMetre = 180.0 / (std::numbers::pi * 6371000.0);

platform::Location positionAt(double latitude, double longitude) {
    platform::Location location;
    location.coordinate = {latitude, longitude};
    location.horizontalAccuracy = 10;
    return location;
}

/// A place `metres` north of (48, 11).
json placeNorth(double metres, json extra = json::object()) {
    json place = {{"centroidLat", 48.0 + metres * kDegreesPerMetre},
                  {"centroidLon", 11.0},
                  {"centroidRadius", 150},
                  {"eventId", "101"},
                  {"eventName", "Coffee"},
                  {"alertText", "Two for one"},
                  {"mediaType", "html"},
                  {"mediaUrl", "http://media.test/coffee.html"},
                  {"campaignName", "Spring"},
                  {"isLinked", 0}};
    place.update(extra);
    return place;
}

class MapTest : public testing::ScreensTest {
  protected:
    void SetUp() override {
        MapManager::resetZoomOnceForTesting();
        device.prefs().setObject("sessionid", "key-1");
        device.prefs().setObject("currentLocation", archiveLocation(positionAt(48.0, 11.0)));
    }
    void open() {
        map = MapManager::create(device.environment);
        map->view();
    }
    platform::MapView& mapView() { return *map->mapView(); }
    std::vector<platform::MapChange> changesOf(platform::MapChange::Kind kind, const platform::MapView& of) {
        std::vector<platform::MapChange> found;
        for (const auto& change : views.mapChanges(of)) {
            if (change.kind == kind) {
                found.push_back(change);
            }
        }
        return found;
    }
    std::vector<platform::MapChange> regionChanges() {
        auto found = changesOf(platform::MapChange::Kind::kCamera, mapView());
        std::erase_if(found, [](const auto& change) { return !change.region; });
        return found;
    }
    std::vector<platform::MapChange> visibleRectChanges(const platform::MapView& of) {
        auto found = changesOf(platform::MapChange::Kind::kCamera, of);
        std::erase_if(found, [](const auto& change) { return !change.rect; });
        return found;
    }
    std::vector<platform::MapChange> visibleRectChanges() { return visibleRectChanges(mapView()); }
    std::vector<platform::MapChange> deselections() {
        return changesOf(platform::MapChange::Kind::kDeselected, mapView());
    }
    bool answerPlaces(const std::vector<json>& places) {
        const bool answered =
            device.http().respondTo("/v2/place", Reply::json(200, {{"places", json(places)}}));
        device.loop().runUntilIdle();
        return answered;
    }
    std::vector<std::shared_ptr<hAnnotation>> pins() {
        std::vector<std::shared_ptr<hAnnotation>> found;
        for (const auto& annotation : mapView().annotations()) {
            if (auto pin = std::dynamic_pointer_cast<hAnnotation>(annotation)) {
                found.push_back(pin);
            }
        }
        return found;
    }
    std::shared_ptr<hAnnotation> firstPin() {
        const auto all = pins();
        if (all.empty()) {
            throw std::logic_error("the map shows no pins");
        }
        return all[0];
    }
    std::string calloutText(const std::shared_ptr<hAnnotation>& pin) {
        return as<platform::Label>(mapView().viewForAnnotation(pin)->leftCalloutAccessoryView()).text();
    }

    std::shared_ptr<MapManager> map;
};

TEST_F(MapTest, LoadingFetchesThePlacesNearTheStoredPosition) {
    open();
    const auto requests = device.http().requestsTo("/v2/place");
    ASSERT_EQ(requests.size(), 1u);
    EXPECT_EQ(requests[0].body["sessionKey"], "key-1");
    EXPECT_EQ(requests[0].body["coordinatesList"][0], (json{{"lat", "48.000000"}, {"lon", "11.000000"}}));
    EXPECT_FALSE(map->trackUser);
    EXPECT_EQ(map->lastLocation()->coordinate.latitude, 48.0);
}

TEST_F(MapTest, WithoutAStoredPositionNothingIsFetched) {
    device.prefs().removeObject("currentLocation");
    open();
    device.environment.notificationCenter().post(kTovrelInBounds);
    device.loop().fastForwardBy(1800);
    EXPECT_TRUE(device.http().requestsTo("/v2/place").empty());
    device.prefs().setObject("currentLocation", "not a location");
    device.environment.notificationCenter().post(kTovrelInBounds);
    EXPECT_TRUE(device.http().requestsTo("/v2/place").empty());
}

TEST_F(MapTest, EachPlaceGetsACircleAndAPin) {
    device.prefs().setObject("deviceEventId", 555);
    open();
    ASSERT_TRUE(answerPlaces({placeNorth(1609), placeNorth(160.9, {{"eventId", "102"}, {"isLinked", 1}})}));
    const auto overlays = mapView().overlays();
    ASSERT_EQ(overlays.size(), 2u);
    const auto circle = std::dynamic_pointer_cast<platform::CircleOverlay>(overlays[0]);
    ASSERT_NE(circle, nullptr);
    EXPECT_EQ(circle->title, "Target");
    EXPECT_EQ(circle->radius, 150);
    EXPECT_EQ(circle->center.latitude, 48.0 + 1609 * kDegreesPerMetre);
    const auto drawn = mapView().viewForOverlay(circle);
    ASSERT_TRUE(drawn.has_value());
    EXPECT_EQ(drawn->kind, platform::OverlayView::Kind::kCircle);

    const auto all = pins();
    ASSERT_EQ(all.size(), 2u);
    const auto& first = all[0];
    EXPECT_EQ(first->title, "Coffee");
    EXPECT_EQ(first->subtitle, "Two for one");
    EXPECT_EQ(first->eventId, "101");
    EXPECT_EQ(first->mediaURL, "http://media.test/coffee.html");
    EXPECT_EQ(first->campaignName, "Spring");
    EXPECT_EQ(first->deviceEventId, 555);
    EXPECT_EQ(all[1]->deviceEventId, 555);
    EXPECT_EQ(first->annoType, "Target");
    EXPECT_EQ(first->centroidLat, static_cast<float>(48.0 + 1609 * kDegreesPerMetre));
    EXPECT_EQ(first->coordinate.latitude, 48.0 + 1609 * kDegreesPerMetre);
    EXPECT_TRUE(first->alertText.is_null());
    EXPECT_TRUE(first->eventName.is_null());
}

TEST_F(MapTest, CalloutsShowTheDistanceInMiles) {
    open();
    ASSERT_TRUE(answerPlaces({placeNorth(1609), placeNorth(160.9)}));
    const auto all = pins();
    ASSERT_EQ(all.size(), 2u);
    EXPECT_EQ(all[0]->miles, "1.0 mi");
    EXPECT_EQ(all[1]->miles, "0.1 mi");
    EXPECT_EQ(calloutText(all[0]), "1.0 mi \n Miles");
    const auto& label = as<platform::Label>(mapView().viewForAnnotation(all[0])->leftCalloutAccessoryView());
    EXPECT_EQ(label.frame(), (platform::Rect{0, 0, 45, 55}));
    EXPECT_EQ(label.numberOfLines(), 2);
    EXPECT_EQ(label.font(), (platform::Font{"Arial", 11}));
    EXPECT_EQ(label.textAlignment(), platform::TextAlignment::kCenter);
    EXPECT_EQ(label.backgroundColor(), platform::Color::rgb255(35, 177, 250));
    const auto& button =
        as<platform::Button>(mapView().viewForAnnotation(all[0])->rightCalloutAccessoryView());
    EXPECT_EQ(button.title(), ">");
    EXPECT_EQ(button.frame(), (platform::Rect{205, 0, 45, 55}));
    EXPECT_EQ(button.titleColor(), platform::Color::whiteColor());
}

TEST_F(MapTest, TheDistanceComesFromTheSinglePrecisionPosition) {
    // 241.4018 m away in double precision (0.2 mi), 241.3556 m once the latitude is a float (0.1 mi).
    const double latitude = 48.00217097835669;
    open();
    ASSERT_TRUE(answerPlaces({placeNorth(0, {{"centroidLat", latitude}})}));
    const double exact = MapManager::calculateAreaInMetersBetweenCoord({latitude, 11.0}, {48.0, 11.0});
    ASSERT_EQ(MapManager::milesText(exact), "0.2 mi");
    EXPECT_EQ(firstPin()->miles, "0.1 mi");
    EXPECT_EQ(firstPin()->coordinate.latitude, latitude);
}

TEST_F(MapTest, AnEmptyFetchClearsPinsAndCircles) {
    open();
    ASSERT_TRUE(answerPlaces({placeNorth(100), placeNorth(200)}));
    device.environment.notificationCenter().post(kTovrelInBounds);
    ASSERT_TRUE(answerPlaces({}));
    EXPECT_TRUE(pins().empty());
    EXPECT_TRUE(mapView().overlays().empty());
}

TEST_F(MapTest, AFailedFetchKeepsWhatTheMapShows) {
    open();
    ASSERT_TRUE(answerPlaces({placeNorth(100), placeNorth(200)}));
    device.environment.notificationCenter().post(kTovrelInBounds);
    ASSERT_TRUE(
        device.http().respondTo("/v2/place", Reply::failure(platform::HttpErrorKind::kTransport, "down")));
    device.loop().runUntilIdle();
    EXPECT_EQ(pins().size(), 2u);
    EXPECT_EQ(mapView().overlays().size(), 2u);
    device.environment.notificationCenter().post(kTovrelInBounds);
    ASSERT_TRUE(device.http().respondTo("/v2/place", Reply::json(500, {{"error", "x"}})));
    device.loop().runUntilIdle();
    EXPECT_EQ(pins().size(), 2u);
}

TEST_F(MapTest, PlacesAreFetchedAgainEveryHalfHour) {
    open();
    device.loop().fastForwardBy(1799);
    EXPECT_EQ(device.http().requestsTo("/v2/place").size(), 1u);
    device.loop().fastForwardBy(1);
    EXPECT_EQ(device.http().requestsTo("/v2/place").size(), 2u);
    device.loop().fastForwardBy(1800);
    EXPECT_EQ(device.http().requestsTo("/v2/place").size(), 3u);
    ASSERT_TRUE(answerPlaces({placeNorth(100)}));
    EXPECT_EQ(pins().size(), 1u);
}

TEST_F(MapTest, TheTimerOutlivesTheMapHarmlessly) {
    open();
    map.reset();
    device.loop().fastForwardBy(3600);
    EXPECT_EQ(device.http().requestsTo("/v2/place").size(), 1u);
}

TEST_F(MapTest, TrackingRecentresOnlyWhileOn) {
    open();
    mapView().deliverUserLocation(positionAt(48.1, 11.1));
    EXPECT_TRUE(regionChanges().empty());

    ASSERT_TRUE(as<platform::Button>(map->currentLocationButton()).tap());
    EXPECT_TRUE(map->trackUser);
    ASSERT_EQ(regionChanges().size(), 1u);
    const auto centred = regionChanges()[0];
    EXPECT_EQ(centred.region->center.latitude, 48.1);
    EXPECT_EQ(centred.region->span, (platform::CoordinateSpan{0.001, 0.001}));
    EXPECT_TRUE(centred.animated);

    mapView().deliverUserLocation(positionAt(48.2, 11.2));
    ASSERT_EQ(regionChanges().size(), 2u);
    EXPECT_EQ(regionChanges()[1].region->center.longitude, 11.2);

    ASSERT_TRUE(as<platform::Button>(map->refreshMapButton()).tap());
    EXPECT_FALSE(map->trackUser);
    mapView().deliverUserLocation(positionAt(48.3, 11.3));
    EXPECT_EQ(regionChanges().size(), 2u);
    EXPECT_EQ(device.http().requestsTo("/v2/place").size(), 1u);
}

TEST_F(MapTest, RefreshUserLocationNotificationStartsTracking) {
    open();
    mapView().deliverUserLocation(positionAt(48.1, 11.1));
    device.environment.notificationCenter().post(kTovrelRefreshUserLocation);
    EXPECT_TRUE(map->trackUser);
    ASSERT_EQ(regionChanges().size(), 1u);
}

TEST_F(MapTest, RefreshUserLocationFromABackgroundThreadRecentresOnTheMainLoop) {
    open();
    mapView().deliverUserLocation(positionAt(48.1, 11.1));
    device.vp.scheduler->detachNewThread(
        [this] { device.environment.notificationCenter().post(kTovrelRefreshUserLocation); });
    device.loop().runUntilIdle();
    EXPECT_TRUE(map->trackUser);
    EXPECT_EQ(regionChanges().size(), 1u);
}

TEST_F(MapTest, PinImageFollowsTheLinkState) {
    open();
    ASSERT_TRUE(answerPlaces({placeNorth(10, {{"isLinked", 1}}), placeNorth(20, {{"isLinked", 0}}),
                              placeNorth(30, {{"isLinked", nullptr}}), placeNorth(40, {{"isLinked", "2"}})}));
    const auto all = pins();
    ASSERT_EQ(all.size(), 4u);
    EXPECT_EQ(mapView().viewForAnnotation(all[0])->imageName(), "TovrelSDKResources.bundle/pin2.png");
    EXPECT_EQ(mapView().viewForAnnotation(all[1])->imageName(), "TovrelSDKResources.bundle/pin1.png");
    EXPECT_EQ(mapView().viewForAnnotation(all[2])->imageName(), "TovrelSDKResources.bundle/pin1.png");
    EXPECT_EQ(mapView().viewForAnnotation(all[3])->imageName(), "TovrelSDKResources.bundle/pin2.png");
    EXPECT_TRUE(mapView().viewForAnnotation(all[0])->canShowCallout());
    EXPECT_TRUE(mapView().viewForAnnotation(all[0])->isEnabled());
}

TEST_F(MapTest, PinViewsAreAlwaysNewEvenWhenOneWasDequeued) {
    open();
    ASSERT_TRUE(answerPlaces({placeNorth(100)}));
    const auto oldView = mapView().viewForAnnotation(firstPin());
    device.environment.notificationCenter().post(kTovrelInBounds);
    ASSERT_TRUE(answerPlaces({placeNorth(100)}));
    EXPECT_NE(mapView().viewForAnnotation(firstPin()), oldView);
    // The screen took the old view out of the pool, and dropped it.
    EXPECT_EQ(mapView().dequeueReusableAnnotationViewWithIdentifier(oldView->reuseIdentifier()), nullptr);
}

TEST_F(MapTest, ZoomToFitHappensOnTheFirstUserLocationOfTheProcessOnly) {
    open();
    ASSERT_TRUE(answerPlaces({placeNorth(100), placeNorth(2000)}));
    mapView().deliverUserLocation(positionAt(47.99, 11.0));
    ASSERT_EQ(visibleRectChanges().size(), 1u);
    const auto zoom = visibleRectChanges()[0];
    EXPECT_EQ(zoom.padding, (platform::EdgeInsets{20, 20, 20, 20}));
    EXPECT_TRUE(zoom.animated);
    EXPECT_EQ(*zoom.rect, MapManager::zoomRectForAnnotations(mapView().annotations()));
    const auto south = platform::mapPointForCoordinate({47.99, 11.0});
    EXPECT_DOUBLE_EQ(zoom.rect->y + zoom.rect->height, south.y + 0.1);

    mapView().deliverUserLocation(positionAt(47.98, 11.0));
    EXPECT_EQ(visibleRectChanges().size(), 1u);

    auto second = MapManager::create(device.environment);
    second->view();
    second->mapView()->deliverUserLocation(positionAt(47.98, 11.0));
    EXPECT_TRUE(visibleRectChanges(*second->mapView()).empty());
}

TEST_F(MapTest, RefreshZoomsToFitWithoutFetching) {
    open();
    ASSERT_TRUE(answerPlaces({placeNorth(100)}));
    map->trackUser = true;
    map->refreshMap();
    EXPECT_FALSE(map->trackUser);
    ASSERT_EQ(visibleRectChanges().size(), 1u);
    EXPECT_EQ(device.http().requestsTo("/v2/place").size(), 1u);
}

TEST_F(MapTest, CalloutButtonOpensTheOfferAndReportsItSeen) {
    device.prefs().setObject("deviceEventId", 555);
    open();
    ASSERT_TRUE(answerPlaces({placeNorth(100)}));
    const auto pin = firstPin();
    ASSERT_TRUE(mapView().tapCalloutAccessory(pin));

    ASSERT_EQ(deselections().size(), 1u);
    EXPECT_EQ(deselections()[0].annotation, pin);
    EXPECT_TRUE(deselections()[0].animated);
    ASSERT_NE(map->offerFullViewController, nullptr);
    const auto& offer = map->offerFullViewController;
    EXPECT_EQ(offer->view()->tag(), 101);
    EXPECT_TRUE(onWindow(offer->view()));
    EXPECT_EQ(offer->mediaURL, "http://media.test/coffee.html");
    EXPECT_EQ(offer->deviceEventId, 555);

    const auto reports = device.http().requestsTo("/v1/deviceevent/update");
    ASSERT_EQ(reports.size(), 1u);
    EXPECT_EQ(reports[0].body,
              (json{{"sessionKey", "key-1"}, {"deviceEventId", 555}, {"statusCode", "seen"}}));

    const auto previous = offer;
    ASSERT_TRUE(mapView().tapCalloutAccessory(pin));
    EXPECT_NE(map->offerFullViewController, previous);
}

TEST_F(MapTest, WithoutAStoredDeviceEventTheOfferOpensUnreported) {
    open();
    ASSERT_TRUE(answerPlaces({placeNorth(100)}));
    ASSERT_TRUE(mapView().tapCalloutAccessory(firstPin()));
    EXPECT_NE(map->offerFullViewController, nullptr);
    EXPECT_TRUE(device.http().requestsTo("/v1/deviceevent/update").empty());
}

class MapMissingFieldTest : public MapTest, public ::testing::WithParamInterface<const char*> {};

TEST_P(MapMissingFieldTest, APinWithoutItsOfferOnlyDeselects) {
    device.prefs().setObject("deviceEventId", 555);
    open();
    json place = placeNorth(100);
    place.erase(GetParam());
    ASSERT_TRUE(answerPlaces({place}));
    ASSERT_TRUE(mapView().tapCalloutAccessory(firstPin()));
    EXPECT_EQ(deselections().size(), 1u);
    EXPECT_EQ(map->offerFullViewController, nullptr);
    EXPECT_TRUE(device.http().requestsTo("/v1/deviceevent/update").empty());
    EXPECT_EQ(windowSubviews().size(), 0u);
}

INSTANTIATE_TEST_SUITE_P(Keys, MapMissingFieldTest, ::testing::Values("eventId", "mediaType", "mediaUrl"));

TEST_F(MapTest, TheUserLocationKeepsThePlatformPin) {
    open();
    mapView().deliverUserLocation(positionAt(48.1, 11.1));
    EXPECT_EQ(map->mapViewViewForAnnotation(mapView(), mapView().userLocation()), nullptr);
    ASSERT_TRUE(answerPlaces({placeNorth(100)}));
    EXPECT_EQ(mapView().annotations().size(), 2u);
}

TEST(MapPolicy, HaversineDistanceInMetres) {
    EXPECT_NEAR(MapManager::calculateAreaInMetersBetweenCoord({0, 0}, {0, 1}), 111194.9266, 1e-3);
    EXPECT_NEAR(MapManager::calculateAreaInMetersBetweenCoord({48.0, 11.0}, {48.0, 11.0}), 0, 1e-9);
    EXPECT_NEAR(MapManager::calculateAreaInMetersBetweenCoord({90, 0}, {-90, 0}),
                std::numbers::pi * 6371000.0, 1e-3);
}

TEST(MapPolicy, MilesAreRoundedToOneDecimal) {
    EXPECT_EQ(MapManager::milesText(1609), "1.0 mi");
    EXPECT_EQ(MapManager::milesText(160.9), "0.1 mi");
    EXPECT_EQ(MapManager::milesText(0), "0.0 mi");
    EXPECT_EQ(MapManager::milesText(80000), "49.7 mi");
}

TEST(MapPolicy, ZoomRectUnitesTinySquaresAtEachAnnotation) {
    EXPECT_TRUE(MapManager::zoomRectForAnnotations({}).isNull());
    auto a = std::make_shared<platform::PointAnnotation>();
    a->coordinate = {0, 0};
    const auto one = MapManager::zoomRectForAnnotations({a});
    EXPECT_EQ(one, (platform::MapRect{platform::kMapWorldSize / 2, platform::kMapWorldSize / 2, 0.1, 0.1}));
    auto b = std::make_shared<platform::PointAnnotation>();
    b->coordinate = {10, 20};
    const auto two = MapManager::zoomRectForAnnotations({a, b});
    const auto pb = platform::mapPointForCoordinate(b->coordinate);
    EXPECT_DOUBLE_EQ(two.x, platform::kMapWorldSize / 2);
    EXPECT_DOUBLE_EQ(two.y, pb.y);
    EXPECT_DOUBLE_EQ(two.x + two.width, pb.x + 0.1);
    EXPECT_DOUBLE_EQ(two.y + two.height, platform::kMapWorldSize / 2 + 0.1);
}

TEST(MapPolicy, OverlayDrawingByKindAndTitle) {
    platform::PolylineOverlay suppressed;
    suppressed.title = "suppressedTarget";
    auto view = MapManager::overlayViewFor(suppressed);
    EXPECT_EQ(view.kind, platform::OverlayView::Kind::kPolyline);
    EXPECT_EQ(view.strokeColor, platform::Color::redColor());
    EXPECT_FALSE(view.fillColor.has_value());
    EXPECT_EQ(view.lineWidth, 2.0);

    platform::PolylineOverlay route;
    view = MapManager::overlayViewFor(route);
    EXPECT_EQ(view.strokeColor, platform::Color::rgb255(3, 192, 60));

    platform::CircleOverlay target;
    target.title = "Target";
    view = MapManager::overlayViewFor(target);
    EXPECT_EQ(view.kind, platform::OverlayView::Kind::kCircle);
    EXPECT_EQ(view.strokeColor, platform::Color::lightGray(0.2));
    EXPECT_EQ(view.fillColor, platform::Color::lightGray(0.1));
    EXPECT_EQ(view.lineWidth, 10.0);

    platform::CircleOverlay other;
    other.title = "Zone";
    EXPECT_EQ(MapManager::overlayViewFor(other).kind, platform::OverlayView::Kind::kPlain);
    EXPECT_EQ(MapManager::overlayViewFor(platform::Overlay{}).kind, platform::OverlayView::Kind::kPlain);
}

TEST_F(MapTest, ShowAlertIsAMessageWithOneButton) {
    open();
    map->showAlert("No places");
    const auto alerts = device.vp.alerts->all();
    ASSERT_EQ(alerts.size(), 1u);
    EXPECT_EQ(alerts[0].alert.title, "Message");
    EXPECT_EQ(alerts[0].alert.message, "No places");
    EXPECT_EQ(alerts[0].alert.cancelButtonTitle, "OK");
    EXPECT_TRUE(alerts[0].alert.otherButtonTitles.empty());
}

}  // namespace
}  // namespace tovrel
