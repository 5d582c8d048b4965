#include <gtest/gtest.h>

#include <cmath>

#include "tovrel/platform/map_view.h"

namespace tovrel {
namespace {

constexpr platform::Coordinate kMarienplatz{48.13737, 11.57546};

TEST(MapCameraTest, CoordinatesSurviveTheRoundTripThroughMapPoints) {
    for (const platform::Coordinate c :
         {kMarienplatz, platform::Coordinate{0, 0}, platform::Coordinate{-33.8688, 151.2093},
          platform::Coordinate{84.9, -179.9}, platform::Coordinate{-84.9, 179.9}}) {
        const auto back = platform::coordinateForMapPoint(platform::mapPointForCoordinate(c));
        EXPECT_NEAR(back.latitude, c.latitude, 1e-9);
        EXPECT_NEAR(back.longitude, c.longitude, 1e-9);
    }
}

TEST(MapCameraTest, AShownRectangleIsTheVisibleRectangleWhenItsShapeMatchesTheView) {
    platform::MapCamera camera;
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

TEST(MapCameraTest, PaddingKeepsTheRectangleInsideThePaddedArea) {
    platform::MapCamera camera;
    camera.setViewSize({375, 667});
    const auto a = platform::mapPointForCoordinate({48.1351, 11.5620});
    const auto b = platform::mapPointForCoordinate({48.1427, 11.5820});
    const platform::MapRect rect{std::min(a.x, b.x), std::min(a.y, b.y), std::abs(b.x - a.x),
                                 std::abs(b.y - a.y)};
    camera.showMapRect(rect, {20, 20, 20, 20});
    for (const auto& corner : {platform::MapPoint{rect.x, rect.y},
                               platform::MapPoint{rect.x + rect.width, rect.y + rect.height}}) {
        const auto at = camera.pointForMapPoint(corner);
        EXPECT_GE(at.x, 20 - 1e-6);
        EXPECT_LE(at.x, 355 + 1e-6);
        EXPECT_GE(at.y, 20 - 1e-6);
        EXPECT_LE(at.y, 647 + 1e-6);
    }
    // The wider side touches the padding.
    EXPECT_NEAR(camera.pointForMapPoint({rect.x, rect.y}).x, 20, 1e-6);
}

TEST(MapCameraTest, ARegionIsCentredAndShowsAtLeastItsSpan) {
    platform::MapCamera camera;
    camera.setViewSize({375, 667});
    camera.showRegion({kMarienplatz, {0.01, 0.01}});
    const auto centre = camera.pointForCoordinate(kMarienplatz);
    EXPECT_NEAR(centre.x, 187.5, 1e-6);
    EXPECT_NEAR(centre.y, 333.5, 1e-6);
    const auto region = camera.region();
    EXPECT_NEAR(region.center.latitude, kMarienplatz.latitude, 1e-9);
    EXPECT_GE(region.span.longitudeDelta, 0.01 - 1e-9);
    EXPECT_GE(region.span.latitudeDelta, 0.01 - 1e-9);
    // The narrow side fits the longitude span exactly.
    EXPECT_NEAR(region.span.longitudeDelta, 0.01, 1e-9);
}

TEST(MapCameraTest, GroundDistancesScaleWithLatitudeAndZoom) {
    platform::MapCamera camera;
    camera.setViewSize({375, 667});
    camera.setScale(1);
    const double atEquator = camera.pointsForMetres(100, 0);
    const double atMunich = camera.pointsForMetres(100, kMarienplatz.latitude);
    EXPECT_NEAR(atMunich / atEquator, 1 / std::cos(kMarienplatz.latitude * M_PI / 180), 1e-9);
    camera.setScale(2);
    EXPECT_NEAR(camera.pointsForMetres(100, 0), atEquator / 2, 1e-9);
    camera.setScale(0);
    EXPECT_EQ(camera.scale(), platform::MapCamera::kMinimumScale);
}

TEST(MapCameraTest, CoordinatesMapOntoTheWorldSquare) {
    EXPECT_EQ(platform::mapPointForCoordinate({0, 0}),
              (platform::MapPoint{platform::kMapWorldSize / 2, platform::kMapWorldSize / 2}));
    EXPECT_DOUBLE_EQ(platform::mapPointForCoordinate({0, 180}).x, platform::kMapWorldSize);
    EXPECT_LT(platform::mapPointForCoordinate({60, 0}).y, platform::mapPointForCoordinate({10, 0}).y);
    EXPECT_TRUE(platform::MapRect::null().isNull());
}

}  // namespace
}  // namespace tovrel
