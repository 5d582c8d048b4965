// Campaign and app rules: wall-clock windows in real time zones, what a rule written wrongly is told,
// the order in which rules hold an offer back, and control groups.
#include "rules/rules.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "rules/link_decision.h"
#include "test_support.h"

namespace tovrel::server::test {
namespace {

Schedule scheduleOf(const json& s) {
    return *parseCampaignRules(json{{"schedule", s}}).schedule;
}

Schedule windows(const char* zone, const json& list) {
    return scheduleOf({{"timeZone", zone}, {"windows", list}});
}

// Seconds since 1970 of a UTC wall time.
double at(int y, unsigned mo, unsigned d, int h, int mi = 0, int s = 0) {
    return utc(y, mo, d) + h * 3600 + mi * 60 + s;
}

TEST(Schedule, WeekdayLunchFollowsBerlinWinterAndSummerTime) {
    const Schedule lunch = windows(
        "Europe/Berlin",
        json::array({{{"days", {"mon", "tue", "wed", "thu", "fri"}}, {"from", "11:30"}, {"to", "14:00"}}}));
    EXPECT_EQ(lunch.describe(), "Mon\u2013Fri 11:30\u201314:00 Europe/Berlin");
    // Wednesday 2026-01-14, CET (UTC+1): 11:30 local is 10:30 UTC; the end is not in the window.
    EXPECT_FALSE(lunch.contains(at(2026, 1, 14, 10, 29, 59)));
    EXPECT_TRUE(lunch.contains(at(2026, 1, 14, 10, 30)));
    EXPECT_TRUE(lunch.contains(at(2026, 1, 14, 12, 59, 59)));
    EXPECT_FALSE(lunch.contains(at(2026, 1, 14, 13, 0)));
    // Wednesday 2026-07-15, CEST (UTC+2).
    EXPECT_TRUE(lunch.contains(at(2026, 7, 15, 9, 30)));
    EXPECT_FALSE(lunch.contains(at(2026, 7, 15, 12, 0)));
    // Saturday.
    EXPECT_FALSE(lunch.contains(at(2026, 7, 18, 10, 0)));
}

TEST(Schedule, AWindowAcrossMidnightEndsOnTheNextDay) {
    // Friday 22:00 to Saturday 02:00 in UTC; Friday 01:00 belongs to Thursday's night, not listed.
    const Schedule late =
        windows("UTC", json::array({{{"days", {"fri"}}, {"from", "22:00"}, {"to", "02:00"}}}));
    EXPECT_FALSE(late.contains(at(2026, 11, 27, 21, 59)));  // Friday
    EXPECT_TRUE(late.contains(at(2026, 11, 27, 22, 0)));
    EXPECT_TRUE(late.contains(at(2026, 11, 28, 1, 59)));  // Saturday
    EXPECT_FALSE(late.contains(at(2026, 11, 28, 2, 0)));
    EXPECT_FALSE(late.contains(at(2026, 11, 27, 1, 0)));
    EXPECT_FALSE(late.contains(at(2026, 11, 28, 22, 30)));
    const Schedule allDay =
        windows("UTC", json::array({{{"days", {"sun"}}, {"from", "00:00"}, {"to", "24:00"}}}));
    EXPECT_TRUE(allDay.contains(at(2026, 11, 29, 23, 59, 59)));
    EXPECT_FALSE(allDay.contains(at(2026, 11, 30, 0, 0)));
}

TEST(Schedule, SkippedHoursNeverComeAndRepeatedHoursComeTwice) {
    const Schedule twoToThree =
        windows("Europe/Berlin", json::array({{{"days", {"sun"}}, {"from", "02:00"}, {"to", "03:00"}}}));
    // 2026-03-29: at 01:00 UTC the clocks go from 02:00 to 03:00.
    for (int minute = -90; minute < 90; ++minute) {
        EXPECT_FALSE(twoToThree.contains(at(2026, 3, 29, 1) + minute * 60)) << minute;
    }
    // 2026-10-25: 02:00 to 03:00 is lived twice, 00:00 to 02:00 UTC.
    EXPECT_FALSE(twoToThree.contains(at(2026, 10, 24, 23, 59)));
    EXPECT_TRUE(twoToThree.contains(at(2026, 10, 25, 0, 30)));
    EXPECT_TRUE(twoToThree.contains(at(2026, 10, 25, 1, 30)));
    EXPECT_FALSE(twoToThree.contains(at(2026, 10, 25, 2, 0)));
}

TEST(Schedule, ZonesWithoutSummerTimeAndWithAHalfHourShift) {
    // India keeps UTC+5:30 all year.
    const Schedule kolkata =
        windows("Asia/Kolkata", json::array({{{"days", {"mon"}}, {"from", "09:00"}, {"to", "10:00"}}}));
    EXPECT_TRUE(kolkata.contains(at(2026, 1, 5, 3, 30)));
    EXPECT_TRUE(kolkata.contains(at(2026, 7, 6, 3, 30)));
    EXPECT_FALSE(kolkata.contains(at(2026, 7, 6, 4, 30)));
    // Lord Howe Island moves its clocks by 30 minutes: on 2026-10-04, 02:00 becomes 02:30 (15:30 UTC).
    const Schedule skipped = windows("Australia/Lord_Howe",
                                     json::array({{{"days", {"sun"}}, {"from", "02:00"}, {"to", "02:30"}}}));
    const Schedule after = windows("Australia/Lord_Howe",
                                   json::array({{{"days", {"sun"}}, {"from", "02:30"}, {"to", "03:00"}}}));
    for (int minute = -60; minute < 60; ++minute) {
        EXPECT_FALSE(skipped.contains(at(2026, 10, 3, 15, 30) + minute * 60)) << minute;
    }
    EXPECT_FALSE(after.contains(at(2026, 10, 3, 15, 29)));
    EXPECT_TRUE(after.contains(at(2026, 10, 3, 15, 30)));
    EXPECT_TRUE(after.contains(at(2026, 10, 3, 15, 59)));
    EXPECT_FALSE(after.contains(at(2026, 10, 3, 16, 0)));
}

TEST(Rules, WrongValuesAreToldAtTheirMember) {
    const auto problem = [](const json& campaign) {
        try {
            parseCampaignRules(campaign);
        } catch (const RuleError& e) {
            return e.member + " " + e.what();
        }
        return std::string("taken");
    };
    const json lunch{{"days", {"mon"}}, {"from", "11:30"}, {"to", "14:00"}};
    auto with = [&](const char* name, const json& value) {
        json w = lunch;
        w[name] = value;
        return json{{"schedule", {{"timeZone", "Europe/Berlin"}, {"windows", {w}}}}};
    };
    EXPECT_EQ(problem({{"schedule", {{"timeZone", "Mars/Olympus"}, {"windows", {lunch}}}}}),
              "/schedule/timeZone timeZone \"Mars/Olympus\" is not a time zone of the tz database");
    EXPECT_EQ(problem({{"schedule", {{"windows", {lunch}}}}}), "/schedule/timeZone missing timeZone");
    EXPECT_EQ(problem({{"schedule", {{"timeZone", "UTC"}, {"windows", json::array()}}}}),
              "/schedule/windows windows must be a list of 1 to 32 windows");
    EXPECT_EQ(problem(with("from", "24:00")),
              "/schedule/windows/0/from from must be a time of day like \"11:30\"");
    EXPECT_EQ(problem(with("to", "14:60")), "/schedule/windows/0/to to must be a time of day like \"11:30\"");
    EXPECT_EQ(problem(with("to", "1400")), "/schedule/windows/0/to to must be a time of day like \"11:30\"");
    EXPECT_EQ(problem(with("to", "11:30")), "/schedule/windows/0/to to must differ from from");
    EXPECT_EQ(problem(with("days", {"mon", "funday"})),
              "/schedule/windows/0/days/1 a day must be one of \"mon\", \"tue\", \"wed\", \"thu\", \"fri\", "
              "\"sat\", \"sun\"");
    EXPECT_EQ(problem(with("every", true)), "/schedule/windows/0/every a window has no member \"every\"");
    EXPECT_EQ(problem({{"caps", {{{"count", 3}, {"per", "month"}}}}}),
              "/caps/0/per per must be \"hour\", \"day\" or \"week\"");
    EXPECT_EQ(problem({{"caps", {{{"count", -1}, {"per", "day"}}}}}),
              "/caps/0/count count must be a whole number from 0 to 1000000");
    EXPECT_EQ(problem({{"controlGroup", 1}}),
              "/controlGroup controlGroup must be a share of devices from 0 up to 1, like 0.1");
    EXPECT_EQ(problem({{"priority", 1001}}), "/priority priority must be a whole number from -1000 to 1000");
    EXPECT_EQ(problem({{"priority", 2.5}}), "/priority priority must be a whole number from -1000 to 1000");

    EXPECT_THROW(parseAppRules({{"quietHours", {{"timeZone", "UTC"}, {"from", "22:00"}}}}), RuleError);
    EXPECT_THROW(parseAppRules({{"dailyOfferCap", "3"}}), RuleError);
}

TEST(Rules, StoredRulesReadBackAsWritten) {
    const json written{{"schedule",
                        {{"timeZone", "Europe/Berlin"},
                         {"windows", {{{"days", {"sat", "sun"}}, {"from", "22:00"}, {"to", "02:00"}}}}}},
                       {"caps", {{{"count", 1}, {"per", "day"}}, {{"count", 3}, {"per", "week"}}}},
                       {"priority", -3},
                       {"controlGroup", 0.1}};
    const CampaignRules rules = parseCampaignRules(written);
    EXPECT_EQ(json::parse(rulesText(rules)), written);
    EXPECT_EQ(campaignRulesFrom(rulesText(rules)), rules);
    EXPECT_EQ(rules.schedule->describe(), "Sat, Sun 22:00\u201302:00 Europe/Berlin");
    EXPECT_EQ(rulesText(CampaignRules{}), "");
    // A column this program cannot read gives no rules rather than no catalogue.
    EXPECT_TRUE(campaignRulesFrom("{\"schedule\": 7}").empty());
    const AppRules app = parseAppRules(
        {{"quietHours", {{"timeZone", "UTC"}, {"from", "22:00"}, {"to", "07:00"}}}, {"dailyOfferCap", 4}});
    EXPECT_EQ(appRulesFrom(rulesText(app)), app);
    EXPECT_TRUE(app.quietHours->contains(at(2026, 1, 1, 6, 59)));
    EXPECT_FALSE(app.quietHours->contains(at(2026, 1, 1, 7, 0)));
}

TEST(LinkDecision, TheFirstRuleThatHoldsAnOfferBackIsNamed) {
    const std::vector<FrequencyCap> caps{{1, "day", 86400}, {3, "week", 604800}};
    LinkFacts facts;
    facts.caps = &caps;
    facts.deliveredInCap = {0, 2};
    facts.perDeviceCap = 5;
    facts.liveLinks = 4;
    facts.dailyOfferCap = 2;
    facts.deliveredToday = 1;
    EXPECT_EQ(decideLink(facts), Suppression::none);
    facts.deliveredToday = 2;
    EXPECT_EQ(decideLink(facts), Suppression::fatigueCap);
    facts.deliveredInCap = {0, 3};
    EXPECT_EQ(decideLink(facts), Suppression::frequencyCap);
    facts.liveLinks = 5;
    EXPECT_EQ(decideLink(facts), Suppression::lifetimeCap);
    facts.control = true;
    EXPECT_EQ(decideLink(facts), Suppression::control);
    facts.quietHours = true;
    EXPECT_EQ(decideLink(facts), Suppression::quietHours);
    facts.outsideSchedule = true;
    EXPECT_EQ(decideLink(facts), Suppression::schedule);
    for (const Suppression s :
         {Suppression::none, Suppression::schedule, Suppression::quietHours, Suppression::control,
          Suppression::lifetimeCap, Suppression::frequencyCap, Suppression::fatigueCap}) {
        EXPECT_EQ(suppressionFrom(suppressionName(s)), s);
    }
}

TEST(ControlGroup, AStableShareCloseToTheOneAskedFor) {
    const std::string key = "5f1c0a9e2b7d4c3a8e6f0b1d2c3a4e5f";
    int held = 0;
    int moved = 0;
    constexpr int kDevices = 100000;
    for (int i = 0; i < kDevices; ++i) {
        const std::string device = "device-" + std::to_string(i);
        const bool in = inControlGroup(key, device, "Coffee", 0.1);
        held += in ? 1 : 0;
        if (i < 1000) {
            EXPECT_EQ(inControlGroup(key, device, "Coffee", 0.1), in);
            moved += inControlGroup("another key", device, "Coffee", 0.1) != in ? 1 : 0;
        }
    }
    // 10% of 100,000 has a standard deviation of about 95 devices.
    EXPECT_NEAR(held, kDevices / 10, 500);
    RecordProperty("heldOut", held);
    // Another key (or campaign) draws another group.
    EXPECT_GT(moved, 100);
    EXPECT_FALSE(inControlGroup(key, "device-1", "Coffee", 0));
}

TEST(ControlGroup, LiftComesWithAnIntervalOnlyWhenBothSidesCameBack) {
    ControlComparison c;
    c.exposed = {200, 260, 180, 60};
    c.control = {200, 250, 0, 40};
    liftOf(c);
    EXPECT_NEAR(*c.lift, 0.5, 1e-9);
    EXPECT_NEAR(*c.liftLow, 0.0583, 1e-4);
    EXPECT_NEAR(*c.liftHigh, 1.1260, 1e-4);
    c.control.returned = 0;
    liftOf(c);
    EXPECT_FALSE(c.lift || c.liftLow || c.liftHigh);
}

}  // namespace
}  // namespace tovrel::server::test
