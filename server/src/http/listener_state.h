#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <unordered_map>

#include "common/rate_limiter.h"
#include "http/beast.h"
#include "http/http_server.h"
#include "tovrel/platform/thread_annotations.h"

namespace tovrel::server {

using tovrel::platform::Lock;
using tovrel::platform::Mutex;

namespace beast = boost::beast;
namespace http = beast::http;
namespace net = boost::asio;
namespace ssl = net::ssl;
using tcp = net::ip::tcp;
// One io_context per thread: a connection lives on one thread, so it needs no strand and threads
// never wake each other.
using IoExecutor = net::io_context::executor_type;
using PlainStream = beast::basic_stream<tcp, IoExecutor>;
using TlsStream = beast::ssl_stream<PlainStream>;
using Socket = net::basic_stream_socket<tcp, IoExecutor>;

// A live connection as the listener sees it.
struct ConnectionEntry {
    std::function<void()> closeIfIdle;
    const std::atomic<bool>* busy = nullptr;
    std::uint64_t order = 0;  ///< admission order: the oldest is evicted first
    bool evicting = false;
};

/// What a listener shares with every connection it accepted: the handler and options, the registry of
/// live connections with the caps it enforces, and the per-address rate limiter.
struct ListenerState {
    ListenerState(RequestHandler& h, HttpOptions o, const Logger& l, Metrics& m)
        : handler(h), options(std::move(o)), logger(l), metrics(m) {}

    RequestHandler& handler;
    HttpOptions options;
    const Logger& logger;
    Metrics& metrics;
    std::optional<ssl::context> tls;
    std::atomic<bool> stopping{false};
    Mutex registryMutex;
    /// Per live connection: how to close it if idle, and whether it is.
    std::unordered_map<void*, ConnectionEntry> connections TOVREL_GUARDED_BY(registryMutex);
    std::uint64_t admitted TOVREL_GUARDED_BY(registryMutex) = 0;
    int open TOVREL_GUARDED_BY(registryMutex) = 0;      ///< connections admitted and not yet gone
    int evicting TOVREL_GUARDED_BY(registryMutex) = 0;  ///< of those, told to close to make room
    /// The same, by remote address and by network.
    std::unordered_map<std::string, int> openPerAddress TOVREL_GUARDED_BY(registryMutex);
    std::unordered_map<std::string, int> openPerPrefix TOVREL_GUARDED_BY(registryMutex);
    RateLimiter limiter{options.rateLimit, options.rateLimit * 2};

    /// Counts a new connection from `address` in, or says it must be refused.
    bool admit(const std::string& address) TOVREL_REQUIRES(registryMutex);
    /// Counts a connection from `address` out.
    void release(const std::string& address, bool wasEvicting) TOVREL_REQUIRES(registryMutex);

  private:
    // Tells the longest-open connection that waits for a request to close; false when none waits.
    bool evictOldestIdle() TOVREL_REQUIRES(registryMutex);
};

/// The network an address belongs to, for per-network caps: its /24 (IPv4) or /64 (IPv6). Pure.
std::string prefixOf(const std::string& address);

/// Serves a connection `state` admitted from `address` until it closes, over TLS when `state.tls` is
/// set. Each is compiled apart (plain_connection.cpp, tls_connection.cpp): the two instantiations of
/// the connection are most of the HTTP front's code. Any thread; the socket's own runs it.
void startPlainConnection(Socket&& socket, ListenerState& state, std::string address);
void startTlsConnection(Socket&& socket, ListenerState& state, std::string address);

}  // namespace tovrel::server
