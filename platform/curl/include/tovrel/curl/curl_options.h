#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "tovrel/export.h"

namespace tovrel::curl {

/// "Tovrel/<version>", the User-Agent sent with every request unless a request names its own.
TOVREL_EXPORT std::string defaultUserAgent();

/// How a `CurlHttpClient` talks to servers. TLS peer and host verification are always on; proxies come
/// from the environment (http_proxy, https_proxy, no_proxy) as libcurl reads them.
struct TOVREL_EXPORT CurlOptions {
    double connectTimeoutSeconds = 10;
    /// Whole-request limit for postJson(); send() uses the request's own timeoutSeconds.
    double totalTimeoutSeconds = 30;
    /// PEM file of trusted certificate authorities; empty uses the system store.
    std::string caFile{};
    /// Base64 sha256 digests of the server's DER SubjectPublicKeyInfo ("sha256//" prefix optional).
    /// When not empty, the server's key must match one of them (list a backup key beside the live one).
    std::vector<std::string> pinnedPublicKeys{};
    /// Larger answers fail with kTransport instead of being read into memory.
    std::size_t maxResponseBytes = 8 * 1024 * 1024;
    std::string userAgent = defaultUserAgent();
};

/// The CURLOPT_PINNEDPUBLICKEY value for `pins`: "sha256//A;sha256//B", or "" for no pins.
TOVREL_EXPORT std::string pinnedPublicKeyOption(const std::vector<std::string>& pins);

}  // namespace tovrel::curl
