#include "curl_transfer.h"

#include <memory>

namespace tovrel::curl {
namespace {

using platform::HttpError;
using platform::HttpErrorKind;

long milliseconds(double seconds) {
    return seconds > 0 ? static_cast<long>(seconds * 1000.0 + 0.5) : 0L;
}

}  // namespace

std::optional<Target> parseTarget(const std::string& url) {
    std::unique_ptr<CURLU, decltype(&curl_url_cleanup)> handle(curl_url(), curl_url_cleanup);
    if (!handle || curl_url_set(handle.get(), CURLUPART_URL, url.c_str(), 0) != CURLUE_OK) {
        return std::nullopt;
    }
    auto part = [&](CURLUPart which, unsigned flags) -> std::string {
        char* text = nullptr;
        if (curl_url_get(handle.get(), which, &text, flags) != CURLUE_OK || text == nullptr) {
            return {};
        }
        std::string value(text);
        curl_free(text);
        return value;
    };
    const std::string scheme = part(CURLUPART_SCHEME, 0);
    const std::string host = part(CURLUPART_HOST, 0);
    if ((scheme != "http" && scheme != "https") || host.empty()) {
        return std::nullopt;
    }
    return Target{host + ":" + part(CURLUPART_PORT, CURLU_DEFAULT_PORT), scheme == "https"};
}

Transfer::~Transfer() {
    if (easy != nullptr) {
        curl_easy_cleanup(easy);
    }
    curl_slist_free_all(headers_);
}

size_t Transfer::write(char* data, size_t size, size_t count, void* self) {
    auto* transfer = static_cast<Transfer*>(self);
    const size_t bytes = size * count;
    if (transfer->received.size() + bytes > transfer->maxBytes_) {
        transfer->tooLarge_ = true;
        return 0;
    }
    transfer->received.append(data, bytes);
    return bytes;
}

std::optional<HttpError> Transfer::open(const CurlOptions& options, const std::string& pinOption,
                                        CURLSH* share) {
    easy = curl_easy_init();
    if (easy == nullptr) {
        return HttpError{HttpErrorKind::kTransport, static_cast<int>(CURLE_OUT_OF_MEMORY),
                         "Ran out of memory while starting the request to " + target.hostPort + "."};
    }
    maxBytes_ = options.maxResponseBytes;
    for (const auto& line : headerLines) {
        headers_ = curl_slist_append(headers_, line.c_str());
    }
    // An empty "Expect:" stops libcurl from waiting for "100 Continue" before larger bodies.
    headers_ = curl_slist_append(headers_, "Expect:");

    curl_easy_setopt(easy, CURLOPT_URL, url.c_str());
    curl_easy_setopt(easy, CURLOPT_SHARE, share);
    curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(easy, CURLOPT_ERRORBUFFER, errorBuffer_);
    curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, &Transfer::write);
    curl_easy_setopt(easy, CURLOPT_WRITEDATA, this);
    curl_easy_setopt(easy, CURLOPT_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(easy, CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(easy, CURLOPT_FOLLOWLOCATION, followRedirects ? 1L : 0L);
    curl_easy_setopt(easy, CURLOPT_MAXREDIRS, 10L);
    curl_easy_setopt(easy, CURLOPT_USERAGENT, options.userAgent.c_str());
    curl_easy_setopt(easy, CURLOPT_HTTPHEADER, headers_);
    curl_easy_setopt(easy, CURLOPT_ACCEPT_ENCODING, "");
    curl_easy_setopt(easy, CURLOPT_TCP_KEEPALIVE, 1L);
    curl_easy_setopt(easy, CURLOPT_CONNECTTIMEOUT_MS, milliseconds(options.connectTimeoutSeconds));
    curl_easy_setopt(easy, CURLOPT_TIMEOUT_MS, milliseconds(timeoutSeconds));
    curl_easy_setopt(easy, CURLOPT_MAXFILESIZE_LARGE, static_cast<curl_off_t>(maxBytes_));
    curl_easy_setopt(easy, CURLOPT_SSL_VERIFYPEER, 1L);
    curl_easy_setopt(easy, CURLOPT_SSL_VERIFYHOST, 2L);

    if (method == "GET") {
        curl_easy_setopt(easy, CURLOPT_HTTPGET, 1L);
    } else if (method == "HEAD") {
        curl_easy_setopt(easy, CURLOPT_NOBODY, 1L);
    } else {
        if (method != "POST") {
            curl_easy_setopt(easy, CURLOPT_CUSTOMREQUEST, method.c_str());
        }
        if (method == "POST" || !body.empty()) {
            curl_easy_setopt(easy, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(body.size()));
            curl_easy_setopt(easy, CURLOPT_POSTFIELDS, body.data());
        }
    }

    // A client that asks for a CA file or pins must never fall back to talking without them.
    if (!options.caFile.empty() &&
        curl_easy_setopt(easy, CURLOPT_CAINFO, options.caFile.c_str()) != CURLE_OK) {
        return HttpError{HttpErrorKind::kTls, static_cast<int>(CURLE_NOT_BUILT_IN),
                         "The trusted certificate file cannot be used with this libcurl."};
    }
    if (!pinOption.empty() &&
        curl_easy_setopt(easy, CURLOPT_PINNEDPUBLICKEY, pinOption.c_str()) != CURLE_OK) {
        return HttpError{HttpErrorKind::kTls, static_cast<int>(CURLE_NOT_BUILT_IN),
                         "Public-key pinning is not supported by this libcurl."};
    }
    return std::nullopt;
}

int Transfer::status() const {
    long status = 0;
    curl_easy_getinfo(easy, CURLINFO_RESPONSE_CODE, &status);
    return static_cast<int>(status);
}

std::string Transfer::contentType() const {
    const char* type = nullptr;
    if (curl_easy_getinfo(easy, CURLINFO_CONTENT_TYPE, &type) != CURLE_OK || type == nullptr) {
        return {};
    }
    return type;
}

TransferFailure Transfer::failure(CURLcode code, double connectTimeoutSeconds) const {
    long osErrno = 0;
    curl_off_t connectTime = 0;
    curl_off_t appConnectTime = 0;
    long requestSize = 0;
    curl_off_t downloaded = 0;
    curl_off_t expected = -1;
    curl_easy_getinfo(easy, CURLINFO_OS_ERRNO, &osErrno);
    curl_easy_getinfo(easy, CURLINFO_CONNECT_TIME_T, &connectTime);
    curl_easy_getinfo(easy, CURLINFO_APPCONNECT_TIME_T, &appConnectTime);
    curl_easy_getinfo(easy, CURLINFO_REQUEST_SIZE, &requestSize);
    curl_easy_getinfo(easy, CURLINFO_SIZE_DOWNLOAD_T, &downloaded);
    curl_easy_getinfo(easy, CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &expected);

    TransferFailure f;
    f.code = code;
    f.hostPort = target.hostPort;
    f.osErrno = static_cast<int>(osErrno);
    // A request that went out was connected; otherwise TCP (and for https, TLS) must have finished.
    f.connected = requestSize > 0 || (connectTime > 0 && (!target.https || appConnectTime > 0));
    f.timeoutSeconds = timeoutSeconds;
    f.connectTimeoutSeconds = connectTimeoutSeconds;
    f.receivedBytes = downloaded;
    f.expectedBytes = expected;
    f.maxResponseBytes = maxBytes_;
    f.responseTooLarge = tooLarge_;
    f.detail = errorBuffer_;
    return f;
}

}  // namespace tovrel::curl
