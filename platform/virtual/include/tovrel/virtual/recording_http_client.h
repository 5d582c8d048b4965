#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "tovrel/export.h"
#include "tovrel/platform/http.h"
#include "tovrel/virtual/virtual_scheduler.h"

namespace tovrel::virtualbackend {

/// One request the component made.
struct TOVREL_EXPORT RecordedRequest {
    std::uint64_t id = 0;
    std::string method;
    std::string url;
    std::string path;     ///< the URL's path, e.g. "/v1/session"
    nlohmann::json body;  ///< a JSON POST's body, parsed when the client keeps requests; else null
    std::string rawBody;  ///< the body as sent
    double time = 0;      ///< virtual time when it was made
    bool json = false;    ///< made through postJson
};

/// How a request is answered: a status and body, or a transport error.
struct TOVREL_EXPORT Reply {
    int status = 200;
    std::string body;
    std::string contentType = "application/json";
    std::optional<platform::HttpError> error;

    static Reply json(int status, const nlohmann::json& body) {
        return {status, body.dump(), "application/json", {}};
    }
    static Reply text(int status, std::string body, std::string contentType = "text/html") {
        return {status, std::move(body), std::move(contentType), {}};
    }
    static Reply failure(platform::HttpErrorKind kind, std::string description) {
        return {0, {}, {}, platform::HttpError{kind, 0, std::move(description)}};
    }
};

/// Sees every request and every outcome (for timelines and event logs). Called on the thread that
/// made the request or delivered the answer.
class TOVREL_EXPORT HttpListener {
  public:
    virtual ~HttpListener() = default;
    virtual void onRequest(const RecordedRequest& request) = 0;
    /// `body` is the answer's text as the component receives it (empty on a transport error);
    /// `checkedJson` says that it answers a JSON POST and the client found it to be JSON.
    virtual void onResponse(const RecordedRequest& request, int status, const std::string& body,
                            const std::optional<platform::HttpError>& error, bool checkedJson) = 0;
};

/// The HTTP port of the virtual backend. Every request is recorded. Then, in order of precedence:
/// a forwarding client sends it to a real server (the virtual clock waits while it is in flight);
/// a responder answers it at once; or it waits until the test calls respond() or fail(). Answers to
/// JSON POSTs get exactly the libcurl client's treatment (2xx with a JSON body, else an error).
class TOVREL_EXPORT RecordingHttpClient final : public platform::HttpClient {
  public:
    using Responder = std::function<std::optional<Reply>(const RecordedRequest&)>;

    explicit RecordingHttpClient(std::shared_ptr<VirtualScheduler> scheduler);

    void postJson(const std::string& url, std::string body, platform::JsonCompletion completion) override;
    void send(platform::HttpRequest request, platform::ResponseCompletion completion) override;

    /// Sends every later request to `client` (nullptr stops forwarding).
    void forwardTo(std::shared_ptr<platform::HttpClient> client);
    /// Answers every later request it returns a reply for, at once.
    void setResponder(Responder responder);
    void setListener(HttpListener* listener);
    /// Whether requests() keeps every request, its JSON body parsed (the default). A simulator that
    /// sees them through a listener turns it off, so that a long run's memory stays bounded and no body
    /// is parsed that nobody reads.
    void setKeepRequests(bool keep);

    /// Every request made so far, oldest first.
    [[nodiscard]] std::vector<RecordedRequest> requests() const;
    /// Requests to `path`, oldest first.
    [[nodiscard]] std::vector<RecordedRequest> requestsTo(const std::string& path) const;
    /// Requests still waiting for the test's answer, oldest first.
    [[nodiscard]] std::vector<RecordedRequest> pending() const;
    /// Answers pending request `id`; the completion runs on the loop's next turn. False if not pending.
    bool respond(std::uint64_t id, const Reply& reply);
    /// Answers the oldest pending request to `path`. False when there is none.
    bool respondTo(const std::string& path, const Reply& reply);
    void clear();

  private:
    struct Waiting {
        RecordedRequest request;
        platform::JsonCompletion json;
        platform::ResponseCompletion raw;
    };

    RecordedRequest record(std::string method, const std::string& url, std::string rawBody, bool json);
    void dispatch(Waiting waiting);
    void deliver(Waiting waiting, Reply reply);
    HttpListener* currentListener() const;

    std::shared_ptr<VirtualScheduler> scheduler_;
    mutable std::mutex mutex_;
    std::vector<RecordedRequest> requests_;
    std::map<std::uint64_t, Waiting> pending_;
    std::shared_ptr<platform::HttpClient> forward_;
    Responder responder_;
    HttpListener* listener_ = nullptr;
    bool keepRequests_ = true;
    std::uint64_t nextId_ = 1;
};

/// The path of `url`: "http://host:8080/v1/log?x" → "/v1/log".
TOVREL_EXPORT std::string pathOf(const std::string& url);
/// The "host:port" of `url`.
TOVREL_EXPORT std::string hostPortOf(const std::string& url);

}  // namespace tovrel::virtualbackend
