// tovrel-sim: drives one device through a location-enabled session of the component, along a route,
// in virtual time, against an embedded or remote service, and reports what happened.
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <fstream>
#include <iostream>

#include "expectations.h"
#include "html_report.h"
#include "simulation.h"
#include "tovrel/paths/data_directory.h"
#include "tovrel/tools/command_line.h"

namespace {

using tovrel::sim::AlertAnswer;

constexpr int kExpectationFailed = 1;
constexpr int kBadInput = tovrel::tools::kUsageError;
constexpr int kSessionNeverStarted = 3;
constexpr int kTimeStalled = 4;

bool onOff(const std::string& value) {
    return value == "on";
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app{"tovrel-sim: a whole session of the Tovrel component along a route, in virtual time"};
    tovrel::tools::addVersionFlag(app, "tovrel-sim");
    app.require_subcommand(1);
    auto* run = app.add_subcommand("run", "Drive one device along a route and print a timeline");

    tovrel::sim::SimOptions options;
    const auto data = tovrel::paths::dataDirectory();
    options.placesFile = (data / "places" / "munich.geojson").string();
    options.contentDir = (data / "content").string();
    std::string route;
    std::string places;
    std::string service;
    std::string notifications = "on";
    std::string offerView = "on";
    std::string appState = "background";
    std::string answer = "view";
    std::string stateDir;
    std::string eventsFile;
    std::string reportFile;

    run->add_option("--route", route,
                    "Positions to replay: GPX (trkpt with time) or CSV lines t,lat,lon[,activity]")
        ->required();
    run->add_option("--places", places,
                    "Places for the embedded service (GeoJSON; default: the example data set)");
    run->add_option("--service", service,
                    "Talk to this service (base URL) instead of starting the embedded one");
    run->add_option("--sdk-key", options.sdkKey,
                    "The SDK key (default: the example key the embedded service knows)");
    run->add_option("--notifications", notifications, "Present notifications: on or off (default on)")
        ->check(CLI::IsMember({"on", "off"}));
    run->add_option("--offer-view", offerView, "Present the offer view: on or off (default on)")
        ->check(CLI::IsMember({"on", "off"}));
    run->add_option("--app-state", appState,
                    "active, background, or a timeline such as 0:background,600:active,900:background");
    run->add_option("--answer", answer,
                    "How the user answers each event alert: never, view or later (default view)")
        ->check(CLI::IsMember({"never", "view", "later"}));
    run->add_flag("--tap-notifications", options.tapNotifications,
                  "The user opens every local notification 10 s after it appears");
    run->add_option("--state", stateDir, "Keep the device's preferences here, so a later run continues");
    run->add_option("--linger", options.lingerSeconds,
                    "Keep the session running this long after the last position")
        ->check(CLI::NonNegativeNumber);
    run->add_flag("--terminate", options.terminate, "End with the application-terminate notification");
    run->add_option("--events", eventsFile, "Write everything observable here, one JSON object a line");
    run->add_option("--report", reportFile, "Write a self-contained HTML report here");
    std::string tiles = tovrel::sim::kOpenStreetMapTiles;
    run->add_option("--tiles", tiles,
                    "Map tiles the report loads when viewed online: a URL template with {z}, {x}, {y} "
                    "(default OpenStreetMap), or off")
        ->check([](const std::string& value) {
            const bool usable = value == "off" || (value.find("{z}") != std::string::npos &&
                                                   value.find("{x}") != std::string::npos &&
                                                   value.find("{y}") != std::string::npos);
            return usable ? std::string() : "a URL template with {z}, {x} and {y}, or off";
        });
    run->add_flag("--realtime", options.realtime, "Run on the wall clock instead of virtual time");
    run->add_flag("--quiet", options.quiet, "Print no timeline");
    run->add_option("--session-attempts", options.sessionAttempts,
                    "End the run after this many failed session starts in a row (default 5)")
        ->check(CLI::Range(1, 1000000));
    std::vector<std::string> expectTexts;
    std::string expectFile;
    run->add_option(
        "--expect", expectTexts,
        "A rule the run must meet (repeatable): offer:ID=delivered, offer:ID@PLACE=not-delivered, "
        "place:ID=entered, deliveries<=3, link-requests<=20; states delivered, linked, entered, "
        "notification, alert, answered, each may start with not-");
    run->add_option("--expect-file", expectFile, "Rules to meet, one a line ('#' comments)");
    double maxDuration = -1;
    run->add_option("--max-duration", maxDuration, "Simulate at most this many seconds of the route")
        ->check(CLI::PositiveNumber);
    app.footer(
        "Exit status: 0 the run completed (and met every expectation); 1 an expectation failed; 2 a usage "
        "error or unusable input (an unreadable rule included); 3 the session never started; 4 virtual time "
        "stopped advancing (a request retried without end).");

    if (const auto status = tovrel::tools::parseCommandLine(app, argc, argv)) {
        return *status;
    }

    std::vector<tovrel::sim::Expectation> expectations;
    try {
        expectations.reserve(expectTexts.size());
        for (const auto& text : expectTexts) {
            expectations.push_back(tovrel::sim::parseExpectation(text));
        }
        if (!expectFile.empty()) {
            const auto fromFile = tovrel::sim::readExpectationFile(expectFile);
            expectations.insert(expectations.end(), fromFile.begin(), fromFile.end());
        }
    } catch (const tovrel::sim::ExpectationError& error) {
        std::cerr << "tovrel-sim: " << error.what() << '\n';
        return kBadInput;
    }
    options.routeFile = route;
    if (maxDuration > 0) {
        options.maxDuration = maxDuration;
    }
    if (!places.empty()) {
        options.placesFile = places;
    }
    if (!service.empty()) {
        options.serviceURL = service;
    }
    if (!stateDir.empty()) {
        options.stateDir = stateDir;
    }
    options.presentNotifications = onOff(notifications);
    options.presentOfferView = onOff(offerView);
    options.answer = answer == "never"   ? AlertAnswer::kNever
                     : answer == "later" ? AlertAnswer::kLater
                                         : AlertAnswer::kView;
    options.progress = isatty(STDERR_FILENO) != 0 && !options.quiet;
    try {
        options.appStates = tovrel::sim::parseAppStateTimeline(appState);
    } catch (const std::exception& error) {
        std::cerr << "tovrel-sim: " << error.what() << '\n';
        return kBadInput;
    }

    std::ofstream events;
    if (!eventsFile.empty()) {
        events.open(eventsFile, std::ios::trunc);
        if (!events) {
            std::cerr << "tovrel-sim: " << eventsFile << ": cannot be written\n";
            return kBadInput;
        }
    }
    std::ofstream report;
    if (!reportFile.empty()) {
        report.open(reportFile, std::ios::trunc);
        if (!report) {
            std::cerr << "tovrel-sim: " << reportFile << ": cannot be written\n";
            return kBadInput;
        }
    }

    tovrel::sim::SimOutcome outcome;
    try {
        outcome = tovrel::sim::runSimulation(options, options.quiet ? nullptr : &std::cout,
                                             eventsFile.empty() ? nullptr : &events);
    } catch (const tovrel::sim::SimInputError& error) {
        std::cerr << "tovrel-sim: " << error.what() << '\n';
        return kBadInput;
    }

    if (report.is_open()) {
        tovrel::sim::writeHtmlReport(
            {"Tovrel simulation: " + options.routeFile.filename().string(), outcome.route, outcome.events,
             outcome.wallSeconds, outcome.eventsNotKept, tiles, service.empty() ? options.placesFile : ""},
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
    if (!reportFile.empty()) {
        std::cout << "; report: " << reportFile;
    }
    std::cout << '\n';
    for (const auto& offer : outcome.offers) {
        std::cout << "  offer " << offer.eventId << " \"" << offer.eventName << "\" at place "
                  << offer.placeId << ": " << offer.reason << '\n';
    }
    if (outcome.stop != tovrel::sim::RunStop::kNone) {
        std::cerr << "tovrel-sim: " << outcome.stopMessage << '\n';
        return outcome.stop == tovrel::sim::RunStop::kSessionNeverStarted ? kSessionNeverStarted
                                                                          : kTimeStalled;
    }
    int failed = 0;
    for (const auto& result : tovrel::sim::checkExpectations(expectations, outcome.offers)) {
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
