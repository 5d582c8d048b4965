#include "tovrel/virtual/recording_http_client.h"

#include "tovrel/curl/json_response.h"
#include "tovrel/platform/json_scanner.h"

namespace tovrel::virtualbackend {

std::string pathOf(const std::string& url) {
    const auto scheme = url.find("://");
    const auto hostStart = scheme == std::string::npos ? 0 : scheme + 3;
    const auto slash = url.find('/', hostStart);
    if (slash == std::string::npos) {
        return "/";
    }
    const auto query = url.find_first_of("?#", slash);
    return url.substr(slash, query == std::string::npos ? std::string::npos : query - slash);
}

std::string hostPortOf(const std::string& url) {
    const auto scheme = url.find("://");
    const auto hostStart = scheme == std::string::npos ? 0 : scheme + 3;
    const auto end = url.find_first_of("/?#", hostStart);
    return url.substr(hostStart, end == std::string::npos ? std::string::npos : end - hostStart);
}

RecordingHttpClient::RecordingHttpClient(std::shared_ptr<VirtualScheduler> scheduler)
    : scheduler_(std::move(scheduler)) {}

RecordedRequest RecordingHttpClient::record(std::string method, const std::string& url, std::string rawBody,
                                            bool json) {
    RecordedRequest request;
    request.method = std::move(method);
    request.url = url;
    request.path = pathOf(url);
    request.rawBody = std::move(rawBody);
    request.time = scheduler_->now();
    request.json = json;
    HttpListener* listener = nullptr;
    bool keep = false;
    {
        std::lock_guard lock(mutex_);
        request.id = nextId_++;
        keep = keepRequests_;
        listener = listener_;
    }
    if (keep) {
        if (json) {
            auto parsed = platform::readJsonText(request.rawBody);
            request.body = parsed.ok() ? std::move(parsed.value) : nlohmann::json();
        }
        std::lock_guard lock(mutex_);
        requests_.push_back(request);
    }
    if (listener != nullptr) {
        listener->onRequest(request);
    }
    return request;
}

void RecordingHttpClient::postJson(const std::string& url, std::string body,
                                   platform::JsonCompletion completion) {
    dispatch(Waiting{record("POST", url, std::move(body), true), std::move(completion), nullptr});
}

void RecordingHttpClient::send(platform::HttpRequest request, platform::ResponseCompletion completion) {
    Waiting waiting{record(request.method, request.url, std::move(request.body), false), nullptr,
                    std::move(completion)};
    dispatch(std::move(waiting));
}

void RecordingHttpClient::dispatch(Waiting waiting) {
    std::shared_ptr<platform::HttpClient> forward;
    Responder responder;
    {
        std::lock_guard lock(mutex_);
        forward = forward_;
        responder = responder_;
    }
    if (forward) {
        scheduler_->beginExternalWork();
        auto shared = std::make_shared<Waiting>(std::move(waiting));
        // The real client posts its completion to the loop; the work ends once that task has run, so
        // the clock never moves between the answer and its handling.
        if (shared->request.json) {
            forward->postJson(shared->request.url, shared->request.rawBody,
                              [this, shared](platform::JsonResult result) {
                                  if (HttpListener* listener = currentListener()) {
                                      listener->onResponse(shared->request, result.status, result.text,
                                                           result.error, result.ok());
                                  }
                                  shared->json(std::move(result));
                                  scheduler_->endExternalWork();
                              });
        } else {
            platform::HttpRequest request;
            request.method = shared->request.method;
            request.url = shared->request.url;
            request.body = shared->request.rawBody;
            forward->send(std::move(request), [this, shared](platform::HttpResponse response) {
                if (HttpListener* listener = currentListener()) {
                    listener->onResponse(shared->request, response.status, response.body, response.error,
                                         false);
                }
                shared->raw(std::move(response));
                scheduler_->endExternalWork();
            });
        }
        return;
    }
    if (responder) {
        if (auto reply = responder(waiting.request)) {
            deliver(std::move(waiting), std::move(*reply));
            return;
        }
    }
    std::lock_guard lock(mutex_);
    const auto id = waiting.request.id;
    pending_.emplace(id, std::move(waiting));
}

HttpListener* RecordingHttpClient::currentListener() const {
    std::lock_guard lock(mutex_);
    return listener_;
}

void RecordingHttpClient::deliver(Waiting waiting, Reply reply) {
    HttpListener* listener = currentListener();
    if (waiting.json) {
        platform::JsonResult result;
        if (reply.error) {
            result.error = reply.error;
        } else {
            result = curl::classifyJsonResponse(reply.status, std::move(reply.body),
                                                hostPortOf(waiting.request.url));
        }
        if (listener != nullptr) {
            listener->onResponse(waiting.request, reply.status, result.text, reply.error, result.ok());
        }
        scheduler_->post([completion = std::move(waiting.json), result = std::move(result)]() mutable {
            completion(std::move(result));
        });
        return;
    }
    if (listener != nullptr) {
        listener->onResponse(waiting.request, reply.status, reply.body, reply.error, false);
    }
    if (waiting.raw) {
        platform::HttpResponse response;
        response.status = reply.error ? 0 : reply.status;
        response.body = std::move(reply.body);
        response.contentType = std::move(reply.contentType);
        response.error = std::move(reply.error);
        scheduler_->post([completion = std::move(waiting.raw), response = std::move(response)]() mutable {
            completion(std::move(response));
        });
    }
}

void RecordingHttpClient::forwardTo(std::shared_ptr<platform::HttpClient> client) {
    std::lock_guard lock(mutex_);
    forward_ = std::move(client);
}

void RecordingHttpClient::setResponder(Responder responder) {
    std::lock_guard lock(mutex_);
    responder_ = std::move(responder);
}

void RecordingHttpClient::setListener(HttpListener* listener) {
    std::lock_guard lock(mutex_);
    listener_ = listener;
}

void RecordingHttpClient::setKeepRequests(bool keep) {
    std::lock_guard lock(mutex_);
    keepRequests_ = keep;
}

std::vector<RecordedRequest> RecordingHttpClient::requests() const {
    std::lock_guard lock(mutex_);
    return requests_;
}

std::vector<RecordedRequest> RecordingHttpClient::requestsTo(const std::string& path) const {
    std::lock_guard lock(mutex_);
    std::vector<RecordedRequest> out;
    for (const auto& request : requests_) {
        if (request.path == path) {
            out.push_back(request);
        }
    }
    return out;
}

std::vector<RecordedRequest> RecordingHttpClient::pending() const {
    std::lock_guard lock(mutex_);
    std::vector<RecordedRequest> out;
    for (const auto& [id, waiting] : pending_) {
        out.push_back(waiting.request);
    }
    return out;
}

bool RecordingHttpClient::respond(std::uint64_t id, const Reply& reply) {
    Waiting waiting;
    {
        std::lock_guard lock(mutex_);
        const auto it = pending_.find(id);
        if (it == pending_.end()) {
            return false;
        }
        waiting = std::move(it->second);
        pending_.erase(it);
    }
    deliver(std::move(waiting), reply);
    return true;
}

bool RecordingHttpClient::respondTo(const std::string& path, const Reply& reply) {
    std::uint64_t id = 0;
    {
        std::lock_guard lock(mutex_);
        for (const auto& [candidate, waiting] : pending_) {
            if (waiting.request.path == path) {
                id = candidate;
                break;
            }
        }
    }
    return id != 0 && respond(id, reply);
}

void RecordingHttpClient::clear() {
    std::lock_guard lock(mutex_);
    requests_.clear();
    pending_.clear();
}

}  // namespace tovrel::virtualbackend
