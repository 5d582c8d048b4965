// tovrel-server: serve the API, import places, manage app keys and print usage reports.
#include <pthread.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <vector>

#include "access_command.h"
#include "admin/admin_handler.h"
#include "admin/preview_process.h"
#include "catalog/catalog_data.h"
#include "http/listen_address.h"
#include "observability/log.h"
#include "store/device_data.h"
#include "store/report.h"
#include "store/store.h"
#include "tovrel/paths/data_directory.h"
#include "tovrel/tools/command_line.h"
#include "tovrel_server/server.h"
#include "webhooks_command.h"

namespace {

using namespace tovrel::server;

struct ServeSettings {
    std::string listen = "127.0.0.1:8080";
    std::string adminListen = "127.0.0.1:8081";
    std::string adminTokenFile;
    bool tokenReadableByOthers = false;
    std::string consoleDir = "auto";
    std::string accessLog = "on";
    ServerOptions options;
};

std::string hostPort(const std::string& host, uint16_t port) {
    return (host.find(':') != std::string::npos ? "[" + host + "]" : host) + ":" + std::to_string(port);
}

int serve(ServeSettings settings) {
    ServerOptions& options = settings.options;
    const ListenAddress address = parseListenAddress(settings.listen);
    options.listenAddress = address.host;
    options.port = address.port;
    if (settings.adminListen != "off") {
        const ListenAddress admin = parseListenAddress(settings.adminListen);
        options.adminAddress = admin.host;
        options.adminPort = admin.port;
    }
    if (!settings.adminTokenFile.empty()) {
        options.adminToken = readAdminToken(settings.adminTokenFile, settings.tokenReadableByOthers);
    }
    if (settings.consoleDir == "auto") {
        // Installed beside the program (share/tovrel/console), as the build tree lays it out too.
        const auto installed = tovrel::paths::dataDirectory() / "console";
        std::error_code missing;
        options.consoleDir = std::filesystem::is_regular_file(installed / "index.html", missing)
                                 ? installed.string()
                                 : std::string();
    } else if (settings.consoleDir != "off") {
        options.consoleDir = settings.consoleDir;
    }
    options.accessLog = settings.accessLog == "on";
    options.logSink = Logger::descriptorSink(STDOUT_FILENO);
    const Logger logger(*parseLogLevel(options.logLevel), options.logSink, false);
    const DescriptorFit fit = fitDescriptorLimit(options);
    if (fit.lowered()) {
        logger.write(LogLevel::warn, logger.line(LogLevel::warn, "max-connections lowered")
                                         .add("asked", fit.maxConnectionsBefore)
                                         .add("maxConnections", fit.maxConnections)
                                         .add("openFilesLimit", fit.soft)
                                         .add("hardLimit", fit.hard)
                                         .add("hint", "raise LimitNOFILE= or ulimit -n"));
    }

    // Blocked before the worker threads start so that only sigwait() below sees them.
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGHUP);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);

    Server server(options);
    const uint16_t port = server.start();
    // Scripts read the address from this first line.
    auto serving = logger.line(LogLevel::info, "serving");
    serving.add("listen", hostPort(address.host, port))
        .add("tls", !options.tlsCertificateFile.empty())
        .add("db", displayLocation(options.dbPath));
    if (server.adminPort() != 0) {
        serving.add("admin", hostPort(options.adminAddress, server.adminPort()))
            .add("adminApi", !options.adminToken.empty());
    }
    if (!options.contentDir.empty()) {
        serving.add("content", options.contentDir);
    }
    std::fputs(std::move(serving).finish().c_str(), stdout);
    std::fflush(stdout);
    for (;;) {
        int signal = 0;
        sigwait(&signals, &signal);
        if (signal == SIGHUP) {
            try {
                server.reloadPlaces();
                logger.write(LogLevel::info, logger.line(LogLevel::info, "places reloaded"));
            } catch (const std::exception& e) {
                // The database is busy or away: the places in memory stay served; SIGHUP again later.
                logger.write(LogLevel::warn,
                             logger.line(LogLevel::warn, "places not reloaded").add("error", e.what()));
            }
            continue;
        }
        logger.write(LogLevel::info,
                     logger.line(LogLevel::info, "stopping").add("signal", strsignal(signal)));
        break;
    }
    server.stop();
    logger.write(LogLevel::info, logger.line(LogLevel::info, "stopped"));
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

