#pragma once

#include <array>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "store/sql_source.h"
#include "store/store.h"

namespace tovrel::server {

/// Every type of event that webhook endpoints may take.
inline constexpr std::array<std::string_view, 9> kWebhookEventTypes{
    "visit.linked",  "offer.acknowledged", "offer.seen",      "offer.saved",  "offer.declined",
    "device.tagged", "device.cleared",     "session.started", "webhook.test",
};

/// True when `type` is one of kWebhookEventTypes. Pure.
bool isWebhookEventType(std::string_view type);

/// The event type of a link's status code ("ack" → "offer.acknowledged", "seen", "saved", "declined");
/// "" for any other code. Pure.
std::string_view statusEventType(std::string_view statusCode);

/// An event that a write reports.
struct OutboxEvent {
    std::string_view type;
    std::optional<int64_t> device;  ///< the device's row; its identifier goes only where endpoints include it
    nlohmann::json data = nlohmann::json::object();
};

/// The statement that queues `event` as one message for every enabled endpoint that takes its type (or
/// for `endpoint` alone), all under one new message id: SQL with `?` placeholders, and its parameters.
/// Any thread.
struct OutboxInsert {
    std::string sql;
    std::vector<SqlParam> params;
};
OutboxInsert outboxInsert(const OutboxEvent& event, double now,
                          std::optional<int64_t> endpoint = std::nullopt);

/// Runs outboxInsert() in the caller's transaction. Returns the messages queued. Caller's thread.
int64_t enqueueEvent(const SqlSource& db, const OutboxEvent& event, double now,
                     std::optional<int64_t> endpoint = std::nullopt);

/// Whether an enabled endpoint takes events of `type`, read in the caller's transaction. A store that
/// queues each event with its own statement asks first, so that an event nobody takes costs one look-up
/// and no message is built. Caller's thread.
bool anyEndpointTakes(const SqlSource& db, std::string_view type);

/// The types of the events below.
inline constexpr std::string_view kSessionStartedType = "session.started";
inline constexpr std::string_view kVisitLinkedType = "visit.linked";
inline constexpr std::string_view kDeviceTaggedType = "device.tagged";
inline constexpr std::string_view kLinksClearedType = "device.cleared";

/// The events of the store's own writes (their data is documented in docs/webhooks.md). Pure.
OutboxEvent sessionStarted(const DeviceInfo& device, int64_t deviceRow);
OutboxEvent visitLinked(int64_t device, const LinkRow& link, std::string_view campaignName);
OutboxEvent deviceTagged(int64_t device, const std::string& group, const std::string& tag,
                         const std::string& value);
OutboxEvent linksCleared(int64_t device, int64_t links);
/// Queues the event of a status the device gave a link (nothing for a code without one, or when no
/// endpoint takes it), with the link's offer, place and campaign read in the caller's transaction.
void enqueueStatusEvent(const SqlSource& db, int64_t deviceEvent, std::string_view statusCode, double now);

/// A new message id: "msg_" and 24 hexadecimal digits of 96 random bits, so that ids never meet and
/// none can be guessed from another. Any thread.
std::string newMessageId();
/// SQL that is true for the rows of `endpoints` (a table or its alias) that are enabled and take the type
/// whose typePattern() is bound at `pattern` (a placeholder). Pure.
std::string takesType(std::string_view endpoints, std::string_view pattern);
SqlParam typePattern(std::string_view type);

/// A webhook endpoint as stored.
struct WebhookEndpoint {
    int64_t id = 0;
    std::string url;
    std::vector<std::string> eventTypes;  ///< empty: every type
    bool enabled = true;
    bool includeDevice = false;  ///< the device's identifier goes out in each event's data
    std::string secret;
    std::string previousSecret;  ///< "" when none; still signs until previousUntil
    double previousUntil = 0;
    std::string disabledReason;  ///< why delivery stopped by itself ("gone": the endpoint answered 410)
    double createdAt = 0;
};

/// Inserts `endpoint` (its id is ignored) and returns its id. Caller's thread and transaction.
int64_t insertEndpoint(const SqlSource& db, const WebhookEndpoint& endpoint);
/// Every endpoint by id, or the one with `id`.
std::vector<WebhookEndpoint> readEndpoints(const SqlSource& db, std::optional<int64_t> id = std::nullopt);
/// Writes every member of `endpoint` but its id and creation time; false when there is no such endpoint.
bool updateEndpoint(const SqlSource& db, const WebhookEndpoint& endpoint);
/// Removes the endpoint with its messages and attempts; false when there is none.
bool deleteEndpoint(const SqlSource& db, int64_t id);

/// A message claimed for delivery, with what sending it needs.
struct DueMessage {
    int64_t id = 0;
    std::string messageId;  ///< the same on every attempt
    int64_t endpoint = 0;
    std::string type;
    std::string data;      ///< the event's data as JSON text
    std::string deviceId;  ///< "" unless the endpoint includes it (and the device was not erased)
    double createdAt = 0;
    int attempts = 0;  ///< made before this one
    std::string url;
    std::vector<std::string> secrets;  ///< the current one first, then the previous one while it still signs
};

/// Claims up to `limit` pending messages of enabled endpoints due at `now`, by due time then id, that no
/// other deliverer holds; they stay claimed until `claimUntil` unless an attempt is recorded. Caller's
/// thread and transaction.
std::vector<DueMessage> claimDueMessages(const SqlSource& db, double now, double claimUntil, int limit);

/// How an attempt ended and what comes next.
struct AttemptRecord {
    int64_t message = 0;
    int64_t endpoint = 0;
    double at = 0;
    long status = 0;  ///< 0: no answer
    double seconds = 0;
    std::string error;
    enum class Next : std::uint8_t { delivered, retry, failed } next = Next::retry;
    double nextAttempt = 0;       ///< with Next::retry
    std::string disableEndpoint;  ///< a reason to stop delivering to the endpoint ("" keeps it)
};

/// Keeps the attempt and moves its message on. Caller's thread and transaction.
void recordAttempt(const SqlSource& db, const AttemptRecord& attempt);

/// Queues messages of the endpoint created at or after `since` again (failed ones, or every one when
/// `all`; only `message` when given, by its row id), due at `now`. Returns how many.
int64_t replayMessages(const SqlSource& db, int64_t endpoint, double since, bool all,
                       std::optional<int64_t> message, double now);

/// The endpoint's latest attempts, newest first: {"message", "messageId", "type", "at", "status",
/// "seconds", "error"}.
nlohmann::json recentAttempts(const SqlSource& db, int64_t endpoint, int limit);

/// Messages waiting for delivery, and when the oldest of them was created.
struct OutboxDepth {
    int64_t pending = 0;
    std::optional<double> oldestCreatedAt;
};
OutboxDepth outboxDepth(const SqlSource& db);

/// Removes up to `limit` delivered or failed messages that ended before `before`, with their attempts.
/// Returns the messages removed.
int64_t pruneEndedMessages(const SqlSource& db, double before, int limit);

}  // namespace tovrel::server
