#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <random>

#include "scenarios/scenario_device.h"
#include "targeting/proximity_policy.h"
#include "targeting/target_list.h"

namespace tovrel::targeting {
namespace {

using platform::Coordinate;

std::shared_ptr<hRegion> targetAt(const Coordinate& centre, int id = 0) {
    auto target = std::make_shared<hRegion>();
    target->center = centre;
    target->radius = 50;
    target->eventId = id;
    return target;
}

/// The fast selection must give the reference's result bit for bit: the same distance and the same
/// hits (index and distance), in the same order.
void expectSameAsScan(const std::vector<Coordinate>& centres, const Coordinate& position) {
    TargetList list;
    std::vector<std::shared_ptr<hRegion>> targets;
    for (const auto& c : centres) {
        targets.push_back(targetAt(c));
    }
    list.assign(targets);
    NearestSet fast;
    NearestSet reference;
    list.nearest(position, fast);
    nearestByScan(centres, position, reference);
    if (std::isnan(reference.distance)) {
        ASSERT_TRUE(std::isnan(fast.distance));
    } else {
        ASSERT_EQ(fast.distance, reference.distance)
            << "position " << position.latitude << "," << position.longitude;
    }
    ASSERT_EQ(fast.hits.size(), reference.hits.size());
    for (std::size_t i = 0; i < fast.hits.size(); ++i) {
        ASSERT_EQ(fast.hits[i].index, reference.hits[i].index);
        const double a = fast.hits[i].distance;
        const double b = reference.hits[i].distance;
        ASSERT_TRUE(a == b || (std::isnan(a) && std::isnan(b)));
    }
}

class NearestSelection : public ::testing::Test {
  protected:
    std::mt19937_64 random{20240601};

