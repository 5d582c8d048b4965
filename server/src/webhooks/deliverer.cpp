#include "webhooks/deliverer.h"

#include <algorithm>
#include <chrono>
#include <ctime>
#include <map>
#include <nlohmann/json.hpp>

#include "common/utc_time.h"
#include "store/webhook_store.h"
#include "webhooks/retry_schedule.h"
#include "webhooks/sender.h"
#include "webhooks/signature.h"

namespace tovrel::server::webhooks {
namespace {

constexpr int kMaxBatchesAPass = 1000;
constexpr int kPrunedAPass = 1000;
constexpr double kClaimMarginSeconds = 5;

// The body is the same on every attempt: the device's identifier is read when it is sent, so an erased
// device's events leave without it.
std::string bodyOf(const DueMessage& m) {
    nlohmann::json data = nlohmann::json::parse(m.data, nullptr, false);
    if (!data.is_object()) {
        data = nlohmann::json::object();
    }
    if (!m.deviceId.empty()) {
        data["deviceId"] = m.deviceId;
    }
    return nlohmann::json{{"type", m.type}, {"timestamp", isoTime(m.createdAt)}, {"data", std::move(data)}}
        .dump();
}

Outgoing requestOf(const DueMessage& m, double now) {
    Outgoing out;
    out.message = m.id;
    out.endpoint = m.endpoint;
    out.url = m.url;
    out.body = bodyOf(m);
    const auto timestamp = static_cast<int64_t>(now);
    std::string signatures;
    for (const std::string& secret : m.secrets) {
        try {
            signatures += (signatures.empty() ? "" : " ") + sign(secret, m.messageId, timestamp, out.body);
        } catch (const std::invalid_argument&) {
            // A secret written by hand that is not one: the receiver sees no valid signature from it.
        }
    }
    out.headers = {{"webhook-id", m.messageId},
                   {"webhook-timestamp", std::to_string(timestamp)},
                   {"webhook-signature", signatures}};
    return out;
}

const char* attemptClass(const SendResult& r) {
    if (r.status == 0) {
        return "error";
    }
    return r.status < 300 && r.status >= 200 ? "2xx"
           : r.status < 500                  ? (r.status < 400 ? "3xx" : "4xx")
                                             : "5xx";
}

}  // namespace

Deliverer::Deliverer(Transact transact, Clock clock, Metrics* metrics, const Logger* logger,
                     DelivererOptions options)
    : transact_(std::move(transact)),
      clock_(std::move(clock)),
      metrics_(metrics),
      logger_(logger),
      options_(options),
      sender_(std::make_unique<Sender>(
          SenderOptions{options.allowPrivate, options.timeoutMs, options.perEndpoint, options.batch})),
      random_(std::random_device{}()) {}

Deliverer::~Deliverer() {
    stop();
}

WebhookPass Deliverer::deliverDue() {
    WebhookPass pass;
    try {
        platform::Lock lock(passMutex_);
        bool more = true;
        for (int i = 0; i < kMaxBatchesAPass && more; ++i) {
            const WebhookPass batch = deliverBatch(more);
            pass.attempts += batch.attempts;
            pass.delivered += batch.delivered;
            pass.retried += batch.retried;
            pass.failed += batch.failed;
        }
    } catch (const std::exception& e) {
        // Claims lapse by themselves: the next pass, here or on another replica, sends what this one held.
        if (metrics_ != nullptr) {
            metrics_->databaseError();
        }
        if (logger_ != nullptr) {
            logger_->write(LogLevel::error,
                           logger_->line(LogLevel::error, "webhook delivery failed").add("error", e.what()));
        }
    }
    tidyAndObserve();
    return pass;
}

WebhookPass Deliverer::deliverBatch(bool& more) {
    WebhookPass pass;
    const double claimedAt = clock_();
    std::vector<DueMessage> due;
    transact_([&](const SqlSource& db) {
        due = claimDueMessages(db, claimedAt, claimedAt + claimSeconds(), options_.batch);
    });
    more = static_cast<int>(due.size()) == options_.batch;
    if (due.empty()) {
        return pass;
    }
    std::vector<Outgoing> requests;
    requests.reserve(due.size());
    for (const DueMessage& m : due) {
        requests.push_back(requestOf(m, clock_()));
    }
    const std::vector<SendResult> results = sender_->send(std::move(requests));
    std::vector<AttemptRecord> records;
    const double now = clock_();
    // One jitter for an endpoint's messages of a batch: they failed together, and stay in their order.
    std::uniform_real_distribution<double> draw(0, 1);
    std::map<int64_t, double> jitter;
    for (const DueMessage& m : due) {
        jitter.try_emplace(m.endpoint, draw(random_));
    }
    for (const SendResult& r : results) {
        const auto m =
            std::find_if(due.begin(), due.end(), [&](const DueMessage& d) { return d.id == r.message; });
        if (m == due.end()) {
            continue;
        }
        AttemptRecord a;
        a.message = r.message;
        a.endpoint = m->endpoint;
        a.at = now;
        a.status = r.status;
        a.seconds = r.seconds;
        a.error = r.error;
        if (r.status >= 200 && r.status < 300) {
            a.next = AttemptRecord::Next::delivered;
            ++pass.delivered;
        } else if (r.status == 410) {
            a.next = AttemptRecord::Next::failed;
            a.disableEndpoint = "gone";
            ++pass.failed;
        } else {
            std::optional<double> delay = retryDelay(m->attempts + 1, jitter[m->endpoint]);
            if (delay && r.retryAfter && (r.status == 429 || r.status == 503)) {
                delay = parseRetryAfter(*r.retryAfter, now).value_or(*delay);
            }
            a.next = delay ? AttemptRecord::Next::retry : AttemptRecord::Next::failed;
            a.nextAttempt = now + delay.value_or(0);
            ++(delay ? pass.retried : pass.failed);
        }
        ++pass.attempts;
        if (metrics_ != nullptr) {
            metrics_->webhookAttempt(m->endpoint, attemptClass(r), r.seconds,
                                     a.next == AttemptRecord::Next::delivered ? "delivered"
                                     : a.next == AttemptRecord::Next::failed  ? "failed"
                                                                              : "",
                                     now - m->createdAt);
        }
        records.push_back(std::move(a));
    }
    transact_([&](const SqlSource& db) {
        for (const AttemptRecord& a : records) {
            recordAttempt(db, a);
        }
    });
    return pass;
}

double Deliverer::claimSeconds() const {
    const int rounds = (options_.batch + options_.perEndpoint - 1) / std::max(1, options_.perEndpoint);
    return rounds * static_cast<double>(options_.timeoutMs) / 1000 + kClaimMarginSeconds;
}

void Deliverer::tidyAndObserve() {
    try {
        OutboxDepth depth;
        const double now = clock_();
        transact_([&](const SqlSource& db) {
            pruneEndedMessages(db, now - options_.keepEndedSeconds, kPrunedAPass);
            depth = outboxDepth(db);
        });
        if (metrics_ != nullptr) {
            metrics_->webhookQueue(depth.pending, depth.oldestCreatedAt ? now - *depth.oldestCreatedAt : 0);
        }
    } catch (const std::exception&) {
        // The next pass tries again.
    }
}

void Deliverer::start() {
    thread_.start(options_.pollSeconds, [this] { deliverDue(); });
}

void Deliverer::stop() {
    thread_.stop();
}

}  // namespace tovrel::server::webhooks
