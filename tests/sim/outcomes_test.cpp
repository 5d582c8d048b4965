#include "outcomes.h"

#include <gtest/gtest.h>

#include <random>

#include "expectations.h"
#include "html_report.h"

namespace tovrel::sim {
namespace {

using nlohmann::json;

/// Place 7 at (48.1, 11.5), radius 50 m, with offers 70 (no dwell) and 71 (dwell 5 min); place 8 far
/// away with offer 80.
json placesAnswer() {
    const auto record = [](const char* eventId, const char* placeId, double lat, double lon, int dwell) {
        return json{
            {"eventId", eventId}, {"placeId", placeId}, {"eventName", std::string("Offer ") + eventId},
            {"centroidLat", lat}, {"centroidLon", lon}, {"centroidRadius", 50.0},
            {"dwellTime", dwell}, {"isLinked", 0}};
    };
    return {{"t", 1.0},
            {"type", "response"},
            {"path", "/v2/place"},
            {"status", 200},
            {"body",
             {{"places",
               {record("70", "7", 48.1, 11.5, 0), record("71", "7", 48.1, 11.5, 5),
                record("80", "8", 48.2, 11.6, 0)}}}}};
}

json linkRequest(double t, const char* eventId, const char* placeId) {
    return {{"t", t},
            {"type", "request"},
            {"path", "/v1/deviceevent/link"},
            {"body", {{"eventId", eventId}, {"placeId", placeId}, {"sessionKey", "k"}}}};
}

json linkAnswer(double t, const char* eventId, const char* placeId, int deviceEventId, int suppress) {
    return {{"t", t},
            {"type", "response"},
            {"path", "/v1/deviceevent/link"},
            {"status", 200},
            {"body",
             {{"places",
               {{{"eventId", eventId},
                 {"placeId", placeId},
                 {"deviceEventId", deviceEventId},
                 {"suppressMessage", suppress}}}}}}};
}

/// Two minutes at the place, then far away.
Route visit() {
    Route route;
    route.name = "visit.csv";
    for (int t = 0; t <= 120; t += 10) {
        route.points.push_back({static_cast<double>(t), 48.1, 11.5, std::nullopt});
    }
    route.points.push_back({130, 48.15, 11.55, std::nullopt});
    return route;
}

const OfferOutcome& find(const std::vector<OfferOutcome>& outcomes, const std::string& eventId) {
    for (const auto& o : outcomes) {
        if (o.eventId == eventId) {
            return o;
        }
    }
    throw std::runtime_error("no outcome for offer " + eventId);
}

TEST(Outcomes, EachOfferSaysHowItWasDeliveredOrWhyNot) {
    std::vector<json> events{placesAnswer(),
                             linkRequest(10, "70", "7"),
                             linkAnswer(10, "70", "7", 1, 0),
                             linkRequest(20, "70", "7"),
                             {{"t", 11.0}, {"type", "notification"}, {"userInfo", {{"deviceeventId", "1"}}}},
                             {{"t", 11.0},
                              {"type", "request"},
                              {"path", "/v1/deviceevent/update"},
                              {"body", {{"deviceEventId", 1}, {"statusCode", "ack"}}}},
                             {{"t", 30.0},
                              {"type", "request"},
                              {"path", "/v1/deviceevent/update"},
                              {"body", {{"deviceEventId", 1}, {"statusCode", "seen"}}}}};
    const auto outcomes = analyseOutcomes(events, visit(), {});
    ASSERT_EQ(outcomes.size(), 3u);

    const OfferOutcome& delivered = find(outcomes, "70");
    EXPECT_TRUE(delivered.delivered);
    EXPECT_EQ(delivered.deliveredAs, "notification");
    EXPECT_EQ(delivered.linkRequests, 2);
    EXPECT_EQ(delivered.answers, (std::vector<std::string>{"ack", "seen"}));
    EXPECT_EQ(delivered.reason,
              "delivered as notification at 11 s (entered at 0 s, 2 link requests); answered seen");

    const OfferOutcome& dwell = find(outcomes, "71");
    EXPECT_FALSE(dwell.delivered);
    EXPECT_EQ(dwell.reason,
              "not delivered: entered at 0 s but stayed 130 s, less than the dwell time of 5 min");

    const OfferOutcome& far = find(outcomes, "80");
    EXPECT_FALSE(far.enteredAt.has_value());
    EXPECT_NE(far.reason.find("never entered (closest approach"), std::string::npos) << far.reason;
}

TEST(Outcomes, EntryStayAndClosestApproachAreThoseOfEveryPointOfTheRoute) {
    // A walk that wanders in and out of circles of every size, and ends inside some of them.
    std::mt19937 random(7);
    std::normal_distribution<double> step(0, 0.00015);
    Route route;
    double lat = 48.1;
    double lon = 11.5;
    for (int i = 0; i < 3000; ++i) {
        route.points.push_back({static_cast<double>(i), lat, lon, std::nullopt});
        lat += step(random);
        lon += step(random);
    }
    json places = json::array();
    std::uniform_real_distribution<double> near(-0.01, 0.01);
    std::uniform_real_distribution<double> radius(1, 800);
    for (int i = 0; i < 200; ++i) {
        const RoutePoint& on = route.points[static_cast<std::size_t>(i * 15)];
        const bool onRoute = i % 2 == 0;
        places.push_back({{"eventId", std::to_string(i)},
                          {"placeId", std::to_string(i)},
                          {"eventName", "o"},
                          {"centroidLat", on.latitude + (onRoute ? 0 : near(random))},
                          {"centroidLon", on.longitude + (onRoute ? 0 : near(random))},
                          {"centroidRadius", i == 0 ? 0.0 : radius(random)},
                          {"dwellTime", 0},
                          {"isLinked", 0}});
    }
    const std::vector<json> events{{{"t", 0.0},
                                    {"type", "response"},
                                    {"path", "/v2/place"},
                                    {"status", 200},
                                    {"body", {{"places", places}}}}};
    int entered = 0;
    for (const OfferOutcome& o : analyseOutcomes(events, route, {})) {
        std::optional<double> enteredAt;
        std::optional<double> stayStart;
        double stay = 0;
        double closest = std::numeric_limits<double>::infinity();
        for (const RoutePoint& p : route.points) {
            const double d = distanceMetres(o.latitude, o.longitude, p.latitude, p.longitude);
            closest = std::min(closest, d);
            const bool inside = d <= o.radius;
            if (inside && !enteredAt) {
                enteredAt = p.t;
            }
            if (inside && !stayStart) {
                stayStart = p.t;
            }
            if ((!inside || &p == &route.points.back()) && stayStart) {
                stay = std::max(stay, p.t - *stayStart);
                stayStart.reset();
            }
        }
        EXPECT_EQ(o.enteredAt, enteredAt) << o.eventId;
        EXPECT_EQ(o.secondsInside, stay) << o.eventId;
        EXPECT_NEAR(o.closestMetres, closest, 1e-6) << o.eventId;
        entered += enteredAt ? 1 : 0;
    }
    EXPECT_GT(entered, 100);
}

TEST(Outcomes, SuppressedSwitchedOffAndUnansweredLinksAreTold) {
    std::vector<json> suppressed{placesAnswer(), linkRequest(10, "70", "7"), linkAnswer(10, "70", "7", 4, 1)};
    EXPECT_EQ(find(analyseOutcomes(suppressed, visit(), {}), "70").reason,
              "not delivered: linked at 10 s (1 link request), suppressed by the service");
    // A service that says why names the rule, and the delivery that filled a cap.
    OutcomeContext told;
    told.heldBack = [](const std::string& id) -> std::optional<HeldBackInfo> {
        if (id != "4") {
            return std::nullopt;
        }
        return HeldBackInfo{"frequency", "frequency cap 1 per day", 1780305240.0};
    };
    const OfferOutcome capped = find(analyseOutcomes(suppressed, visit(), told), "70");
    EXPECT_EQ(capped.reason,
              "not delivered: linked at 10 s (1 link request), suppressed: frequency cap 1 per day "
              "(delivered at 09:14 UTC)");
    EXPECT_EQ(capped.heldBy, "frequency");
    EXPECT_EQ(outcomeJson(capped).at("heldBy"), "frequency");
    told.heldBack = [](const std::string&) {
        return std::optional<HeldBackInfo>({"control", "control group", {}});
    };
    EXPECT_EQ(
        find(analyseOutcomes(suppressed, visit(), told), "70").reason,
        "not delivered: linked at 10 s (1 link request), control group (held out to measure the campaign)");

    std::vector<json> off{placesAnswer(), linkRequest(10, "70", "7"), linkAnswer(10, "70", "7", 4, 0)};
    EXPECT_EQ(find(analyseOutcomes(off, visit(), OutcomeContext{false, {}}), "70").reason,
              "not delivered: linked at 10 s (1 link request), notifications are switched off");

    std::vector<json> unanswered{placesAnswer(), linkRequest(10, "70", "7"), linkRequest(20, "70", "7")};
    EXPECT_EQ(find(analyseOutcomes(unanswered, visit(), {}), "70").reason,
              "not delivered: 2 link requests, none answered by the service");

    // An alert is matched by its tag, the device event id.
    std::vector<json> alert{placesAnswer(),
                            linkRequest(10, "70", "7"),
                            linkAnswer(10, "70", "7", 9, 0),
                            {{"t", 12.0}, {"type", "alert"}, {"tag", 9}}};
    EXPECT_EQ(find(analyseOutcomes(alert, visit(), {}), "70").deliveredAs, "alert");
}

TEST(Expectations, RulesAreReadCheckedAndRefusedByName) {
    std::vector<json> events{placesAnswer(),
                             linkRequest(10, "70", "7"),
                             linkAnswer(10, "70", "7", 1, 0),
                             {{"t", 11.0}, {"type", "notification"}, {"userInfo", {{"deviceeventId", "1"}}}}};
    const auto outcomes = analyseOutcomes(events, visit(), {});
    std::vector<Expectation> rules;
    for (const char* text :
         {"offer:70=delivered", "offer:70@7=notification", "offer:71=not-delivered", "place:8=not-entered",
          "place:7=entered", "deliveries==1", "link-requests <= 1", "offer:80=delivered",
          "offer:99=delivered", "offer:99=not-delivered", "deliveries>1"}) {
        rules.push_back(parseExpectation(text));
    }
    const auto results = checkExpectations(rules, outcomes);
    std::vector<bool> met;
    for (const auto& r : results) {
        met.push_back(r.met);
    }
    EXPECT_EQ(met, (std::vector<bool>{true, true, true, true, true, true, true, false, false, true, false}));
    EXPECT_NE(results[7].actual.find("never entered"), std::string::npos) << results[7].actual;
    EXPECT_EQ(results[8].actual, "offer 99 was never in a service answer on this route");
    EXPECT_EQ(results[10].actual, "deliveries = 1");

    for (const char* bad : {"offer:70=arrived", "offer:x=delivered", "deliveries=3", "deliveries<=many",
                            "shop:1=entered", "offer:70@x=delivered", "offer70=delivered"}) {
        try {
            parseExpectation(bad);
            ADD_FAILURE() << bad << " was accepted";
        } catch (const ExpectationError& error) {
            EXPECT_NE(std::string(error.what()).find(std::string("'") + bad + "'"), std::string::npos)
                << error.what();
        }
    }
}

}  // namespace
}  // namespace tovrel::sim
