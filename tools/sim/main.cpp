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

/// What fleet alone is told.
struct FleetArguments {
    std::size_t devices = 100;
    std::size_t days = 1;
    std::size_t jobs = 0;
    std::string routes;
    std::string generate;
    std::string compare;
    std::string compareService;
    std::string tokenFile;
    bool quiet = false;
    bool json = false;
};

/// Everything the command line says, for each command.
struct CommandLine {
    tovrel::sim::SimOptions options;
    DeviceArguments arguments;
    std::string tiles = tovrel::sim::kOpenStreetMapTiles;
    std::string route;     ///< run only
    std::string stateDir;  ///< run only
    FleetArguments fleet;
    tovrel::sim::ReplayOptions replay;
    std::string replayTokenFile;  ///< fleet has a --token-file of its own
};

void addRunOptions(CLI::App* run, CommandLine& cli) {
    run->add_option("--route", cli.route,
                    "Positions to replay: GPX (trkpt with time), NMEA 0183 or CSV lines t,lat,lon[,activity]")
        ->required();
    addDeviceOptions(run, cli.options, cli.arguments);
    run->add_option("--state", cli.stateDir, "Keep the device's preferences here, so a later run continues");
    run->add_option("--events", cli.arguments.eventsFile,
                    "Write everything observable here, one JSON object a line");
    run->add_option("--report", cli.arguments.reportFile, "Write a self-contained HTML report here");
    addTilesOption(run, cli.tiles);
    run->add_flag("--realtime", cli.options.realtime, "Run on the wall clock instead of virtual time");
    run->add_flag("--quiet", cli.options.quiet, "Print no timeline");
}

void addFleetOptions(CLI::App* fleet, CommandLine& cli) {
    FleetArguments& arguments = cli.fleet;
    fleet->add_option("--devices", arguments.devices, "How many devices (default 100)")
        ->check(CLI::Range(1, 100'000'000));
    fleet
        ->add_option("--days", arguments.days,
                     "Each device makes its trip once a day for this many days, keeping its identifier and "
                     "preferences, so that caps per day and week count across them (default 1)")
        ->check(CLI::Range(1, 366));
    fleet->add_option("--routes", arguments.routes,
                      "A folder of routes (.gpx, .nmea, .csv); device i takes them in turn");
    fleet
        ->add_option("--generate", arguments.generate,
                     "Make up each device's route around the places: walks, drives or mixed (the default "
                     "without --routes)")
        ->check(CLI::IsMember({"walks", "drives", "mixed"}));
    fleet->add_option("--jobs", arguments.jobs, "Worker threads (default: one per core)")
        ->check(CLI::Range(1, 1024));
    addDeviceOptions(fleet, cli.options, cli.arguments);
    fleet->add_option(
        "--events", cli.arguments.eventsFile,
        "Write each device's outcomes here as it ends, one JSON object a line, then the totals");
    fleet->add_option(
        "--compare", arguments.compare,
        "A preview: run the same devices again over this place file (the live catalogue) and "
        "print, per offer, the deliveries with it and with --places (the draft), and the reasons "
        "that changed");
    fleet->add_option("--compare-service", arguments.compareService,
                      "The same against the live catalogue of this admin listener (GET /admin/v1/catalogue, "
                      "with --token-file)");
    fleet->add_option(
        "--token-file", arguments.tokenFile,
        "With --compare-service: a file whose first line is an admin token (role read or more)");
    fleet->add_option("--report", cli.arguments.reportFile,
                      "Write a self-contained HTML report of the totals here");
    addTilesOption(fleet, cli.tiles);
    fleet->add_flag("--quiet", arguments.quiet, "Print no progress");
    fleet->add_flag(
        "--json", arguments.json,
        "With --compare: print only the comparison, as JSON ({\"devices\", \"deliveries\", \"offers\"})");
}

