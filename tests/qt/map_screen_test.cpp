#include <QTest>

#include "qt_test_support.h"
#include "screen_fixture.h"
#include "tovrel/map_manager.h"
#include "tovrel/qt/qt_map_view.h"

namespace tovrel::qttest {
namespace {

using namespace std::chrono_literals;

constexpr platform::Coordinate kUser{48.1364, 11.5738};
const QColor kLand(236, 233, 226);
const QColor kPin(232, 76, 61);
const QColor kLinkedPin(39, 174, 96);
const QColor kUserBlue(0, 122, 255);

QPoint toQPoint(const platform::Point& point) {
    return QPointF(point.x, point.y).toPoint();
}

class MapScreenTest : public ScreenFixture {
  protected:
    /// A session, a stored position and the place map on the window, with the places plotted.
    std::shared_ptr<qtbackend::QtMapView> showPlaceMap() {
        startSession();
        storePosition(kUser);
        MapManager::resetZoomOnceForTesting();
        manager = MapManager::create(*env);
        views().keyWindow()->addSubview(manager->view());
        auto map = qtbackend::qtView<qtbackend::QtMapView>(manager->mapView());
        EXPECT_NE(map, nullptr);
        EXPECT_TRUE(map && waitFor([&] { return !map->overlays().empty(); }, 10s))
            << "no places from " << baseURL;
        return map;
    }

    std::shared_ptr<MapManager> manager;
};

TEST_F(MapScreenTest, ThePlaceMapShowsACircleAndAPinForEveryPlaceAndTheUsersDot) {
    const auto map = showPlaceMap();
    ASSERT_TRUE(map && !map->overlays().empty());
    EXPECT_EQ(map->overlays().size(), map->annotations().size());

    // The first fix zooms to fit every pin and the user.
    platform::Location fix;
    fix.coordinate = kUser;
    fix.horizontalAccuracy = 10;
    views().deliverUserLocation(fix);
    pump(200ms);
    const QImage grab = grabAndSave(*views().window(), "map");

    const QPoint offset = map->widget()->mapTo(views().window(), QPoint(0, 0));
    int pinsSeen = 0;
    int circlesSeen = 0;
    int onScreen = 0;
    for (const auto& annotation : map->annotations()) {
        const auto pin = std::dynamic_pointer_cast<hAnnotation>(annotation);
        if (!pin) {
            continue;
        }
        const QPoint at = toQPoint(map->camera().pointForCoordinate(pin->coordinate)) + offset;
        if (!grab.rect().adjusted(20, 45, -20, -10).contains(at)) {
            continue;
        }
        ++onScreen;
        const QColor colour = pin->linked == 0 ? kPin : kLinkedPin;
        if (countNear(grab, QRect(at.x() - 16, at.y() - 40, 32, 40), colour, 30) >= 40) {
            ++pinsSeen;
        }
    }
    for (const auto& overlay : map->overlays()) {
        const auto circle = std::dynamic_pointer_cast<platform::CircleOverlay>(overlay);
        ASSERT_NE(circle, nullptr);
        EXPECT_EQ(circle->title, "Target");
        const QPoint at = toQPoint(map->camera().pointForCoordinate(circle->center)) + offset;
        const double radius = map->camera().pointsForMetres(circle->radius, circle->center.latitude);
        if (!grab.rect().contains(at) || radius < 8) {
            continue;
        }
        // Below the centre (the pin stands above it) the light grey fill darkens the land a little.
        const QColor inside = grab.pixelColor(at + QPoint(0, static_cast<int>(radius / 2)));
        if (inside.lightness() < kLand.lightness() - 2 && !near(inside, kPin, 40) &&
            !near(inside, kLinkedPin, 40)) {
            ++circlesSeen;
        }
    }
    EXPECT_GE(onScreen, 5);
    EXPECT_EQ(pinsSeen, onScreen);
    EXPECT_GE(circlesSeen, 3);

    const QPoint user = toQPoint(map->camera().pointForCoordinate(kUser)) + offset;
    EXPECT_GE(countNear(grab, QRect(user.x() - 5, user.y() + 2, 10, 5), kUserBlue, 40), 10) << "no user dot";
    // Far from every place the plain land with its grid shows.
    EXPECT_GT(countNear(grab, grab.rect(), kLand, 2), grab.width() * grab.height() / 4);
}

TEST_F(MapScreenTest, TappingAPinOpensItsCalloutWithTheDistanceAndTheOfferButton) {
    const auto map = showPlaceMap();
    ASSERT_TRUE(map && !map->overlays().empty());
    std::shared_ptr<hAnnotation> nearest;
    for (const auto& annotation : map->annotations()) {
        if (auto pin = std::dynamic_pointer_cast<hAnnotation>(annotation)) {
            const auto metres = [](const hAnnotation& a) {
                return MapManager::calculateAreaInMetersBetweenCoord(a.coordinate, kUser);
            };
            if (!nearest || metres(*pin) < metres(*nearest)) {
                nearest = pin;
            }
        }
    }
    ASSERT_NE(nearest, nullptr);
    map->setRegion({nearest->coordinate, {0.004, 0.004}}, false);
    auto view = std::static_pointer_cast<qtbackend::QtAnnotationView>(map->viewForAnnotation(nearest));
    QTest::mouseClick(view->widget(), Qt::LeftButton);
    ASSERT_NE(map->calloutWidget(), nullptr);
    const auto label = std::dynamic_pointer_cast<platform::Label>(view->leftCalloutAccessoryView());
    ASSERT_NE(label, nullptr);
    EXPECT_EQ(label->text(), *nearest->miles + " \n Miles");
    pump(100ms);
    const QImage grab = grabAndSave(*views().window(), "map_callout");
    const QRect callout(map->calloutWidget()->mapTo(views().window(), QPoint(0, 0)),
                        map->calloutWidget()->size());
    // The callout's white body and the blue accessories.
    EXPECT_GT(countNear(grab, callout, Qt::white, 4), 1000);
    EXPECT_GT(countNear(grab, callout, QColor(35, 177, 250), 6), 1000);
}

}  // namespace
}  // namespace tovrel::qttest
