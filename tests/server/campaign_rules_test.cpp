// Campaign and app rules as devices meet them over real HTTP, on both stores: offers left out of place
// answers, links held back by the rule that decided, counted by the database.
#include <gtest/gtest.h>

#include "test_support.h"

namespace tovrel::server::test {
namespace {

// Place 901 in Berlin and place 902 500 m north; the app's quiet hours are 22:00 to 07:00 in Berlin.
constexpr const char* kRulesFile = R"({
  "type": "FeatureCollection",
  "properties": {
    "apps": [{"key": "test-key", "name": "Tests", "dailyOfferCap": 3,
              "quietHours": {"timeZone": "Europe/Berlin", "from": "22:00", "to": "07:00"}}],
    "campaigns": [
      {"name": "Lunch", "schedule": {"timeZone": "Europe/Berlin",
        "windows": [{"days": ["mon", "tue", "wed", "thu", "fri"], "from": "11:30", "to": "14:00"}]}},
      {"name": "Coffee", "priority": 5, "caps": [{"count": 1, "per": "day"}, {"count": 3, "per": "week"}]},
      {"name": "Held out", "controlGroup": 0.5}
    ]
  },
  "features": [
    {"type": "Feature", "geometry": {"type": "Point", "coordinates": [13.405, 52.52]},
     "properties": {"placeId": 901, "radius": 50, "offers": [
       {"eventId": 9101, "campaign": "Lunch", "eventName": "Lunch", "alertText": "Soup and bread", "eventTypeId": 3},
       {"eventId": 9102, "campaign": "Coffee", "eventName": "Coffee", "alertText": "One on us", "eventTypeId": 3}]}},
    {"type": "Feature", "geometry": {"type": "Point", "coordinates": [13.405, 52.5245]},
     "properties": {"placeId": 902, "radius": 50, "offers": [
       {"eventId": 9102, "campaign": "Coffee", "eventName": "Coffee", "alertText": "One on us", "eventTypeId": 3},
       {"eventId": 9103, "campaign": "Held out", "eventName": "Cake", "alertText": "A slice", "eventTypeId": 3}]}}
  ]
})";

// Seconds since 1970 of a UTC wall time.
double at(int y, unsigned mo, unsigned d, int h, int mi = 0) {
    return utc(y, mo, d) + h * 3600 + mi * 60;
}

class CampaignRules : public StoreTest {
  protected:
    void SetUp() override {
        StoreTest::SetUp();
        fx.server().importGeoJson(fx.dir().write("rules.geojson", kRulesFile));
        fx.setTime(at(2026, 1, 14, 11));  // Wednesday, 12:00 in Berlin
        key = fx.startSession("DEVICE-A");
    }
    int suppressed(const std::string& sessionKey, const char* offer, const char* place) {
        const HttpResult r = fx.link(sessionKey, offer, place);
        EXPECT_EQ(r.status, 200) << r.body;
        return r.parsed().at("places").at(0).at("suppressMessage").get<int>();
    }
    void clear(const std::string& sessionKey) {
        EXPECT_EQ(fx.client().post("/v1/deviceevent/clear", json{{"sessionKey", sessionKey}}).status, 200);
    }
    std::vector<std::string> reasons() {
        return queryRows(fx.dbPath(), "SELECT suppressed_by FROM device_events ORDER BY id");
    }
    std::vector<std::string> offersAt(double lat) {
        std::vector<std::string> out;
        const json answer = fx.places(key, lat, 13.405, "100").parsed();
        for (const json& r : answer.at("places")) {
            out.push_back(r.at("eventId").get<std::string>() + "@" + r.at("placeId").get<std::string>());
        }
        return out;
    }

    ServerFixture fx{fixtureOptions()};
    std::string key;
};