void addReplayOptions(CLI::App* replay, CommandLine& cli) {
    tovrel::sim::ReplayOptions& options = cli.replay;
    replay->footer(
        "Exit status: 0 the replay and the service agree on every offer; 1 they disagree on one or more; 2 a "
        "usage error or an unusable day or place file; 3 the day could not be fetched, or the replay "
        "stopped.");
    replay->add_option("--day", options.dayFile,
                       "A device's day as GET /admin/v1/devices/ID/day answers it (JSON)");
    replay->add_option(
        "--admin", options.adminUrl,
        "Fetch the day from this admin listener instead (with --token-file, --device, --date)");
    replay->add_option("--token-file", cli.replayTokenFile,
                       "A file whose first line is an admin token (role read or more)");
    replay->add_option("--device", options.deviceId, "The deviceId the device sends");
    replay->add_option("--date", options.date, "The UTC day, YYYY-MM-DD");
    replay->add_option("--places", options.placesFile,
                       "The place file to replay against (default: the service's catalogue, from --admin)");
    replay->add_option("--report", options.reportFile, "Write a self-contained HTML report here");
    replay
        ->add_option("--gap", options.limits.gapSeconds,
                     "Seconds without a position beyond which the track between is a guess")
        ->capture_default_str()
        ->check(CLI::Range(10.0, 86400.0));
    replay->add_flag("--json", options.asJson, "Print the findings as JSON");
    addTilesOption(replay, options.tiles);
}

/// The replay command; its exit status.
int replayCommand(CommandLine& cli) {
    tovrel::sim::ReplayOptions& replayOptions = cli.replay;
    const std::string& tokenFile = cli.replayTokenFile;
    const bool fromService = !replayOptions.adminUrl.empty() && !tokenFile.empty();
    const bool dayFromService = !replayOptions.deviceId.empty() || !replayOptions.date.empty();
    if (replayOptions.dayFile.empty() != dayFromService ||
        (dayFromService && (!fromService || replayOptions.deviceId.empty() || replayOptions.date.empty()))) {
        std::cerr << "tovrel-sim: replay takes --day FILE, or --admin URL with --token-file, --device "
                     "and --date\n";
        return kBadInput;
    }
    if (replayOptions.placesFile.empty() && !fromService) {
        std::cerr << "tovrel-sim: replay takes --places FILE, or --admin URL with --token-file to replay "
                     "against the service's catalogue\n";
        return kBadInput;
    }
    replayOptions.contentDir = cli.options.contentDir;
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

/// Writes the live catalogue of the --compare-service listener to `liveCatalogue` and compares
/// against it; false after a message when it cannot be fetched.
bool fetchLiveCatalogue(FleetArguments& fleet, const std::filesystem::path& draftFile,
                        std::optional<tovrel::server::TemporaryFile>& liveCatalogue) {
    try {
        const std::string token = tovrel::sim::readTokenFile(fleet.tokenFile);
        // The export holds no apps (their keys are credentials): the live side gets the draft's.
        nlohmann::json live =
            nlohmann::json::parse(tovrel::sim::adminGet(fleet.compareService, token, "catalogue"));
        std::ifstream draftIn(draftFile);
        const nlohmann::json draft = nlohmann::json::parse(draftIn, nullptr, false);
        if (draft.is_object() && draft.contains("properties") && draft["properties"].is_object() &&
            draft["properties"].contains("apps")) {
            live["properties"]["apps"] = draft["properties"]["apps"];
        }
        liveCatalogue.emplace("tovrel-live-catalogue", ".geojson");
        liveCatalogue->write(live.dump());
        fleet.compare = liveCatalogue->path();
    } catch (const std::exception& error) {
        std::cerr << "tovrel-sim: " << error.what() << '\n';
        return false;
    }
    return true;
}

/// Gives the devices their routes: the folder's, or places to make them up around; false after a
/// message when they cannot be read.
bool chooseFleetRoutes(const FleetArguments& fleet, const std::filesystem::path& placesFile,
                       tovrel::sim::FleetOptions& fleetOptions) {
    try {
        if (!fleet.routes.empty()) {
            fleetOptions.source = tovrel::sim::FleetRoutes::kFolder;
            fleetOptions.routes = tovrel::sim::loadRouteFolder(fleet.routes);
        } else {
            fleetOptions.source = fleet.generate == "walks"    ? tovrel::sim::FleetRoutes::kWalks
                                  : fleet.generate == "drives" ? tovrel::sim::FleetRoutes::kDrives
                                                               : tovrel::sim::FleetRoutes::kMixed;
            fleetOptions.places = tovrel::sim::readPlaceCircles(placesFile);
        }
    } catch (const tovrel::sim::RouteError& error) {
        std::cerr << "tovrel-sim: " << error.what() << '\n';
        return false;
    }
    return true;
}

/// Runs the fleet into `totals`; with --compare runs it over both catalogues and prints the
/// comparison. An exit status when the command ends here: unusable input, or --json (which prints the
/// comparison alone).
std::optional<int> runFleetDevices(const tovrel::sim::FleetOptions& fleetOptions, const CommandLine& cli,
                                   std::ofstream& events, tovrel::sim::FleetAggregate& totals) {
    try {
        if (cli.fleet.compare.empty()) {
            totals = tovrel::sim::runFleet(fleetOptions);
            return std::nullopt;
        }
        const tovrel::sim::Preview preview =
            tovrel::sim::runPreview(fleetOptions, cli.options.placesFile, cli.fleet.compare);
        totals = preview.draft;
        if (events.is_open()) {
            nlohmann::json line = tovrel::sim::comparisonJson(preview.changes, preview.draft, preview.live);
            line["type"] = "comparison";
            events << line.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) << '\n';
        }
        if (cli.fleet.json) {
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
    } catch (const tovrel::sim::SimInputError& error) {
        std::cerr << "tovrel-sim: " << error.what() << '\n';
        return kBadInput;
    } catch (const tovrel::sim::RouteError& error) {
        std::cerr << "tovrel-sim: " << error.what() << '\n';
        return kBadInput;
    }
    return std::nullopt;
}

/// Writes the totals to the events file and the report, prints them; the exit status.
int finishFleet(const tovrel::sim::FleetAggregate& totals, double wall, const CommandLine& cli,
                const std::vector<tovrel::sim::Expectation>& expectations, std::ofstream& events,
                std::ofstream& report) {
    if (events.is_open()) {
        nlohmann::json line = totals.toJson();
        line["type"] = "fleet";
        events << line.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) << '\n';
    }
    if (report.is_open()) {
        tovrel::sim::writeFleetReport("Tovrel fleet: " + std::to_string(totals.devices) + " devices", totals,
                                      wall, cli.tiles, report);
    }
    totals.printSummary(std::cout);
    std::cout << "wall time " << wall << " s: " << (wall > 0 ? totals.deviceHours() / wall : 0)
              << " device-hours per second";
    if (!cli.arguments.reportFile.empty()) {
        std::cout << "; report: " << cli.arguments.reportFile;
    }
    std::cout << '\n';
    if (totals.firstStop) {
        std::cerr << "tovrel-sim: " << totals.sessionsNeverStarted << " devices never started a session, "
                  << totals.timeStalled << " stalled; device " << totals.firstStop->first << ": "
                  << totals.firstStop->second << '\n';
        return totals.sessionsNeverStarted > 0 ? kSessionNeverStarted : kTimeStalled;
    }
    return reportExpectations(expectations, tovrel::sim::checkExpectations(expectations, totals.tallies()));
}

