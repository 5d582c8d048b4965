// tovrel-server: serve the API, import places, manage app keys and print usage reports.
#include <pthread.h>

#include <CLI/CLI.hpp>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <iostream>
#include <nlohmann/json.hpp>
#include <stdexcept>

#include "catalog_data.h"
#include "listen_address.h"
#include "report.h"
#include "tovrel/tools/command_line.h"
#include "tovrel_server/server.h"

namespace {

using namespace tovrel_server;

int serve(const std::string& listen, ServerOptions options) {
    const ListenAddress address = parseListenAddress(listen);
    options.listenAddress = address.host;
    options.port = address.port;
    const std::string db = options.dbPath;
    const std::string content = options.contentDir;

    // Blocked before the worker threads start so that only sigwait() below sees them.
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGHUP);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);

    Server server(options);
    const uint16_t port = server.start();
    std::printf("tovrel-server: serving %s on %s:%u%s%s\n", db.c_str(), address.host.c_str(), port,
                content.empty() ? "" : ", pages from ", content.c_str());
    std::fflush(stdout);
    for (;;) {
        int signal = 0;
        sigwait(&signals, &signal);
        if (signal == SIGHUP) {
            server.reloadPlaces();
            std::printf("tovrel-server: places reloaded\n");
            std::fflush(stdout);
            continue;
        }
        break;
    }
    std::printf("tovrel-server: stopping\n");
    server.stop();
    return 0;
}

int report(const std::string& db, bool asJson, bool byDay) {
    const Report r = readReport(db);
    const Funnel funnel = readFunnel(db, byDay);
    if (!asJson) {
        std::cout << formatReport(funnel, r.logCounts);
        return 0;
    }
    nlohmann::json out = funnelJson(funnel);
    out["log"] = r.logCounts;
    std::cout << out.dump(2) << '\n';
    return 0;
}

