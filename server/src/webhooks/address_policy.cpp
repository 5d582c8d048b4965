#include "webhooks/address_policy.h"

#include <curl/curl.h>
#include <netdb.h>
#include <netinet/in.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <memory>
#include <optional>

namespace tovrel::server::webhooks {

namespace {

struct Range {
    uint32_t network;
    int bits;
};

/// The IPv4 networks no webhook reaches.
constexpr std::array<Range, 9> kPrivateV4{{
    {0x00000000, 8},   // "this network", 0.0.0.0 among it
    {0x7f000000, 8},   // loopback
    {0x0a000000, 8},   // private
    {0xac100000, 12},  // private
    {0xc0a80000, 16},  // private
    {0xa9fe0000, 16},  // link-local
    {0x64400000, 10},  // carrier-grade NAT
    {0xe0000000, 4},   // multicast
    {0xf0000000, 4},   // reserved, and the broadcast 255.255.255.255
}};

bool privateV4(uint32_t address) {
    return std::any_of(kPrivateV4.begin(), kPrivateV4.end(), [address](const Range& range) {
        return (address & ~uint32_t{0} << (32 - range.bits)) == range.network;
    });
}

uint32_t v4At(const unsigned char* bytes) {
    return uint32_t{bytes[0]} << 24 | uint32_t{bytes[1]} << 16 | uint32_t{bytes[2]} << 8 | bytes[3];
}

/// The 96-bit prefixes of IPv6 addresses that carry an IPv4 address in their last 32 bits: IPv4-compatible
/// (:: and ::1 among them, as 0.0.0.0 and 0.0.0.1), IPv4-mapped and NAT64.
constexpr std::array<std::array<unsigned char, 12>, 3> kCarryingV4{{
    {},
    {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xff},
    {0x00, 0x64, 0xff, 0x9b},
}};

bool privateV6(const unsigned char* b) {
    for (const auto& prefix : kCarryingV4) {
        if (std::memcmp(b, prefix.data(), prefix.size()) == 0) {
            return privateV4(v4At(b + 12));
        }
    }
    if (b[0] == 0x20 && b[1] == 0x02) {
        return privateV4(v4At(b + 2));  // 6to4, 2002:V4ADDR::/48
    }
    return (b[0] & 0xfe) == 0xfc                       // unique local fc00::/7
           || (b[0] == 0xfe && (b[1] & 0xc0) == 0x80)  // link-local fe80::/10
           || (b[0] == 0xfe && (b[1] & 0xc0) == 0xc0)  // site-local fec0::/10
           || b[0] == 0xff;                            // multicast
}

using Url = std::unique_ptr<CURLU, decltype(&curl_url_cleanup)>;

Url parse(std::string_view text) {
    Url url(curl_url(), curl_url_cleanup);
    if (url && curl_url_set(url.get(), CURLUPART_URL, std::string(text).c_str(), 0) != CURLUE_OK) {
        url.reset();
    }
    return url;
}

/// A part of the URL, nullopt when it has none.
std::optional<std::string> part(const Url& url, CURLUPart which) {
    char* text = nullptr;
    if (curl_url_get(url.get(), which, &text, 0) != CURLUE_OK || text == nullptr) {
        return std::nullopt;
    }
    std::string value(text);
    curl_free(text);
    return value;
}

bool startsWithScheme(std::string_view url, std::string_view scheme) {
    if (url.size() < scheme.size() + 3 || url.substr(scheme.size(), 3) != "://") {
        return false;
    }
    for (std::size_t i = 0; i < scheme.size(); ++i) {
        const char c = url[i] >= 'A' && url[i] <= 'Z' ? static_cast<char>(url[i] - 'A' + 'a') : url[i];
        if (c != scheme[i]) {
            return false;
        }
    }
    return true;
}

}  // namespace

bool isPrivateAddress(const sockaddr* address) {
    if (address == nullptr) {
        return true;
    }
    if (address->sa_family == AF_INET) {
        sockaddr_in v4{};
        std::memcpy(&v4, address, sizeof v4);
        return privateV4(ntohl(v4.sin_addr.s_addr));
    }
    if (address->sa_family == AF_INET6) {
        sockaddr_in6 v6{};
        std::memcpy(&v6, address, sizeof v6);
        return privateV6(v6.sin6_addr.s6_addr);
    }
    return true;
}

std::string endpointUrlProblem(std::string_view url, bool allowHttp) {
    if (url.empty()) {
        return "the URL is empty";
    }
    if (url.size() > kLongestEndpointUrl) {
        return "the URL is longer than " + std::to_string(kLongestEndpointUrl) + " characters";
    }
    for (const char c : url) {
        if (static_cast<unsigned char>(c) <= 0x20 || c == 0x7f) {
            return "the URL holds a space or a control character";
        }
    }
    const bool https = startsWithScheme(url, "https");
    if (!https && !startsWithScheme(url, "http")) {
        return "the URL is not an absolute http:// or https:// URL";
    }
    // libcurl reads "https:///x" as having the host "x"; an endpoint spells its host out.
    if (const auto rest = url.substr(https ? 8 : 7);
        rest.empty() || rest.front() == '/' || rest.front() == '\\') {
        return "the URL has no host";
    }
    if (!https && !allowHttp) {
        return "the URL must use https";
    }
    const Url parsed = parse(url);
    if (!parsed) {
        return "the URL cannot be read";
    }
    const auto host = part(parsed, CURLUPART_HOST);
    if (!host || host->empty()) {
        return "the URL has no host";
    }
    if (part(parsed, CURLUPART_USER) || part(parsed, CURLUPART_PASSWORD) || part(parsed, CURLUPART_OPTIONS)) {
        return "the URL holds user information";
    }
    if (part(parsed, CURLUPART_FRAGMENT)) {
        return "the URL has a fragment";
    }
    return "";
}

bool resolvesToPrivateAddress(std::string_view url) {
    const Url parsed = parse(url);
    if (!parsed) {
        return false;
    }
    auto host = part(parsed, CURLUPART_HOST);
    if (!host || host->empty()) {
        return false;
    }
    if (host->front() == '[' && host->back() == ']') {
        *host = host->substr(1, host->size() - 2);
    }
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    if (getaddrinfo(host->c_str(), nullptr, &hints, &found) != 0) {
        return false;
    }
    bool anyPrivate = false;
    for (const addrinfo* at = found; at != nullptr && !anyPrivate; at = at->ai_next) {
        anyPrivate = isPrivateAddress(at->ai_addr);
    }
    freeaddrinfo(found);
    return anyPrivate;
}

}  // namespace tovrel::server::webhooks
