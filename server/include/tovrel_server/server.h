#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "tovrel_server/admin.h"

namespace tovrel_server {

/// Seconds since 1970 (fractions allowed). The server reads the time only through this.
using Clock = std::function<double()>;

/// The wall clock, as seconds since 1970.
double wallClock();

/// What an embedded or stand-alone server needs to run.
struct ServerOptions {
    /// SQLite database file; ":memory:" keeps everything in this process only.
    std::string dbPath = ":memory:";
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
    /// Requests a second one client address may make on average (bursts of twice that); more are
    /// answered 429 with Retry-After before their body is read. 0 (the default) turns the limit off:
    /// behind a reverse proxy every client shares the proxy's address.
    double rateLimit = 0;
};

/// One answer of a JSON endpoint: HTTP status and body.
struct Reply {
    unsigned status = 200;
    std::string body;
};

/// The HTTP service: session, place, device-event, device-tag and log endpoints plus static
/// pages. Construction opens (and migrates) the database and loads the places into memory;
/// start() begins serving. All member functions may be called from any thread.
class Server {
  public:
    /// Opens the database; throws std::runtime_error when it cannot be opened or migrated.
    explicit Server(ServerOptions options);
    /// Stops serving (as stop()) and closes the database.
    ~Server();
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    /// Binds and starts the worker threads; returns the bound port. Throws std::runtime_error
    /// when the address cannot be bound or the server already runs.
    uint16_t start();
    /// Stops accepting, lets requests in progress finish (at most a few seconds), closes every
    /// connection and joins the threads. Safe to call twice or before start().
    void stop();
    /// The bound port while running, else 0.
    uint16_t port() const;

    /// Answers one POST to a JSON endpoint (`path`, such as "/v2/place") without HTTP: the same bytes
    /// the HTTP server would send, with `mediaBase` (scheme and host) put before relative media
    /// addresses; 404 for a path that is not an endpoint. Needs no start(). Any thread; never throws.
    Reply handle(std::string_view path, std::string_view body, std::string_view mediaBase);

    /// Imports a GeoJSON place file into this server's database and reloads the places.
    /// Throws ImportError with a message naming the file and the feature or line at fault.
    ImportSummary importGeoJson(const std::string& path);
    /// Adds (or renames) an app key that may start sessions.
    void addApp(const std::string& key, const std::string& name);
    /// Rebuilds the in-memory places from the database (after an import by another process).
    void reloadPlaces();
    /// Per-offer and per-log-event counts of this server's database.
    Report report();

  private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace tovrel_server
