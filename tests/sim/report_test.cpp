// The report's axes and its escaping of what the run read from outside (place files, service answers).
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <sstream>

#include "html_report.h"
#include "report_escape.h"
#include "report_map.h"
#include "report_plot.h"

namespace tovrel::sim {
namespace {

using nlohmann::json;

TEST(ReportAxes, TicksStepByOneTwoOrFiveTimesAPowerOfTenAndCoverTheRange) {
    const struct {
        double from, to;
        int maxTicks;
        double step, low, high;
    } cases[] = {
        {0, 150, 5, 50, 0, 150},       // the drive's last metres
        {0, 7012, 5, 2000, 0, 8000},   // the drive from 7 km out
        {0, 3000, 5, 1000, 0, 3000},   // an exact multiple stays the end
        {-1, 100, 5, 50, -50, 100},    // below zero widens down a whole step
        {0.2, 0.9, 5, 0.2, 0.2, 1.0},  // fractions
        {0, 1e-300, 5, 2e-301, 0, 1e-300},
    };
    for (const auto& c : cases) {
        const AxisTicks axis = niceTicks(c.from, c.to, c.maxTicks);
        EXPECT_DOUBLE_EQ(axis.step, c.step) << c.from << ".." << c.to;
        EXPECT_NEAR(axis.low, c.low, c.step * 1e-9) << c.from << ".." << c.to;
        EXPECT_NEAR(axis.high, c.high, c.step * 1e-9) << c.from << ".." << c.to;
        EXPECT_LE(axis.ticks.size(), static_cast<std::size_t>(c.maxTicks) + 1);
        EXPECT_LE(axis.low, c.from);
        EXPECT_GE(axis.high, c.to);
    }
}

TEST(ReportAxes, DegenerateRangesStillGiveAnAxis) {
    for (const auto& [from, to] :
         std::vector<std::pair<double, double>>{{0, 0},
                                                {5, 5},
                                                {10, 0},
                                                {std::numeric_limits<double>::quiet_NaN(), 1},
                                                {0, std::numeric_limits<double>::infinity()}}) {
        const AxisTicks axis = niceTicks(from, to, 5);
        EXPECT_GT(axis.high, axis.low) << from << ".." << to;
        EXPECT_GE(axis.ticks.size(), 2u);
        EXPECT_LE(axis.ticks.size(), 6u);
    }
    EXPECT_EQ(niceTicks(0, 10, 0).ticks.size(), 2u) << "at least one interval";
}

TEST(ReportAxes, TimeTicksFallOnClockSteps) {
    EXPECT_DOUBLE_EQ(timeTicks(767, 10).step, 120);  // 12:47 in steps of 2 min
    EXPECT_DOUBLE_EQ(timeTicks(767, 10).high, 840);
    EXPECT_DOUBLE_EQ(timeTicks(1594, 10).step, 300);  // 26:34 in steps of 5 min
    EXPECT_DOUBLE_EQ(timeTicks(9, 10).step, 1);
    EXPECT_DOUBLE_EQ(timeTicks(8 * 3600, 10).step, 3600);
    EXPECT_DOUBLE_EQ(timeTicks(30 * 86400, 10).step, 5 * 86400);  // a month in whole days
    EXPECT_DOUBLE_EQ(timeTicks(0, 10).high, 1);
    EXPECT_DOUBLE_EQ(timeTicks(-5, 10).high, 1);
}

TEST(ReportAxes, ClockAndDistanceLabels) {
    EXPECT_EQ(formatClock(0, false), "0:00");
    EXPECT_EQ(formatClock(59.6, false), "1:00");
    EXPECT_EQ(formatClock(767, false), "12:47");
    EXPECT_EQ(formatClock(3600 + 5 * 60, true), "1:05");
    EXPECT_EQ(formatClock(26 * 3600, true), "26:00");
    EXPECT_EQ(formatMetres(0, 50), "0 m");
    EXPECT_EQ(formatMetres(250, 50), "250 m");
    EXPECT_EQ(formatMetres(0.4, 0.2), "0.4 m");
    EXPECT_EQ(formatMetres(1000, 500), "1.0 km");  // kilometres from 1000 m on, decimals as the step needs
    EXPECT_EQ(formatMetres(1500, 500), "1.5 km");
    EXPECT_EQ(formatMetres(8000, 2000), "8 km");
    EXPECT_EQ(formatMetres(-50, 50), "-50 m");
}

TEST(ReportPosition, InterpolatesAlongTheRouteAndHoldsAtItsEnds) {
    Route route;
    EXPECT_FALSE(routePositionAt(route, 3));
    route.points = {
        {0, 48.0, 11.0, std::nullopt}, {10, 48.1, 11.2, std::nullopt}, {10, 48.2, 11.4, std::nullopt}};
    EXPECT_DOUBLE_EQ(routePositionAt(route, -5)->latitude, 48.0);
    EXPECT_NEAR(routePositionAt(route, 5)->latitude, 48.05, 1e-9);
    EXPECT_NEAR(routePositionAt(route, 5)->longitude, 11.1, 1e-9);
    EXPECT_DOUBLE_EQ(routePositionAt(route, 99)->latitude, 48.2);
}

TEST(ReportEscaping, ScriptJsonCannotCloseItsElementAndSurvivesBrokenText) {
    const std::string hostile =
        "</script><!-- \"'&\xE2\x80\xA8 \xFF\xFE";  // a line separator, bytes not UTF-8
    const std::string text = jsonForScript(json{{"name", hostile}});
    EXPECT_EQ(text.find('<'), std::string::npos);
    EXPECT_EQ(text.find('>'), std::string::npos);
    EXPECT_EQ(text.find('&'), std::string::npos);
    for (const unsigned char c : text) {
        EXPECT_LT(c, 0x80) << "ASCII only";
    }
    const json back = json::parse(text);
    EXPECT_EQ(back["name"].get<std::string>().substr(0, 13), "</script><!--");
    EXPECT_EQ(escapeHtml("<a href=\"x\" title='y'>&</a>"),
              "&lt;a href=&quot;x&quot; title=&#39;y&#39;&gt;&amp;&lt;/a&gt;");
}

/// A run in which the service names one place whose offer carries `name`, and the device enters it.
ReportInput runNaming(const std::string& name) {
    ReportInput input;
    input.title = "Report of " + name;
    input.route.name = name + ".csv";
    input.route.points = {{0, 48.1, 11.5, std::nullopt}, {60, 48.1005, 11.5005, std::nullopt}};
    const json record{{"eventId", "70"},        {"placeId", name},     {"eventName", name},
                      {"campaignName", name},   {"centroidLat", 48.1}, {"centroidLon", 11.5},
                      {"centroidRadius", 50.0}, {"dwellTime", 0},      {"eventTypeId", 3}};
    input.events = {
        {{"t", 1.0},
         {"type", "response"},
         {"path", "/v2/place"},
         {"status", 200},
         {"body", {{"places", {record}}}}},
        {{"t", 2.0},
         {"type", "request"},
         {"path", "/v1/deviceevent/link"},
         {"body", {{"eventId", "70"}, {"placeId", name}}}},
        {{"t", 3.0}, {"type", "alert"}, {"message", name}, {"buttons", {name, "Later"}}, {"tag", "1"}},
        {{"t", 4.0}, {"type", name}, {"detail", name}},
        {{"t", 5.0},
         {"type", "outcome"},
         {"eventId", "70"},
         {"placeId", name},
         {"eventName", name},
         {"delivered", true},
         {"linkRequests", 1},
         {"reason", name}},
    };
    return input;
}

TEST(ReportEscaping, NamesFromTheRunNeverBecomeMarkup) {
    const std::string hostile = "Bar \"Q\" 'x' </script><script>alert(1)</script><!-- & \xFF";
    std::ostringstream out;
    writeHtmlReport(runNaming(hostile), out);
    const std::string page = out.str();

    EXPECT_EQ(page.find("<script>alert"), std::string::npos);
    EXPECT_EQ(page.find("\"Q\""), std::string::npos) << "quotes escaped, in attributes too";
    EXPECT_EQ(page.find("<!-- &"), std::string::npos);
    EXPECT_NE(page.find("&lt;/script&gt;&lt;script&gt;alert(1)"), std::string::npos) << "shown as text";
    const auto count = [&page](const std::string& what) {
        std::size_t n = 0;
        for (auto at = page.find(what); at != std::string::npos; at = page.find(what, at + 1)) {
            ++n;
        }
        return n;
    };
    // Only the report's own elements: Leaflet, the map's data and script, the timeline's filter (the
    // plain map has only the last).
    EXPECT_EQ(count("<script"), count("</script"));
    EXPECT_LE(count("<script"), 4u);
}

TEST(ReportTimeline, SummarisesBodiesAndFiltersByKindAndOffer) {
    std::ostringstream out;
    writeHtmlReport(runNaming("Plain"), out);
    const std::string page = out.str();
    EXPECT_NE(page.find("<select id=\"filter-kind\">"), std::string::npos);
    EXPECT_NE(page.find("<option value=\"70\">70 Plain (2 events)</option>"), std::string::npos)
        << "the link request and the outcome";
    EXPECT_NE(page.find("<tr data-kind=\"request\" data-offer=\"70\">"), std::string::npos);
    EXPECT_NE(page.find("/v1/deviceevent/link offer 70 at place Plain"), std::string::npos);
    EXPECT_NE(page.find("<details><summary>body</summary>"), std::string::npos) << "bodies collapsed";
    EXPECT_EQ(page.find("<td class=\"d\">/v2/place → 200 {"), std::string::npos) << "no raw JSON in the row";
    EXPECT_NE(page.find("/v2/place → 200, 1 place"), std::string::npos);
}

}  // namespace
}  // namespace tovrel::sim
