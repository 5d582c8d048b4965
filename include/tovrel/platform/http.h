#pragma once

#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "tovrel/export.h"

namespace tovrel::platform {

/// What went wrong with one request.
enum class HttpErrorKind {
    kTransport,  ///< refused, reset, unreachable host, name not resolved, truncated body
    kTimeout,    ///< connect or total time-out
    kTls,        ///< certificate or public-key pin rejected
    kStatus,     ///< the server answered with a status outside 2xx
    kBadBody,    ///< a 2xx answer whose body is not JSON
    kCancelled,  ///< the client shut down before the answer came
};

struct TOVREL_EXPORT HttpError {
    HttpErrorKind kind = HttpErrorKind::kTransport;
    int code = 0;                      ///< the transport's own code, or the HTTP status for kStatus
    std::string localizedDescription;  ///< one readable sentence saying what happened
};

/// The outcome of a JSON POST: the text of a 2xx answer that is JSON, or an error. The answer is
/// checked, not parsed: each reader reads what it needs straight from the text.
struct TOVREL_EXPORT JsonResult {
    int status = 0;    ///< HTTP status when the server answered, else 0
    std::string text;  ///< the answer's body as it came: JSON text whenever ok()
    std::optional<HttpError> error;
    [[nodiscard]] bool ok() const { return !error.has_value(); }
};

struct TOVREL_EXPORT HttpRequest {
    std::string method = "GET";
    std::string url;
    std::vector<std::pair<std::string, std::string>> headers;
    std::string body;
    double timeoutSeconds = 30;
    bool ignoreCache = false;  ///< always fetch from the network
};

struct TOVREL_EXPORT HttpResponse {
    int status = 0;
    std::string contentType;
    std::string body;
    std::optional<HttpError> error;  ///< transport failures only; any status is a response
};

using JsonCompletion = std::function<void(JsonResult)>;
using ResponseCompletion = std::function<void(HttpResponse)>;

/// HTTP for the component: JSON POSTs to the service, page loads for web views.
class TOVREL_EXPORT HttpClient {
  public:
    virtual ~HttpClient() = default;
    /// Any thread. POSTs `body`, JSON text, as "application/json" to `url`. `completion` runs once, on
    /// the main loop: success only for a 2xx status whose body is JSON; anything else is an error.
    virtual void postJson(const std::string& url, std::string body, JsonCompletion completion) = 0;
    /// Any thread. Sends a raw request; `completion` runs once, on the main loop.
    virtual void send(HttpRequest request, ResponseCompletion completion) = 0;
};

}  // namespace tovrel::platform
