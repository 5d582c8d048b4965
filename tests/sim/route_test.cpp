#include "route.h"

#include <gtest/gtest.h>

#include "app_state_timeline.h"
#include "linux/track_samples.h"
#include "simulation.h"

namespace tovrel::sim {
namespace {

std::string errorOf(const std::function<void()>& f) {
    try {
        f();
    } catch (const std::exception& error) {
        return error.what();
    }
    return "no error";
}

TEST(CsvRoute, ReadsPointsCommentsAndActivities) {
    const auto route =
        parseCsvRoute("# a comment\n0,48.1,11.5,walking\n\n 5 , 48.2 , 11.6 , stationary\r\n", "r.csv");
    ASSERT_EQ(route.points.size(), 2u);
    EXPECT_DOUBLE_EQ(route.points[1].t, 5);
    EXPECT_DOUBLE_EQ(route.points[1].latitude, 48.2);
    EXPECT_EQ(route.points[1].activity, Activity::kStationary);
    EXPECT_TRUE(route.hasActivity);
    EXPECT_DOUBLE_EQ(route.duration(), 5);
}

TEST(CsvRoute, ActivityColumnIsOptional) {
    const auto route = parseCsvRoute("0,1,2\n1,1,2.0001\n", "r.csv");
    EXPECT_FALSE(route.hasActivity);
    EXPECT_FALSE(route.points[0].activity);
}

TEST(CsvRoute, ErrorsNameTheFileAndLine) {
    EXPECT_EQ(errorOf([] { parseCsvRoute("0,1,2\n\n1,x,2\n", "walk.csv"); }),
              "walk.csv:3: latitude 'x' is not a number");
    EXPECT_EQ(errorOf([] { parseCsvRoute("0,1\n", "walk.csv"); }),
              "walk.csv:1: expected t,lat,lon[,activity] but found 2 fields");
    EXPECT_EQ(errorOf([] { parseCsvRoute("0,1,2,flying\n", "walk.csv"); }),
              "walk.csv:1: activity 'flying' is not one of stationary, walking, running, automotive, "
              "cycling, unknown");
    EXPECT_EQ(errorOf([] { parseCsvRoute("0,91,2\n", "walk.csv"); }).substr(0, 23),
              "walk.csv:1: latitude 91");
    EXPECT_NE(
        errorOf([] { parseCsvRoute("5,1,2\n4,1,2\n", "walk.csv"); }).find("walk.csv:2: time goes backwards"),
        std::string::npos);
    EXPECT_EQ(errorOf([] { parseCsvRoute("# only a comment\n", "walk.csv"); }),
              "walk.csv: no positions (expected lines of t,lat,lon[,activity])");
    EXPECT_NE(errorOf([] { parseCsvRoute("0,1,nan\n", "walk.csv"); }), "no error");
}

TEST(GpxRoute, ReadsTrackPointsWithTimesFromTheFirst) {
    const char* gpx = R"(<?xml version="1.0"?>
<gpx xmlns="http://www.topografix.com/GPX/1/1"><trk><trkseg>
  <trkpt lat="48.1" lon="11.5"><time>2026-06-01T09:00:00Z</time></trkpt>
  <trkpt lat="48.2" lon="11.6"><ele>500</ele><time>2026-06-01T09:00:02.5Z</time></trkpt>
  <trkpt lat="48.3" lon="11.7"><time>2026-06-01T11:00:10+02:00</time></trkpt>
</trkseg></trk></gpx>)";
    const auto route = parseGpxRoute(gpx, "d.gpx");
    ASSERT_EQ(route.points.size(), 3u);
    EXPECT_DOUBLE_EQ(route.points[1].t, 2.5);
    EXPECT_DOUBLE_EQ(route.points[2].t, 10);
    EXPECT_DOUBLE_EQ(route.points[2].longitude, 11.7);
}

TEST(GpxRoute, ErrorsNameTheFileAndLine) {
    EXPECT_EQ(errorOf([] {
                  parseGpxRoute("<gpx>\n<trk><trkpt lat=\"1\" lon=\"2\"></trkpt></trk></gpx>", "d.gpx");
              }),
              "d.gpx:2: trkpt has no <time>");
    EXPECT_EQ(errorOf([] {
                  parseGpxRoute("<gpx>\n\n<trkpt lat=\"1\" lon=\"2\"><time>yesterday</time></trkpt></gpx>",
                                "d.gpx");
              }),
              "d.gpx:3: time 'yesterday' is not an ISO 8601 UTC time");
    EXPECT_NE(errorOf([] { parseGpxRoute("<gpx>\n<trk>\n</gpx>", "d.gpx"); }).find("d.gpx:3: not valid XML"),
              std::string::npos);
    EXPECT_EQ(errorOf([] { parseGpxRoute("<gpx></gpx>", "d.gpx"); }),
              "d.gpx: no <trkpt> with a time in this GPX file");
}

TEST(CsvRoute, AFirstLineOfNamesIsAHeader) {
    const auto route =
        parseCsvRoute("# walk\nt,lat,lon,activity\n0,48.1,11.5,walking\n5,48.2,11.6,walking\n", "h.csv");
    ASSERT_EQ(route.points.size(), 2u);
    EXPECT_TRUE(route.hasActivity);
    EXPECT_EQ(parseCsvRoute("time, latitude, longitude\n0,48.1,11.5\n", "h.csv").points.size(), 1u);
    // Names after the first position, or beside numbers, are a fault, not a header.
    EXPECT_EQ(errorOf([] { parseCsvRoute("0,48.1,11.5\nt,lat,lon\n", "h.csv"); }),
              "h.csv:2: time 't' is not a number");
    EXPECT_EQ(errorOf([] { parseCsvRoute("t,48.1,lon\n", "h.csv"); }), "h.csv:1: time 't' is not a number");
}

TEST(GpxRoute, LargeTracksAreReadWithTheirLineNumbers) {
    constexpr int kPoints = 40'000;
    std::string gpx = "<?xml version=\"1.0\"?>\n<gpx><trk><trkseg>\n";
    for (int i = 0; i < kPoints; ++i) {
        gpx += "<trkpt lat=\"48.1\" lon=\"11.5\"><time>2024-06-01T" + std::to_string(10 + i / 3600) + ":" +
               (i / 60 % 60 < 10 ? "0" : "") + std::to_string(i / 60 % 60) + ":" + (i % 60 < 10 ? "0" : "") +
               std::to_string(i % 60) + "Z</time></trkpt>\n";
    }
    const auto route = parseGpxRoute(gpx + "</trkseg></trk></gpx>\n", "big.gpx");
    ASSERT_EQ(route.points.size(), static_cast<std::size_t>(kPoints));
    EXPECT_DOUBLE_EQ(route.duration(), kPoints - 1);
    gpx += "<trkpt lat=\"48.1\" lon=\"11.5\"></trkpt>\n</trkseg></trk></gpx>\n";
    EXPECT_EQ(errorOf([&] { parseGpxRoute(gpx, "big.gpx"); }),
              "big.gpx:" + std::to_string(kPoints + 3) + ": trkpt has no <time>");
}

TEST(NmeaRoute, IsReadByTheReplayReaderWithTimesFromTheFirstFix) {
    using linuxbackend::test::nmeaSentence;
    const std::string log = nmeaSentence("GPRMC,120000.00,A,4806.0000,N,01130.0000,E,0.0,0.0,010624,,,A") +
                            nmeaSentence("GPGSV,1,1,00") +
                            nmeaSentence("GPRMC,120005.50,A,4806.1000,N,01130.1000,E,1.0,45.0,010624,,,A");
#if TOVREL_SIM_NMEA
    const auto route = parseNmeaRoute(log, "walk.nmea");
    ASSERT_EQ(route.points.size(), 2u);
    EXPECT_DOUBLE_EQ(route.points[0].t, 0);
    EXPECT_DOUBLE_EQ(route.points[1].t, 5.5);
    EXPECT_NEAR(route.points[1].latitude, 48.101667, 1e-6);
    EXPECT_NEAR(route.points[1].longitude, 11.501667, 1e-6);
    EXPECT_EQ(errorOf([] { parseNmeaRoute("$GPGSV,1,1,00*79\r\n", "empty.nmea"); }).rfind("empty.nmea: ", 0),
              0u);
#else
    EXPECT_NE(errorOf([&] { parseNmeaRoute(log, "walk.nmea"); }).find("need the linux backend"),
              std::string::npos);
#endif
}

TEST(RouteFile, MissingFileIsAnError) {
    EXPECT_EQ(errorOf([] { loadRoute("/nonexistent/route.csv"); }), "/nonexistent/route.csv: cannot be read");
}

TEST(SpeedActivity, FollowsThresholds) {
    EXPECT_EQ(activityForSpeed(0), Activity::kStationary);
    EXPECT_EQ(activityForSpeed(1.4), Activity::kWalking);
    EXPECT_EQ(activityForSpeed(3), Activity::kRunning);
    EXPECT_EQ(activityForSpeed(6), Activity::kCycling);
    EXPECT_EQ(activityForSpeed(14), Activity::kAutomotive);
}

TEST(AppStateTimeline, ParsesSingleStatesAndTimelines) {
    const auto single = parseAppStateTimeline("active");
    ASSERT_EQ(single.size(), 1u);
    EXPECT_EQ(single[0].state, platform::ApplicationState::kActive);
    const auto timeline = parseAppStateTimeline("0:background,600:active,900:background");
    ASSERT_EQ(timeline.size(), 3u);
    EXPECT_DOUBLE_EQ(timeline[1].t, 600);
    EXPECT_EQ(timeline[1].state, platform::ApplicationState::kActive);
}

TEST(AppStateTimeline, RejectsBadSpecs) {
    EXPECT_THROW(parseAppStateTimeline(""), AppStateError);
    EXPECT_THROW(parseAppStateTimeline("sleeping"), AppStateError);
    EXPECT_THROW(parseAppStateTimeline("0:active,x:background"), AppStateError);
    EXPECT_THROW(parseAppStateTimeline("10:active,5:background"), AppStateError);
    EXPECT_THROW(parseAppStateTimeline("10:dozing"), AppStateError);
}

}  // namespace
}  // namespace tovrel::sim

namespace tovrel::sim {
namespace {

TEST(StartInstant, OffsetsAndUtcAndNothingElse) {
    // 2026-03-29 00:30 UTC, half an hour before Berlin's clocks go forward.
    EXPECT_EQ(parseInstant("2026-03-29T01:30:00+01:00"), 1774744200.0);
    EXPECT_EQ(parseInstant("2026-03-29T00:30Z"), 1774744200.0);
    EXPECT_EQ(parseInstant("2026-03-28T20:00:00-04:30"), 1774744200.0);
    EXPECT_EQ(parseInstant("1970-01-01T00:00:00Z"), 0.0);
    for (const char* bad :
         {"2026-02-29T00:00:00Z", "2026-03-29T24:00:00Z", "2026-03-29T01:30:00", "2026-03-29",
          "2026-03-29T01:30:00+1:00", "2026-03-29T01:30:60Z", "2026-03-29 01:30:00Z", ""}) {
        EXPECT_FALSE(parseInstant(bad)) << bad;
    }
}

}  // namespace
}  // namespace tovrel::sim
