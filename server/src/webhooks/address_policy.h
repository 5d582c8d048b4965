#pragma once

#include <sys/socket.h>

#include <cstddef>
#include <string>
#include <string_view>

namespace tovrel::server::webhooks {

/// The longest endpoint URL accepted. Constant; any thread.
inline constexpr std::size_t kLongestEndpointUrl = 2048;

/// True for an address no webhook may reach by default: loopback, unspecified ("this network" 0/8),
/// link-local (169.254/16, fe80::/10), private (10/8, 172.16/12, 192.168/16, fc00::/7, the old site-local
/// fec0::/10), carrier-grade NAT 100.64/10, multicast, broadcast and the reserved 240/4, and the IPv6 forms
/// that carry one of these IPv4 addresses (IPv4-mapped, IPv4-compatible, NAT64 64:ff9b::/96, 6to4 2002::/16).
/// Also true for a null address and for families other than IPv4 and IPv6. Pure; any thread.
bool isPrivateAddress(const sockaddr* address);

/// Why `url` cannot be an endpoint ("" when it can): an absolute http(s) URL with a host, no user info, no
/// fragment, no spaces or control characters, https unless `allowHttp`, at most 2048 characters. Read by
/// libcurl's own URL parser, so that what passes here is what the sender connects to. Pure; any thread.
std::string endpointUrlProblem(std::string_view url, bool allowHttp);

/// Resolves the URL's host (getaddrinfo, blocking) and says whether any of its addresses is private; a host
/// that does not resolve, or a URL with no host, counts as not private (delivery will fail and be retried).
/// Caller's thread.
bool resolvesToPrivateAddress(std::string_view url);

}  // namespace tovrel::server::webhooks
