#include "api/log_body.h"

#include <nlohmann/json.hpp>

#include "common/field_limits.h"
#include "common/request_fields.h"
#include "tovrel/platform/json_scanner.h"
#include "tovrel/protocol.h"

namespace tovrel::server {
namespace {

using platform::JsonScanner;

/// Whether `text`, one JSON value, holds no white space outside its strings and no "\/" inside them.
bool writtenTight(std::string_view text) {
    bool inString = false;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        if (inString) {
            if (c == '\\') {
                if (i + 1 < text.size() && text[i + 1] == '/') {
                    return false;
                }
                ++i;
            } else if (c == '"') {
                inString = false;
            }
        } else if (c == '"') {
            inString = true;
        } else if (c == ' ' || c == '\t' || c == '\n' || c == '\r') {
            return false;
        }
    }
    return true;
}

/// Reads the value at `in` as a dump would print it: members in strictly rising key order (no key
/// repeated), numbers only integers that print as they are written. Keys with escapes are left to the
/// general reader.
bool printedInOrder(JsonScanner& in) {
    switch (in.peek()) {
        case '{': {
            std::string_view previous;
            bool first = true;
            return in.object([&](std::string_view key) {
                if (!in.holds(key) || (!first && previous.compare(key) >= 0)) {
                    return false;
                }
                first = false;
                previous = key;
                return printedInOrder(in);
            });
        }
        case '[':
            return in.array([&in] { return printedInOrder(in); });
        case '"':
        case 't':
        case 'f':
        case 'n':
            return in.skip();
        default: {
            const char* start = in.position();
            nlohmann::json number;
            return in.number(&number) && number.is_number_integer() &&
                   std::string_view(start, static_cast<std::size_t>(in.position() - start)) != "-0";
        }
    }
}

}  // namespace

std::optional<PlainLog> readPlainLog(std::string_view body) {
    static constexpr std::string_view kDeviceId = protocol::member::kDeviceId;
    static constexpr std::string_view kMessage = protocol::member::kMessage;
    JsonScanner in(body, static_cast<std::size_t>(kMaxBodyDepth));
    std::string deviceId;
    bool hasDeviceId = false;
    std::string_view message;
    std::string_view eventName;
    std::string scratch;
    // One pass: the message is checked for printing as it came while it is read. A repeated member
    // keeps its last value, as in the parsed body.
    const bool read = in.peek() == '{' && in.object([&](std::string_view key) {
        if (key == kDeviceId) {
            scratch.clear();
            std::string_view value;
            hasDeviceId = in.peek() == '"' && in.string(&scratch, &value);
            deviceId.assign(value);
            return hasDeviceId;
        }
        if (key != kMessage) {
            return in.skip();
        }
        (void)in.peek();
        const char* start = in.position();
        int members = 0;
        const bool printed = in.peek() == '{' && in.object([&](std::string_view event) {
            eventName = event;
            return ++members == 1 && in.holds(event) && printedInOrder(in);
        });
        message = std::string_view(start, static_cast<std::size_t>(in.position() - start));
        return printed && members == 1;
    }) && in.atEnd();
    if (!read || !hasDeviceId || message.empty() || deviceId.size() > limits::kDeviceId ||
        deviceId.find('\0') != std::string::npos || eventName.empty() ||
        eventName.size() > limits::kLogEventName || eventName.find('\0') != std::string_view::npos ||
        !writtenTight(message)) {
        return std::nullopt;
    }
    PlainLog out;
    out.deviceId = std::move(deviceId);
    out.eventName.assign(eventName);
    out.text.assign(message);
    return out;
}

}  // namespace tovrel::server
