// tovrel-sim: drives one device (run) or a fleet of devices (fleet) through location-enabled sessions
// of the component, along routes, in virtual time, against an embedded or remote service, and reports
// what happened.
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <chrono>
#include <fstream>
#include <iostream>

#include "admin_fetch.h"
#include "common/temporary_file.h"
#include "expectations.h"
#include "fleet.h"
#include "fleet_compare.h"
#include "fleet_report.h"
#include "html_report.h"
#include "preview.h"
#include "replay.h"
#include "simulation.h"
#include "tovrel/paths/data_directory.h"
#include "tovrel/tools/command_line.h"

namespace {

using tovrel::sim::AlertAnswer;

constexpr int kExpectationFailed = 1;
constexpr int kBadInput = tovrel::tools::kUsageError;
constexpr int kSessionNeverStarted = 3;
constexpr int kTimeStalled = 4;

/// What run and fleet are both told about each device, as the command line says it.
struct DeviceArguments {
    std::string places;
    std::string service;
    std::string notifications = "on";
    std::string offerView = "on";
    std::string appState = "background";
    std::string answer = "view";
    std::string eventsFile;
    std::string reportFile;
    std::vector<std::string> expectTexts;
    std::string expectFile;
    double maxDuration = -1;
    std::string start;
    bool gpsNoise = false;
    std::uint64_t seed = 1;
};

void addTilesOption(CLI::App* command, std::string& tiles) {
    command
        ->add_option("--tiles", tiles,
                     "Map tiles the report loads when viewed online: a URL template with {z}, {x}, {y} "
                     "(default OpenStreetMap), or off")
        ->check([](const std::string& value) {
            const bool usable = value == "off" || (value.find("{z}") != std::string::npos &&
                                                   value.find("{x}") != std::string::npos &&
                                                   value.find("{y}") != std::string::npos);
            return usable ? std::string() : "a URL template with {z}, {x} and {y}, or off";
        });
}

void addDeviceOptions(CLI::App* command, tovrel::sim::SimOptions& options, DeviceArguments& arguments) {
    command->add_option("--places", arguments.places,
                        "Places for the embedded service (GeoJSON; default: the example data set)");
    command->add_option("--service", arguments.service,
                        "Talk to this service (base URL) instead of the embedded one");
    command
        ->add_option("--http-timeout", options.httpTimeoutSeconds,
                     "Give up on a request to the service after this many seconds (default 30); one "
                     "unanswered for 5 s is reported on stderr every 5 s")
        ->check(CLI::Range(0.1, 3600.0));
    command->add_option("--sdk-key", options.sdkKey,
                        "The SDK key (default: the example key the embedded service knows)");
    command
        ->add_option("--notifications", arguments.notifications,
                     "Present notifications: on or off (default on)")
        ->check(CLI::IsMember({"on", "off"}));
    command->add_option("--offer-view", arguments.offerView, "Present the offer view: on or off (default on)")
        ->check(CLI::IsMember({"on", "off"}));
    command->add_option("--app-state", arguments.appState,
                        "active, background, or a timeline such as 0:background,600:active,900:background");
    command
        ->add_option("--answer", arguments.answer,
                     "How the user answers each event alert: never, view or later (default view)")
        ->check(CLI::IsMember({"never", "view", "later"}));
    command->add_flag("--tap-notifications", options.tapNotifications,
                      "The user opens every local notification 10 s after it appears");
    command
        ->add_option("--linger", options.lingerSeconds,
                     "Keep the session running this long after the last position")
        ->check(CLI::NonNegativeNumber);
    command->add_flag("--terminate", options.terminate, "End with the application-terminate notification");
    command
        ->add_option("--session-attempts", options.sessionAttempts,
                     "End a device's run after this many failed session starts in a row (default 5)")
        ->check(CLI::Range(1, 1000000));
    command->add_option(
        "--expect", arguments.expectTexts,
        "A rule the run must meet (repeatable): offer:ID=delivered, offer:ID@PLACE=not-delivered, "
        "place:ID=entered, deliveries<=3, link-requests<=20; states delivered, linked, entered, "
        "notification, alert, answered, suppressed or suppressed:RULE (schedule, quiet-hours, control, cap, "
        "frequency, fatigue), each may start with not-");
    command->add_option(
        "--start", arguments.start,
        "The instant the route starts, like 2026-03-29T01:30:00+01:00 or 2026-06-01T09:00:00Z "
        "(default 2026-06-01T09:00:00Z)");
    command->add_option("--expect-file", arguments.expectFile, "Rules to meet, one a line ('#' comments)");
    command
        ->add_option("--max-duration", arguments.maxDuration, "Simulate at most this many seconds of a route")
        ->check(CLI::PositiveNumber);
    command->add_flag("--gps-noise", arguments.gpsNoise,
                      "Add seeded position error in keeping with the accuracy the component asks for");
    command->add_option("--seed", arguments.seed,
                        "Seed of the position error and made-up routes (default 1)");
}

/// Applies the device arguments to `options`; false (after a message) when one cannot be used.
bool applyDeviceArguments(const DeviceArguments& arguments, tovrel::sim::SimOptions& options,
                          std::vector<tovrel::sim::Expectation>& expectations) {
    try {
        expectations.reserve(arguments.expectTexts.size());
        for (const auto& text : arguments.expectTexts) {
            expectations.push_back(tovrel::sim::parseExpectation(text));
        }
        if (!arguments.expectFile.empty()) {
            const auto fromFile = tovrel::sim::readExpectationFile(arguments.expectFile);
            expectations.insert(expectations.end(), fromFile.begin(), fromFile.end());
        }
    } catch (const tovrel::sim::ExpectationError& error) {
        std::cerr << "tovrel-sim: " << error.what() << '\n';
        return false;
    }
    if (arguments.maxDuration > 0) {
        options.maxDuration = arguments.maxDuration;
    }
    if (!arguments.start.empty()) {
        const std::optional<double> start = tovrel::sim::parseInstant(arguments.start);
        if (!start) {
            std::cerr << "tovrel-sim: --start " << arguments.start
                      << ": not an instant like 2026-03-29T01:30:00+01:00 or 2026-06-01T09:00:00Z\n";
            return false;
        }
        options.startTime = *start;
    }
    if (!arguments.places.empty()) {
        options.placesFile = arguments.places;
    }
    if (!arguments.service.empty()) {
        options.serviceURL = arguments.service;
    }
    options.presentNotifications = arguments.notifications == "on";
    options.presentOfferView = arguments.offerView == "on";
    options.answer = arguments.answer == "never"   ? AlertAnswer::kNever
                     : arguments.answer == "later" ? AlertAnswer::kLater
                                                   : AlertAnswer::kView;
    try {
        options.appStates = tovrel::sim::parseAppStateTimeline(arguments.appState);
    } catch (const std::exception& error) {
        std::cerr << "tovrel-sim: " << error.what() << '\n';
        return false;
    }
    return true;
}

/// Opens `file` for writing (when named); false after a message when it cannot be.
bool openOutput(const std::string& file, std::ofstream& out) {
    if (file.empty()) {
        return true;
    }
    out.open(file, std::ios::trunc);
    if (!out) {
        std::cerr << "tovrel-sim: " << file << ": cannot be written\n";
        return false;
    }
    return true;
}

/// Prints each rule that failed; the exit status for the rules.
int reportExpectations(const std::vector<tovrel::sim::Expectation>& expectations,
                       const std::vector<tovrel::sim::ExpectationResult>& results) {
    int failed = 0;
    for (const auto& result : results) {
        if (!result.met) {
            ++failed;
            std::cerr << "tovrel-sim: expectation failed: " << result.rule << " (" << result.actual << ")\n";
        }
    }
    if (!expectations.empty()) {
        std::cout << expectations.size() - static_cast<std::size_t>(failed) << " of " << expectations.size()
                  << " expectations met\n";
    }
    return failed > 0 ? kExpectationFailed : 0;
}

void printGpsOn(const tovrel::sim::GpsOnTime& gpsOn) {
    std::cout << "location updates on:";
    for (std::size_t i = 0; i < tovrel::sim::kAccuracyLevels; ++i) {
        if (gpsOn.seconds[i] > 0) {
            std::cout << ' ' << tovrel::sim::accuracyLevelName(static_cast<tovrel::sim::AccuracyLevel>(i))
                      << ' ' << static_cast<long>(gpsOn.seconds[i]) << " s";
        }
    }
    if (gpsOn.significantOnlySeconds > 0) {
        std::cout << ", significant changes only " << static_cast<long>(gpsOn.significantOnlySeconds) << " s";
    }
    if (gpsOn.total() + gpsOn.significantOnlySeconds <= 0) {
        std::cout << " never";
    }
    std::cout << '\n';
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app{"tovrel-sim: whole sessions of the Tovrel component along routes, in virtual time"};
    tovrel::tools::addVersionFlag(app, "tovrel-sim");
    app.require_subcommand(1);
    auto* run = app.add_subcommand("run", "Drive one device along a route and print a timeline");
    auto* fleet = app.add_subcommand("fleet", "Drive many devices along routes on every core and sum up");
    auto* replay = app.add_subcommand(
        "replay",
        "Run a device's day again along the positions it reported, and say where the service differs");

    tovrel::sim::SimOptions options;
    const auto data = tovrel::paths::dataDirectory();
    options.placesFile = (data / "places" / "munich.geojson").string();
    options.contentDir = (data / "content").string();
    DeviceArguments arguments;
    std::string route;
    std::string stateDir;

    run->add_option("--route", route,
                    "Positions to replay: GPX (trkpt with time), NMEA 0183 or CSV lines t,lat,lon[,activity]")
        ->required();
    addDeviceOptions(run, options, arguments);
    run->add_option("--state", stateDir, "Keep the device's preferences here, so a later run continues");
    run->add_option("--events", arguments.eventsFile,
                    "Write everything observable here, one JSON object a line");
    run->add_option("--report", arguments.reportFile, "Write a self-contained HTML report here");
    std::string tiles = tovrel::sim::kOpenStreetMapTiles;
    addTilesOption(run, tiles);
    run->add_flag("--realtime", options.realtime, "Run on the wall clock instead of virtual time");
    run->add_flag("--quiet", options.quiet, "Print no timeline");

    std::size_t devices = 100;
    std::size_t jobs = 0;
    std::string routes;
    std::string generate;
    std::string compare;
    fleet->add_option("--devices", devices, "How many devices (default 100)")
        ->check(CLI::Range(1, 100'000'000));
    std::size_t days = 1;
    fleet
        ->add_option("--days", days,
                     "Each device makes its trip once a day for this many days, keeping its identifier and "
                     "preferences, so that caps per day and week count across them (default 1)")
        ->check(CLI::Range(1, 366));
    fleet->add_option("--routes", routes,
                      "A folder of routes (.gpx, .nmea, .csv); device i takes them in turn");
    fleet
        ->add_option("--generate", generate,
                     "Make up each device's route around the places: walks, drives or mixed (the default "
                     "without --routes)")
        ->check(CLI::IsMember({"walks", "drives", "mixed"}));
    fleet->add_option("--jobs", jobs, "Worker threads (default: one per core)")->check(CLI::Range(1, 1024));
    addDeviceOptions(fleet, options, arguments);
    fleet->add_option(
        "--events", arguments.eventsFile,
        "Write each device's outcomes here as it ends, one JSON object a line, then the totals");
    fleet->add_option(
        "--compare", compare,
        "A preview: run the same devices again over this place file (the live catalogue) and "
        "print, per offer, the deliveries with it and with --places (the draft), and the reasons "
        "that changed");
    std::string compareService;
    std::string fleetTokenFile;
    fleet->add_option("--compare-service", compareService,
                      "The same against the live catalogue of this admin listener (GET /admin/v1/catalogue, "
                      "with --token-file)");
    fleet->add_option(
        "--token-file", fleetTokenFile,
        "With --compare-service: a file whose first line is an admin token (role read or more)");
    fleet->add_option("--report", arguments.reportFile,
                      "Write a self-contained HTML report of the totals here");
    addTilesOption(fleet, tiles);
    bool fleetQuiet = false;
    fleet->add_flag("--quiet", fleetQuiet, "Print no progress");
    bool fleetJson = false;
    fleet->add_flag(
        "--json", fleetJson,
        "With --compare: print only the comparison, as JSON ({\"devices\", \"deliveries\", \"offers\"})");
    fleet->excludes(run);

    tovrel::sim::ReplayOptions replayOptions;
    replayOptions.tiles = tovrel::sim::kOpenStreetMapTiles;
    std::string tokenFile;
    replay->footer(
        "Exit status: 0 the replay and the service agree on every offer; 1 they disagree on one or more; 2 a "
        "usage error or an unusable day or place file; 3 the day could not be fetched, or the replay "
        "stopped.");
    replay->add_option("--day", replayOptions.dayFile,
                       "A device's day as GET /admin/v1/devices/ID/day answers it (JSON)");
    replay->add_option(
        "--admin", replayOptions.adminUrl,
        "Fetch the day from this admin listener instead (with --token-file, --device, --date)");
    replay->add_option("--token-file", tokenFile,
                       "A file whose first line is an admin token (role read or more)");
    replay->add_option("--device", replayOptions.deviceId, "The deviceId the device sends");
    replay->add_option("--date", replayOptions.date, "The UTC day, YYYY-MM-DD");
    replay->add_option("--places", replayOptions.placesFile,
                       "The place file to replay against (default: the service's catalogue, from --admin)");
    replay->add_option("--report", replayOptions.reportFile, "Write a self-contained HTML report here");
    replay
        ->add_option("--gap", replayOptions.limits.gapSeconds,
                     "Seconds without a position beyond which the track between is a guess")
        ->capture_default_str()
        ->check(CLI::Range(10.0, 86400.0));
    replay->add_flag("--json", replayOptions.asJson, "Print the findings as JSON");
    addTilesOption(replay, replayOptions.tiles);
    replay->excludes(run);
    replay->excludes(fleet);

    app.footer(
        "Exit status: 0 the run completed (and met every expectation); 1 an expectation failed; 2 a usage "
        "error or unusable input (an unreadable rule included); 3 the session never started (in a fleet: on "
        "some device, which stops the fleet); 4 virtual time stopped advancing (a request retried without "
        "end).");

    if (const auto status = tovrel::tools::parseCommandLine(app, argc, argv)) {
        return *status;
    }

    if (replay->parsed()) {
        const bool fromService = !replayOptions.adminUrl.empty() && !tokenFile.empty();
        const bool dayFromService = !replayOptions.deviceId.empty() || !replayOptions.date.empty();
        if (replayOptions.dayFile.empty() != dayFromService ||
            (dayFromService &&
             (!fromService || replayOptions.deviceId.empty() || replayOptions.date.empty()))) {
            std::cerr << "tovrel-sim: replay takes --day FILE, or --admin URL with --token-file, --device "
                         "and --date\n";
            return kBadInput;
        }
        if (replayOptions.placesFile.empty() && !fromService) {
            std::cerr << "tovrel-sim: replay takes --places FILE, or --admin URL with --token-file to replay "
                         "against the service's catalogue\n";
            return kBadInput;
        }
        replayOptions.contentDir = options.contentDir;
        try {
            if (!tokenFile.empty()) {
                try {
                    replayOptions.token = tovrel::sim::readTokenFile(tokenFile);
                } catch (const std::runtime_error& error) {
                    std::cerr << "tovrel-sim: " << error.what() << '\n';
                    return kBadInput;
                }
            }
            return tovrel::sim::replayDay(replayOptions, std::cout);
        } catch (const tovrel::sim::RouteError& error) {
            std::cerr << "tovrel-sim: " << error.what() << '\n';
            return kBadInput;
        } catch (const tovrel::sim::SimInputError& error) {
            std::cerr << "tovrel-sim: " << error.what() << '\n';
            return kBadInput;
        } catch (const std::runtime_error& error) {
            std::cerr << "tovrel-sim: " << error.what() << '\n';
            return kSessionNeverStarted;
        }
    }

    std::vector<tovrel::sim::Expectation> expectations;
    if (!applyDeviceArguments(arguments, options, expectations)) {
        return kBadInput;
    }
    std::ofstream events;
    std::ofstream report;
    if (!openOutput(arguments.eventsFile, events) || !openOutput(arguments.reportFile, report)) {
        return kBadInput;
    }

    if (fleet->parsed()) {
        if (!routes.empty() && !generate.empty()) {
            std::cerr << "tovrel-sim: --routes and --generate exclude each other\n";
            return kBadInput;
        }
        if (!compareService.empty() && (!compare.empty() || fleetTokenFile.empty())) {
            std::cerr << "tovrel-sim: --compare-service takes --token-file, and excludes --compare\n";
            return kBadInput;
        }
        std::optional<tovrel::server::TemporaryFile> liveCatalogue;
        if (!compareService.empty()) {
            try {
                const std::string token = tovrel::sim::readTokenFile(fleetTokenFile);
                // The export holds no apps (their keys are credentials): the live side gets the draft's.
                nlohmann::json live =
                    nlohmann::json::parse(tovrel::sim::adminGet(compareService, token, "catalogue"));
                std::ifstream draftIn(options.placesFile);
                const nlohmann::json draft = nlohmann::json::parse(draftIn, nullptr, false);
                if (draft.is_object() && draft.contains("properties") && draft["properties"].is_object() &&
                    draft["properties"].contains("apps")) {
                    live["properties"]["apps"] = draft["properties"]["apps"];
                }
                liveCatalogue.emplace("tovrel-live-catalogue", ".geojson");
                liveCatalogue->write(live.dump());
                compare = liveCatalogue->path();
            } catch (const std::exception& error) {
                std::cerr << "tovrel-sim: " << error.what() << '\n';
                return kSessionNeverStarted;
            }
        }
        tovrel::sim::FleetOptions fleetOptions;
        fleetOptions.device = options;
        fleetOptions.devices = devices;
        fleetOptions.days = days;
        fleetOptions.jobs = jobs;
        fleetOptions.seed = arguments.seed;
        fleetOptions.gpsNoise = arguments.gpsNoise;
        fleetOptions.deviceLines = events.is_open() ? &events : nullptr;
        fleetOptions.progress = isatty(STDERR_FILENO) != 0 && !fleetQuiet;
        try {
            if (!routes.empty()) {
                fleetOptions.source = tovrel::sim::FleetRoutes::kFolder;
                fleetOptions.routes = tovrel::sim::loadRouteFolder(routes);
            } else {
                fleetOptions.source = generate == "walks"    ? tovrel::sim::FleetRoutes::kWalks
                                      : generate == "drives" ? tovrel::sim::FleetRoutes::kDrives
                                                             : tovrel::sim::FleetRoutes::kMixed;
                fleetOptions.places = tovrel::sim::readPlaceCircles(options.placesFile);
            }
        } catch (const tovrel::sim::RouteError& error) {
            std::cerr << "tovrel-sim: " << error.what() << '\n';
            return kBadInput;
        }
        const auto wallStart = std::chrono::steady_clock::now();
        tovrel::sim::FleetAggregate totals;
        try {
            if (compare.empty()) {
                totals = tovrel::sim::runFleet(fleetOptions);
            } else {
                const tovrel::sim::Preview preview =
                    tovrel::sim::runPreview(fleetOptions, options.placesFile, compare);
                totals = preview.draft;
                if (events.is_open()) {
                    nlohmann::json line =
                        tovrel::sim::comparisonJson(preview.changes, preview.draft, preview.live);
                    line["type"] = "comparison";
                    events << line.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) << '\n';
                }
                if (fleetJson) {
                    std::cout << tovrel::sim::comparisonJson(preview.changes, preview.draft, preview.live)
                                     .dump(-1, ' ', false, nlohmann::json::error_handler_t::replace)
                              << '\n';
                    if (totals.firstStop) {
                        std::cerr << "tovrel-sim: device " << totals.firstStop->first << ": "
                                  << totals.firstStop->second << '\n';
                        return kSessionNeverStarted;
                    }
                    return 0;
                }
                tovrel::sim::printComparison(preview.changes, preview.draft, preview.live, std::cout);
            }
        } catch (const tovrel::sim::SimInputError& error) {
            std::cerr << "tovrel-sim: " << error.what() << '\n';
            return kBadInput;
        } catch (const tovrel::sim::RouteError& error) {
            std::cerr << "tovrel-sim: " << error.what() << '\n';
            return kBadInput;
        }
        const double wall =
            std::chrono::duration<double>(std::chrono::steady_clock::now() - wallStart).count();
        if (events.is_open()) {
            nlohmann::json line = totals.toJson();
            line["type"] = "fleet";
            events << line.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) << '\n';
        }
        if (report.is_open()) {
            tovrel::sim::writeFleetReport("Tovrel fleet: " + std::to_string(totals.devices) + " devices",
                                          totals, wall, tiles, report);
        }
        totals.printSummary(std::cout);
        std::cout << "wall time " << wall << " s: " << (wall > 0 ? totals.deviceHours() / wall : 0)
                  << " device-hours per second";
        if (!arguments.reportFile.empty()) {
            std::cout << "; report: " << arguments.reportFile;
        }
        std::cout << '\n';
        if (totals.firstStop) {
            std::cerr << "tovrel-sim: " << totals.sessionsNeverStarted << " devices never started a session, "
                      << totals.timeStalled << " stalled; device " << totals.firstStop->first << ": "
                      << totals.firstStop->second << '\n';
            return totals.sessionsNeverStarted > 0 ? kSessionNeverStarted : kTimeStalled;
        }
        return reportExpectations(expectations,
                                  tovrel::sim::checkExpectations(expectations, totals.tallies()));
    }

    options.routeFile = route;
    if (!stateDir.empty()) {
        options.stateDir = stateDir;
    }
    if (arguments.gpsNoise) {
        options.gpsNoiseSeed = arguments.seed;
    }
    options.progress = isatty(STDERR_FILENO) != 0 && !options.quiet;
    tovrel::sim::SimOutcome outcome;
    try {
        outcome = tovrel::sim::runSimulation(options, options.quiet ? nullptr : &std::cout,
                                             arguments.eventsFile.empty() ? nullptr : &events);
    } catch (const tovrel::sim::SimInputError& error) {
        std::cerr << "tovrel-sim: " << error.what() << '\n';
        return kBadInput;
    }

    if (report.is_open()) {
        tovrel::sim::writeHtmlReport(
            {"Tovrel simulation: " + options.routeFile.filename().string(), outcome.route, outcome.events,
             outcome.wallSeconds, outcome.eventsNotKept, tiles,
             arguments.service.empty() ? options.placesFile : ""},
            report);
    }
    const auto count = [&outcome](const char* type) {
        const auto found = outcome.counts.find(type);
        return found == outcome.counts.end() ? std::size_t{0} : found->second;
    };
    const std::size_t requests = count("request");
    const std::size_t delivered = count("notification") + count("alert");
    std::cout << "simulated " << static_cast<long>(outcome.simulatedSeconds) << " s in "
              << outcome.wallSeconds << " s of wall time: " << requests << " requests, " << delivered
              << " offers delivered";
    if (!arguments.reportFile.empty()) {
        std::cout << "; report: " << arguments.reportFile;
    }
    std::cout << '\n';
    for (const auto& offer : outcome.offers) {
        std::cout << "  offer " << offer.eventId << " \"" << offer.eventName << "\" at place "
                  << offer.placeId << ": " << offer.reason << '\n';
    }
    printGpsOn(outcome.gpsOn);
    if (outcome.stop != tovrel::sim::RunStop::kNone) {
        std::cerr << "tovrel-sim: " << outcome.stopMessage << '\n';
        return outcome.stop == tovrel::sim::RunStop::kSessionNeverStarted ? kSessionNeverStarted
                                                                          : kTimeStalled;
    }
    return reportExpectations(expectations, tovrel::sim::checkExpectations(expectations, outcome.offers));
}
