// A fleet of simulated devices: the same totals for a seed whatever the number of threads, devices that
// keep their identity over several days, the same against a real tovrel-server over loopback as in process,
// position error only when asked for and the same for a seed, and the time with location updates on per
// accuracy level.
#include "fleet.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cmath>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "fleet_compare.h"
#include "in_process_service.h"
#include "tovrel_server/server.h"

namespace tovrel::sim {
namespace {

using nlohmann::json;

const std::string kPlaces = TOVREL_EXAMPLES_DIR "/places/munich.geojson";
const std::string kContent = TOVREL_EXAMPLES_DIR "/content";

FleetOptions generatedFleet(std::size_t devices, std::uint64_t seed) {
    FleetOptions options;
    options.device.placesFile = kPlaces;
    options.device.contentDir = kContent;
    options.devices = devices;
    options.source = FleetRoutes::kMixed;
    options.places = readPlaceCircles(kPlaces);
    options.seed = seed;
    return options;
}

/// The totals with the trigger points, as one value to compare.
json everything(const FleetAggregate& fleet) {
    json out = fleet.toJson();
    for (const TriggerPoint& point : fleet.triggers) {
        out["triggers"].push_back({point.key, point.eventId, point.latitude, point.longitude});
    }
    return out;
}

TEST(Fleet, ASeedGivesTheSameTotalsOnAnyNumberOfThreads) {
    FleetOptions options = generatedFleet(12, 7);
    options.jobs = 1;
    std::ostringstream lines;
    options.deviceLines = &lines;
    const FleetAggregate sequential = runFleet(options);
    ASSERT_EQ(sequential.devices, 12U);
    EXPECT_GT(sequential.deliveries(), 0);
    EXPECT_GT(sequential.requests.at("/v2/place"), 0);
    EXPECT_FALSE(sequential.triggers.empty());

    // One line per device, each naming its device once.
    std::istringstream read(lines.str());
    std::vector<bool> seen(12, false);
    for (std::string line; std::getline(read, line);) {
        const json device = json::parse(line);
        ASSERT_EQ(device["type"], "device");
        const auto index = device["device"].get<std::size_t>();
        ASSERT_LT(index, seen.size());
        EXPECT_FALSE(seen[index]);
        seen[index] = true;
    }
    EXPECT_EQ(std::count(seen.begin(), seen.end(), true), 12);

    options.deviceLines = nullptr;
    EXPECT_EQ(everything(runFleet(options)), everything(sequential)) << "the same seed twice";
    options.jobs = 3;
    EXPECT_EQ(everything(runFleet(options)), everything(sequential)) << "three threads";

    options.seed = 8;
    EXPECT_NE(everything(runFleet(options)), everything(sequential)) << "another seed, other routes";
}

TEST(Fleet, DevicesKeepWhoTheyAreFromOneDayToTheNext) {
    FleetOptions options = generatedFleet(4, 3);
    std::ostringstream oneDay;
    options.deviceLines = &oneDay;
    const FleetAggregate single = runFleet(options);
    std::ostringstream threeDays;
    options.deviceLines = &threeDays;
    options.days = 3;
    options.jobs = 2;
    const FleetAggregate week = runFleet(options);

    EXPECT_EQ(week.devices, 4U);
    EXPECT_EQ(week.days, 3U);
    EXPECT_EQ(week.toJson()["days"], 3);
    EXPECT_GT(week.deviceHours(), 2 * single.deviceHours());
    EXPECT_GE(week.requests.at("/v1/session"), 3 * single.requests.at("/v1/session"));
    // Each device's first day is its one-day trip, whatever comes after.
    std::map<std::size_t, json> firstDays;
    std::size_t lines = 0;
    std::istringstream read(threeDays.str());
    for (std::string line; std::getline(read, line); ++lines) {
        json device = json::parse(line);
        if (device["day"] == 0) {
            device.erase("day");
            firstDays[device["device"].get<std::size_t>()] = device;
        }
    }
    EXPECT_EQ(lines, 12U);
    std::istringstream readOne(oneDay.str());
    for (std::string line; std::getline(readOne, line);) {
        const json device = json::parse(line);
        EXPECT_EQ(firstDays[device["device"].get<std::size_t>()], device);
    }
    // A device that comes back to an offer it was given is known by the service: it is not linked twice.
    long long linkedBefore = 0;
    for (const auto& [name, offer] : week.offers) {
        EXPECT_LE(offer.devices, 4) << name;
        const auto again = offer.why.find("linked-before");
        linkedBefore += again == offer.why.end() ? 0 : again->second;
    }
    EXPECT_GT(linkedBefore, 0);

    options.days = 0;
    EXPECT_THROW(runFleet(options), SimInputError);
}

TEST(Fleet, ARealServerOverLoopbackGivesWhatTheServiceInProcessGives) {
    tovrel::server::ServerOptions serverOptions;
    serverOptions.contentDir = kContent;
    serverOptions.clock = [] { return 1780304400.0; };
    tovrel::server::Server server(serverOptions);
    server.importGeoJson(kPlaces);
    const std::uint16_t port = server.start();

    FleetOptions options = generatedFleet(3, 21);
    options.jobs = 2;
    const FleetAggregate inProcess = runFleet(options);
    options.device.serviceURL = "http://127.0.0.1:" + std::to_string(port);
    const FleetAggregate overHttp = runFleet(options);
    server.stop();

    EXPECT_EQ(overHttp.devices, 3U);
    EXPECT_EQ(overHttp.requests, inProcess.requests);
    EXPECT_EQ(overHttp.deliveries(), inProcess.deliveries());
    EXPECT_EQ(overHttp.tallies().size(), inProcess.tallies().size());
    long long linked = 0;
    for (const auto& [name, offer] : overHttp.offers) {
        EXPECT_EQ(offer.delivered, inProcess.offers.at(name).delivered) << name;
        linked += offer.linked;
    }
    // What the server stored is what the devices saw.
    long long links = 0;
    for (const auto& offer : server.report().offers) {
        links += offer.links;
    }
    EXPECT_EQ(links, linked);
    EXPECT_GT(overHttp.requests.at("/v1/session"), 0);
}

TEST(Fleet, ExpectationsAreCheckedAgainstTheWholeFleet) {
    FleetOptions options = generatedFleet(6, 3);
    const FleetAggregate fleet = runFleet(options);
    const long long deliveries = fleet.deliveries();
    ASSERT_GT(deliveries, 0);
    const auto results = checkExpectations({parseExpectation("deliveries>=" + std::to_string(deliveries)),
                                            parseExpectation("deliveries>" + std::to_string(deliveries)),
                                            parseExpectation("offer:999999=delivered")},
                                           fleet.tallies());
    ASSERT_EQ(results.size(), 3U);
    EXPECT_TRUE(results[0].met);
    EXPECT_FALSE(results[1].met);
    EXPECT_EQ(results[1].actual, "deliveries = " + std::to_string(deliveries));
    EXPECT_FALSE(results[2].met);
}

TEST(Fleet, APreviewComparesTheSameDevicesOverTwoCataloguesAndRepeats) {
    // The draft holds half of the devices out of every campaign: deliveries fall, each one lost to the
    // control group.
    json draft = json::parse(std::ifstream(kPlaces));
    for (json& campaign : draft["properties"]["campaigns"]) {
        campaign["controlGroup"] = 0.5;
    }
    const auto folder =
        std::filesystem::temp_directory_path() / ("tovrel-preview-" + std::to_string(::getpid()));
    std::filesystem::create_directories(folder);
    const auto draftFile = folder / "draft.geojson";
    std::ofstream(draftFile) << draft.dump();

    FleetOptions options = generatedFleet(16, 3);
    options.device.placesFile = draftFile;
    const FleetAggregate withDraft = runFleet(options);
    const FleetAggregate live = runFleet(generatedFleet(16, 3));
    const std::vector<OfferChange> changes = compareFleets(withDraft, live);

    ASSERT_GT(live.deliveries(), 0);
    EXPECT_LT(withDraft.deliveries(), live.deliveries());
    long long heldOut = 0;
    for (const OfferChange& c : changes) {
        EXPECT_LE(c.draft, c.live) << c.eventId;
        const auto control = c.reasons.find("suppressed:control");
        heldOut += control == c.reasons.end() ? 0 : control->second;
    }
    EXPECT_GT(heldOut, 0);
    // The same seed gives the same comparison: routes, noise and control groups alike.
    EXPECT_EQ(comparisonJson(compareFleets(runFleet(options), live), withDraft, live),
              comparisonJson(changes, withDraft, live));
    std::filesystem::remove_all(folder);
    std::ostringstream printed;
    printComparison(changes, withDraft, live, printed);
    EXPECT_NE(printed.str().find("16 devices, the same on both sides"), std::string::npos) << printed.str();
    EXPECT_NE(printed.str().find("suppressed:control +"), std::string::npos) << printed.str();
}

TEST(Fleet, ABadPlaceFileOrRouteFolderIsNamed) {
    EXPECT_THROW(parsePlaceCircles("{}", "x.geojson"), RouteError);
    EXPECT_THROW(parsePlaceCircles(R"({"features":[{"geometry":{"type":"Point","coordinates":[1]}}]})", "x"),
                 RouteError);
    const auto places = parsePlaceCircles(
        R"({"features":[{"geometry":{"type":"Point","coordinates":[11.5,48.1]},"properties":{"placeId":7}},
                        {"geometry":{"type":"Polygon","coordinates":[]}}]})",
        "x");
    ASSERT_EQ(places.size(), 1U);
    EXPECT_EQ(places[0].placeId, "7");
    EXPECT_EQ(places[0].radius, 50);
    try {
        loadRouteFolder(TOVREL_EXAMPLES_DIR "/places");
        FAIL() << "a folder without routes";
    } catch (const RouteError& error) {
        EXPECT_NE(std::string(error.what()).find("holds no route"), std::string::npos) << error.what();
    }
}

