// The grid index against a brute-force haversine scan.
#include "catalog/spatial_index.h"

#include <gtest/gtest.h>

#include <cmath>
#include <numbers>
#include <random>
#include <set>

#include "catalog/geo.h"

namespace tovrel::server {
namespace {

constexpr double kRad = std::numbers::pi / 180;

std::vector<uint32_t> bruteForce(const std::vector<SpatialIndex::Entry>& entries, double lat, double lon,
                                 double r) {
    std::vector<std::pair<double, uint32_t>> hits;
    for (const auto& e : entries) {
        const double d = haversineMetres(lat, lon, e.lat, e.lon);
        if (d <= r) {
            hits.emplace_back(d, e.id);
        }
    }
    std::sort(hits.begin(), hits.end());
    std::vector<uint32_t> ids;
    for (const auto& h : hits) {
        ids.push_back(h.second);
    }
    return ids;
}

std::vector<uint32_t> indexed(const SpatialIndex& index, double lat, double lon, double r) {
    std::vector<SpatialIndex::Hit> hits;
    index.within(lat, lon, r, hits);
    std::vector<uint32_t> ids;
    for (const auto& h : hits) {
        ids.push_back(h.id);
    }
    return ids;
}

// The point reached from (lat, lon) after distance metres on the given bearing (spherical earth).
std::pair<double, double> destination(double lat, double lon, double bearingDeg, double distance) {
    const double a = distance / kEarthRadiusMetres;
    const double b = bearingDeg * kRad;
    const double la = lat * kRad;
    const double lat2 = std::asin(std::sin(la) * std::cos(a) + std::cos(la) * std::sin(a) * std::cos(b));
    const double lon2 = lon * kRad + std::atan2(std::sin(b) * std::sin(a) * std::cos(la),
                                                std::cos(a) - std::sin(la) * std::sin(lat2));
    double lonDeg = lon2 / kRad;
    lonDeg = std::remainder(lonDeg, 360.0);
    return {lat2 / kRad, lonDeg};
}

TEST(SpatialIndex, RandomPointsMatchABruteForceScan) {
    std::mt19937 rng(7);
    std::uniform_real_distribution<double> lat(47.2, 49.0);
    std::uniform_real_distribution<double> lon(10.3, 12.9);
    std::vector<SpatialIndex::Entry> entries;
    for (uint32_t i = 0; i < 20000; ++i) {
        entries.push_back({lat(rng), lon(rng), i});
    }
    const SpatialIndex index(entries);
    std::uniform_real_distribution<double> radius(0, 25000);
    for (int q = 0; q < 300; ++q) {
        const double qlat = lat(rng);
        const double qlon = lon(rng);
        const double r = q % 10 == 0 ? 8047 : radius(rng);
        const auto expected = bruteForce(entries, qlat, qlon, r);
        const auto got = indexed(index, qlat, qlon, r);
        // Same set; the order may differ only where two distances agree to rounding.
        EXPECT_EQ(std::multiset<uint32_t>(got.begin(), got.end()),
                  std::multiset<uint32_t>(expected.begin(), expected.end()))
            << "query " << q;
    }
}

TEST(SpatialIndex, HitsComeNearestFirstWithTheirDistances) {
    std::vector<SpatialIndex::Entry> entries;
    for (uint32_t i = 0; i < 50; ++i) {
        const auto [la, lo] = destination(48.137, 11.575, i * 37.0, 50.0 * (50 - i));
        entries.push_back({la, lo, i});
    }
    const SpatialIndex index(entries);
    std::vector<SpatialIndex::Hit> hits;
    index.within(48.137, 11.575, 10000, hits);
    ASSERT_EQ(hits.size(), 50u);
    for (std::size_t i = 0; i < hits.size(); ++i) {
        EXPECT_EQ(hits[i].id, 49 - i);
        EXPECT_NEAR(hits[i].distance, 50.0 * (i + 1), 1e-6);
    }
}

TEST(SpatialIndex, PointsAtTheThresholdFollowTheHaversineExactly) {
    // Rings of points a hair inside and outside the threshold, at several latitudes and radii.
    for (double centreLat : {0.0, 48.137, -33.9, 71.0}) {
        for (double r : {1.0, 40.0, 8047.0, 150000.0}) {
            std::vector<SpatialIndex::Entry> entries;
            uint32_t id = 0;
            for (double bearing = 0; bearing < 360; bearing += 7.5) {
                for (double delta : {-1e-3, -1e-6, 0.0, 1e-6, 1e-3}) {
                    const auto [la, lo] = destination(centreLat, 11.575, bearing, r + delta);
                    entries.push_back({la, lo, id++});
                }
            }
            const SpatialIndex index(entries);
            const auto got = indexed(index, centreLat, 11.575, r);
            const auto expected = bruteForce(entries, centreLat, 11.575, r);
            EXPECT_EQ(std::set<uint32_t>(got.begin(), got.end()),
                      std::set<uint32_t>(expected.begin(), expected.end()))
                << "lat " << centreLat << " r " << r;
            // 48 bearings, each with two points inside, two outside and one on the threshold.
            EXPECT_GE(got.size(), 48u * 2);
            EXPECT_LE(got.size(), 48u * 3);
        }
    }
}

TEST(SpatialIndex, QueriesAcrossTheAntimeridian) {
    std::vector<SpatialIndex::Entry> entries{{0, 179.99, 1}, {0, -179.99, 2}, {0, 180.0, 3},
                                             {0, -180.0, 4}, {0, 179.0, 5},   {0, -179.0, 6}};
    const SpatialIndex index(entries);
    for (double lon : {179.995, -179.995, 180.0, -180.0}) {
        const auto got = indexed(index, 0, lon, 5000);
        EXPECT_EQ(std::set<uint32_t>(got.begin(), got.end()), (std::set<uint32_t>{1, 2, 3, 4})) << lon;
    }
    const auto wide = indexed(index, 0, -179.5, 170000);
    EXPECT_EQ(std::set<uint32_t>(wide.begin(), wide.end()), (std::set<uint32_t>{1, 2, 3, 4, 5, 6}));
}

TEST(SpatialIndex, QueriesAroundThePoles) {
    std::vector<SpatialIndex::Entry> entries;
    for (uint32_t i = 0; i < 36; ++i) {
        entries.push_back({89.98, -180.0 + i * 10.0, i});
        entries.push_back({-89.98, -180.0 + i * 10.0, 100 + i});
    }
    const SpatialIndex index(entries);
    EXPECT_EQ(indexed(index, 90, 0, 3000).size(), 36u);
    const auto north = indexed(index, 89.99, 45, 5000);
    const auto northExpected = bruteForce(entries, 89.99, 45, 5000);
    EXPECT_EQ(std::set<uint32_t>(north.begin(), north.end()),
              std::set<uint32_t>(northExpected.begin(), northExpected.end()));
    const auto south = indexed(index, -89.99, 100, 5000);
    const auto southExpected = bruteForce(entries, -89.99, 100, 5000);
    EXPECT_EQ(std::set<uint32_t>(south.begin(), south.end()),
              std::set<uint32_t>(southExpected.begin(), southExpected.end()));
}

TEST(SpatialIndex, EdgeRadiiAndEmptyIndexes) {
    const std::vector<SpatialIndex::Entry> entries{{48.1, 11.5, 1}, {48.1, 11.5, 2}, {-48.1, -168.5, 3}};
    const SpatialIndex index(entries);
    EXPECT_EQ(indexed(index, 48.1, 11.5, 0), (std::vector<uint32_t>{1, 2}));
    EXPECT_TRUE(indexed(index, 48.1, 11.5, -1).empty());
    EXPECT_TRUE(indexed(index, 48.1, 11.5, std::nan("")).empty());
    EXPECT_TRUE(indexed(index, std::nan(""), 11.5, 100).empty());
    EXPECT_EQ(indexed(index, 0, 0, 3e7).size(), 3u);
    EXPECT_EQ(indexed(index, 48.1, 11.5, std::numbers::pi * kEarthRadiusMetres).size(), 3u);
    EXPECT_TRUE(indexed(SpatialIndex(), 0, 0, 1e9).empty());
    EXPECT_EQ(SpatialIndex().size(), 0u);
}

}  // namespace
}  // namespace tovrel::server
