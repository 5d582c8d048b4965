#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace tovrel::server {

/// A diagnostics message read straight from the text of its request.
struct PlainLog {
    std::string deviceId;
    std::string eventName;
    std::string text;  ///< the message's JSON text: what its parsed value prints as
};

/// Reads a /v1/log body without building a JSON value, when it is written as the component writes it:
/// one object with a string "deviceid" and a "message" object of one member (the event name), each
/// within its limit, the message printed as a dump prints it (no white space, members in key order, no
/// escaped slash, integers only), so that its text is kept as it came. Anything else is nullopt, and
/// the general reader answers the request (refusals included) as it always has. Pure; any thread.
std::optional<PlainLog> readPlainLog(std::string_view body);

}  // namespace tovrel::server