// Changes by these verbs reach a running server at its next SIGHUP (campaigns) or session start (apps).
std::unique_ptr<Store> openExisting(const std::string& db) {
    if (!isPostgresLocation(db) && !std::filesystem::exists(db)) {
        throw std::runtime_error("there is no database " + db);
    }
    return openStore(db);
}

int listTable(const std::string& dbPath, bool apps) {
    const auto store = openExisting(dbPath);
    const nlohmann::json rows = apps ? store->listApps() : store->listCampaigns();
    std::vector<std::vector<std::string>> table;
    if (apps) {
        table.push_back({"key", "name", "state"});
        for (const auto& row : rows) {
            table.push_back({row["key"], row["name"], row["disabled"] ? "disabled" : "enabled"});
        }
    } else {
        table.push_back({"id", "name", "start", "end", "cap", "offers", "state"});
        for (const auto& row : rows) {
            table.push_back(
                {std::to_string(row["id"].get<int64_t>()), row["name"], row["startDate"], row["endDate"],
                 row["perDeviceCap"].is_null() ? "-" : std::to_string(row["perDeviceCap"].get<int64_t>()),
                 std::to_string(row["offers"].get<int64_t>()), row["disabled"] ? "disabled" : "enabled"});
        }
    }
    std::cout << formatTable(table, table.front().size());
    return 0;
}

int changeApp(const std::string& dbPath, const std::string& verb, const std::string& key) {
    const auto store = openExisting(dbPath);
    if (verb == "rotate") {
        const auto fresh = store->rotateApp(key);
        if (!fresh) {
            throw std::runtime_error("there is no app key \"" + key + "\"");
        }
        std::printf("%s\n", fresh->c_str());
        return 0;
    }
    const bool done =
        verb == "remove" ? store->removeApp(key) : store->setAppDisabled(key, verb == "disable");
    if (!done) {
        throw std::runtime_error("there is no app key \"" + key + "\"");
    }
    std::printf("app key \"%s\": %sd\n", key.c_str(), verb.c_str());
    return 0;
}

int changeCampaign(const std::string& dbPath, const std::string& campaign, bool disable) {
    const auto store = openExisting(dbPath);
    const auto id = store->findCampaign(campaign);
    if (!id || !store->setCampaignDisabled(*id, disable)) {
        throw std::runtime_error("there is no campaign \"" + campaign + "\"");
    }
    std::printf("campaign \"%s\": %s (a running server serves the change after SIGHUP)\n", campaign.c_str(),
                disable ? "disabled" : "enabled");
    return 0;
}

