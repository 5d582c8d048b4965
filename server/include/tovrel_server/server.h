#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <nlohmann/json_fwd.hpp>
#include <stdexcept>
#include <string>
#include <string_view>

#include "tovrel_server/admin.h"

namespace tovrel::server {

/// Seconds since 1970 (fractions allowed). The server reads the time only through this.
using Clock = std::function<double()>;

/// The wall clock, as seconds since 1970.
double wallClock();

/// What one preview compares: the draft place file against the live one (the catalogue as it is), with
/// devices starting at `now` and making their trip once a day for `days` days.
struct PreviewJob {
    std::string draftFile;
    std::string liveFile;
    double now = 0;
    std::size_t days = 1;
};

/// What an embedded or stand-alone server needs to run.
struct ServerOptions {
    /// SQLite database file; ":memory:" keeps everything in this process only; a postgresql://
    /// address uses that PostgreSQL database (with PostGIS), which several servers may share.
    std::string dbPath = ":memory:";
    /// Where /v1/log messages are kept: another SQLite file or postgresql:// database; "": dbPath.
    std::string logDbPath;
    /// Address to bind (IPv4 or IPv6 literal).
    std::string listenAddress = "127.0.0.1";
    /// TCP port; 0 picks a free ephemeral port (read it back from start() or port()).
    uint16_t port = 0;
    /// Folder of static pages served to GET; empty serves none.
    std::string contentDir;
    /// Threads that serve HTTP.
    int threads = 2;
    /// Time source for campaign activity and stored timestamps; empty means wallClock(). Called on the
    /// server's worker threads (and the caller's, for import and report), so it must be thread-safe.
    Clock clock;
    /// Scheme and host (no trailing slash) put before relative media addresses; empty means
    /// "http://" followed by the request's Host header.
    std::string mediaBaseUrl;
    /// A connection that sends no complete request for this long is closed.
    int requestTimeoutSeconds = 30;
    /// Open connections at most, in all; a connection beyond is answered 503 and closed.
    int maxConnections = 1000;
    /// Open connections at most from one remote address (the same 503 beyond), so that one client
    /// holding idle connections cannot lock the others out.
    int maxConnectionsPerAddress = 256;
    /// Open connections at most from one network (a /24 of IPv4, a /64 of IPv6), the same 503 beyond;
    /// 0 (the default): no such cap. Holds off a client with many addresses of one network.
    int maxConnectionsPerPrefix = 0;
    /// Requests a second one client address may make on average (bursts of twice that); more are
    /// answered 429 with Retry-After before their body is read. 0 (the default) turns the limit off:
    /// behind a reverse proxy every client shares the proxy's address.
    double rateLimit = 0;
    /// Session starts a second one SDK key may make (bursts of twice that), 429 beyond; 0: no limit.
    /// Starts with an unknown key are refused from memory for a few seconds after the first 401.
    double sessionRateLimit = 0;
    /// /v1/log messages a second one device may send on average (bursts of 60 times that); 0 (the
    /// default of an embedded server, whose clients may run in virtual time): no limit.
    double logRateLimit = 0;
    /// Days of /v1/log messages kept: today (in UTC) and the days before it; older days are dropped
    /// when the first message of a new day arrives. 0 (the default) keeps every message.
    int logRetentionDays = 0;
    /// Days kept of cleared links (their counts stay in the funnel) and of sessions (with the devices
    /// left with neither sessions nor links); a background pass every `retentionIntervalSeconds`
    /// removes older rows, and log messages beyond `logRetentionDays`, in bounded batches. 0 (the
    /// default) keeps them. Session keys older than their retention are answered 401.
    int retainLinksDays = 0;
    int retainSessionsDays = 0;
    /// Days kept of the admin API's audit trail, pruned by the same pass; 0 (the default) keeps it.
    int retainAuditDays = 0;
    /// Seconds between two retention passes; 0: only when pruneExpired() is called.
    double retentionIntervalSeconds = 300;
    /// The key that places devices in campaigns' control groups; empty (the default) keeps the one the
    /// database made when it was created. For simulations that must repeat: the same key puts the same
    /// devices in the same groups in every new database. Written to the database at start.
    std::string controlGroupKey;
    /// With a store shared by replicas: seconds between checks of the catalogue's version, in case a
    /// change notification was missed (notifications themselves arrive at once).
    double changeCheckSeconds = 5;
    /// With PostgreSQL: tag, status and log writes that arrive together share one transaction and commit;
    /// each is answered once that commit is done. Off: each commits alone (for comparison).
    bool groupCommit = true;
    /// The most places, offers and campaigns a catalogue change may touch to be applied in memory in
    /// place; a larger one (an import) reads the whole catalogue again. Once five times this many are
    /// held beside the shared part, the whole catalogue is read again in the background.
    std::size_t catalogChangesInPlace = 10'000;
    /// Seconds a session key stays valid after its session started; 0 (the default) keeps keys valid
    /// for ever. With a lifetime, requests with an older key are answered 401.
    double sessionTtl = 0;
    /// Session keys held in memory at most (each with its device's links); older ones are read again
    /// from the database when used.
    std::size_t maxCachedSessions = 1'000'000;
    /// Milliseconds a request waits for a database locked by another connection before it is answered
    /// 503 with Retry-After.
    int databaseBusyTimeoutMs = 250;
    /// Requests waiting for the database at most; more are answered 503 at once.
    std::size_t databaseQueue = 4096;
    /// PEM certificate chain and private key: both set serves the API over HTTPS only.
    std::string tlsCertificateFile;
    std::string tlsKeyFile;
    /// OpenSSL cipher list offered over TLS 1.2 (TLS 1.3 keeps its own suites); empty: only suites with
    /// forward secrecy and authenticated encryption (ECDHE/DHE with AES-GCM or ChaCha20-Poly1305).
    std::string tlsCiphers;
    /// The same for the admin listener: both set serves it over HTTPS only.
    std::string adminTlsCertificateFile;
    std::string adminTlsKeyFile;
    /// Address of the admin listener (health, readiness, metrics, the admin API); empty: none.
    std::string adminAddress;
    /// Its port; 0 picks a free one (read it back from adminPort()).
    uint16_t adminPort = 0;
    /// A bearer token of the admin API (16 characters at least) with the `admin` role, beside the named
    /// tokens the database holds; with neither the admin API is off.
    std::string adminToken;
    /// Folder of the built campaign console, served on the admin listener under /console/; empty:
    /// none (404).
    std::string consoleDir;
    /// Webhook delivery may connect to loopback, link-local and private addresses (tests, endpoints on
    /// a private network); refused otherwise, when an endpoint is saved and when each connection is made.
    bool webhookAllowPrivate = false;
    /// Real seconds between two webhook delivery passes; 0: only when deliverWebhooks() is called.
    double webhookPollSeconds = 1;
    /// Seconds one webhook request may take, from connecting to the end of the answer. A batch's claim
    /// lasts four times this (and 5 s): a replica that dies mid-delivery leaves its messages that long.
    double webhookTimeoutSeconds = 15;
    /// Where structured log lines go (JSON, one a line); empty writes none.
    std::function<void(std::string_view line)> logSink;
    /// The least level written: "debug", "info", "warn" or "error".
    std::string logLevel = "info";
    /// One line per request (method, path, status, bytes, microseconds, remote address).
    bool accessLog = false;
    /// Runs a preview, answering the comparison as JSON; throws PreviewRefused. Set by a program that
    /// links the simulator (tovrel-server does); unset, POST /admin/v1/preview answers 501. Called on a
    /// thread of its own, one preview at a time.
    std::function<std::string(const PreviewJob&)> preview;
};

/// Why a preview was not answered: its HTTP status (400: the draft is unusable; 422: it needs more than
/// its budget) and the words of the error.
class PreviewRefused : public std::runtime_error {
  public:
    PreviewRefused(unsigned status, const std::string& message)
        : std::runtime_error(message), status_(status) {}
    unsigned status() const { return status_; }

