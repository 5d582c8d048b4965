#pragma once

#include <curl/curl.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "tovrel/platform/http.h"

namespace tovrel::curl {

/// What libcurl reported about one failed transfer, gathered on the network thread.
struct TransferFailure {
    CURLcode code = CURLE_OK;
    std::string_view hostPort;  ///< "127.0.0.1:8080"
    int osErrno = 0;            ///< CURLINFO_OS_ERRNO
    bool connected = false;     ///< the TCP (and TLS) connection had been set up
    double timeoutSeconds = 0;  ///< the limit that applied to the whole request
    double connectTimeoutSeconds = 0;
    std::int64_t receivedBytes = 0;   ///< body bytes read
    std::int64_t expectedBytes = -1;  ///< Content-Length, or -1
    std::size_t maxResponseBytes = 0;
    bool responseTooLarge = false;  ///< the write callback refused a body over maxResponseBytes
    std::string_view detail;        ///< libcurl's error buffer
};

/// Maps a failed transfer to its kind and one readable sentence; `code` is the CURLcode. Pure.
platform::HttpError describeTransferFailure(const TransferFailure& failure);

/// The error of a request stopped by the client's shutdown.
platform::HttpError cancelledError(std::string_view hostPort);

}  // namespace tovrel::curl