// Prints what the store holds about a device (with its log messages when exporting), or erases it.
int deviceCommand(const std::string& dbPath, const std::string& verb, const std::string& deviceId) {
    const auto store = openExisting(dbPath);
    if (verb == "erase") {
        const auto erased = store->eraseDevice(deviceId);
        recordCommandLineChange(*store, "devices.erase", deviceId, erased ? 200 : 404);
        if (!erased) {
            throw std::runtime_error("there is no device \"" + deviceId + "\"");
        }
        std::cout << nlohmann::json{{"deviceId", deviceId}, {"erased", erasedJson(*erased)}}.dump(2) << '\n';
        return 0;
    }
    const auto record = store->deviceRecord(deviceId, verb == "export");
    if (!record) {
        throw std::runtime_error("there is no device \"" + deviceId + "\"");
    }
    std::cout << record->dump(2) << '\n';
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
    app.set_config("--config", "",
                   "Read settings from a TOML or INI file ([serve] section for serve's options)");
    app.require_subcommand(1);

    std::string db;
    auto addDb = [&db](CLI::App* command) {
        command
            ->add_option("--db", db,
                         "SQLite database file (created when missing), or a postgresql:// address of a "
                         "PostgreSQL database shared by several servers")
            ->required()
            ->envname("TOVREL_DB");
    };
    const auto listenCheck = [](const std::string& text) {
        try {
            parseListenAddress(text);
            return std::string();
        } catch (const std::invalid_argument& error) {
            return std::string(error.what());
        }
    };

    CLI::App* serveCmd = app.add_subcommand("serve", "Serve the HTTP API and the content pages");
    ServeSettings settings;
    ServerOptions& serveOptions = settings.options;
    serveOptions.logRateLimit = 1;
    addDb(serveCmd);
    serveCmd->add_option("--listen", settings.listen, "HOST:PORT to listen on ([::1]:8080 for IPv6)")
        ->capture_default_str()
        ->envname("TOVREL_LISTEN")
        ->check(listenCheck);
    serveCmd->add_option("--content", serveOptions.contentDir, "Folder of static pages (appcontent/, media/)")
        ->envname("TOVREL_CONTENT")
        ->check(CLI::ExistingDirectory);
    serveCmd->add_option("--threads", serveOptions.threads, "HTTP worker threads")
        ->capture_default_str()
        ->envname("TOVREL_THREADS")
        ->check(CLI::Range(1, 64));
    serveCmd
        ->add_option("--media-base", serveOptions.mediaBaseUrl,
                     "Scheme and host put before relative media addresses (default: the request's Host)")
        ->envname("TOVREL_MEDIA_BASE");
    serveCmd
        ->add_option("--timeout", serveOptions.requestTimeoutSeconds,
                     "Seconds a connection may take to send one request")
        ->capture_default_str()
        ->envname("TOVREL_TIMEOUT")
        ->check(CLI::Range(1, 3600));
    serveCmd
        ->add_option("--max-connections", serveOptions.maxConnections,
                     "Open connections at most; more are answered 503 and closed")
        ->capture_default_str()
        ->envname("TOVREL_MAX_CONNECTIONS")
        ->check(CLI::Range(1, 1000000));
    serveCmd
        ->add_option("--max-connections-per-address", serveOptions.maxConnectionsPerAddress,
                     "Open connections at most from one client address")
        ->capture_default_str()
        ->envname("TOVREL_MAX_CONNECTIONS_PER_ADDRESS")
        ->check(CLI::Range(1, 1000000));
    serveCmd
        ->add_option("--max-connections-per-prefix", serveOptions.maxConnectionsPerPrefix,
                     "Open connections at most from one network (a /24 of IPv4, a /64 of IPv6); 0: no cap")
        ->capture_default_str()
        ->envname("TOVREL_MAX_CONNECTIONS_PER_PREFIX")
        ->check(CLI::Range(0, 1000000));
    serveCmd
        ->add_option("--rate-limit", serveOptions.rateLimit,
                     "Requests a second per client address (bursts of twice that), 429 beyond; 0: off")
        ->capture_default_str()
        ->envname("TOVREL_RATE_LIMIT")
        ->check(CLI::Range(0.0, 1e9));
    serveCmd
        ->add_option("--session-rate-limit", serveOptions.sessionRateLimit,
                     "Session starts a second per SDK key (bursts of twice that), 429 beyond; 0: off")
        ->capture_default_str()
        ->envname("TOVREL_SESSION_RATE_LIMIT")
        ->check(CLI::Range(0.0, 1e9));
    serveCmd
        ->add_option("--log-rate-limit", serveOptions.logRateLimit,
                     "/v1/log messages a second per device (bursts of 60 times that), 429 beyond; 0: off")
        ->capture_default_str()
        ->envname("TOVREL_LOG_RATE_LIMIT")
        ->check(CLI::Range(0.0, 1e9));
    serveCmd
        ->add_option("--retain-logs,--log-retention-days", serveOptions.logRetentionDays,
                     "Days of /v1/log messages kept (today in UTC and the days before); 0: all")
        ->capture_default_str()
        ->envname("TOVREL_LOG_RETENTION_DAYS")
        ->check(CLI::Range(0, 100000));
    serveCmd
        ->add_option("--retain-links", serveOptions.retainLinksDays,
                     "Days of cleared links kept (the funnel keeps their counts); 0: all")
        ->capture_default_str()
        ->envname("TOVREL_RETAIN_LINKS")
        ->check(CLI::Range(0, 100000));
    tovrel::server::PreviewProgram preview;
    serveCmd
        ->add_option(
            "--preview-program", preview.path,
            "The tovrel-sim that runs POST /admin/v1/preview (default: the one beside this program, else "
            "on PATH); "
            "none: previews answer 501")
        ->envname("TOVREL_PREVIEW_PROGRAM");
    serveCmd
        ->add_option("--preview-devices", preview.devices,
                     "Device-days a preview runs over each catalogue (over ?days=D: this many / D devices)")
        ->capture_default_str()
        ->envname("TOVREL_PREVIEW_DEVICES")
        ->check(CLI::Range(1, 100000));
    serveCmd
        ->add_option("--preview-cpu", preview.cpuSeconds,
                     "CPU seconds a preview may take, both catalogues together")
        ->capture_default_str()
        ->envname("TOVREL_PREVIEW_CPU")
        ->check(CLI::Range(1.0, 3600.0));
    serveCmd
        ->add_flag("--webhook-allow-private", serveOptions.webhookAllowPrivate,
                   "Send webhooks to loopback, link-local and private addresses too")
        ->envname("TOVREL_WEBHOOK_ALLOW_PRIVATE");
    serveCmd
        ->add_option("--webhook-poll", serveOptions.webhookPollSeconds,
                     "Seconds between two webhook delivery passes")
        ->capture_default_str()
        ->envname("TOVREL_WEBHOOK_POLL")
        ->check(CLI::Range(0.05, 3600.0));
    serveCmd
        ->add_option("--webhook-timeout", serveOptions.webhookTimeoutSeconds,
                     "Seconds one webhook request may take")
        ->capture_default_str()
        ->envname("TOVREL_WEBHOOK_TIMEOUT")
        ->check(CLI::Range(0.1, 60.0));
    serveCmd
        ->add_option("--retain-sessions", serveOptions.retainSessionsDays,
                     "Days a session is kept (its key is refused after); 0: all")
        ->capture_default_str()
        ->envname("TOVREL_RETAIN_SESSIONS")
        ->check(CLI::Range(0, 100000));
    serveOptions.retainAuditDays = 365;
    serveCmd
        ->add_option("--retain-audit", serveOptions.retainAuditDays,
                     "Days the admin API's audit trail is kept; 0: all")
        ->capture_default_str()
        ->envname("TOVREL_RETAIN_AUDIT")
        ->check(CLI::Range(0, 100000));
    serveCmd
        ->add_option("--retention-interval", serveOptions.retentionIntervalSeconds,
                     "Seconds between two passes that remove what is older than its retention")
        ->capture_default_str()
        ->envname("TOVREL_RETENTION_INTERVAL")
        ->check(CLI::Range(1.0, 86400.0));
    serveCmd
        ->add_option("--change-check-interval", serveOptions.changeCheckSeconds,
                     "With PostgreSQL: seconds between checks of the catalogue's version, in case a "
                     "change notification from another replica was missed")
        ->capture_default_str()
        ->envname("TOVREL_CHANGE_CHECK_INTERVAL")
        ->check(CLI::Range(0.05, 3600.0));
    serveCmd
        ->add_option(
            "--group-commit", serveOptions.groupCommit,
            "With PostgreSQL: tag, status and log writes that arrive together share one commit (off: each "
            "commits alone)")
        ->capture_default_str()
        ->envname("TOVREL_GROUP_COMMIT");
    serveCmd
        ->add_option("--session-ttl", serveOptions.sessionTtl,
                     "Seconds a session key stays valid (401 after); 0: for ever")
        ->capture_default_str()
        ->envname("TOVREL_SESSION_TTL")
        ->check(CLI::Range(0.0, 1e10));
    serveCmd
        ->add_option("--max-cached-sessions", serveOptions.maxCachedSessions,
                     "Session keys held in memory at most; older ones are read from the database again")
        ->capture_default_str()
        ->envname("TOVREL_MAX_CACHED_SESSIONS")
        ->check(CLI::Range(std::size_t{1}, std::size_t{100'000'000}));
    serveCmd
        ->add_option("--db-busy-timeout", serveOptions.databaseBusyTimeoutMs,
                     "Milliseconds a request waits for a locked database before 503")
        ->capture_default_str()
        ->envname("TOVREL_DB_BUSY_TIMEOUT")
        ->check(CLI::Range(1, 60000));
    serveCmd->add_option("--tls-cert", serveOptions.tlsCertificateFile, "PEM certificate chain: serve HTTPS")
        ->envname("TOVREL_TLS_CERT")
        ->check(CLI::ExistingFile);
    serveCmd->add_option("--tls-key", serveOptions.tlsKeyFile, "PEM private key of --tls-cert")
        ->envname("TOVREL_TLS_KEY")
        ->check(CLI::ExistingFile);
    serveCmd
        ->add_option("--tls-ciphers", serveOptions.tlsCiphers,
                     "OpenSSL cipher list for TLS 1.2 (default: forward-secret AEAD suites only)")
        ->envname("TOVREL_TLS_CIPHERS");
    serveCmd
        ->add_option("--admin-tls-cert", serveOptions.adminTlsCertificateFile,
                     "PEM certificate chain: serve the admin listener over HTTPS")
        ->envname("TOVREL_ADMIN_TLS_CERT")
        ->check(CLI::ExistingFile);
    serveCmd
        ->add_option("--admin-tls-key", serveOptions.adminTlsKeyFile, "PEM private key of --admin-tls-cert")
        ->envname("TOVREL_ADMIN_TLS_KEY")
        ->check(CLI::ExistingFile);
    serveCmd
        ->add_option("--admin-listen", settings.adminListen,
                     "HOST:PORT of the admin listener (health, metrics, admin API), or off")
        ->capture_default_str()
        ->envname("TOVREL_ADMIN_LISTEN")
        ->check([&listenCheck](const std::string& text) {
            return text == "off" ? std::string() : listenCheck(text);
        });
    serveCmd
        ->add_option("--admin-token-file", settings.adminTokenFile,
                     "File whose first line is the admin API's bearer token (16 characters at least)")
        ->envname("TOVREL_ADMIN_TOKEN_FILE")
        ->check(CLI::ExistingFile);
    serveCmd->add_flag("--admin-token-insecure-permissions", settings.tokenReadableByOthers,
                       "Accept an admin token file that other users may read");
    serveCmd
        ->add_option("--console-dir", settings.consoleDir,
                     "Folder of the campaign console served on the admin listener under /console/; auto: "
                     "the installed one (share/tovrel/console) when there is one; off: none")
        ->capture_default_str()
        ->envname("TOVREL_CONSOLE_DIR")
        ->check([](const std::string& text) {
            return text == "auto" || text == "off" || std::filesystem::is_directory(text)
                       ? std::string()
                       : "no folder " + text;
        });
    serveCmd
        ->add_option("--log-level", serveOptions.logLevel,
                     "Least level logged: debug, info, warn, error, off")
        ->capture_default_str()
        ->envname("TOVREL_LOG_LEVEL")
        ->check(CLI::IsMember({"debug", "info", "warn", "error", "off"}));
    serveCmd->add_option("--access-log", settings.accessLog, "One JSON line per request: on or off")
        ->capture_default_str()
        ->envname("TOVREL_ACCESS_LOG")
        ->check(CLI::IsMember({"on", "off"}));

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
    CLI::App* appsList = appsCmd->add_subcommand("list", "List the app keys");
    addDb(appsList);
    CLI::App* appsRemove = appsCmd->add_subcommand("remove", "Remove an app key (its sessions stay valid)");
    appsRemove->add_option("KEY", key, "The app key")->required();
    addDb(appsRemove);
    CLI::App* appsRotate = appsCmd->add_subcommand("rotate", "Give an app a new random key and print it");
    appsRotate->add_option("KEY", key, "The app key")->required();
    addDb(appsRotate);
    CLI::App* appsDisable = appsCmd->add_subcommand("disable", "Refuse new sessions with an app key");
    appsDisable->add_option("KEY", key, "The app key")->required();
    addDb(appsDisable);
    CLI::App* appsEnable = appsCmd->add_subcommand("enable", "Accept an app key again");
    appsEnable->add_option("KEY", key, "The app key")->required();
    addDb(appsEnable);

    CLI::App* campaignsCmd = app.add_subcommand("campaigns", "List, disable and enable campaigns");
    campaignsCmd->require_subcommand(1);
    CLI::App* campaignsList = campaignsCmd->add_subcommand("list", "List the campaigns");
    addDb(campaignsList);
    std::string campaign;
    CLI::App* campaignsDisable = campaignsCmd->add_subcommand("disable", "Stop offering a campaign's offers");
    campaignsDisable->add_option("CAMPAIGN", campaign, "The campaign's name or id")->required();
    addDb(campaignsDisable);
    CLI::App* campaignsEnable = campaignsCmd->add_subcommand("enable", "Offer a disabled campaign again");
    campaignsEnable->add_option("CAMPAIGN", campaign, "The campaign's name or id")->required();
    addDb(campaignsEnable);

    CLI::App* devicesCmd =
        app.add_subcommand("devices", "Show, export or erase what is held about one device");
    devicesCmd->require_subcommand(1);
    std::string deviceId;
    std::vector<CLI::App*> deviceVerbs;
    for (const auto& [verb, what] :
         {std::pair{"show", "Print the device, its sessions, links, tags and log counts as JSON"},
          std::pair{"export", "Print everything held about the device as one JSON document"},
          std::pair{"erase",
                    "Erase every row about the device; the funnel keeps its counts. With SQLite, "
                    "erase through the admin API while a server runs on the file"}}) {
        CLI::App* cmd = devicesCmd->add_subcommand(verb, what);
        cmd->add_option("DEVICE_ID", deviceId, "The deviceId the device sends")->required();
        addDb(cmd);
        deviceVerbs.push_back(cmd);
    }

    WebhooksCommand webhooks(app, addDb);
    AccessCommand access(app, addDb);

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
            if (preview.path.empty()) {
                preview.path = tovrel::server::findSimulator();
            }
            if (!preview.path.empty() && preview.path != "none") {
                serveOptions.preview = tovrel::server::previewInProcess(preview);
            }
            return serve(std::move(settings));
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
        if (appsList->parsed() || campaignsList->parsed()) {
            return listTable(db, appsList->parsed());
        }
        if (appsRemove->parsed() || appsRotate->parsed() || appsDisable->parsed() || appsEnable->parsed()) {
            const char* verb = appsRemove->parsed()    ? "remove"
                               : appsRotate->parsed()  ? "rotate"
                               : appsDisable->parsed() ? "disable"
                                                       : "enable";
            return changeApp(db, verb, key);
        }
        if (campaignsDisable->parsed() || campaignsEnable->parsed()) {
            return changeCampaign(db, campaign, campaignsDisable->parsed());
        }
        for (CLI::App* verb : deviceVerbs) {
            if (verb->parsed()) {
                return deviceCommand(db, verb->get_name(), deviceId);
            }
        }
        if (const auto status = webhooks.run(db)) {
            return *status;
        }
        if (const auto status = access.run(db)) {
            return *status;
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
