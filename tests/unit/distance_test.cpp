// The one distance every part measures with (component, backends, simulator, server).
#include "tovrel/platform/distance.h"

#include <gtest/gtest.h>

#include <cmath>
#include <numbers>
#include <random>

#include "tovrel/platform/location.h"

namespace tovrel::platform {
namespace {

constexpr double kHalfCircumference = 6371000 * std::numbers::pi;

TEST(Distance, ZeroAtOnePointAndSymmetric) {
    EXPECT_EQ(haversineMetres(48.1, 11.5, 48.1, 11.5), 0.0);
    EXPECT_EQ(haversineMetres(-90, 0, -90, 0), 0.0);
    EXPECT_EQ(haversineMetres(48.137154, 11.5754, 52.52, 13.405),
              haversineMetres(52.52, 13.405, 48.137154, 11.5754));
    EXPECT_EQ(haversineMetres(Coordinate{48.137154, 11.5754}, Coordinate{52.52, 13.405}),
              haversineMetres(48.137154, 11.5754, 52.52, 13.405));
    // One degree of longitude on the equator, and the same offset in latitude.
    EXPECT_NEAR(haversineMetres(0, 0, 0, 1), 111194.93, 0.01);
    EXPECT_EQ(haversineMetres(0, 0, 0.25, 0), haversineMetres(0, 0, 0, 0.25));
}

TEST(Distance, AntipodesAreHalfTheCircumferenceAndNothingIsFarther) {
    EXPECT_NEAR(haversineMetres(0, 0, 0, 180), kHalfCircumference, 1e-6);
    EXPECT_NEAR(haversineMetres(90, 0, -90, 0), kHalfCircumference, 1e-6);
    EXPECT_NEAR(haversineMetres(48.1, 11.5, -48.1, -168.5), kHalfCircumference, 1e-6);
    // Close to an antipode rounding must not turn the result into NaN or anything beyond half the
    // circumference.
    for (double offset = 1e-7; offset < 1e-2; offset *= 3) {
        const double d = haversineMetres(48.1, 11.5, -48.1 + offset, -168.5);
        EXPECT_TRUE(d <= kHalfCircumference + 1e-6) << offset;
        EXPECT_FALSE(d < kHalfCircumference - 2000) << offset;
    }
}

TEST(Distance, AcrossTheAntimeridianIsTheShortWay) {
    EXPECT_NEAR(haversineMetres(0, 179.5, 0, -179.5), haversineMetres(0, -0.5, 0, 0.5), 1e-6);
    EXPECT_NEAR(haversineMetres(-36.85, 179.99, -36.85, -179.99),
                haversineMetres(-36.85, -0.01, -36.85, 0.01), 1e-6);
    // Longitudes outside ±180 are the same meridians.
    EXPECT_NEAR(haversineMetres(10, 190, 10, -170), 0, 1e-6);
}

TEST(Distance, RadiusIsHeldAsAnIntegerAndAppliedLast) {
    // (6371 · angle) · 1000 rounds differently from 6371000 · angle for some angles; the result must be
    // the former for every angle.
    std::mt19937_64 random(7);
    std::uniform_real_distribution<double> lat(-89, 89);
    std::uniform_real_distribution<double> lon(-179, 179);
    for (int i = 0; i < 2000; ++i) {
        const Coordinate a{lat(random), lon(random)};
        const Coordinate b{lat(random), lon(random)};
        const double k = 0.017453292519943295;
        const double dLat = (b.latitude - a.latitude) * k;
        const double dLon = (b.longitude - a.longitude) * k;
        const double h =
            std::sin(dLat / 2) * std::sin(dLat / 2) +
            std::cos(a.latitude * k) * std::cos(b.latitude * k) * std::sin(dLon / 2) * std::sin(dLon / 2);
        const double angle = 2 * std::atan2(std::sqrt(h), std::sqrt(1 - h));
        const int radius = 6371;
        ASSERT_EQ(haversineMetres(a, b), radius * angle * 1000);
    }
}

}  // namespace
}  // namespace tovrel::platform