/// The fleet command; its exit status.
int fleetCommand(CommandLine& cli, const std::vector<tovrel::sim::Expectation>& expectations,
                 std::ofstream& events, std::ofstream& report) {
    FleetArguments& fleet = cli.fleet;
    if (!fleet.routes.empty() && !fleet.generate.empty()) {
        std::cerr << "tovrel-sim: --routes and --generate exclude each other\n";
        return kBadInput;
    }
    if (!fleet.compareService.empty() && (!fleet.compare.empty() || fleet.tokenFile.empty())) {
        std::cerr << "tovrel-sim: --compare-service takes --token-file, and excludes --compare\n";
        return kBadInput;
    }
    std::optional<tovrel::server::TemporaryFile> liveCatalogue;
    if (!fleet.compareService.empty() && !fetchLiveCatalogue(fleet, cli.options.placesFile, liveCatalogue)) {
        return kSessionNeverStarted;
    }
    tovrel::sim::FleetOptions fleetOptions;
    fleetOptions.device = cli.options;
    fleetOptions.devices = fleet.devices;
    fleetOptions.days = fleet.days;
    fleetOptions.jobs = fleet.jobs;
    fleetOptions.seed = cli.arguments.seed;
    fleetOptions.gpsNoise = cli.arguments.gpsNoise;
    fleetOptions.deviceLines = events.is_open() ? &events : nullptr;
    fleetOptions.progress = isatty(STDERR_FILENO) != 0 && !fleet.quiet;
    if (!chooseFleetRoutes(fleet, cli.options.placesFile, fleetOptions)) {
        return kBadInput;
    }
    const auto wallStart = std::chrono::steady_clock::now();
    tovrel::sim::FleetAggregate totals;
    if (const auto status = runFleetDevices(fleetOptions, cli, events, totals)) {
        return *status;
    }
    const double wall = std::chrono::duration<double>(std::chrono::steady_clock::now() - wallStart).count();
    return finishFleet(totals, wall, cli, expectations, events, report);
}