  private:
    unsigned status_;
};

/// One answer of a JSON endpoint: HTTP status and body.
struct Reply {
    unsigned status = 200;
    std::string body;
};

/// What one webhook delivery pass did.
struct WebhookPass {
    int64_t attempts = 0;
    int64_t delivered = 0;
    int64_t retried = 0;
    int64_t failed = 0;  ///< ended without delivery (schedule spent, or the endpoint answered 410)
};

/// The HTTP service: session, place, device-event, device-tag and log endpoints plus static
/// pages. Construction opens (and migrates) the database and loads the places into memory;
/// start() begins serving. All member functions may be called from any thread.
/// What fitDescriptorLimit() found and changed.
struct DescriptorFit {
    std::uint64_t softBefore = 0;  ///< the soft RLIMIT_NOFILE at start
    std::uint64_t soft = 0;        ///< the soft limit now
    std::uint64_t hard = 0;
    int maxConnectionsBefore = 0;  ///< as asked for
    int maxConnections = 0;        ///< as it now stands in the options
    bool lowered() const { return maxConnections < maxConnectionsBefore; }
};

/// Raises the soft limit of open descriptors toward the hard one as far as the connection caps need,
/// and lowers `options.maxConnections` when even that cannot hold every connection they allow beside
/// the descriptors the server needs otherwise (the admin listener's connections, the database's, its
/// files). Call before the Server is made. Main thread.
DescriptorFit fitDescriptorLimit(ServerOptions& options);

class Server {
  public:
    /// Connections the admin listener holds at most; a new one beyond closes the longest-open idle one.
    static constexpr int kAdminConnections = 64;
    /// Descriptors the server keeps for what is not a connection (database, files, event loops).
    static constexpr int kOtherDescriptors = 64;

