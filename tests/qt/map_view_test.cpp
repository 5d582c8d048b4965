#include <gtest/gtest.h>

#include <QTest>
#include <cmath>

#include "qt_test_support.h"
#include "tovrel/qt/qt_main_loop.h"
#include "tovrel/qt/qt_map_view.h"

namespace tovrel::qtbackend {
namespace {

constexpr platform::Coordinate kMarienplatz{48.13737, 11.57546};

TEST(MapProjectionTest, CoordinatesSurviveTheRoundTripThroughMapPoints) {
    for (const platform::Coordinate c :
         {kMarienplatz, platform::Coordinate{0, 0}, platform::Coordinate{-33.8688, 151.2093},
          platform::Coordinate{84.9, -179.9}, platform::Coordinate{-84.9, 179.9}}) {
        const auto back = coordinateForMapPoint(platform::mapPointForCoordinate(c));
        EXPECT_NEAR(back.latitude, c.latitude, 1e-9);
        EXPECT_NEAR(back.longitude, c.longitude, 1e-9);
    }
}

TEST(MapProjectionTest, AShownRectangleIsTheVisibleRectangleWhenItsShapeMatchesTheView) {
    MapCamera camera;
    camera.setViewSize({375, 667});
    const auto centre = platform::mapPointForCoordinate(kMarienplatz);
    const platform::MapRect rect{centre.x - 3750, centre.y - 6670, 7500, 13340};
    camera.showMapRect(rect, {});
    const auto visible = camera.visibleMapRect();
    EXPECT_NEAR(visible.x, rect.x, 1e-6);
    EXPECT_NEAR(visible.y, rect.y, 1e-6);
    EXPECT_NEAR(visible.width, rect.width, 1e-6);
    EXPECT_NEAR(visible.height, rect.height, 1e-6);
}

TEST(MapProjectionTest, PaddingKeepsTheRectangleInsideThePaddedArea) {
    MapCamera camera;
    camera.setViewSize({375, 667});
    const auto a = platform::mapPointForCoordinate({48.1351, 11.5620});
    const auto b = platform::mapPointForCoordinate({48.1427, 11.5820});
    const platform::MapRect rect{std::min(a.x, b.x), std::min(a.y, b.y), std::abs(b.x - a.x),
                                 std::abs(b.y - a.y)};
    camera.showMapRect(rect, {20, 20, 20, 20});
    for (const auto& corner : {platform::MapPoint{rect.x, rect.y},
                               platform::MapPoint{rect.x + rect.width, rect.y + rect.height}}) {
        const QPointF at = camera.pointForMapPoint(corner);
        EXPECT_GE(at.x(), 20 - 1e-6);
        EXPECT_LE(at.x(), 355 + 1e-6);
        EXPECT_GE(at.y(), 20 - 1e-6);
        EXPECT_LE(at.y(), 647 + 1e-6);
    }
    // The wider side touches the padding.
    EXPECT_NEAR(camera.pointForMapPoint({rect.x, rect.y}).x(), 20, 1e-6);
}

TEST(MapProjectionTest, ARegionIsCentredAndShowsAtLeastItsSpan) {
    MapCamera camera;
    camera.setViewSize({375, 667});
    camera.showRegion({kMarienplatz, {0.01, 0.01}});
    const QPointF centre = camera.pointForCoordinate(kMarienplatz);
    EXPECT_NEAR(centre.x(), 187.5, 1e-6);
    EXPECT_NEAR(centre.y(), 333.5, 1e-6);
    const auto region = camera.region();
    EXPECT_NEAR(region.center.latitude, kMarienplatz.latitude, 1e-9);
    EXPECT_GE(region.span.longitudeDelta, 0.01 - 1e-9);
    EXPECT_GE(region.span.latitudeDelta, 0.01 - 1e-9);
    // The narrow side fits the longitude span exactly.
    EXPECT_NEAR(region.span.longitudeDelta, 0.01, 1e-9);
}

TEST(MapProjectionTest, GroundDistancesScaleWithLatitudeAndZoom) {
    MapCamera camera;
    camera.setViewSize({375, 667});
    camera.setScale(1);
    const double atEquator = camera.pointsForMetres(100, 0);
    const double atMunich = camera.pointsForMetres(100, kMarienplatz.latitude);
    EXPECT_NEAR(atMunich / atEquator, 1 / std::cos(kMarienplatz.latitude * M_PI / 180), 1e-9);
    camera.setScale(2);
    EXPECT_NEAR(camera.pointsForMetres(100, 0), atEquator / 2, 1e-9);
    camera.setScale(0);
    EXPECT_EQ(camera.scale(), MapCamera::kMinimumScale);
}

class RecordingMapDelegate final : public platform::MapViewDelegate {
  public:
    QtViewSystem* views = nullptr;
    int overlaysAsked = 0;
    int userUpdates = 0;
    std::vector<std::string> tapped;
    std::shared_ptr<platform::AnnotationView> mapViewViewForAnnotation(
        platform::MapView& /*map*/, const std::shared_ptr<platform::Annotation>& annotation) override {
        auto view = views->makeAnnotationView(annotation, "Location");
        view->setCanShowCallout(true);
        view->setImageName("TovrelSDKResources.bundle/pin1.png");
        auto button = views->makeButton(platform::ButtonType::kCustom, {205, 0, 45, 55});
        button->setTitle(">");
        view->setRightCalloutAccessoryView(button);
        view->setLeftCalloutAccessoryView(views->makeLabel({0, 0, 45, 55}));
        return view;
    }
    void mapViewAnnotationViewCalloutAccessoryControlTapped(platform::MapView& /*map*/,
                                                            platform::AnnotationView& view,
                                                            platform::View& /*control*/) override {
        tapped.push_back(view.annotation()->title.value_or(""));
    }
    platform::OverlayView mapViewViewForOverlay(
        platform::MapView& /*map*/, const std::shared_ptr<platform::Overlay>& /*overlay*/) override {
        ++overlaysAsked;
        return {platform::OverlayView::Kind::kCircle, platform::Color::redColor(),
                platform::Color::redColor(), 2};
    }
    void mapViewDidUpdateUserLocation(platform::MapView& /*map*/,
                                      const platform::UserLocation& /*user*/) override {
        ++userUpdates;
    }
};

class QtMapViewTest : public ::testing::Test {
  protected:
    void SetUp() override {
        delegate->views = views.get();
        map = std::static_pointer_cast<QtMapView>(views->makeMapView(views->mainScreenBounds()));
        map->setDelegate(delegate);
        views->keyWindow()->addSubview(map);
        views->window()->show();
    }
    void TearDown() override { views->window()->hide(); }

