#include "serve_command.h"

#include <pthread.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <stdexcept>

#include "admin/admin_handler.h"
#include "data_commands.h"
#include "http/listen_address.h"
#include "observability/log.h"
#include "store/store.h"
#include "tovrel/paths/data_directory.h"

namespace tovrel::server {
namespace {

/// Why `text` is no HOST:PORT to listen on; empty when it is one.
std::string listenProblem(const std::string& text) {
    try {
        parseListenAddress(text);
        return std::string();
    } catch (const std::invalid_argument& error) {
        return std::string(error.what());
    }
}

std::string hostPort(const std::string& host, uint16_t port) {
    return (host.find(':') != std::string::npos ? "[" + host + "]" : host) + ":" + std::to_string(port);
}

/// The server's options from what `serve` was told: the listeners' addresses, the admin token read,
/// the console's folder found, and the log on standard output.
void resolve(ServeSettings& settings) {
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
}

int serve(ServeSettings settings) {
    resolve(settings);
    ServerOptions& options = settings.options;
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
    serving.add("listen", hostPort(options.listenAddress, port))
        .add("tls", !options.tlsCertificateFile.empty())
        .add("db", displayLocation(options.dbPath));
    if (!options.logDbPath.empty()) {
        serving.add("logDb", displayLocation(options.logDbPath));
    }
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

}  // namespace

ServeCommand::ServeCommand(CLI::App& app, const std::function<void(CLI::App*)>& addDb)
    : command_(app.add_subcommand("serve", "Serve the HTTP API and the content pages")) {
    settings_.options.logRateLimit = 1;
    settings_.options.retainAuditDays = 365;
    addDb(command_);
    addConnectionOptions();
    addRateAndRetentionOptions();
    addPreviewAndWebhookOptions();
    addStoreOptions();
    addTlsOptions();
    addAdminOptions();
}

std::optional<int> ServeCommand::run(const std::string& db) {
    if (!command_->parsed()) {
        return std::nullopt;
    }
    settings_.options.dbPath = db;
    if (preview_.path.empty()) {
        preview_.path = findSimulator();
    }
    if (!preview_.path.empty() && preview_.path != "none") {
        settings_.options.preview = previewInProcess(preview_);
    }
    return serve(std::move(settings_));
}

void ServeCommand::addConnectionOptions() {
    ServerOptions& options = settings_.options;
    command_->add_option("--listen", settings_.listen, "HOST:PORT to listen on ([::1]:8080 for IPv6)")
        ->capture_default_str()
        ->envname("TOVREL_LISTEN")
        ->check(listenProblem);
    command_->add_option("--content", options.contentDir, "Folder of static pages (appcontent/, media/)")
        ->envname("TOVREL_CONTENT")
        ->check(CLI::ExistingDirectory);
    command_->add_option("--threads", options.threads, "HTTP worker threads")
        ->capture_default_str()
        ->envname("TOVREL_THREADS")
        ->check(CLI::Range(1, 64));
    command_
        ->add_option("--media-base", options.mediaBaseUrl,
                     "Scheme and host put before relative media addresses (default: the request's Host)")
        ->envname("TOVREL_MEDIA_BASE");
    command_
        ->add_option("--timeout", options.requestTimeoutSeconds,
                     "Seconds a connection may take to send one request")
        ->capture_default_str()
        ->envname("TOVREL_TIMEOUT")
        ->check(CLI::Range(1, 3600));
    command_
        ->add_option("--max-connections", options.maxConnections,
                     "Open connections at most; more are answered 503 and closed")
        ->capture_default_str()
        ->envname("TOVREL_MAX_CONNECTIONS")
        ->check(CLI::Range(1, 1000000));
    command_
        ->add_option("--max-connections-per-address", options.maxConnectionsPerAddress,
                     "Open connections at most from one client address")
        ->capture_default_str()
        ->envname("TOVREL_MAX_CONNECTIONS_PER_ADDRESS")
        ->check(CLI::Range(1, 1000000));
    command_
        ->add_option("--max-connections-per-prefix", options.maxConnectionsPerPrefix,
                     "Open connections at most from one network (a /24 of IPv4, a /64 of IPv6); 0: no cap")
        ->capture_default_str()
        ->envname("TOVREL_MAX_CONNECTIONS_PER_PREFIX")
        ->check(CLI::Range(0, 1000000));
}

void ServeCommand::addRateAndRetentionOptions() {
    ServerOptions& options = settings_.options;
    command_
        ->add_option("--rate-limit", options.rateLimit,
                     "Requests a second per client address (bursts of twice that), 429 beyond; 0: off")
        ->capture_default_str()
        ->envname("TOVREL_RATE_LIMIT")
        ->check(CLI::Range(0.0, 1e9));
    command_
        ->add_option("--session-rate-limit", options.sessionRateLimit,
                     "Session starts a second per SDK key (bursts of twice that), 429 beyond; 0: off")
        ->capture_default_str()
        ->envname("TOVREL_SESSION_RATE_LIMIT")
        ->check(CLI::Range(0.0, 1e9));
    command_
        ->add_option("--log-rate-limit", options.logRateLimit,
                     "/v1/log messages a second per device (bursts of 60 times that), 429 beyond; 0: off")
        ->capture_default_str()
        ->envname("TOVREL_LOG_RATE_LIMIT")
        ->check(CLI::Range(0.0, 1e9));
    command_
        ->add_option("--retain-logs,--log-retention-days", options.logRetentionDays,
                     "Days of /v1/log messages kept (today in UTC and the days before); 0: all")
        ->capture_default_str()
        ->envname("TOVREL_LOG_RETENTION_DAYS")
        ->check(CLI::Range(0, 100000));
    command_
        ->add_option("--retain-links", options.retainLinksDays,
                     "Days of cleared links kept (the funnel keeps their counts); 0: all")
        ->capture_default_str()
        ->envname("TOVREL_RETAIN_LINKS")
        ->check(CLI::Range(0, 100000));
}

void ServeCommand::addPreviewAndWebhookOptions() {
    ServerOptions& options = settings_.options;
    command_
        ->add_option(
            "--preview-program", preview_.path,
            "The tovrel-sim that runs POST /admin/v1/preview (default: the one beside this program, else "
            "on PATH); "
            "none: previews answer 501")
        ->envname("TOVREL_PREVIEW_PROGRAM");
    command_
        ->add_option("--preview-devices", preview_.devices,
                     "Device-days a preview runs over each catalogue (over ?days=D: this many / D devices)")
        ->capture_default_str()
        ->envname("TOVREL_PREVIEW_DEVICES")
        ->check(CLI::Range(1, 100000));
    command_
        ->add_option("--preview-cpu", preview_.cpuSeconds,
                     "CPU seconds a preview may take, both catalogues together")
        ->capture_default_str()
        ->envname("TOVREL_PREVIEW_CPU")
        ->check(CLI::Range(1.0, 3600.0));
    command_
        ->add_flag("--webhook-allow-private", options.webhookAllowPrivate,
                   "Send webhooks to loopback, link-local and private addresses too")
        ->envname("TOVREL_WEBHOOK_ALLOW_PRIVATE");
    command_
        ->add_option("--webhook-poll", options.webhookPollSeconds,
                     "Seconds between two webhook delivery passes")
        ->capture_default_str()
        ->envname("TOVREL_WEBHOOK_POLL")
        ->check(CLI::Range(0.05, 3600.0));
    command_
        ->add_option("--webhook-timeout", options.webhookTimeoutSeconds,
                     "Seconds one webhook request may take")
        ->capture_default_str()
        ->envname("TOVREL_WEBHOOK_TIMEOUT")
        ->check(CLI::Range(0.1, 60.0));
}

void ServeCommand::addStoreOptions() {
    ServerOptions& options = settings_.options;
    addLogDbOption(command_, options.logDbPath);
    command_
        ->add_option("--retain-sessions", options.retainSessionsDays,
                     "Days a session is kept (its key is refused after); 0: all")
        ->capture_default_str()
        ->envname("TOVREL_RETAIN_SESSIONS")
        ->check(CLI::Range(0, 100000));
    command_
        ->add_option("--retain-audit", options.retainAuditDays,
                     "Days the admin API's audit trail is kept; 0: all")
        ->capture_default_str()
        ->envname("TOVREL_RETAIN_AUDIT")
        ->check(CLI::Range(0, 100000));
    command_
        ->add_option("--retention-interval", options.retentionIntervalSeconds,
                     "Seconds between two passes that remove what is older than its retention")
        ->capture_default_str()
        ->envname("TOVREL_RETENTION_INTERVAL")
        ->check(CLI::Range(1.0, 86400.0));
    command_
        ->add_option("--change-check-interval", options.changeCheckSeconds,
                     "With PostgreSQL: seconds between checks of the catalogue's version, in case a "
                     "change notification from another replica was missed")
        ->capture_default_str()
        ->envname("TOVREL_CHANGE_CHECK_INTERVAL")
        ->check(CLI::Range(0.05, 3600.0));
    command_
        ->add_option(
            "--group-commit", options.groupCommit,
            "Writes that arrive together share one commit: tags and statuses with PostgreSQL, log messages "
            "with either store (off: each commits alone)")
        ->capture_default_str()
        ->envname("TOVREL_GROUP_COMMIT");
    command_
        ->add_option("--session-ttl", options.sessionTtl,
                     "Seconds a session key stays valid (401 after); 0: for ever")
        ->capture_default_str()
        ->envname("TOVREL_SESSION_TTL")
        ->check(CLI::Range(0.0, 1e10));
    command_
        ->add_option("--max-cached-sessions", options.maxCachedSessions,
                     "Session keys held in memory at most; older ones are read from the database again")
        ->capture_default_str()
        ->envname("TOVREL_MAX_CACHED_SESSIONS")
        ->check(CLI::Range(std::size_t{1}, std::size_t{100'000'000}));
    command_
        ->add_option("--db-busy-timeout", options.databaseBusyTimeoutMs,
                     "Milliseconds a request waits for a locked database before 503")
        ->capture_default_str()
        ->envname("TOVREL_DB_BUSY_TIMEOUT")
        ->check(CLI::Range(1, 60000));
}

void ServeCommand::addTlsOptions() {
    ServerOptions& options = settings_.options;
    command_->add_option("--tls-cert", options.tlsCertificateFile, "PEM certificate chain: serve HTTPS")
        ->envname("TOVREL_TLS_CERT")
        ->check(CLI::ExistingFile);
    command_->add_option("--tls-key", options.tlsKeyFile, "PEM private key of --tls-cert")
        ->envname("TOVREL_TLS_KEY")
        ->check(CLI::ExistingFile);
    command_
        ->add_option("--tls-ciphers", options.tlsCiphers,
                     "OpenSSL cipher list for TLS 1.2 (default: forward-secret AEAD suites only)")
        ->envname("TOVREL_TLS_CIPHERS");
    command_
        ->add_option("--admin-tls-cert", options.adminTlsCertificateFile,
                     "PEM certificate chain: serve the admin listener over HTTPS")
        ->envname("TOVREL_ADMIN_TLS_CERT")
        ->check(CLI::ExistingFile);
    command_->add_option("--admin-tls-key", options.adminTlsKeyFile, "PEM private key of --admin-tls-cert")
        ->envname("TOVREL_ADMIN_TLS_KEY")
        ->check(CLI::ExistingFile);
}

void ServeCommand::addAdminOptions() {
    ServerOptions& options = settings_.options;
    command_
        ->add_option("--admin-listen", settings_.adminListen,
                     "HOST:PORT of the admin listener (health, metrics, admin API), or off")
        ->capture_default_str()
        ->envname("TOVREL_ADMIN_LISTEN")
        ->check([](const std::string& text) { return text == "off" ? std::string() : listenProblem(text); });
    command_
        ->add_option("--admin-token-file", settings_.adminTokenFile,
                     "File whose first line is the admin API's bearer token (16 characters at least)")
        ->envname("TOVREL_ADMIN_TOKEN_FILE")
        ->check(CLI::ExistingFile);
    command_->add_flag("--admin-token-insecure-permissions", settings_.tokenReadableByOthers,
                       "Accept an admin token file that other users may read");
    command_
        ->add_option("--console-dir", settings_.consoleDir,
                     "Folder of the campaign console served on the admin listener under /console/; auto: "
                     "the installed one (share/tovrel/console) when there is one; off: none")
        ->capture_default_str()
        ->envname("TOVREL_CONSOLE_DIR")
        ->check([](const std::string& text) {
            return text == "auto" || text == "off" || std::filesystem::is_directory(text)
                       ? std::string()
                       : "no folder " + text;
        });
    command_->add_option("--log-level", options.logLevel, "Least level logged: debug, info, warn, error, off")
        ->capture_default_str()
        ->envname("TOVREL_LOG_LEVEL")
        ->check(CLI::IsMember({"debug", "info", "warn", "error", "off"}));
    command_->add_option("--access-log", settings_.accessLog, "One JSON line per request: on or off")
        ->capture_default_str()
        ->envname("TOVREL_ACCESS_LOG")
        ->check(CLI::IsMember({"on", "off"}));
}

}  // namespace tovrel::server
