#pragma once

#include <cstddef>

/// The longest value, in bytes of UTF-8, of every text a client or an operator sends. Requests are
/// checked against these before anything keys a cache, a rate limiter or a database row, so that both
/// stores refuse the same values with the same 400, and the longest answer the service can give
/// follows from them (docs/operations.md lists them all).
namespace tovrel::server::limits {

// The component's requests.
inline constexpr std::size_t kDeviceId = 128;
inline constexpr std::size_t kSdkKey = 128;
inline constexpr std::size_t kSessionKey = 128;
inline constexpr std::size_t kDeviceType = 64;
inline constexpr std::size_t kDeviceModel = 128;
inline constexpr std::size_t kTag = 128;
inline constexpr std::size_t kGroupTag = 128;
inline constexpr std::size_t kTagValue = 1024;
inline constexpr std::size_t kLogEventName = 128;

// Place files and the admin API.
inline constexpr std::size_t kAppName = 256;
inline constexpr std::size_t kCampaignName = 256;
inline constexpr std::size_t kPlaceName = 256;
inline constexpr std::size_t kOfferEventName = 256;
inline constexpr std::size_t kAlertText = 1024;
inline constexpr std::size_t kMediaType = 64;
inline constexpr std::size_t kMediaUrl = 2048;
inline constexpr std::size_t kOfferTags = 1024;
inline constexpr std::size_t kDate = 64;

/// How much of an offending value an error message quotes.
inline constexpr std::size_t kQuotedValue = 64;

}  // namespace tovrel::server::limits
