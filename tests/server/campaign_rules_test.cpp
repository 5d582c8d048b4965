// Campaign and app rules as devices meet them over real HTTP, on both stores: offers left out of place
// answers, links held back by the rule that decided, counted by the database.
#include <gtest/gtest.h>

#include <algorithm>

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

    HttpResult admin(const std::string& method, const std::string& path, const std::string& body = {}) {
        HttpClient client(fx.adminPort());
        return client.request(method, path, body, {std::string("Authorization: Bearer ") + kToken});
    }
    static ServerFixture::Options withAdmin() {
        ServerFixture::Options options;
        options.configure = [](ServerOptions& o) {
            o.adminAddress = "127.0.0.1";
            o.adminToken = kToken;
        };
        return options;
    }

    static constexpr const char* kToken = "0123456789abcdef-admin";
    ServerFixture fx{fixtureOptions(withAdmin())};
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
    EXPECT_EQ(fx.server().heldBack(1)->text,
              "outside its schedule (Mon\u2013Fri 11:30\u201314:00 Europe/Berlin)");
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
    const std::optional<HeldBack> second = fx.server().heldBack(2);
    ASSERT_TRUE(second);
    EXPECT_EQ(second->rule, "frequency");
    EXPECT_EQ(second->text, "frequency cap 1 per day, 3 per week");
    EXPECT_EQ(second->lastDelivery, start);
    EXPECT_FALSE(fx.server().heldBack(1));
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
    EXPECT_EQ(fx.server().heldBack(1)->text, "quiet hours (every day 22:00\u201307:00 Europe/Berlin)");
    EXPECT_EQ(fx.server().heldBack(5)->text, "daily cap of 3 offers across campaigns");
    EXPECT_EQ(fx.server().heldBack(5)->lastDelivery, at(2026, 1, 15, 6));
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

TEST_P(CampaignRules, TheFunnelComparesExposedDevicesWithTheControlGroup) {
    std::vector<std::string> keys;
    std::vector<bool> held;
    for (int i = 0; i < 40; ++i) {
        keys.push_back(fx.startSession("HOLDOUT-" + std::to_string(i)));
        held.push_back(suppressed(keys.back(), "9103", "902") == 1);
    }
    // Every third device comes back two days later, every fifth eight days later (too late to count).
    int exposedBack = 0;
    int controlBack = 0;
    for (int i = 0; i < 40; i += 3) {
        fx.setTime(at(2026, 1, 16, 11));
        clear(keys[i]);
        suppressed(keys[i], "9103", "902");
        (held[i] ? controlBack : exposedBack) += 1;
    }
    fx.setTime(at(2026, 1, 22, 12));
    for (int i = 1; i < 40; i += 5) {
        clear(keys[i]);
        suppressed(keys[i], "9103", "902");
    }
    const HttpResult funnel = admin("GET", "/admin/v1/funnel");
    ASSERT_EQ(funnel.status, 200) << funnel.body;
    const json control = funnel.parsed().at("control");
    ASSERT_EQ(control.size(), 1u) << funnel.body;
    const int heldOut = static_cast<int>(std::count(held.begin(), held.end(), true));
    EXPECT_EQ(control[0].at("campaign"), "Held out");
    EXPECT_EQ(control[0].at("control").at("devices"), heldOut);
    EXPECT_EQ(control[0].at("exposed").at("devices"), 40 - heldOut);
    EXPECT_EQ(control[0].at("control").at("returned"), controlBack);
    EXPECT_EQ(control[0].at("exposed").at("returned"), exposedBack);
    EXPECT_EQ(control[0].at("control").at("answered"), 0);
    if (controlBack > 0 && exposedBack > 0) {
        const double lift = (exposedBack / double(40 - heldOut)) / (controlBack / double(heldOut)) - 1;
        EXPECT_NEAR(control[0].at("lift").get<double>(), lift, 1e-9);
        EXPECT_LT(control[0].at("liftLow").get<double>(), lift);
        EXPECT_GT(control[0].at("liftHigh").get<double>(), lift);
    }
}

TEST_P(CampaignRules, TheAdminApiTakesAndListsRulesAndNamesAWrongOne) {
    const HttpResult bad = admin("POST", "/admin/v1/campaigns",
                                 R"({"name": "Night", "schedule": {"timeZone": "Europe/Berlin",
                                     "windows": [{"days": ["sat"], "from": "22:00", "to": "25:00"}]}})");
    EXPECT_EQ(bad.status, 400) << bad.body;
    EXPECT_EQ(bad.parsed().value("member", ""), "/schedule/windows/0/to") << bad.body;
    const HttpResult good =
        admin("POST", "/admin/v1/campaigns",
              R"({"name": "Night", "priority": -2, "schedule": {"timeZone": "Europe/Berlin",
                                      "windows": [{"days": ["sat"], "from": "22:00", "to": "02:00"}]}})");
    EXPECT_EQ(good.status, 200) << good.body;
    const json listed = admin("GET", "/admin/v1/campaigns").parsed().at("campaigns");
    bool found = false;
    for (const json& c : listed) {
        if (c.at("name") == "Coffee") {
            EXPECT_EQ(c.at("caps"),
                      json::parse(R"([{"count": 1, "per": "day"}, {"count": 3, "per": "week"}])"));
            EXPECT_EQ(c.at("priority"), 5);
        }
        if (c.at("name") == "Night") {
            found = true;
            EXPECT_EQ(c.at("schedule").at("windows").at(0).at("to"), "02:00");
            EXPECT_EQ(c.at("priority"), -2);
        }
    }
    EXPECT_TRUE(found) << listed.dump();
    const json apps = admin("GET", "/admin/v1/apps").parsed().at("apps");
    EXPECT_EQ(apps.at(0).at("dailyOfferCap"), 3) << apps.dump();
}

TOVREL_ON_BOTH_STORES(CampaignRules);

}  // namespace
}  // namespace tovrel::server::test
