#pragma once

#include <openssl/ssl.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace tovrel::curl::test {

/// One request as the fault server read it off the wire.
struct ReceivedRequest {
    std::string method;
    std::string path;
    std::map<std::string, std::string> headers;  ///< names lower-cased
    std::string body;
    int connection = 0;  ///< which accepted connection carried it (1, 2, ...)

    [[nodiscard]] std::string header(const std::string& lowerName) const;
};

/// A loopback HTTP/1.1 server (127.0.0.1, ephemeral port) whose answer is chosen by the path:
///   /json         200, echoes the request body (or {"ok":true} when it is empty)
///   /503          503 {"error":"maintenance window"}
///   /404          404 text/plain
///   /malformed    200 with a body that is not JSON
///   /empty        200 with an empty body
///   /number       200 `1`;  /string  200 `"x"`
///   /text         200 text/html
///   /redirect     302 to /text
///   /reset        reads the request, then resets the connection (SO_LINGER 0)
///   /truncated    Content-Length 100, sends 12 bytes, closes
///   /hang         never answers (until the client or the server closes)
///   /big          200, a JSON string of kBigBodyBytes bytes with Content-Length
///   /big-unsized  the same without Content-Length, ended by closing the connection
/// With `tls` (not owned, must outlive the server) every connection speaks TLS first.
class FaultServer {
  public:
    static constexpr std::size_t kBigBodyBytes = 64 * 1024;

    explicit FaultServer(SSL_CTX* tls = nullptr);
    ~FaultServer();
    FaultServer(const FaultServer&) = delete;
    FaultServer& operator=(const FaultServer&) = delete;

    [[nodiscard]] std::uint16_t port() const { return port_; }
    [[nodiscard]] std::string hostPort() const;
    [[nodiscard]] std::string url(std::string_view path) const;

    [[nodiscard]] std::vector<ReceivedRequest> received() const;
    /// Waits (bounded) until at least `count` requests have arrived.
    bool waitForRequests(std::size_t count, std::chrono::milliseconds timeout) const;
    /// Waits (bounded) until every accepted connection has been closed.
    bool waitForNoConnections(std::chrono::milliseconds timeout) const;

  private:
    struct Stream;
    void acceptLoop();
    void serve(int fd, int connection);
    bool respond(Stream& stream, const ReceivedRequest& request);

    SSL_CTX* tls_;
    int listener_ = -1;
    std::uint16_t port_ = 0;
    std::atomic<bool> stopping_{false};
    std::atomic<int> nextConnection_{0};

    mutable std::mutex mutex_;
    mutable std::condition_variable changed_;
    std::vector<ReceivedRequest> received_;
    std::set<int> openFds_;
    std::vector<std::thread> workers_;
    std::thread acceptor_;
};

/// A 127.0.0.1 port that was bound and then closed, so connecting to it is refused.
std::uint16_t closedPort();

}  // namespace tovrel::curl::test
