#include "curl_error.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <system_error>

namespace tovrel::curl {
namespace {

using platform::HttpError;
using platform::HttpErrorKind;

std::string seconds(double value) {
    char text[32];
    std::snprintf(text, sizeof text, "%.1f", value);
    return text;
}

std::string sizeLimit(std::size_t bytes) {
    constexpr std::size_t kKiB = 1024;
    constexpr std::size_t kMiB = kKiB * kKiB;
    if (bytes >= kMiB && bytes % kMiB == 0) {
        return std::to_string(bytes / kMiB) + " MiB";
    }
    if (bytes >= kKiB && bytes % kKiB == 0) {
        return std::to_string(bytes / kKiB) + " KiB";
    }
    return std::to_string(bytes) + " bytes";
}

std::string lowerFirst(std::string text) {
    if (!text.empty()) {
        text.front() = static_cast<char>(std::tolower(static_cast<unsigned char>(text.front())));
    }
    while (!text.empty() && (text.back() == '.' || text.back() == '\n' || text.back() == ' ')) {
        text.pop_back();
    }
    return text;
}

bool isReset(int osErrno) {
    return osErrno == ECONNRESET || osErrno == EPIPE;
}

bool isTlsCode(CURLcode code) {
    switch (code) {
        case CURLE_SSL_CONNECT_ERROR:
        case CURLE_SSL_ENGINE_NOTFOUND:
        case CURLE_SSL_ENGINE_SETFAILED:
        case CURLE_SSL_CERTPROBLEM:
        case CURLE_SSL_CIPHER:
        case CURLE_PEER_FAILED_VERIFICATION:
        case CURLE_USE_SSL_FAILED:
        case CURLE_SSL_ENGINE_INITFAILED:
        case CURLE_SSL_CACERT_BADFILE:
        case CURLE_SSL_SHUTDOWN_FAILED:
        case CURLE_SSL_CRL_BADFILE:
        case CURLE_SSL_ISSUER_ERROR:
        case CURLE_SSL_PINNEDPUBKEYNOTMATCH:
        case CURLE_SSL_INVALIDCERTSTATUS:
        case CURLE_SSL_CLIENTCERT:
            return true;
        default:
            return false;
    }
}

std::string tlsSentence(const TransferFailure& f, const std::string& hp) {
    switch (f.code) {
        case CURLE_SSL_PINNEDPUBKEYNOTMATCH:
            return "The server's public key does not match any pinned key.";
        case CURLE_PEER_FAILED_VERIFICATION: {
            constexpr std::string_view kPrefix = "SSL certificate problem: ";
            std::string_view reason = f.detail;
            if (reason.starts_with(kPrefix)) {
                reason.remove_prefix(kPrefix.size());
            }
            return "The certificate of " + hp + " could not be verified" +
                   (reason.empty() ? std::string() : " (" + lowerFirst(std::string(reason)) + ")") + ".";
        }
        case CURLE_SSL_CACERT_BADFILE:
            return "The trusted certificate file could not be read.";
        default:
            return "A secure connection to " + hp + " could not be established" +
                   (f.detail.empty() ? std::string() : " (" + lowerFirst(std::string(f.detail)) + ")") + ".";
    }
}

}  // namespace

HttpError describeTransferFailure(const TransferFailure& f) {
    const std::string hp(f.hostPort);
    const int code = static_cast<int>(f.code);
    auto error = [code](HttpErrorKind kind, std::string sentence) {
        return HttpError{kind, code, std::move(sentence)};
    };

    if (isTlsCode(f.code)) {
        return error(HttpErrorKind::kTls, tlsSentence(f, hp));
    }
    if (f.responseTooLarge || f.code == CURLE_FILESIZE_EXCEEDED) {
        return error(HttpErrorKind::kTransport, "The response from " + hp + " is larger than the limit of " +
                                                    sizeLimit(f.maxResponseBytes) + ".");
    }
    switch (f.code) {
        case CURLE_OPERATION_TIMEDOUT:
            if (!f.connected) {
                return error(HttpErrorKind::kTimeout,
                             "Could not connect to " + hp + " within " +
                                 seconds(std::min(f.connectTimeoutSeconds, f.timeoutSeconds)) + " s.");
            }
            return error(HttpErrorKind::kTimeout,
                         "The request to " + hp + " timed out after " + seconds(f.timeoutSeconds) + " s.");
        case CURLE_COULDNT_CONNECT:
            if (f.osErrno != 0) {
                return error(HttpErrorKind::kTransport,
                             "Could not connect to " + hp + ": " +
                                 lowerFirst(std::system_category().message(f.osErrno)) + ".");
            }
            return error(HttpErrorKind::kTransport, "Could not connect to " + hp + ".");
        case CURLE_COULDNT_RESOLVE_HOST:
            return error(HttpErrorKind::kTransport,
                         "Could not find the server " + hp + " (name not resolved).");
        case CURLE_COULDNT_RESOLVE_PROXY:
            return error(HttpErrorKind::kTransport,
                         "Could not find the proxy for " + hp + " (name not resolved).");
        case CURLE_PROXY:
            return error(HttpErrorKind::kTransport, "The proxy failed the request to " + hp + ".");
        case CURLE_GOT_NOTHING:
            if (isReset(f.osErrno)) {
                return error(HttpErrorKind::kTransport,
                             "The connection to " + hp + " was reset by the server.");
            }
            return error(HttpErrorKind::kTransport,
                         "The server at " + hp + " closed the connection without answering.");
        case CURLE_RECV_ERROR:
        case CURLE_SEND_ERROR:
            if (isReset(f.osErrno)) {
                return error(HttpErrorKind::kTransport,
                             "The connection to " + hp + " was reset by the server.");
            }
            return error(HttpErrorKind::kTransport,
                         "The connection to " + hp + " broke while " +
                             (f.code == CURLE_SEND_ERROR ? "sending the request." : "receiving the answer."));
        case CURLE_PARTIAL_FILE:
            if (f.expectedBytes >= 0) {
                return error(HttpErrorKind::kTransport, "The response from " + hp +
                                                            " ended early (received " +
                                                            std::to_string(f.receivedBytes) + " of " +
                                                            std::to_string(f.expectedBytes) + " bytes).");
            }
            return error(HttpErrorKind::kTransport, "The response from " + hp + " ended early (received " +
                                                        std::to_string(f.receivedBytes) + " bytes).");
        case CURLE_WEIRD_SERVER_REPLY:
            return error(HttpErrorKind::kTransport,
                         "The server at " + hp + " sent an answer that is not HTTP.");
        case CURLE_TOO_MANY_REDIRECTS:
            return error(HttpErrorKind::kTransport,
                         "The request to " + hp + " was redirected too many times.");
        case CURLE_UNSUPPORTED_PROTOCOL:
            return error(HttpErrorKind::kTransport,
                         "The request to " + hp + " uses a protocol other than http or https.");
        case CURLE_URL_MALFORMAT:
            return error(HttpErrorKind::kTransport, "The address of the request is not a valid URL.");
        case CURLE_BAD_CONTENT_ENCODING:
            return error(HttpErrorKind::kTransport,
                         "The response from " + hp + " could not be decompressed.");
        default:
            return error(HttpErrorKind::kTransport,
                         "The request to " + hp + " failed: " + lowerFirst(curl_easy_strerror(f.code)) + ".");
    }
}

HttpError cancelledError(std::string_view hostPort) {
    return HttpError{
        HttpErrorKind::kCancelled, 0,
        "The request to " + std::string(hostPort) + " was cancelled because the client shut down."};
}

}  // namespace tovrel::curl
