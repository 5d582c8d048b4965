#include "tovrel_server/server.h"

#include <sys/resource.h>

#include <algorithm>
#include <chrono>
#include <limits>
#include <mutex>

#include "admin/admin_handler.h"
#include "api/api_handler.h"
#include "api/service.h"
#include "common/periodic_thread.h"
#include "http/http_server.h"
#include "http/static_files.h"
#include "observability/log.h"
#include "observability/metrics.h"
#include "store/work_queue.h"
#include "webhooks/deliverer.h"

namespace tovrel::server {

double wallClock() {
    using namespace std::chrono;
    return duration<double>(system_clock::now().time_since_epoch()).count();
}

namespace {

Logger makeLogger(const ServerOptions& options) {
    if (!options.logSink) {
        return Logger();
    }
    const auto level = parseLogLevel(options.logLevel);
    if (!level) {
        throw std::invalid_argument("the log level must be debug, info, warn, error or off, not \"" +
                                    options.logLevel + "\"");
    }
    return Logger(*level, options.logSink, options.accessLog);
}

ServiceOptions serviceOptions(const ServerOptions& o) {
    ServiceOptions s;
    s.busyTimeoutMs = o.databaseBusyTimeoutMs;
    s.sessionTtl = o.sessionTtl;
    s.maxCachedSessions = o.maxCachedSessions;
    s.sessionRateLimit = o.sessionRateLimit;
    s.logRateLimit = o.logRateLimit;
    s.logRetentionDays = o.logRetentionDays;
    s.logLocation = o.logDbPath;
    s.retainLinksDays = o.retainLinksDays;
    s.retainSessionsDays = o.retainSessionsDays;
    s.retainAuditDays = o.retainAuditDays;
    s.changeCheckSeconds = o.changeCheckSeconds;
    s.groupCommit = o.groupCommit;
    s.catalogChangesInPlace = o.catalogChangesInPlace;
    s.controlGroupKey = o.controlGroupKey;
    return s;
}

HttpOptions publicHttp(const ServerOptions& o) {
    HttpOptions h;
    h.address = o.listenAddress;
    h.port = o.port;
    h.threads = o.threads;
    h.requestTimeoutSeconds = o.requestTimeoutSeconds;
    h.maxConnections = o.maxConnections;
    h.maxConnectionsPerAddress = o.maxConnectionsPerAddress;
    h.maxConnectionsPerPrefix = o.maxConnectionsPerPrefix;
    h.rateLimit = o.rateLimit;
    h.tlsCertificateFile = o.tlsCertificateFile;
    h.tlsKeyFile = o.tlsKeyFile;
    if (!o.tlsCiphers.empty()) {
        h.tlsCiphers = o.tlsCiphers;
    }
    h.name = "public";
    return h;
}

HttpOptions adminHttp(const ServerOptions& o) {
    HttpOptions h;
    h.address = o.adminAddress;
    h.port = o.adminPort;
    h.threads = 1;
    h.requestTimeoutSeconds = o.requestTimeoutSeconds;
    // Probes and scrapes must get through however many idle connections others hold, from any address
    // (a per-address cap would shut them out of loopback): a new connection closes the longest-open idle
    // one. The admin API's own requests are capped by its handler (AdminHandler::kMaxAdminRequests).
    h.maxConnections = Server::kAdminConnections;
    h.maxConnectionsPerAddress = std::numeric_limits<int>::max();
    h.evictIdleWhenFull = true;
    h.tlsCertificateFile = o.adminTlsCertificateFile;
    h.tlsKeyFile = o.adminTlsKeyFile;
    if (!o.tlsCiphers.empty()) {
        h.tlsCiphers = o.tlsCiphers;
    }
    h.name = "admin";
    return h;
}

}  // namespace

DescriptorFit fitDescriptorLimit(ServerOptions& options) {
    DescriptorFit fit;
    fit.maxConnectionsBefore = options.maxConnections;
    fit.maxConnections = options.maxConnections;
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0) {
        return fit;
    }
    fit.softBefore = limit.rlim_cur;
    const rlim_t needed = static_cast<rlim_t>(std::max(0, options.maxConnections)) +
                          Server::kAdminConnections + Server::kOtherDescriptors;
    if (limit.rlim_cur < needed && limit.rlim_cur < limit.rlim_max) {
        rlimit raised = limit;
        raised.rlim_cur = std::min(needed, limit.rlim_max);
        if (setrlimit(RLIMIT_NOFILE, &raised) == 0) {
            limit = raised;
        }
    }
    fit.soft = limit.rlim_cur;
    fit.hard = limit.rlim_max;
    if (limit.rlim_cur < needed) {
        const auto room = static_cast<rlim_t>(Server::kAdminConnections + Server::kOtherDescriptors);
        options.maxConnections =
            static_cast<int>(std::max<rlim_t>(16, limit.rlim_cur > room ? limit.rlim_cur - room : 0));
        fit.maxConnections = options.maxConnections;
    }
    return fit;
}

