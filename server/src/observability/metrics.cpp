#include "observability/metrics.h"

#include <prometheus/counter.h>
#include <prometheus/gauge.h>
#include <prometheus/histogram.h>
#include <prometheus/registry.h>
#include <prometheus/text_serializer.h>

#include "common/routes.h"

namespace tovrel::server {

namespace {

// The labels of what is not an endpoint of the JSON API, whose labels are their paths.
constexpr std::array<std::string_view, kRouteCount - kApiRoutes.size()> kOtherLabels = {
    "page", "admin", "health", "metrics", "other"};

// The statuses the server answers get a slot each; the last slot is every other status.
constexpr std::array<unsigned, 15> kStatuses = {200, 201, 400, 401, 403, 404, 405, 409,
                                                413, 429, 431, 500, 503, 304, 206};

std::size_t statusSlot(unsigned status) {
    for (std::size_t i = 0; i < kStatuses.size(); ++i) {
        if (kStatuses[i] == status) {
            return i;
        }
    }
    return kStatuses.size();
}

}  // namespace

std::string_view routeLabel(Route route) {
    const auto index = static_cast<std::size_t>(route);
    return index < kApiRoutes.size() ? kApiRoutes[index].path : kOtherLabels[index - kApiRoutes.size()];
}

Metrics::Metrics() : registry_(std::make_shared<prometheus::Registry>()) {
    requests_ = &prometheus::BuildCounter()
                     .Name("tovrel_requests_total")
                     .Help("Requests answered, by route and HTTP status")
                     .Register(*registry_);
    auto& latency = prometheus::BuildHistogram()
                        .Name("tovrel_request_duration_seconds")
                        .Help("Time from a request's last byte read to its answer handed to the socket")
                        .Register(*registry_);
    const prometheus::Histogram::BucketBoundaries buckets = {
        0.0001, 0.00025, 0.0005, 0.001, 0.0025, 0.005, 0.01, 0.025, 0.05, 0.1, 0.25, 0.5, 1, 2.5, 5};
    for (std::size_t r = 0; r < kRouteCount; ++r) {
        latency_[r] = &latency.Add({{"route", std::string(routeLabel(static_cast<Route>(r)))}}, buckets);
    }
    retentionRemoved_ = &prometheus::BuildCounter()
                             .Name("tovrel_retention_removed_rows_total")
                             .Help("Rows removed for being older than their retention, by kind")
                             .Register(*registry_);
    oldestRowAge_ = &prometheus::BuildGauge()
                         .Name("tovrel_oldest_row_age_seconds")
                         .Help("Age of the oldest row kept, by kind (at the last retention pass)")
                         .Register(*registry_);
    const auto counter = [this](const char* name, const char* help) {
        return &prometheus::BuildCounter().Name(name).Help(help).Register(*registry_).Add({});
    };
    const auto gauge = [this](const char* name, const char* help) {
        return &prometheus::BuildGauge().Name(name).Help(help).Register(*registry_).Add({});
    };
    webhookAttempts_ = &prometheus::BuildCounter()
                            .Name("tovrel_webhook_attempts_total")
                            .Help("Webhook requests made, by endpoint and answer (2xx..5xx, error)")
                            .Register(*registry_);
    webhookMessages_ = &prometheus::BuildCounter()
                            .Name("tovrel_webhook_messages_total")
                            .Help("Webhook messages ended, by endpoint and outcome (delivered, failed)")
                            .Register(*registry_);
    webhookRequestSeconds_ =
        &prometheus::BuildHistogram()
             .Name("tovrel_webhook_request_duration_seconds")
             .Help("Time one webhook request took")
             .Register(*registry_)
             .Add({}, prometheus::Histogram::BucketBoundaries{0.01, 0.05, 0.1, 0.25, 0.5, 1, 2.5, 5, 10, 15});
    webhookDeliverySeconds_ = &prometheus::BuildHistogram()
                                   .Name("tovrel_webhook_delivery_latency_seconds")
                                   .Help("Time from an event to its delivery")
                                   .Register(*registry_)
                                   .Add({}, prometheus::Histogram::BucketBoundaries{
                                                0.1, 0.5, 1, 5, 30, 300, 1800, 7200, 36000, 86400, 259200});
    refusedCounter_ = counter("tovrel_connections_refused_total",
                              "Connections refused over --max-connections or the per-address cap");
    limitedCounter_ = counter("tovrel_rate_limited_requests_total", "Requests answered 429 by a rate limit");
    dbErrors_ = counter("tovrel_database_errors_total",
                        "Requests the database failed (answered 503, the error in the log)");
    dbBusy_ =
        counter("tovrel_database_busy_total", "Requests answered 503 because the database stayed locked");
    dbBusySeconds_ =
        counter("tovrel_database_busy_seconds_total", "Time spent waiting for a locked database");
    openConnections_ = gauge("tovrel_open_connections", "Connections open on the public listener");
    places_ = gauge("tovrel_places_indexed", "Places in the in-memory index");
    sessions_ = gauge("tovrel_sessions_cached", "Session keys held in memory");
    queued_ = gauge("tovrel_database_queue_jobs", "Requests waiting for the database");
    catalogVersion_ = gauge("tovrel_catalog_version", "Updates of the in-memory catalogue since start");
    webhookPending_ = gauge("tovrel_webhook_queue_messages", "Webhook messages waiting for delivery");
    webhookOldest_ = gauge("tovrel_webhook_oldest_pending_age_seconds",
                           "Age of the oldest webhook message waiting for delivery");
    catalogReads_ =
        gauge("tovrel_catalog_full_reads",
              "Updates of the in-memory catalogue that read all of it (the others applied changes)");
}

Metrics::~Metrics() = default;

prometheus::Counter& Metrics::requestCounter(Route route, unsigned status) {
    auto& slot = requestSlots_[static_cast<std::size_t>(route)][statusSlot(status)];
    if (prometheus::Counter* counter = slot.load(std::memory_order_acquire)) {
        return *counter;
    }
    std::lock_guard lock(slotMutex_);
    if (prometheus::Counter* counter = slot.load(std::memory_order_relaxed)) {
        return *counter;
    }
    const std::size_t index = statusSlot(status);
    const std::string code = index < kStatuses.size() ? std::to_string(status) : "other";
    prometheus::Counter* counter =
        &requests_->Add({{"route", std::string(routeLabel(route))}, {"code", code}});
    slot.store(counter, std::memory_order_release);
    return *counter;
}

void Metrics::request(Route route, unsigned status, double seconds) {
    requestCounter(route, status).Increment();
    latency_[static_cast<std::size_t>(route)]->Observe(seconds);
}

void Metrics::refusedConnection() {
    ++refused_;
    refusedCounter_->Increment();
}

void Metrics::rateLimited() {
    ++limited_;
    limitedCounter_->Increment();
}

void Metrics::databaseError() {
    dbErrors_->Increment();
}

void Metrics::databaseBusy(double seconds) {
    dbBusy_->Increment();
    dbBusySeconds_->Increment(seconds);
}

void Metrics::retention(const std::string& kind, std::int64_t removed,
                        std::optional<double> oldestAgeSeconds) {
    retentionRemoved_->Add({{"kind", kind}}).Increment(static_cast<double>(removed));
    oldestRowAge_->Add({{"kind", kind}}).Set(oldestAgeSeconds.value_or(0));
}

void Metrics::webhookAttempt(std::int64_t endpoint, std::string_view answer, double seconds,
                             std::string_view ended, double ageSeconds) {
    const std::string id = std::to_string(endpoint);
    webhookAttempts_->Add({{"endpoint", id}, {"answer", std::string(answer)}}).Increment();
    webhookRequestSeconds_->Observe(seconds);
    if (!ended.empty()) {
        webhookMessages_->Add({{"endpoint", id}, {"outcome", std::string(ended)}}).Increment();
    }
    if (ended == "delivered") {
        webhookDeliverySeconds_->Observe(ageSeconds);
    }
}

void Metrics::webhookQueue(std::int64_t pending, double oldestAgeSeconds) {
    webhookPending_->Set(static_cast<double>(pending));
    webhookOldest_->Set(oldestAgeSeconds);
}

std::string Metrics::scrape(const MetricsSnapshot& snapshot) {
    openConnections_->Set(static_cast<double>(snapshot.openConnections));
    places_->Set(static_cast<double>(snapshot.placesIndexed));
    sessions_->Set(static_cast<double>(snapshot.sessionsCached));
    queued_->Set(static_cast<double>(snapshot.queuedJobs));
    catalogVersion_->Set(static_cast<double>(snapshot.catalogVersion));
    catalogReads_->Set(static_cast<double>(snapshot.catalogReads));
    return prometheus::TextSerializer().Serialize(registry_->Collect());
}

}  // namespace tovrel::server
