#pragma once

#include <memory>
#include <string>

#include "tovrel/curl/curl_options.h"
#include "tovrel/export.h"
#include "tovrel/platform/http.h"
#include "tovrel/platform/main_loop.h"

namespace tovrel::curl {

/// The HTTP port on libcurl. One network thread drives every transfer through one multi handle, so
/// connections and TLS sessions are reused; completions are posted to the main loop given here, exactly
/// once per request. `loop` must outlive the client.
class TOVREL_EXPORT CurlHttpClient final : public platform::HttpClient {
  public:
    /// Any thread. Starts the network thread; throws std::runtime_error when libcurl cannot be set up.
    explicit CurlHttpClient(platform::MainLoop& loop, CurlOptions options = {});
    /// Any thread, a completion included. Stops and joins the network thread; every request not yet
    /// answered completes with kCancelled (posted to the main loop like any other completion).
    ~CurlHttpClient() override;

    CurlHttpClient(const CurlHttpClient&) = delete;
    CurlHttpClient& operator=(const CurlHttpClient&) = delete;

    /// Any thread. POSTs `body` with JSON Content-Type and Accept headers; `completion` runs once on the
    /// main loop with classifyJsonResponse()'s verdict or a transport error.
    void postJson(const std::string& url, std::string body, platform::JsonCompletion completion) override;
    /// Any thread. Sends `request` as given (redirects followed); any status is a response, only
    /// transport failures fill `error`. `completion` runs once on the main loop.
    void send(platform::HttpRequest request, platform::ResponseCompletion completion) override;

  private:
    class Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace tovrel::curl