    /// Opens the database; throws std::runtime_error when it cannot be opened or migrated.
    explicit Server(ServerOptions options);
    /// Stops serving (as stop()) and closes the database.
    ~Server();
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    /// Binds and starts the worker threads (and the admin listener when an address is set); returns
    /// the bound port. Throws std::runtime_error when an address cannot be bound, a TLS file cannot be
    /// read or the server already runs.
    uint16_t start();
    /// Stops accepting, lets requests in progress finish (at most a few seconds), closes every
    /// connection and joins the threads. Safe to call twice or before start().
    void stop();
    /// The bound port while running, else 0.
    uint16_t port() const;
    /// The admin listener's port while running, else 0.
    uint16_t adminPort() const;

    /// Answers one POST to a JSON endpoint (`path`, such as "/v2/place") without HTTP: the same bytes
    /// the HTTP server would send, with `mediaBase` (scheme and host) put before relative media
    /// addresses; 404 for a path that is not an endpoint. Needs no start(). Any thread (blocks while the
    /// database is locked by another process); never throws.
    Reply handle(std::string_view path, std::string_view body, std::string_view mediaBase);
    /// handle() for a body its caller has already read as JSON (`parsed` must be what `body` reads
    /// as): the same answer, without reading the body again. Any thread; never throws.
    Reply handle(std::string_view path, std::string_view body, const nlohmann::json& parsed,
                 std::string_view mediaBase);

    /// Imports a GeoJSON place file into this server's database and reloads the places.
    /// Throws ImportError with a message naming the file and the feature or line at fault.
    ImportSummary importGeoJson(const std::string& path);
    /// Adds (or renames) an app key that may start sessions.
    void addApp(const std::string& key, const std::string& name);
    /// Rebuilds the in-memory places from the database (after an import by another process).
    void reloadPlaces();
    /// Per-offer and per-log-event counts of this server's database.
    Report report();
    /// Why the link with this deviceEventId was held back; nullopt when it was delivered or there is no
    /// such link. Any thread.
    std::optional<HeldBack> heldBack(int64_t deviceEventId);
    /// Runs one retention pass now (see retainLinksDays), `batch` rows a transaction; returns the rows
    /// removed by kind ("logs", "links", "sessions"). Any thread.
    std::map<std::string, int64_t> pruneExpired(int batch = 1000);
    /// Sends the webhook messages due now at the server's clock, and those that fall due meanwhile, until
    /// none is; what the delivery thread does every webhookPollSeconds. Any thread.
    WebhookPass deliverWebhooks();

  private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace tovrel::server
