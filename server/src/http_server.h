#pragma once

#include <cstdint>
#include <memory>
#include <string>

namespace tovrel_server {

class Service;
class StaticFiles;

struct HttpOptions {
    std::string address = "127.0.0.1";
    uint16_t port = 0;
    int threads = 2;
    int requestTimeoutSeconds = 30;
    std::string mediaBaseUrl;  ///< empty: "http://" + the request's Host header
    int maxConnections = 1000;
    int maxConnectionsPerAddress = 256;
    double rateLimit = 0;  ///< requests a second per address (bursts of twice that); 0: off
};

/// HTTP/1.1 front of a Service: keep-alive, TCP_NODELAY, a per-request read timeout, a 1 MiB body
/// limit, POST for the JSON endpoints and GET/HEAD for the static pages.
class HttpServer {
  public:
    HttpServer(Service& service, const StaticFiles& files, HttpOptions options);
    ~HttpServer();
    HttpServer(const HttpServer&) = delete;
    HttpServer& operator=(const HttpServer&) = delete;

    /// Binds, listens and starts the threads; returns the bound port. Throws std::runtime_error.
    uint16_t start();
    /// Stops accepting, closes idle connections, lets the others finish their current request
    /// (forcing them after a few seconds) and joins the threads. Idempotent.
    void stop();
    uint16_t port() const;
    /// Connections refused so far because a connection limit was reached. Any thread.
    std::uint64_t refusedConnections() const;
    /// Requests answered 429 so far. Any thread.
    std::uint64_t rateLimitedRequests() const;

    /// Largest request body accepted; larger ones are answered 413.
    static constexpr std::size_t kMaxBody = 1024 * 1024;

  private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace tovrel_server
