#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "common/routes.h"

namespace prometheus {
class Counter;
class Gauge;
class Histogram;
class Registry;
template <typename T>
class Family;
}  // namespace prometheus

namespace tovrel::server {

/// The metrics label of a route: the endpoint's path, or "page", "admin", "health", "metrics", "other".
std::string_view routeLabel(Route route);

/// Values read when the metrics are scraped rather than counted as they happen.
struct MetricsSnapshot {
    std::int64_t openConnections = 0;
    std::int64_t placesIndexed = 0;
    std::int64_t sessionsCached = 0;
    std::int64_t queuedJobs = 0;
    std::uint64_t catalogVersion = 0;
    std::uint64_t catalogReads = 0;
};

/// The server's Prometheus metrics: requests by route and status, a latency histogram per route,
/// connection refusals, rate-limited requests, database errors and busy time, and the snapshot gauges.
/// Every counting member is thread-safe and lock-free after the first request of a (route, status).
class Metrics {
  public:
    Metrics();
    ~Metrics();
    Metrics(const Metrics&) = delete;
    Metrics& operator=(const Metrics&) = delete;

    /// One answered request. Any thread.
    void request(Route route, unsigned status, double seconds);
    /// One connection refused over a connection limit. Any thread.
    void refusedConnection();
    /// One request refused by a rate limit. Any thread.
    void rateLimited();
    /// One database failure other than a busy database. Any thread.
    void databaseError();
    /// One request given up on because the database stayed locked for `seconds`. Any thread.
    void databaseBusy(double seconds);

    /// One pass of the retention over the rows of `kind` ("logs", "links", "sessions", "audit"): the rows it
    /// removed, and the age in seconds of the oldest row left (nullopt: none left). Any thread.
    void retention(const std::string& kind, std::int64_t removed, std::optional<double> oldestAgeSeconds);

    /// One webhook request to `endpoint` that ended in `answer` ("2xx", "3xx", "4xx", "5xx" or "error")
    /// after `seconds`; `ended` ("delivered", "failed", "" while retried) with the message's age when it
    /// ended. Any thread.
    void webhookAttempt(std::int64_t endpoint, std::string_view answer, double seconds,
                        std::string_view ended, double ageSeconds);
    /// Messages waiting in the outbox and the age of the oldest of them (0: none). Any thread.
    void webhookQueue(std::int64_t pending, double oldestAgeSeconds);

    /// Totals, for tests and the status line. Any thread.
    std::uint64_t refusedConnections() const { return refused_.load(); }
    std::uint64_t rateLimitedRequests() const { return limited_.load(); }

    /// The text exposition format (version 0.0.4) of every metric. Any thread.
    std::string scrape(const MetricsSnapshot& snapshot);

  private:
    static constexpr std::size_t kStatusSlots = 16;
    prometheus::Counter& requestCounter(Route route, unsigned status);

    std::shared_ptr<prometheus::Registry> registry_;
    prometheus::Family<prometheus::Counter>* requests_;
    std::array<prometheus::Histogram*, kRouteCount> latency_{};
    std::array<std::array<std::atomic<prometheus::Counter*>, kStatusSlots>, kRouteCount> requestSlots_{};
    std::mutex slotMutex_;
    prometheus::Family<prometheus::Counter>* retentionRemoved_;
    prometheus::Family<prometheus::Counter>* webhookAttempts_;
    prometheus::Family<prometheus::Counter>* webhookMessages_;
    prometheus::Histogram* webhookRequestSeconds_;
    prometheus::Histogram* webhookDeliverySeconds_;
    prometheus::Gauge* webhookPending_;
    prometheus::Gauge* webhookOldest_;
    prometheus::Family<prometheus::Gauge>* oldestRowAge_;
    prometheus::Counter* refusedCounter_;
    prometheus::Counter* limitedCounter_;
    prometheus::Counter* dbErrors_;
    prometheus::Counter* dbBusy_;
    prometheus::Counter* dbBusySeconds_;
    prometheus::Gauge* openConnections_;
    prometheus::Gauge* places_;
    prometheus::Gauge* sessions_;
    prometheus::Gauge* queued_;
    prometheus::Gauge* catalogVersion_;
    prometheus::Gauge* catalogReads_;
    std::atomic<std::uint64_t> refused_{0};
    std::atomic<std::uint64_t> limited_{0};
};

}  // namespace tovrel::server
