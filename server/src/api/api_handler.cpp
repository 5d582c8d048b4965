#include "api/api_handler.h"

#include <algorithm>

#include "api/service.h"
#include "common/request_fields.h"
#include "common/routes.h"
#include "http/static_files.h"
#include "store/work_queue.h"

namespace tovrel::server {

namespace {

bool validHost(std::string_view host) {
    if (host.empty() || host.size() > 255) {
        return false;
    }
    return std::all_of(host.begin(), host.end(), [](char c) {
        return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '.' ||
               c == '-' || c == ':' || c == '[' || c == ']' || c == '_';
    });
}

HttpReply replyOf(ApiReply&& api, Route route) {
    HttpReply reply;
    reply.status = api.status;
    reply.body = std::move(api.body);
    reply.route = route;
    reply.retryAfter = api.retry ? "1" : nullptr;
    return reply;
}

HttpReply error(unsigned status, const std::string& message, Route route) {
    HttpReply reply;
    reply.status = status;
    reply.body = errorJson(message);
    reply.route = route;
    return reply;
}

HttpReply busy(Route route) {
    HttpReply reply = error(503, "the server is busy; try again shortly", route);
    reply.retryAfter = "1";
    return reply;
}

}  // namespace

void ApiHandler::writeLog(LogMessage message, const Launch& launch, const Respond& respond) {
    constexpr Route route = Route::log;
    if (service_.logsShareCommits()) {
        if (!service_.startLog(message, launch,
                               [respond](ApiReply&& reply) { respond(replyOf(std::move(reply), route)); })) {
            respond(busy(route));
        }
        return;
    }
    auto job = [&service = service_, message = std::move(message), respond,
                queuedAt = Service::steadySeconds()]() mutable {
        respond(replyOf(service.writeLog(std::move(message), queuedAt), route));
    };
    if (!database_.post(std::move(job))) {
        respond(busy(route));
    }
}

ApiHandler::ApiHandler(Service& service, const StaticFiles& files, WorkQueue& database, std::string mediaBase)
    : service_(service), files_(files), database_(database), mediaBase_(std::move(mediaBase)) {}

std::string ApiHandler::mediaBase(std::string_view host, bool tls) const {
    if (!mediaBase_.empty()) {
        return mediaBase_;
    }
    if (!validHost(host)) {
        return fallbackBase_;
    }
    std::string base = tls ? "https://" : "http://";
    base.append(host.data(), host.size());
    return base;
}

Admission ApiHandler::admit(const HttpRequest& header) {
    Admission admission;
    if (const ApiRoute* route = findApiRoute(header.path)) {
        admission.bodyLimit = route->bodyLimit;
    }
    return admission;
}

void ApiHandler::handle(const HttpRequest& request, Respond respond) {
    const std::string_view path = request.path;
    if (const ApiRoute* api = findApiRoute(path)) {
        const Route route = api->route;
        if (request.method != kApiMethod) {
            HttpReply reply = error(405, "use POST for " + std::string(path), route);
            reply.allow = "POST";
            return respond(std::move(reply));
        }
        std::string base = mediaBase(request.host, request.tls);
        const Launch launch = [&database = database_](std::function<void()> lead) {
            return database.post(std::move(lead));
        };
        if (route == Route::place) {
            if (auto reply = service_.answerPlainPlaces(request.body, base)) {
                return respond(replyOf(std::move(*reply), route));
            }
        } else if (route == Route::log) {
            // Diagnostics as the component writes them are kept as they came, never parsed.
            if (std::optional<LogMessage> message = service_.plainLogMessage(request.body)) {
                if (auto refused = service_.refuseChattyDevice(message->deviceId)) {
                    return respond(replyOf(std::move(*refused), route));
                }
                return writeLog(std::move(*message), launch, respond);
            }
        }
        auto parsed = Service::parse(path, request.body);
        if (auto* refused = std::get_if<ApiReply>(&parsed)) {
            return respond(replyOf(std::move(*refused), route));
        }
        nlohmann::json& req = std::get<nlohmann::json>(parsed);
        if (auto reply = service_.answerInMemory(path, req, base)) {
            return respond(replyOf(std::move(*reply), route));
        }
        if (service_.startWrite(path, req, launch, [respond, route](ApiReply&& reply) {
                respond(replyOf(std::move(reply), route));
            })) {
            return;
        }
        auto job = [&service = service_, path = std::string(path), req = std::move(req),
                    base = std::move(base), respond, route, queuedAt = Service::steadySeconds()]() {
            respond(replyOf(service.handleParsed(path, req, base, queuedAt), route));
        };
        if (!database_.post(std::move(job))) {
            respond(busy(route));
        }
        return;
    }
    const StaticTarget page = files_.resolve(request.target);
    if (request.method != "GET" && request.method != "HEAD") {
        if (page.status == 200) {
            HttpReply reply = error(405, "use GET for " + std::string(path), Route::page);
            reply.allow = "GET, HEAD";
            return respond(std::move(reply));
        }
        return respond(error(404, "there is no endpoint " + std::string(path), Route::other));
    }
    if (page.status != 200) {
        return respond(error(page.status, page.error, Route::page));
    }
    HttpReply reply;
    reply.route = Route::page;
    reply.file = page.file;
    reply.headOnly = request.method == "HEAD";
    reply.fileType = page.contentType;
    respond(std::move(reply));
}

}  // namespace tovrel::server
