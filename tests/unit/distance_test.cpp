// The one distance every part measures with (component, backends, simulator, server).
#include "tovrel/platform/distance.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <numbers>
#include <random>

#include "tovrel/platform/distance_filter.h"
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

/// A point `northMetres` north of 48.0 N, 11.0 E (one degree of latitude is about 111.2 km).
Coordinate north(double northMetres) {
    return {48.0 + northMetres / 111194.93, 11.0};
}

TEST(DistanceFilter, StandardUpdatesPassAtTheFilterAndNotBelowIt) {
    const Coordinate last = north(0);
    const Coordinate next = north(25);
    const double moved = haversineMetres(last, next);
    EXPECT_TRUE(passesDistanceFilter(&last, next, true, false, moved)) << "exactly the filter passes";
    EXPECT_FALSE(passesDistanceFilter(&last, next, true, false,
                                      std::nextafter(moved, std::numeric_limits<double>::infinity())));
    EXPECT_FALSE(passesDistanceFilter(&last, north(9.9), true, false, 10));
    EXPECT_TRUE(passesDistanceFilter(&last, north(10.01), true, false, 10));
    EXPECT_TRUE(passesDistanceFilter(&last, last, true, false, 0)) << "no filter lets every fix through";
    EXPECT_TRUE(passesDistanceFilter(&last, last, true, false, -1));
    EXPECT_TRUE(passesDistanceFilter(&last, north(511), true, true, 10)) << "standard updates use the filter";
    EXPECT_FALSE(passesDistanceFilter(&last, north(9), true, true, 10))
        << "significant changes do not widen the standard filter";
}

TEST(DistanceFilter, SignificantChangesAloneNeedFiveHundredMetres) {
    const Coordinate last = north(0);
    EXPECT_FALSE(passesDistanceFilter(&last, north(499), false, true, 10));
    EXPECT_FALSE(passesDistanceFilter(&last, north(499.99), false, true, 0)) << "the filter is not used";
    EXPECT_TRUE(passesDistanceFilter(&last, north(500.5), false, true, 10));
    EXPECT_TRUE(passesDistanceFilter(&last, north(-600), false, true, 10)) << "any direction";
}

TEST(DistanceFilter, FirstFixPassesAndNothingPassesWithoutUpdates) {
    const Coordinate last = north(0);
    EXPECT_TRUE(passesDistanceFilter(nullptr, north(0), true, false, 1000));
    EXPECT_TRUE(passesDistanceFilter(nullptr, north(0), false, true, 1000));
    EXPECT_FALSE(passesDistanceFilter(nullptr, north(0), false, false, -1));
    EXPECT_FALSE(passesDistanceFilter(&last, north(5000), false, false, -1));
    EXPECT_FALSE(passesDistanceFilter(&last, {std::nan(""), 11.0}, true, false, 10))
        << "a position that measures as NaN never clears a filter";
    EXPECT_FALSE(passesDistanceFilter(&last, {std::nan(""), 11.0}, false, true, 10));
}

TEST(DistanceFilter, TheQuickBoundNeverDecidesOtherwiseThanTheDistance) {
    // Pairs around the threshold, at every latitude and across the antimeridian.
    std::mt19937 rng(20261127);
    std::uniform_real_distribution<double> latitude(-89.9, 89.9);
    std::uniform_real_distribution<double> longitude(-180, 180);
    std::uniform_real_distribution<double> step(-0.01, 0.01);
    for (int i = 0; i < 200'000; ++i) {
        const Coordinate last{latitude(rng), longitude(rng)};
        const Coordinate next{last.latitude + step(rng) * (i % 3), last.longitude + step(rng) * (i % 5)};
        const double moved = haversineMetres(last, next);
        for (const double filter : {moved, std::nextafter(moved, 0.0), moved * 1.5, moved * 3, 10.0, 500.0}) {
            ASSERT_EQ(passesDistanceFilter(&last, next, true, false, filter), moved >= filter)
                << last.latitude << "," << last.longitude << " to " << next.latitude << "," << next.longitude;
        }
        ASSERT_EQ(passesDistanceFilter(&last, next, false, true, 0), moved >= kSignificantChangeMeters);
    }
}

}  // namespace
}  // namespace tovrel::platform