// Prints every problem of a place file; writes nothing. 0: valid, 1: problems (or unreadable).
int validatePlaces(const std::string& file, bool asJson) {
    const PlaceFileCheck check = checkPlaceFile(file);
    if (asJson) {
        nlohmann::json problems = nlohmann::json::array();
        for (const PlaceFileProblem& p : check.problems) {
            problems.push_back({{"feature", p.feature ? nlohmann::json(*p.feature) : nlohmann::json()},
                                {"member", p.member},
                                {"message", p.message}});
        }
        std::cout << nlohmann::json{{"file", file}, {"problems", problems}}.dump(2) << '\n';
    } else if (check.catalog) {
        std::printf("%s: valid: %zu places, %zu offers, %zu campaigns, %zu apps\n", file.c_str(),
                    check.catalog->placeCount(), check.catalog->offerCount(), check.catalog->campaigns.size(),
                    check.catalog->apps.size());
    } else {
        for (const PlaceFileProblem& p : check.problems) {
            std::printf("%s\n", p.message.c_str());
        }
        std::printf("%s: %zu problem%s\n", file.c_str(), check.problems.size(),
                    check.problems.size() == 1 ? "" : "s");
    }
    return check.problems.empty() ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app{"tovrel-server: the self-hostable back-end of the Tovrel location service"};
    tovrel::tools::addVersionFlag(app, "tovrel-server");
    app.require_subcommand(1);

    std::string db;
    auto addDb = [&db](CLI::App* command) {
        command->add_option("--db", db, "SQLite database file (created when missing)")->required();
    };

    CLI::App* serveCmd = app.add_subcommand("serve", "Serve the HTTP API and the content pages");
    std::string listen = "127.0.0.1:8080";
    ServerOptions serveOptions;
    addDb(serveCmd);
    serveCmd->add_option("--listen", listen, "HOST:PORT to listen on ([::1]:8080 for IPv6)")
        ->capture_default_str()
        ->check([](const std::string& text) {
            try {
                parseListenAddress(text);
                return std::string();
            } catch (const std::invalid_argument& error) {
                return std::string(error.what());
            }
        });
    serveCmd->add_option("--content", serveOptions.contentDir, "Folder of static pages (appcontent/, media/)")
        ->check(CLI::ExistingDirectory);
    serveCmd->add_option("--threads", serveOptions.threads, "HTTP worker threads")
        ->capture_default_str()
        ->check(CLI::Range(1, 64));
    serveCmd->add_option(
        "--media-base", serveOptions.mediaBaseUrl,
        "Scheme and host put before relative media addresses (default: http:// + the request's Host)");
    serveCmd
        ->add_option("--timeout", serveOptions.requestTimeoutSeconds,
                     "Seconds a connection may take to send one request")
        ->capture_default_str()
        ->check(CLI::Range(1, 3600));
    serveCmd
        ->add_option("--max-connections", serveOptions.maxConnections,
                     "Open connections at most; more are answered 503 and closed")
        ->capture_default_str()
        ->check(CLI::Range(1, 1000000));
    serveCmd
        ->add_option("--max-connections-per-address", serveOptions.maxConnectionsPerAddress,
                     "Open connections at most from one client address")
        ->capture_default_str()
        ->check(CLI::Range(1, 1000000));

    CLI::App* importCmd = app.add_subcommand("import", "Import a GeoJSON place file (see docs/server.md)");
    std::string file;
    importCmd->add_option("FILE", file, "GeoJSON FeatureCollection of Point features")->required();
    addDb(importCmd);

    CLI::App* placesCmd = app.add_subcommand("places", "Work with place files");
    placesCmd->require_subcommand(1);
    CLI::App* placesValidate = placesCmd->add_subcommand(
        "validate", "Check a GeoJSON place file and list every problem; writes nothing");
    std::string placeFile;
    bool validateJson = false;
    placesValidate->add_option("FILE", placeFile, "GeoJSON FeatureCollection of Point features")->required();
    placesValidate->add_flag("--json", validateJson, "Print the problems as JSON (feature, member, message)");

    CLI::App* appsCmd = app.add_subcommand("apps", "Manage the app keys that may start sessions");
    appsCmd->require_subcommand(1);
    CLI::App* appsAdd = appsCmd->add_subcommand("add", "Add an app key (or rename an existing one)");
    std::string key;
    std::string name;
    appsAdd->add_option("KEY", key, "The sdkkey the app sends")->required();
    appsAdd->add_option("NAME", name, "A name for people")->required();
    addDb(appsAdd);

    CLI::App* reportCmd = app.add_subcommand(
        "report", "Print the funnel (links, answers) per campaign and offer, and log counts");
    bool asJson = false;
    bool byDay = false;
    addDb(reportCmd);
    reportCmd->add_flag("--json", asJson, "Print JSON instead of tables");
    reportCmd->add_flag("--by-day", byDay, "Also count per UTC day");

    if (const auto status = tovrel::tools::parseCommandLine(app, argc, argv)) {
        return *status;
    }

    try {
        if (serveCmd->parsed()) {
            serveOptions.dbPath = db;
            return serve(listen, serveOptions);
        }
        if (importCmd->parsed()) {
            const ImportSummary s = importGeoJsonFile(db, file);
            std::printf("imported %d places, %d offers, %d campaigns, %d apps into %s\n", s.places, s.offers,
                        s.campaigns, s.apps, db.c_str());
            return 0;
        }
        if (placesValidate->parsed()) {
            return validatePlaces(placeFile, validateJson);
        }
        if (appsAdd->parsed()) {
            addAppKey(db, key, name);
            std::printf("app key \"%s\" (%s) added to %s\n", key.c_str(), name.c_str(), db.c_str());
            return 0;
        }
        if (reportCmd->parsed()) {
            return report(db, asJson, byDay);
        }
    } catch (const std::exception& e) {
        std::fprintf(stderr, "tovrel-server: %s\n", e.what());
        return 1;
    }
    return 0;
}
