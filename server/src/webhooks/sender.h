#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace tovrel::server::webhooks {

/// One webhook request to make. Plain data; one thread at a time.
struct Outgoing {
    int64_t message = 0;   ///< the caller's key for it
    int64_t endpoint = 0;  ///< requests of one endpoint are limited together
    std::string url;       ///< where to POST it
    /// Besides Content-Type: application/json; a name or value holding CR, LF or NUL, or a name that is empty
    /// or holds ':' or a space, fails the request before anything is sent.
    std::vector<std::pair<std::string, std::string>> headers;
    std::string body;  ///< the JSON sent
};

/// How one request ended. Plain data; one thread at a time.
struct SendResult {
    int64_t message = 0;  ///< the request's Outgoing::message
    long status = 0;      ///< the HTTP status (kept when the answer's body broke off); 0 when no answer came
    /// Why no answer came ("" when one did): "refused private address", or a kind then ": " and libcurl's
    /// words, the kind one of "header" (a bad header, nothing sent), "url", "resolve", "connection",
    /// "timeout", "tls", "transfer".
    std::string error;
    std::optional<std::string> retryAfter;  ///< the answer's Retry-After header as sent (spaces trimmed)
    double seconds = 0;                     ///< from the start of the request to its end
};

/// How a Sender connects. Plain data; one thread at a time.
struct SenderOptions {
    bool allowPrivate = false;  ///< connect to private addresses too (tests, private networks)
    long timeoutMs = 15000;     ///< the whole request; at least 1
    int perEndpoint = 4;        ///< requests at once to one endpoint; at least 1
    int total = 32;             ///< requests at once in all; at least 1
};

/// Sends batches of webhook requests over POST with libcurl's multi interface. Redirects are not followed (a
/// 3xx is a status like any other); only http and https; no proxy, whatever the environment says; the
/// address is checked when each connection is made, so a name that resolves to a private address later is
/// refused too; the answer's body is read and dropped. Connections are kept for the next batches. One thread
/// at a time (the delivery thread).
class Sender {
  public:
    /// A sender with no connection yet. Throws std::runtime_error when libcurl cannot start. Any thread.
    explicit Sender(SenderOptions options);
    /// Closes the kept connections. The thread that used it.
    ~Sender();
    Sender(const Sender&) = delete;
    Sender& operator=(const Sender&) = delete;

    /// Sends every request, at most perEndpoint at once to one endpoint and in the given order within an
    /// endpoint, at most `total` at once, endpoints taking turns; returns when all have ended, one result per
    /// request, in any order. The sending thread.
    std::vector<SendResult> send(std::vector<Outgoing> batch);

  private:
    SenderOptions options_;
    void* multi_ = nullptr;  ///< the CURLM handle, whose connection cache outlives a batch
};

}  // namespace tovrel::server::webhooks
