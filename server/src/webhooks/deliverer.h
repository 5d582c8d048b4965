#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <random>

#include "common/periodic_thread.h"
#include "observability/log.h"
#include "observability/metrics.h"
#include "store/sql_source.h"
#include "tovrel/platform/thread_annotations.h"
#include "tovrel_server/server.h"

namespace tovrel::server::webhooks {

class Sender;

/// How messages are delivered.
struct DelivererOptions {
    bool allowPrivate = false;            ///< connect to loopback, link-local and private addresses too
    int batch = 16;                       ///< messages claimed in one transaction
    double pollSeconds = 1;               ///< real seconds between passes of the delivery thread
    long timeoutMs = 15000;               ///< one request, from connecting to the end of the answer
    int perEndpoint = 4;                  ///< requests at once to one endpoint
    double keepEndedSeconds = 7 * 86400;  ///< delivered and failed messages are kept this long for replay
};

/// Sends the outbox's due messages to their endpoints, signed, and moves each on by its answer: 2xx
/// delivered; 410 failed and the endpoint disabled; anything else (no answer included) retried on the
/// schedule (retry_schedule.h) or after the Retry-After of a 429 or 503, failed once it is spent. Every
/// replica runs one; a claim keeps the others off a message for as long as its batch can take (every
/// request of one endpoint timing out), and lapses if the replica dies.
class Deliverer {
  public:
    /// Runs a function in one store transaction (Service::transact).
    using Transact = std::function<void(const std::function<void(const SqlSource&)>&)>;

    Deliverer(Transact transact, Clock clock, Metrics* metrics, const Logger* logger,
              DelivererOptions options);
    /// Stops the thread (as stop()).
    ~Deliverer();
    Deliverer(const Deliverer&) = delete;
    Deliverer& operator=(const Deliverer&) = delete;

    /// Claims due messages and sends them, batch after batch, until none is due at the clock's time (at
    /// most a thousand batches). One pass at a time: a caller waits for a pass in progress. Any thread.
    WebhookPass deliverDue();
    /// Starts a thread that runs a pass every pollSeconds until stop(). Any thread.
    void start();
    /// Ends the thread after its pass in progress. Safe twice. Any thread.
    void stop();

  private:
    WebhookPass deliverBatch(bool& more) TOVREL_REQUIRES(passMutex_);
    /// Seconds a batch's claim lasts: each of its rounds of requests to one endpoint may time out.
    double claimSeconds() const;
    /// Removes messages ended longer than keepEndedSeconds ago (a bounded batch) and reports the queue.
    void tidyAndObserve();

    Transact transact_;
    Clock clock_;
    Metrics* metrics_;
    const Logger* logger_;
    DelivererOptions options_;
    platform::Mutex passMutex_;  ///< one pass at a time
    std::unique_ptr<Sender> sender_ TOVREL_PT_GUARDED_BY(passMutex_);
    std::mt19937_64 random_ TOVREL_GUARDED_BY(passMutex_);
    PeriodicThread thread_;
};

}  // namespace tovrel::server::webhooks