void printRunSummary(const tovrel::sim::SimOutcome& outcome, const std::string& reportFile) {
    const auto count = [&outcome](const char* type) {
        const auto found = outcome.counts.find(type);
        return found == outcome.counts.end() ? std::size_t{0} : found->second;
    };
    const std::size_t requests = count("request");
    const std::size_t delivered = count("notification") + count("alert");
    std::cout << "simulated " << static_cast<long>(outcome.simulatedSeconds) << " s in "
              << outcome.wallSeconds << " s of wall time: " << requests << " requests, " << delivered
              << " offers delivered";
    if (!reportFile.empty()) {
        std::cout << "; report: " << reportFile;
    }
    std::cout << '\n';
    for (const auto& offer : outcome.offers) {
        std::cout << "  offer " << offer.eventId << " \"" << offer.eventName << "\" at place "
                  << offer.placeId << ": " << offer.reason << '\n';
    }
    printGpsOn(outcome.gpsOn);
}

/// The run command; its exit status.
int runCommand(CommandLine& cli, const std::vector<tovrel::sim::Expectation>& expectations,
               std::ofstream& events, std::ofstream& report) {
    tovrel::sim::SimOptions& options = cli.options;
    options.routeFile = cli.route;
    if (!cli.stateDir.empty()) {
        options.stateDir = cli.stateDir;
    }
    if (cli.arguments.gpsNoise) {
        options.gpsNoiseSeed = cli.arguments.seed;
    }
    options.progress = isatty(STDERR_FILENO) != 0 && !options.quiet;
    tovrel::sim::SimOutcome outcome;
    try {
        outcome = tovrel::sim::runSimulation(options, options.quiet ? nullptr : &std::cout,
                                             cli.arguments.eventsFile.empty() ? nullptr : &events);
    } catch (const tovrel::sim::SimInputError& error) {
        std::cerr << "tovrel-sim: " << error.what() << '\n';
        return kBadInput;
    }

    if (report.is_open()) {
        tovrel::sim::writeHtmlReport(
            {"Tovrel simulation: " + options.routeFile.filename().string(), outcome.route, outcome.events,
             outcome.wallSeconds, outcome.eventsNotKept, cli.tiles,
             cli.arguments.service.empty() ? options.placesFile : ""},
            report);
    }
    printRunSummary(outcome, cli.arguments.reportFile);
    if (outcome.stop != tovrel::sim::RunStop::kNone) {
        std::cerr << "tovrel-sim: " << outcome.stopMessage << '\n';
        return outcome.stop == tovrel::sim::RunStop::kSessionNeverStarted ? kSessionNeverStarted
                                                                          : kTimeStalled;
    }
    return reportExpectations(expectations, tovrel::sim::checkExpectations(expectations, outcome.offers));
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

    CommandLine cli;
    const auto data = tovrel::paths::dataDirectory();
    cli.options.placesFile = (data / "places" / "munich.geojson").string();
    cli.options.contentDir = (data / "content").string();
    cli.replay.tiles = tovrel::sim::kOpenStreetMapTiles;
    addRunOptions(run, cli);
    addFleetOptions(fleet, cli);
    fleet->excludes(run);
    addReplayOptions(replay, cli);
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
        return replayCommand(cli);
    }

    std::vector<tovrel::sim::Expectation> expectations;
    if (!applyDeviceArguments(cli.arguments, cli.options, expectations)) {
        return kBadInput;
    }
    std::ofstream events;
    std::ofstream report;
    if (!openOutput(cli.arguments.eventsFile, events) || !openOutput(cli.arguments.reportFile, report)) {
        return kBadInput;
    }
    if (fleet->parsed()) {
        return fleetCommand(cli, expectations, events, report);
    }
    return runCommand(cli, expectations, events, report);
}
