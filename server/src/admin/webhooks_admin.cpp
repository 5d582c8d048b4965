#include "admin/webhooks_admin.h"

#include <cstdlib>
#include <optional>

#include "admin/query_string.h"
#include "common/request_fields.h"
#include "store/webhook_store.h"
#include "webhooks/address_policy.h"
#include "webhooks/signature.h"

namespace tovrel::server {
namespace {

using nlohmann::json;

constexpr double kDefaultGraceSeconds = 86400;
constexpr int kMostAttemptsListed = 500;

json endpointJson(const WebhookEndpoint& e, double now) {
    json types = json::array();
    for (const std::string& t : e.eventTypes) {
        types.push_back(t);
    }
    return {{"id", e.id},
            {"url", e.url},
            {"eventTypes", types.empty() ? json::array({"*"}) : types},
            {"enabled", e.enabled},
            {"includeDevice", e.includeDevice},
            {"secretHint", webhooks::secretHint(e.secret)},
            {"previousSecretUntil", e.previousUntil > now ? json(e.previousUntil) : json(nullptr)},
            {"disabledReason", e.disabledReason.empty() ? json(nullptr) : json(e.disabledReason)},
            {"createdAt", e.createdAt}};
}

std::vector<std::string> eventTypesOf(const json& value) {
    if (!value.is_array() || value.empty() || value.size() > kWebhookEventTypes.size() + 1) {
        throw ApiError(400, "eventTypes must be a list of event types, or [\"*\"] for every one");
    }
    std::vector<std::string> types;
    for (const json& t : value) {
        if (!t.is_string()) {
            throw ApiError(400, "eventTypes must hold strings");
        }
        const auto& name = t.get_ref<const std::string&>();
        if (name == "*") {
            return {};
        }
        if (!isWebhookEventType(name)) {
            throw ApiError(400, "eventTypes: there is no event type \"" + name.substr(0, 64) + "\"");
        }
        types.push_back(name);
    }
    return types;
}

bool optionalBool(const json& req, const char* name, bool fallback) {
    const auto it = req.find(name);
    if (it == req.end()) {
        return fallback;
    }
    if (!it->is_boolean()) {
        throw ApiError(400, std::string(name) + " must be true or false");
    }
    return it->get<bool>();
}

// The URL's form first, then (unless private addresses are allowed) where its host resolves now; the
// address is checked again whenever a connection is made.
void checkUrl(const std::string& url, bool allowHttp, bool allowPrivate) {
    if (const std::string problem = webhooks::endpointUrlProblem(url, allowHttp); !problem.empty()) {
        throw ApiError(400, "url: " + problem);
    }
    if (!allowPrivate && webhooks::resolvesToPrivateAddress(url)) {
        throw ApiError(
            400,
            "url: its host is a loopback, link-local or private address; tovrel-server sends there "
            "only with --webhook-allow-private");
    }
}

double numberParameter(std::string_view target, std::string_view name, double fallback) {
    const std::string text = queryValue(target, name);
    if (text.empty()) {
        return fallback;
    }
    char* end = nullptr;
    const double value = std::strtod(text.c_str(), &end);
    if (end != text.c_str() + text.size() || !(value >= 0) || value > 1e11) {
        throw ApiError(400, std::string(name) + " must be a number of seconds since 1970");
    }
    return value;
}

WebhookEndpoint endpointOf(const WebhookAdminRequest& r, int64_t id) {
    std::vector<WebhookEndpoint> found;
    r.transact([&](const SqlSource& db) { found = readEndpoints(db, id); });
    if (found.empty()) {
        throw ApiError(404, "there is no webhook endpoint " + std::to_string(id));
    }
    return found.front();
}

WebhookAdminReply added(const WebhookAdminRequest& r) {
    const json req = parseObjectBody(r.body);
    WebhookEndpoint e;
    e.url = requireString(req, "url", webhooks::kLongestEndpointUrl);
    checkUrl(e.url, optionalBool(req, "allowHttp", false), r.allowPrivate);
    if (req.contains("eventTypes")) {
        e.eventTypes = eventTypesOf(req["eventTypes"]);
    }
    e.includeDevice = optionalBool(req, "includeDevice", false);
    e.enabled = optionalBool(req, "enabled", true);
    e.secret = webhooks::newSecret();
    e.createdAt = r.now;
    r.transact([&](const SqlSource& db) { e.id = insertEndpoint(db, e); });
    json body = endpointJson(e, e.createdAt);
    body["secret"] = e.secret;
    return {201, body};
}

WebhookAdminReply changed(const WebhookAdminRequest& r, WebhookEndpoint e) {
    const json req = parseObjectBody(r.body);
    if (req.contains("url")) {
        e.url = requireString(req, "url", webhooks::kLongestEndpointUrl);
        checkUrl(e.url, optionalBool(req, "allowHttp", false), r.allowPrivate);
    }
    if (req.contains("eventTypes")) {
        e.eventTypes = eventTypesOf(req["eventTypes"]);
    }
    e.includeDevice = optionalBool(req, "includeDevice", e.includeDevice);
    const bool enabled = optionalBool(req, "enabled", e.enabled);
    if (enabled && !e.enabled) {
        e.disabledReason.clear();
    }
    e.enabled = enabled;
    bool found = false;
    r.transact([&](const SqlSource& db) { found = updateEndpoint(db, e); });
    if (!found) {
        throw ApiError(404, "there is no webhook endpoint " + std::to_string(e.id));
    }
    return {200, endpointJson(e, r.now)};
}

WebhookAdminReply rotated(const WebhookAdminRequest& r, WebhookEndpoint e) {
    const json req = r.body.empty() ? json::object() : parseObjectBody(r.body);
    const double grace = req.contains("graceSeconds") ? requireNumber(req, "graceSeconds", 0, 7 * 86400)
                                                      : kDefaultGraceSeconds;
    e.previousSecret = e.secret;
    e.previousUntil = r.now + grace;
    e.secret = webhooks::newSecret();
    r.transact([&](const SqlSource& db) { updateEndpoint(db, e); });
    json body = endpointJson(e, r.now);
    body["secret"] = e.secret;
    return {200, body};
}

WebhookAdminReply replayed(const WebhookAdminRequest& r, int64_t endpoint) {
    const double since = numberParameter(r.target, "since", 0);
    const std::string all = queryValue(r.target, "all");
    const std::string message = queryValue(r.target, "message");
    std::optional<int64_t> one;
    if (!message.empty()) {
        one = requireId(json{{"message", message}}, "message");
    }
    int64_t queued = 0;
    r.transact([&](const SqlSource& db) {
        queued =
            replayMessages(db, endpoint, since, all == "1" || all == "true" || one.has_value(), one, r.now);
    });
    return {202, {{"queued", queued}}};
}

}  // namespace

WebhookAdminReply webhooksRequest(const WebhookAdminRequest& r) {
    const auto& parts = r.parts;
    const bool get = r.method == "GET";
    const bool post = r.method == "POST";
    if (parts.size() == 1 && (get || post)) {
        if (post) {
            return added(r);
        }
        std::vector<WebhookEndpoint> all;
        r.transact([&](const SqlSource& db) { all = readEndpoints(db); });
        json list = json::array();
        for (const WebhookEndpoint& e : all) {
            list.push_back(endpointJson(e, r.now));
        }
        return {200, {{"endpoints", list}}};
    }
    if (parts.size() < 2 || parts.size() > 3) {
        throw ApiError(404,
                       "there is no admin endpoint " + std::string(r.method) + " /admin/v1/webhooks/...");
    }
    const int64_t id = requireId(json{{"id", parts[1]}}, "id");
    const WebhookEndpoint e = endpointOf(r, id);
    const std::string action = parts.size() == 3 ? parts[2] : "";
    if (action.empty() && get) {
        return {200, endpointJson(e, r.now)};
    }
    if (action.empty() && r.method == "PATCH") {
        return changed(r, e);
    }
    if (action.empty() && r.method == "DELETE") {
        r.transact([&](const SqlSource& db) { deleteEndpoint(db, id); });
        return {200, {{"removed", id}}};
    }
    if (action == "rotate" && post) {
        return rotated(r, e);
    }
    if (action == "test" && post) {
        int64_t queued = 0;
        r.transact([&](const SqlSource& db) {
            queued = enqueueEvent(db, {"webhook.test", std::nullopt, {{"endpoint", id}}}, r.now, id);
        });
        if (queued == 0) {
            throw ApiError(409, "the endpoint is disabled: enable it before sending it a test event");
        }
        return {202, {{"queued", queued}}};
    }
    if (action == "replay" && post) {
        return replayed(r, id);
    }
    if (action == "attempts" && get) {
        const double limit = numberParameter(r.target, "limit", 100);
        json attempts;
        r.transact([&](const SqlSource& db) {
            attempts = recentAttempts(db, id, static_cast<int>(std::min<double>(limit, kMostAttemptsListed)));
        });
        return {200, {{"attempts", attempts}}};
    }
    throw ApiError(404, "there is no admin endpoint " + std::string(r.method) + " /admin/v1/webhooks/" +
                            std::to_string(id) + (action.empty() ? "" : "/" + action));
}

}  // namespace tovrel::server
