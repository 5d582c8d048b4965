#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "common/routes.h"
#include "observability/metrics.h"

namespace tovrel::server {

class Logger;

/// One request as a handler sees it. The views stay valid only during RequestHandler::handle: a
/// handler that answers later copies what it needs.
struct HttpRequest {
    std::string_view method;  ///< "GET", "POST", ...
    std::string_view target;  ///< as sent, query included
    std::string_view path;    ///< the target up to '?' or '#'
    std::string_view body;
    std::string_view host;           ///< the Host header
    std::string_view authorization;  ///< the Authorization header
    std::string_view remote;         ///< the client's address
    bool tls = false;
    std::string_view cookie;   ///< the Cookie header
    std::string_view origin;   ///< the Origin header
    std::string_view csrf;     ///< the X-CSRF-Token header
    std::string_view ifMatch;  ///< the If-Match header
};

/// A handler's answer. A JSON body by default; `file` set sends that file instead (GET), or only its
/// length (`headOnly`, HEAD).
struct HttpReply {
    unsigned status = 200;
    std::string body;
    const char* contentType = "application/json";
    std::string fileType;  ///< the Content-Type of `file`
    Route route = Route::other;
    const char* allow = nullptr;         ///< the Allow header, for 405
    const char* retryAfter = nullptr;    ///< the Retry-After header, for 429 and 503
    const char* authenticate = nullptr;  ///< the WWW-Authenticate header, for 401
    /// Any other header fields, in order (Set-Cookie, Content-Security-Policy, Cache-Control, ...).
    std::vector<std::pair<std::string, std::string>> headers;
    std::filesystem::path file;
    bool headOnly = false;
    /// The path as the access log writes it, when the request's own names what the log must not keep
    /// (a device's id); empty: the request's path.
    std::string loggedPath;
};

/// Hands a handler's answer to the connection; callable once, from any thread.
using Respond = std::function<void(HttpReply&&)>;

/// What a handler decides from a request's header alone, before its body is read.
struct Admission {
    /// Set: the request is answered with this at once, its body unread, and the connection closes.
    std::optional<HttpReply> refusal;
    /// The largest body this request may carry (413 beyond, before it is read).
    std::size_t bodyLimit = kMaxRequestBody;
    /// Held by the connection until the answer is written or the connection goes: a slot of a
    /// resource the handler caps (its deleter gives the slot back).
    std::shared_ptr<void> slot;
};

/// What answers the requests of one listener.
class RequestHandler {
  public:
    virtual ~RequestHandler() = default;
    /// Decides on a request from its header (`header.body` is empty): refuses it, or says how large a
    /// body it may carry. Called on the connection's thread; must not block. Admits everything by default.
    virtual Admission admit(const HttpRequest& header);
    /// Answers one complete request by calling respond once, now or later from any thread. Called on
    /// the connection's thread; must not block on the database.
    virtual void handle(const HttpRequest& request, Respond respond) = 0;
};

struct HttpOptions {
    std::string address = "127.0.0.1";
    uint16_t port = 0;
    int threads = 2;
    int requestTimeoutSeconds = 30;
    int maxConnections = 1000;
    int maxConnectionsPerAddress = 256;
    /// Connections at most from one network (a /24 of IPv4, a /64 of IPv6); 0: no such cap.
    int maxConnectionsPerPrefix = 0;
    /// When every connection is taken, a new one closes the longest-open idle one (waiting for a
    /// request) instead of being refused: a listener that idle clients must never shut.
    bool evictIdleWhenFull = false;
    double rateLimit = 0;  ///< requests a second per address (bursts of twice that); 0: off
    /// PEM files of the certificate chain and its private key; both set serves HTTPS only.
    std::string tlsCertificateFile;
    std::string tlsKeyFile;
    /// OpenSSL cipher list for TLS 1.2; TLS 1.3 always uses its own forward-secret AEAD suites.
    std::string tlsCiphers = kForwardSecretCiphers;

    /// TLS 1.2 suites with forward secrecy and authenticated encryption, and nothing else.
    static constexpr const char* kForwardSecretCiphers =
        "ECDHE+AESGCM:ECDHE+CHACHA20:DHE+AESGCM:DHE+CHACHA20";
    /// Which listener this is, in log lines: "public" or "admin".
    std::string name = "public";
};

/// HTTP/1.1 front of a RequestHandler: keep-alive, TCP_NODELAY, a per-request read timeout, a 1 MiB
/// body limit, connection caps and a per-address rate limit answered before the body is read,
/// optional TLS, gzip for clients that accept it, an access log and request metrics.
class HttpServer {
  public:
    /// `logger` and `metrics` must outlive the server.
    HttpServer(RequestHandler& handler, HttpOptions options, const Logger& logger, Metrics& metrics);
    ~HttpServer();
    HttpServer(const HttpServer&) = delete;
    HttpServer& operator=(const HttpServer&) = delete;

    /// Binds, listens and starts the threads; returns the bound port. Throws std::runtime_error (also
    /// for unreadable TLS files). Any thread.
    uint16_t start();
    /// Stops accepting, closes idle connections, lets the others finish their current request
    /// (forcing them after a few seconds) and joins the threads. `drain`, when set, is called once the
    /// grace time is over and before the threads end, to finish work whose answers are still to come.
    /// Idempotent; any thread but the server's own.
    void stop(const std::function<void()>& drain = {});
    /// The bound port while running, else 0. Any thread.
    uint16_t port() const;
    /// Connections open now. Any thread.
    int openConnections() const;

    /// Largest request body accepted; larger ones are answered 413.
    static constexpr std::size_t kMaxBody = kMaxRequestBody;
    /// Answers at least this long are compressed for clients that accept gzip.
    static constexpr std::size_t kMinGzipBody = 1024;

  private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace tovrel::server
