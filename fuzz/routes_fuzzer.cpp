// Feeds arbitrary text to every route reader: the simulator's CSV and GPX routes, the place files a
// fleet makes routes around (and the routes it makes), and the linux backend's GPX and NMEA tracks
// (which the simulator also reads NMEA routes with), and a device's day as the admin API answers it. A file
// is read or refused with the reader's error; nothing may crash or trip a sanitizer.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <stdexcept>
#include <string_view>

#include "day_record.h"
#include "fleet_routes.h"
#include "route.h"
#include "tovrel/linux/track_files.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    try {
        (void)tovrel::sim::parseCsvRoute(text, "fuzz.csv");
    } catch (const tovrel::sim::RouteError&) {
    }
    try {
        (void)tovrel::sim::parseGpxRoute(text, "fuzz.gpx");
    } catch (const tovrel::sim::RouteError&) {
    }
    try {
        const auto places = tovrel::sim::parsePlaceCircles(text, "fuzz.geojson");
        for (const auto kind : {tovrel::sim::RouteKind::kWalk, tovrel::sim::RouteKind::kDrive}) {
            (void)tovrel::sim::generateRoute(kind, places, size, "fuzz");
        }
    } catch (const tovrel::sim::RouteError&) {
    }
    try {
        const auto route = tovrel::sim::routeOfDay(tovrel::sim::parseDayRecord(text, "fuzz.json"));
        for (std::size_t i = 1; i < route.points.size(); ++i) {
            if (route.points[i].t < route.points[i - 1].t || route.duration() > 2 * 86400) {
                std::abort();
            }
        }
    } catch (const tovrel::sim::RouteError&) {
    }
    for (auto* reader : {&tovrel::linuxbackend::parseGpx, &tovrel::linuxbackend::parseNmea}) {
        try {
            (void)reader(text);
        } catch (const std::runtime_error&) {
        }
    }
    return 0;
}