TEST(GpsNoise, IsTheSameForASeedAndScalesWithTheAccuracyAskedFor) {
    GpsNoise a(5);
    GpsNoise b(5);
    GpsNoise c(6);
    double fineError = 0;
    double coarseError = 0;
    bool differs = false;
    for (int t = 0; t < 600; ++t) {
        const auto fine = a.apply(t, 48.1, 11.5, AccuracyLevel::kBest);
        const auto same = b.apply(t, 48.1, 11.5, AccuracyLevel::kBest);
        EXPECT_EQ(fine.latitude, same.latitude);
        EXPECT_EQ(fine.longitude, same.longitude);
        differs = differs || c.apply(t, 48.1, 11.5, AccuracyLevel::kBest).latitude != fine.latitude;
        fineError = std::max(fineError, std::abs(fine.latitude - 48.1) * 111'320);
        EXPECT_EQ(fine.horizontalAccuracy, 5);
    }
    GpsNoise d(5);
    for (int t = 0; t < 600; ++t) {
        coarseError =
            std::max(coarseError,
                     std::abs(d.apply(t, 48.1, 11.5, AccuracyLevel::kKilometre).latitude - 48.1) * 111'320);
    }
    EXPECT_TRUE(differs);
    EXPECT_GT(fineError, 0.5);
    EXPECT_LT(fineError, 30);
    EXPECT_GT(coarseError, 100);
    EXPECT_LT(coarseError, 3000);
}

/// A device that waits 20 minutes 2 km from the nearest place, walks in and stays 10 minutes.
Route farThenNear() {
    Route route;
    route.name = "far-then-near";
    const double placeLat = 48.13737;
    const double placeLon = 11.57546;
    double t = 0;
    for (; t <= 1200; t += 10) {
        route.points.push_back({t, placeLat + 0.018, placeLon, Activity::kStationary});
    }
    for (int step = 1; step <= 100; ++step) {
        t += 14;
        route.points.push_back({t, placeLat + 0.018 * (1 - step / 100.0), placeLon, Activity::kWalking});
    }
    const double arrived = t;
    for (; t <= arrived + 600; t += 5) {
        route.points.push_back({t, placeLat, placeLon, Activity::kStationary});
    }
    route.hasActivity = true;
    return route;
}

SimOutcome runRoute(const Route& route, std::optional<std::uint64_t> noiseSeed) {
    InProcessService service(kPlaces, kContent, 1780304400.0);
    SimOptions options;
    options.placesFile = kPlaces;
    options.contentDir = kContent;
    options.route = &route;
    options.inProcess = &service;
    options.deviceSeed = 1;
    options.quiet = true;
    options.gpsNoiseSeed = noiseSeed;
    return runSimulation(options, nullptr, nullptr);
}

std::vector<std::pair<double, double>> positions(const SimOutcome& outcome) {
    std::vector<std::pair<double, double>> out;
    for (const json& event : outcome.events) {
        if (event["type"] == "position") {
            out.emplace_back(event["lat"].get<double>(), event["lon"].get<double>());
        }
    }
    return out;
}

TEST(GpsNoise, IsOffUnlessAskedForAndReproducibleWhenItIsOn) {
    const Route route = farThenNear();
    const auto clean = positions(runRoute(route, std::nullopt));
    ASSERT_FALSE(clean.empty());
    for (const auto& [latitude, longitude] : clean) {
        const bool onRoute = std::any_of(route.points.begin(), route.points.end(), [&](const RoutePoint& p) {
            return p.latitude == latitude && p.longitude == longitude;
        });
        EXPECT_TRUE(onRoute) << latitude << ", " << longitude;
    }
    const auto noisy = positions(runRoute(route, 11));
    EXPECT_NE(noisy, clean);
    EXPECT_EQ(positions(runRoute(route, 11)), noisy);
}

TEST(GpsOnTime, FollowsTheAccuracyTheComponentAsksForAlongTheRoute) {
    const Route route = farThenNear();
    const SimOutcome outcome = runRoute(route, std::nullopt);
    const GpsOnTime& gps = outcome.gpsOn;
    const auto seconds = [&gps](AccuracyLevel level) { return gps.seconds[static_cast<std::size_t>(level)]; };
    // Far away the component asks for three kilometres; near the place, ten metres.
    EXPECT_GT(seconds(AccuracyLevel::kThreeKilometres), 600) << gpsOnJson(gps);
    EXPECT_GT(seconds(AccuracyLevel::kTenMetres) + seconds(AccuracyLevel::kBest), 500) << gpsOnJson(gps);
    EXPECT_LE(gps.total() + gps.significantOnlySeconds, route.duration() + 1) << gpsOnJson(gps);
    const auto event = std::find_if(outcome.events.begin(), outcome.events.end(),
                                    [](const json& e) { return e["type"] == "gps_on"; });
    ASSERT_NE(event, outcome.events.end());
    EXPECT_EQ((*event)["total"], gpsOnJson(gps)["total"]);
}

TEST(GpsMeter, CountsTheFinestRunningManagerAndSignificantChangesAlone) {
    double now = 0;
    GpsMeter meter([&now] { return now; });
    meter.update(1, true, 1000, false);
    now = 10;
    meter.update(2, true, -1, false);
    now = 15;
    meter.update(2, false, -1, true);
    now = 20;
    meter.update(1, false, 1000, false);
    now = 30;
    meter.release(2);
    now = 40;
    const GpsOnTime totals = meter.totals();
    EXPECT_EQ(totals.seconds[static_cast<std::size_t>(AccuracyLevel::kKilometre)], 15);
    EXPECT_EQ(totals.seconds[static_cast<std::size_t>(AccuracyLevel::kBest)], 5);
    EXPECT_EQ(totals.significantOnlySeconds, 10);
    EXPECT_FALSE(meter.current());
}

}  // namespace
}  // namespace tovrel::sim