    std::shared_ptr<QtMainLoop> loop = std::make_shared<QtMainLoop>();
    std::shared_ptr<QtViewSystem> views = std::make_shared<QtViewSystem>(loop, QtViewSystem::Options{});
    std::shared_ptr<RecordingMapDelegate> delegate = std::make_shared<RecordingMapDelegate>();
    std::shared_ptr<QtMapView> map;
};

TEST_F(QtMapViewTest, APinsTipStandsOnItsCoordinateAndItsCalloutButtonReachesTheDelegate) {
    auto pin = std::make_shared<platform::PointAnnotation>();
    pin->coordinate = kMarienplatz;
    pin->title = "Old Town";
    map->addAnnotation(pin);
    map->setRegion({kMarienplatz, {0.01, 0.01}}, false);
    auto view = std::static_pointer_cast<QtAnnotationView>(map->viewForAnnotation(pin));
    ASSERT_NE(view, nullptr);
    const QRect geometry = view->widget()->geometry();
    EXPECT_NEAR(geometry.center().x(), 187.5, 1);
    EXPECT_EQ(geometry.bottom() + 1, 334);

    QTest::mouseClick(view->widget(), Qt::LeftButton);
    ASSERT_NE(map->calloutWidget(), nullptr);
    auto button = std::static_pointer_cast<QtButton>(view->rightCalloutAccessoryView());
    EXPECT_EQ(button->widget()->parentWidget(), map->calloutWidget());
    QTest::mouseClick(button->widget(), Qt::LeftButton);
    EXPECT_EQ(delegate->tapped, std::vector<std::string>{"Old Town"});

    map->deselectAnnotation(pin, true);
    EXPECT_EQ(map->calloutWidget(), nullptr);
    EXPECT_EQ(button->widget()->parentWidget(), nullptr);
}

TEST_F(QtMapViewTest, RemovedPinsAreSetAsideForReuseAndOverlaysAskTheDelegateOnce) {
    auto pin = std::make_shared<platform::PointAnnotation>();
    pin->coordinate = kMarienplatz;
    map->addAnnotation(pin);
    map->addAnnotation(pin);
    const auto view = map->viewForAnnotation(pin);
    map->removeAnnotations(map->annotations());
    EXPECT_TRUE(map->annotations().empty());
    EXPECT_EQ(map->dequeueReusableAnnotationViewWithIdentifier("Location"), view);
    EXPECT_EQ(map->dequeueReusableAnnotationViewWithIdentifier("Location"), nullptr);

    auto circle = std::make_shared<platform::CircleOverlay>();
    circle->center = kMarienplatz;
    circle->radius = 80;
    map->addOverlay(circle);
    EXPECT_EQ(delegate->overlaysAsked, 1);
    EXPECT_EQ(map->viewForOverlay(circle)->kind, platform::OverlayView::Kind::kCircle);
    map->removeOverlays({circle});
    EXPECT_TRUE(map->overlays().empty());
}

TEST_F(QtMapViewTest, TheUserLocationCountsAsAnAnnotationOnlyWhileShownAndKnown) {
    platform::Location fix;
    fix.coordinate = kMarienplatz;
    map->deliverUserLocation(fix);
    EXPECT_EQ(delegate->userUpdates, 0);
    EXPECT_TRUE(map->annotations().empty());
    map->setShowsUserLocation(true);
    views->deliverUserLocation(fix);
    EXPECT_EQ(delegate->userUpdates, 1);
    ASSERT_EQ(map->annotations().size(), 1U);
    map->removeAnnotations(map->annotations());
    EXPECT_EQ(map->annotations().size(), 1U);
}

}  // namespace
}  // namespace tovrel::qtbackend
