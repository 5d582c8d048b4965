#include "tovrel/linux/track_files.h"

#include <gtest/gtest.h>

#include <fstream>

#include "process_support.h"
#include "track_samples.h"

namespace tovrel::linuxbackend {
namespace {

TEST(GpxTest, ReadsPointsWithTimeElevationAccuracySpeedAndActivity) {
    const std::string gpx = R"(<?xml version="1.0"?>
<gpx version="1.0" xmlns:x="urn:x"><trk><trkseg>
 <trkpt lat="48.1" lon="11.5"><ele>519.5</ele><time>2024-06-01T12:00:00Z</time><hdop>2</hdop><speed>1.5</speed>
   <course>90</course><extensions><x:activity confidence="medium">walking</x:activity></extensions></trkpt>
 <trkpt lat="48.2" lon="-11.5"><time>2024-06-01T14:00:00.500+02:00</time></trkpt>
 <trkpt lat="91" lon="0"/>
 <trkpt lat="48.3" lon="11.7"/>
</trkseg></trk></gpx>)";
    const auto points = parseGpx(gpx);
    ASSERT_EQ(points.size(), 3u) << "a latitude beyond 90 is skipped";
    EXPECT_DOUBLE_EQ(points[0].fix.coordinate.latitude, 48.1);
    EXPECT_DOUBLE_EQ(points[0].fix.altitude, 519.5);
    EXPECT_DOUBLE_EQ(points[0].fix.horizontalAccuracy, 10);
    EXPECT_DOUBLE_EQ(points[0].fix.speed, 1.5);
    EXPECT_DOUBLE_EQ(points[0].fix.course, 90);
    EXPECT_DOUBLE_EQ(points[0].fix.timestamp, 1717243200);
    ASSERT_TRUE(points[0].activity);
    EXPECT_TRUE(points[0].activity->walking);
    EXPECT_EQ(points[0].activity->confidence, platform::MotionConfidence::kMedium);
    EXPECT_DOUBLE_EQ(points[1].fix.coordinate.longitude, -11.5);
    EXPECT_DOUBLE_EQ(points[1].fix.timestamp, 1717243200.5) << "14:00 at +02:00 is 12:00 UTC";
    EXPECT_FALSE(points[2].timed);
    EXPECT_DOUBLE_EQ(points[2].fix.speed, -1);
}

TEST(GpxTest, RoutePointsServeWhenThereIsNoTrack) {
    const auto points = parseGpx(R"(<gpx><rte><rtept lat="1" lon="2"/><rtept lat="3" lon="4"/></rte></gpx>)");
    ASSERT_EQ(points.size(), 2u);
    EXPECT_DOUBLE_EQ(points[1].fix.coordinate.longitude, 4);
}

TEST(GpxTest, BrokenOrEmptyDocumentsThrow) {
    EXPECT_THROW(parseGpx("<gpx><trk>"), std::runtime_error);
    EXPECT_THROW(parseGpx("<gpx></gpx>"), std::runtime_error);
}

TEST(NmeaTest, JoinsRmcAndGgaOfTheSameTime) {
    const std::string log = test::nmeaFix(48.1, 11.5, 0, 10.0, 1.2) + test::nmeaFix(-33.5, -70.25, 1);
    const auto points = parseNmea(log);
    ASSERT_EQ(points.size(), 2u);
    EXPECT_NEAR(points[0].fix.coordinate.latitude, 48.1, 1e-6);
    EXPECT_NEAR(points[0].fix.speed, 5.14444, 1e-4);
    EXPECT_DOUBLE_EQ(points[0].fix.altitude, 520);
    EXPECT_DOUBLE_EQ(points[0].fix.horizontalAccuracy, 6);
    EXPECT_DOUBLE_EQ(points[0].fix.timestamp, 1717243200);
    EXPECT_NEAR(points[1].fix.coordinate.latitude, -33.5, 1e-6);
    EXPECT_NEAR(points[1].fix.coordinate.longitude, -70.25, 1e-6);
    EXPECT_DOUBLE_EQ(points[1].fix.timestamp, 1717243201);
}

TEST(NmeaTest, SkipsBadChecksumsVoidFixesAndNoise) {
    // Both sentences of this fix have one digit of the time changed after their checksums were made.
    std::string corrupt = test::nmeaFix(10, 10, 0);
    corrupt[10] = '9';
    corrupt[corrupt.find('$', 1) + 10] = '9';
    const std::string log =
        corrupt + "garbage line\r\n" +
        test::nmeaSentence("GPRMC,120001.00,V,4800.0000,N,01100.0000,E,0.0,0.0,010624,,,N") +
        test::nmeaSentence("GPGSV,1,1,00") + test::nmeaFix(20, 20, 2);
    const auto points = parseNmea(log);
    ASSERT_EQ(points.size(), 1u);
    EXPECT_NEAR(points[0].fix.coordinate.latitude, 20, 1e-6);
    EXPECT_THROW(parseNmea("nothing here\n"), std::runtime_error);
}

TEST(TrackFileTest, LoadTrackTellsGpxFromNmeaByContent) {
    test::TempDir directory;
    const auto gpx = directory.path() / "route.txt";
    std::ofstream(gpx) << "\xef\xbb\xbf  " << test::gpxTrack(3, 10, 1);
    EXPECT_EQ(loadTrack(gpx).size(), 3u);
    const auto nmea = directory.path() / "route.gpx";
    std::ofstream(nmea) << test::nmeaFix(1, 1, 0);
    EXPECT_EQ(loadTrack(nmea).size(), 1u);
    EXPECT_THROW(loadTrack(directory.path() / "missing.gpx"), std::runtime_error);
}

TEST(ActivityNamedTest, KnownNamesOnly) {
    EXPECT_TRUE(activityNamed("automotive")->automotive);
    EXPECT_EQ(activityNamed("cycling", "low")->confidence, platform::MotionConfidence::kLow);
    EXPECT_FALSE(activityNamed("flying"));
}

}  // namespace
}  // namespace tovrel::linuxbackend