TEST_P(CampaignRules, ScheduleAndPriorityShapeThePlaceAnswer) {
    // Coffee's priority puts it before Lunch's lower eventId.
    EXPECT_EQ(offersAt(52.52), (std::vector<std::string>{"9102@901", "9101@901"}));
    // 14:00 in Berlin ends lunch: its offer is left out, and a late link is answered but held back.
    fx.setTime(at(2026, 1, 14, 13));
    EXPECT_EQ(offersAt(52.52), (std::vector<std::string>{"9102@901"}));
    EXPECT_EQ(suppressed(key, "9101", "901"), 1);
    // Saturday noon: still outside.
    fx.setTime(at(2026, 1, 17, 11));
    EXPECT_EQ(offersAt(52.52), (std::vector<std::string>{"9102@901"}));
    fx.setTime(at(2026, 1, 16, 10, 30));  // Friday 11:30
    clear(key);
    EXPECT_EQ(suppressed(key, "9101", "901"), 0);
    EXPECT_EQ(reasons(), (std::vector<std::string>{"schedule", ""}));
}

TEST_P(CampaignRules, CapsCountDeliveriesOverRollingWindows) {
    const double start = at(2026, 1, 12, 9);  // Monday 10:00 in Berlin
    const auto visit = [&](double when) {
        fx.setTime(when);
        const int held = suppressed(key, "9102", "901");
        clear(key);
        return held;
    };
    EXPECT_EQ(visit(start), 0);
    EXPECT_EQ(visit(start + 86399), 1);  // one a day: a day has not passed
    EXPECT_EQ(visit(start + 86400), 0);  // it has
    EXPECT_EQ(visit(start + 3 * 86400), 0);
    EXPECT_EQ(visit(start + 5 * 86400), 1);  // the fourth in a week
    EXPECT_EQ(visit(start + 7 * 86400 - 1), 1);
    EXPECT_EQ(visit(start + 7 * 86400), 0);  // the first one is a week old: out of the window
    EXPECT_EQ(reasons(), (std::vector<std::string>{"", "frequency", "", "", "frequency", "frequency", ""}));
    // Another device has its own counts.
    const std::string other = fx.startSession("DEVICE-B");
    EXPECT_EQ(suppressed(other, "9102", "902"), 0);
}

TEST_P(CampaignRules, QuietHoursAndTheDailyCapHoldBackEveryCampaign) {
    // 23:00 in Berlin: answered, but nobody is pinged.
    fx.setTime(at(2026, 1, 14, 22));
    EXPECT_EQ(suppressed(key, "11", "1"), 1);
    fx.setTime(at(2026, 1, 15, 6));  // 07:00 in Berlin
    clear(key);
    // Three deliveries a day across campaigns, the fourth held back; suppressed links do not count.
    EXPECT_EQ(suppressed(key, "11", "1"), 0);
    EXPECT_EQ(suppressed(key, "11", "2"), 0);
    EXPECT_EQ(suppressed(key, "32", "3"), 0);
    EXPECT_EQ(suppressed(key, "41", "4"), 1);
    EXPECT_EQ(reasons(), (std::vector<std::string>{"quiet-hours", "", "", "", "fatigue"}));
}

TEST_P(CampaignRules, AControlGroupIsLinkedButNotShownAndStaysTheSame) {
    std::vector<std::string> keys;
    int control = 0;
    for (int i = 0; i < 40; ++i) {
        keys.push_back(fx.startSession("HOLDOUT-" + std::to_string(i)));
        control += suppressed(keys.back(), "9103", "902");
    }
    // Half of 40, give or take what chance gives (a standard deviation of about 3).
    EXPECT_GT(control, 8);
    EXPECT_LT(control, 32);
    EXPECT_EQ(queryRows(fx.dbPath(), "SELECT count(*) FROM device_events WHERE suppressed_by = 'control'"),
              std::vector<std::string>{std::to_string(control)});
    // Each device is in or out for good: a new visit and a new session give the same answer.
    for (int i = 0; i < 40; ++i) {
        const std::string was = queryRows(fx.dbPath(), "SELECT suppressed_by FROM device_events WHERE id = " +
                                                           std::to_string(i + 1))
                                    .at(0);
        clear(keys[i]);
        const std::string again = fx.startSession("HOLDOUT-" + std::to_string(i));
        EXPECT_EQ(suppressed(again, "9103", "902"), was == "control" ? 1 : 0) << i;
    }
}

TOVREL_ON_BOTH_STORES(CampaignRules);

}  // namespace
}  // namespace tovrel::server::test
