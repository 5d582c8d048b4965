// A device's day as the admin API answers it: read or refused, made into a track, and compared with the
// links the service stored, with the doubts that keep a replay from a confident wrong answer.
#include "replay.h"

#include <gtest/gtest.h>

#include <sstream>

namespace tovrel::sim {
namespace {

std::string errorOf(std::string_view text) {
    try {
        parseDayRecord(text, "day.json");
    } catch (const RouteError& error) {
        return error.what();
    }
    return "no error";
}

TEST(DayRecord, IsReadIntoAnOrderedTrackOrRefusedNamingTheFault) {
    const DayRecord day = parseDayRecord(R"({"deviceId": "D", "date": "2026-06-01", "positions": [
        {"at": 1000, "lat": 48.1, "lon": 11.5, "accuracy": -1, "kind": "check"},
        {"at": 940, "lat": 48.0, "lon": 11.5, "accuracy": 10},
        {"at": 1000, "lat": 48.1, "lon": 11.5, "accuracy": 10, "kind": "location"}],
      "links": [{"offerId": 7, "placeId": "3", "linkedAt": 990}, {"placeId": 1}]})",
                                         "day.json");
    ASSERT_EQ(day.positions.size(), 2u) << "two reports of one instant are one position";
    EXPECT_DOUBLE_EQ(day.positions[0].at, 940);
    EXPECT_DOUBLE_EQ(day.positions[1].accuracy, 0) << "the best accuracy the device had";
    ASSERT_EQ(day.links.size(), 1u);
    EXPECT_EQ(day.links[0].eventId, "7");
    EXPECT_EQ(day.links[0].placeId, "3");
    const Route route = routeOfDay(day);
    EXPECT_DOUBLE_EQ(route.duration(), 60);
    EXPECT_TRUE(route.hasActivity);
    EXPECT_NE(route.points[0].activity, Activity::kStationary) << "a pause between checks is not a stop";

    EXPECT_NE(errorOf("[]").find("no \"positions\""), std::string::npos);
    EXPECT_NE(errorOf(R"({"positions": [{"at": 1, "lat": 48}]})").find("\"lon\" must be a number"),
              std::string::npos);
    EXPECT_NE(errorOf(R"({"positions": [{"at": 1, "lat": 91, "lon": 0}, {"at": 2, "lat": 0, "lon": 0}]})")
                  .find("out of range"),
              std::string::npos);
    EXPECT_NE(errorOf(R"({"positions": [{"at": 1, "lat": 0, "lon": 0}]})").find("two at least"),
              std::string::npos);
    EXPECT_NE(errorOf(R"({"positions": [{"at": 0, "lat": 0, "lon": 0}, {"at": 1e9, "lat": 0, "lon": 0}]})")
                  .find("more than two days"),
              std::string::npos);
}

TEST(ReplayFindings, DisagreementsComeFirstAndATrackThatMissesTheirPlaceIsDoubted) {
    DayRecord day;
    // North along 11.5 from 48.100 to 48.110 over ten minutes, then nothing for an hour, then on.
    for (int i = 0; i <= 10; ++i) {
        day.positions.push_back(DayPoint{1000.0 + 60 * i, 48.100 + 0.001 * i, 11.5, 10});
    }
    day.positions.push_back(DayPoint{5000, 48.130, 11.5, 10});
    day.links.push_back(RecordedLink{"1", "10", 1200, false});  // the replay links it too
    day.links.push_back(RecordedLink{"2", "20", 4000, false});  // in the gap
    day.links.push_back(RecordedLink{"3", "30", 4000, false});  // at a place the catalogue no longer has
    OfferOutcome linked;
    linked.eventId = "1";
    linked.placeId = "10";
    linked.latitude = 48.103;
    linked.longitude = 11.5;
    linked.radius = 50;
    linked.linkedAt = 200;
    OfferOutcome passed = linked;
    passed.eventId = "4";
    passed.placeId = "40";
    passed.latitude = 48.105;
    passed.longitude = 11.52;
    passed.linkedAt.reset();
    passed.reason = "never entered";
    const std::vector<PlaceCircle> places{{"20", "Gap", 48.120, 11.5, 60}};

    const auto findings = compareReplay(day, {linked, passed}, places, ReplayLimits{});
    ASSERT_EQ(findings.size(), 4u);
    EXPECT_FALSE(findings[0].agrees());
    EXPECT_FALSE(findings[1].agrees());
    const auto find = [&](const std::string& id) {
        return *std::find_if(findings.begin(), findings.end(),
                             [&](const ReplayFinding& f) { return f.eventId == id; });
    };
    EXPECT_TRUE(find("1").agrees());
    EXPECT_TRUE(find("1").uncertain.empty());
    EXPECT_TRUE(find("4").agrees());
    const ReplayFinding gap = find("2");
    ASSERT_EQ(gap.uncertain.size(), 2u) << gap.uncertain.size();
    EXPECT_NE(gap.uncertain[0].find("no position for 56 min"), std::string::npos) << gap.uncertain[0];
    EXPECT_NE(gap.uncertain[1].find("the track misses where the device was"), std::string::npos);
    EXPECT_NE(find("3").uncertain.at(0).find("not in the catalogue"), std::string::npos);

    std::ostringstream text;
    printFindings(day, findings, text);
    EXPECT_NE(text.str().find("2 where the replay and the service disagree"), std::string::npos)
        << text.str();
    EXPECT_NE(text.str().find("DISAGREE: the service stored a link the replay does not make"),
              std::string::npos);
    EXPECT_EQ(findingsJson(day, findings)["findings"].size(), 4u);
}

TEST(ReplayCatalogue, TheAreaAskedForHoldsTheTrackAndTenKilometresAroundItWithinTheWorld) {
    const auto box = [](std::vector<DayPoint> points) {
        DayRecord day;
        day.positions = std::move(points);
        std::vector<double> edges;
        std::istringstream text(catalogueArea(day));
        for (std::string edge; std::getline(text, edge, ',');) {
            edges.push_back(std::stod(edge));
        }
        return edges;
    };
    const auto munich = box({{0, 48.10, 11.50, 10}, {60, 48.20, 11.60, 10}});
    ASSERT_EQ(munich.size(), 4u);
    EXPECT_NEAR(munich[1], 48.10 - 10'000 / 111'320.0, 1e-6);
    EXPECT_NEAR(munich[3], 48.20 + 10'000 / 111'320.0, 1e-6);
    // A degree of longitude is shorter here: the margin in degrees is wider than north and south.
    EXPECT_LT(munich[0], 11.50 - 0.13);
    EXPECT_GT(munich[0], 11.50 - 0.15);
    const auto pole = box({{0, 89.99, 179.99, 10}, {60, 89.98, -179.99, 10}});
    EXPECT_GE(pole[0], -180);
    EXPECT_LE(pole[2], 180);
    EXPECT_LE(pole[3], 90);
}

}  // namespace
}  // namespace tovrel::sim