struct Server::Impl {
    explicit Impl(ServerOptions o)
        : options(std::move(o)),
          logger(makeLogger(options)),
          service(options.dbPath, options.clock ? options.clock : Clock(wallClock), serviceOptions(options),
                  &metrics, &logger),
          files(options.contentDir),
          database(service.databaseThreads(), options.databaseQueue),
          adminWork(1, 256),
          api(service, files, database, options.mediaBaseUrl),
          admin(
              service, metrics, adminWork, options.adminToken,
              [this] {
                  MetricsSnapshot snapshot;
                  snapshot.openConnections = http.openConnections();
                  snapshot.queuedJobs = static_cast<int64_t>(database.waiting());
                  return snapshot;
              },
              options.consoleDir, options.contentDir, options.webhookAllowPrivate, options.preview),
          http(api, publicHttp(options), logger, metrics),
          adminHttpServer(admin, adminHttp(options), logger, metrics),
          deliverer([this](const auto& work) { service.transact(work); },
                    options.clock ? options.clock : Clock(wallClock), &metrics, &logger,
                    webhooks::DelivererOptions{
                        .allowPrivate = options.webhookAllowPrivate,
                        .pollSeconds = options.webhookPollSeconds,
                        .timeoutMs = static_cast<long>(options.webhookTimeoutSeconds * 1000)}) {}

    ServerOptions options;
    Logger logger;
    Metrics metrics;
    Service service;
    StaticFiles files;
    WorkQueue database;
    WorkQueue adminWork;
    ApiHandler api;
    AdminHandler admin;
    HttpServer http;
    HttpServer adminHttpServer;
    webhooks::Deliverer deliverer;
    std::mutex mutex;
    bool running = false;

    /// Runs a retention pass every retentionIntervalSeconds until stopped, when anything has a retention.
    void startRetention() {
        const bool kept = options.logRetentionDays > 0 || options.retainLinksDays > 0 ||
                          options.retainSessionsDays > 0 || options.retainAuditDays > 0;
        if (kept && options.retentionIntervalSeconds > 0) {
            retention.start(options.retentionIntervalSeconds, [this] { service.pruneExpired(); });
        }
    }

    PeriodicThread retention;
    /// Reads the stored admin tokens every AdminTokens::kRefreshSeconds, so that a token added or revoked
    /// through another replica counts here too.
    PeriodicThread tokenRefresh;
};

Server::Server(ServerOptions options) : impl_(std::make_unique<Impl>(std::move(options))) {}

Server::~Server() {
    stop();
}

uint16_t Server::start() {
    std::lock_guard lock(impl_->mutex);
    Impl& m = *impl_;
    const uint16_t port = m.http.start();
    const bool tls = !m.options.tlsCertificateFile.empty();
    const std::string host = m.options.listenAddress.find(':') != std::string::npos
                                 ? "[" + m.options.listenAddress + "]"
                                 : m.options.listenAddress;
    m.api.setFallbackBase((tls ? "https://" : "http://") + host + ":" + std::to_string(port));
    if (!m.options.adminAddress.empty()) {
        try {
            m.adminHttpServer.start();
        } catch (...) {
            m.http.stop();
            throw;
        }
    }
    m.running = true;
    m.startRetention();
    if (!m.options.adminAddress.empty()) {
        m.tokenRefresh.start(AdminTokens::kRefreshSeconds, [&m] { m.admin.refreshTokens(); });
    }
    if (m.options.webhookPollSeconds > 0) {
        m.deliverer.start();
    }
    return port;
}

void Server::stop() {
    std::lock_guard lock(impl_->mutex);
    Impl& m = *impl_;
    m.retention.stop();
    m.tokenRefresh.stop();
    m.deliverer.stop();
    // Requests waiting for the database are answered before the connections' threads end.
    m.http.stop([&m] { m.database.drain(); });
    m.adminHttpServer.stop([&m] { m.adminWork.drain(); });
    m.running = false;
}

uint16_t Server::port() const {
    return impl_->http.port();
}

uint16_t Server::adminPort() const {
    return impl_->adminHttpServer.port();
}

Reply Server::handle(std::string_view path, std::string_view body, std::string_view mediaBase) {
    ApiReply reply = impl_->service.handle(path, body, mediaBase);
    return {reply.status, std::move(reply.body)};
}

Reply Server::handle(std::string_view path, std::string_view body, const nlohmann::json& parsed,
                     std::string_view mediaBase) {
    ApiReply reply = impl_->service.handleRead(path, body, parsed, mediaBase);
    return {reply.status, std::move(reply.body)};
}

ImportSummary Server::importGeoJson(const std::string& path) {
    return impl_->service.importGeoJson(path);
}

void Server::addApp(const std::string& key, const std::string& name) {
    if (key.empty()) {
        throw std::invalid_argument("the app key must not be empty");
    }
    impl_->service.addApp(key, name);
}

void Server::reloadPlaces() {
    impl_->service.reloadPlaces();
}

std::map<std::string, int64_t> Server::pruneExpired(int batch) {
    return impl_->service.pruneExpired(batch);
}

WebhookPass Server::deliverWebhooks() {
    return impl_->deliverer.deliverDue();
}

std::optional<HeldBack> Server::heldBack(int64_t deviceEventId) {
    return impl_->service.heldBack(deviceEventId);
}

Report Server::report() {
    return impl_->service.report();
}

}  // namespace tovrel::server
