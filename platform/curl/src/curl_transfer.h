#pragma once

#include <curl/curl.h>

#include <optional>
#include <string>
#include <vector>

#include "curl_error.h"
#include "tovrel/curl/curl_options.h"
#include "tovrel/platform/http.h"

namespace tovrel::curl {

/// Where a request goes, as its descriptions name it.
struct Target {
    std::string hostPort;  ///< "127.0.0.1:8080", "[::1]:443"
    bool https = false;
};

/// The target of an absolute http or https `url`, or nothing for anything else. Pure; any thread.
std::optional<Target> parseTarget(const std::string& url);

/// One request from the moment it is queued until its completion is posted. Built on the caller's
/// thread, then owned by the network thread.
struct Transfer {
    std::string url;
    Target target;
    std::string method;
    std::string body;
    std::vector<std::string> headerLines;
    double timeoutSeconds = 0;
    bool followRedirects = false;
    platform::JsonCompletion jsonDone;  ///< set for postJson(), else responseDone
    platform::ResponseCompletion responseDone;

    Transfer() = default;
    Transfer(const Transfer&) = delete;
    Transfer& operator=(const Transfer&) = delete;
    ~Transfer();

    /// Network thread. Creates and configures the easy handle; an error when it cannot be sent safely.
    std::optional<platform::HttpError> open(const CurlOptions& options, const std::string& pinOption,
                                            CURLSH* share);
    /// Network thread, after libcurl finished the transfer.
    [[nodiscard]] int status() const;
    [[nodiscard]] std::string contentType() const;
    [[nodiscard]] TransferFailure failure(CURLcode code, double connectTimeoutSeconds) const;

    CURL* easy = nullptr;
    std::string received;

  private:
    static size_t write(char* data, size_t size, size_t count, void* self);

    curl_slist* headers_ = nullptr;
    std::size_t maxBytes_ = 0;
    bool tooLarge_ = false;
    char errorBuffer_[CURL_ERROR_SIZE] = {};
};

}  // namespace tovrel::curl
