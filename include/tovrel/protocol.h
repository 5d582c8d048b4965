#pragma once

#include <string_view>

/// The wire contract between the component and the service: the paths of the service's endpoints, each
/// a POST of a JSON object answered with one. The component, tovrel-server and tovrel-sim all spell them
/// from here. Constants only; any thread.
namespace tovrel::protocol {

/// Starts a session: the app's key and the device's identity in, a session key out.
inline constexpr std::string_view kSessionPath = "/v1/session";
/// The places near a position, each with its offers.
inline constexpr std::string_view kPlacePath = "/v2/place";
/// Links a visit to an offer: the device event the answer names.
inline constexpr std::string_view kLinkPath = "/v1/deviceevent/link";
/// The user's answer to a linked offer.
inline constexpr std::string_view kLinkStatusPath = "/v1/deviceevent/update";
/// Forgets the device's links.
inline constexpr std::string_view kClearLinksPath = "/v1/deviceevent/clear";
/// Sets the device's tags.
inline constexpr std::string_view kTagUpdatePath = "/v1/devicetag/update";
/// Removes tags of the device.
inline constexpr std::string_view kTagDeletePath = "/v1/devicetag/delete";
/// A diagnostics message.
inline constexpr std::string_view kLogPath = "/v1/log";

}  // namespace tovrel::protocol