    double uniform(double lo, double hi) { return std::uniform_real_distribution<double>(lo, hi)(random); }
    Coordinate anywhere() { return {uniform(-90, 90), uniform(-180, 180)}; }
    Coordinate near(const Coordinate& c, double degrees) {
        return {c.latitude + uniform(-degrees, degrees), c.longitude + uniform(-degrees, degrees)};
    }
};

TEST_F(NearestSelection, EmptyListHasNoHits) {
    TargetList list;
    NearestSet set;
    list.nearest({1, 2}, set);
    EXPECT_TRUE(set.hits.empty());
    EXPECT_EQ(set.distance, std::numeric_limits<double>::infinity());
}

TEST_F(NearestSelection, MatchesTheScanOnTargetsAllOverTheGlobe) {
    for (const std::size_t n : {1U, 2U, 3U, 10U, 100U, 1000U}) {
        for (int round = 0; round < 40; ++round) {
            std::vector<Coordinate> centres(n);
            for (auto& c : centres) {
                c = anywhere();
            }
            expectSameAsScan(centres, anywhere());
        }
    }
}

TEST_F(NearestSelection, MatchesTheScanInDenseClustersAroundTheDevice) {
    for (const double spread : {1e-2, 1e-4, 1e-6, 1e-8}) {
        for (int round = 0; round < 50; ++round) {
            const Coordinate device = anywhere();
            std::vector<Coordinate> centres(300);
            for (auto& c : centres) {
                c = near(device, spread);
                c.latitude = std::clamp(c.latitude, -90.0, 90.0);
            }
            expectSameAsScan(centres, device);
        }
    }
}

TEST_F(NearestSelection, ExactTiesAreAllHitsInListOrder) {
    for (int round = 0; round < 200; ++round) {
        const Coordinate device{std::round(uniform(-80, 80)), std::round(uniform(-170, 170))};
        // Offsets that are powers of two keep both mirrored centres exactly representable, so their
        // distances tie exactly; duplicates of a centre tie too.
        const double step = std::ldexp(1.0, -static_cast<int>(uniform(4, 12)));
        std::vector<Coordinate> centres;
        for (int i = 0; i < 40; ++i) {
            centres.push_back(near(device, 0.5));
        }
        const Coordinate east{device.latitude + step, device.longitude + step};
        const Coordinate west{device.latitude + step, device.longitude - step};
        const auto at = [&](std::size_t k) { return static_cast<std::ptrdiff_t>(k % (centres.size() + 1)); };
        centres.insert(centres.begin() + at(random()), east);
        centres.insert(centres.begin() + at(random()), west);
        centres.insert(centres.begin() + at(random()), east);
        expectSameAsScan(centres, device);

        TargetList list;
        std::vector<std::shared_ptr<hRegion>> targets;
        for (const auto& c : centres) {
            targets.push_back(targetAt(c));
        }
        list.assign(targets);
        NearestSet set;
        list.nearest(device, set);
        if (haversineMeters(east, device) <= set.distance) {
            EXPECT_EQ(set.hits.size(), 3u) << "east, west and the duplicate of east";
        }
    }
}

TEST_F(NearestSelection, OrderOfTheListDoesNotMatter) {
    // Farthest first and nearest first stress the one-pass candidate collection both ways.
    const Coordinate device{10, 20};
    std::vector<Coordinate> centres;
    for (int i = 0; i < 500; ++i) {
        centres.push_back({10 + i * 1e-4, 20});
    }
    expectSameAsScan(centres, device);
    std::reverse(centres.begin(), centres.end());
    expectSameAsScan(centres, device);
}

TEST_F(NearestSelection, CentresTheRankingCannotJudgeAreComputedExactly) {
    const double inf = std::numeric_limits<double>::infinity();
    const double nan = std::numeric_limits<double>::quiet_NaN();
    for (int round = 0; round < 200; ++round) {
        const Coordinate device = anywhere();
        std::vector<Coordinate> centres;
        for (int i = 0; i < 30; ++i) {
            centres.push_back(anywhere());
        }
        // Beyond the poles, huge longitudes, infinities, NaN, and points at or near the antipode
        // (where the exact formula can produce NaN).
        centres.push_back({100 + uniform(0, 80), uniform(-180, 180)});
        centres.push_back({180 - device.latitude, device.longitude + 180});
        centres.push_back({uniform(-90, 90), uniform(1e3, 1e9)});
        centres.push_back({inf, 0});
        centres.push_back({nan, 1});
        centres.push_back({-device.latitude, device.longitude + 180});
        centres.push_back(
            {-device.latitude + uniform(-1e-7, 1e-7), device.longitude + 180 + uniform(-1e-7, 1e-7)});
        std::shuffle(centres.begin(), centres.end(), random);
        expectSameAsScan(centres, device);
    }
}

TEST_F(NearestSelection, AllAntipodalTargets) {
    for (int round = 0; round < 200; ++round) {
        const Coordinate device = anywhere();
        const Coordinate antipode{-device.latitude,
                                  device.longitude > 0 ? device.longitude - 180 : device.longitude + 180};
        std::vector<Coordinate> centres;
        for (int i = 0; i < 20; ++i) {
            centres.push_back(near(antipode, 1e-6));
            centres.back().latitude = std::clamp(centres.back().latitude, -90.0, 90.0);
        }
        expectSameAsScan(centres, device);
    }
}

TEST_F(NearestSelection, DevicePositionsTheRankingCannotJudgeFallBackToTheScan) {
    std::vector<Coordinate> centres;
    for (int i = 0; i < 50; ++i) {
        centres.push_back(anywhere());
    }
    for (const Coordinate device : {Coordinate{95, 10}, Coordinate{10, 1e6}, Coordinate{std::nan(""), 0},
                                    Coordinate{0, std::numeric_limits<double>::infinity()}}) {
        expectSameAsScan(centres, device);
    }
}

TEST_F(NearestSelection, RemovingTheFirstTargetKeepsTheRankingInStep) {
    std::vector<Coordinate> centres;
    std::vector<std::shared_ptr<hRegion>> targets;
    for (int i = 0; i < 200; ++i) {
        // Now and then a centre the ranking cannot judge, so that both kinds leave the front.
        centres.push_back(i % 7 == 3 ? Coordinate{100, 0} : anywhere());
        targets.push_back(targetAt(centres.back(), i));
    }
    TargetList list;
    list.assign(targets);
    while (!list.empty()) {
        const Coordinate device = anywhere();
        NearestSet fast;
        NearestSet reference;
        list.nearest(device, fast);
        nearestByScan(centres, device, reference);
        ASSERT_EQ(fast.distance, reference.distance);
        ASSERT_EQ(fast.hits, reference.hits);
        list.eraseFront();
        centres.erase(centres.begin());
        ASSERT_EQ(list.size(), centres.size());
    }
}

/// The whole check on a monitor: the targets it handles for one position are exactly the reference
/// nearest set, in list order, each logged once.
TEST(ProximityCheck, HandlesExactlyTheNearestSet) {
    std::mt19937_64 random(99);
    std::uniform_real_distribution<double> jitter(-0.02, 0.02);
    scenarios::ScenarioDevice device;
    device.start(false);
    device.vp.preferences->setObject("currentLocation", {{"latitude", 48.0}, {"longitude", 11.0}});
    const Coordinate base{48.0, 11.0};
    for (int round = 0; round < 30; ++round) {
        std::vector<Coordinate> centres;
        nlohmann::json records = nlohmann::json::array();
        for (int i = 0; i < 60; ++i) {
            Coordinate c{base.latitude + jitter(random), base.longitude + jitter(random)};
            if (i % 7 == 3 && !centres.empty()) {
                c = centres[static_cast<std::size_t>(i) / 2];
            }
            centres.push_back(c);
            records.push_back({{"centroidLat", c.latitude},
                               {"centroidLon", c.longitude},
                               {"centroidRadius", 10},
                               {"eventId", i}});
        }
        device.lm->getTargets();
        device.answer("/v2/place", {{"places", records}});
        const Coordinate position{base.latitude + jitter(random), base.longitude + jitter(random)};
        device.lm->sendLogs();  // empties the buffers
        platform::Location fix;
        fix.coordinate = position;
        device.lm->checkForLocationTarget(fix);

        NearestSet reference;
        nearestByScan(centres, position, reference);
        const auto logged = device.lm->logTargetsArray();
        ASSERT_EQ(logged.size(), reference.hits.size());
        for (std::size_t i = 0; i < logged.size(); ++i) {
            EXPECT_EQ(logged[i]["event_id"], static_cast<int>(reference.hits[i].index));
        }
        EXPECT_EQ(device.lm->getClosestBB(fix), reference.distance);
    }
}

}  // namespace
}  // namespace tovrel::targeting
