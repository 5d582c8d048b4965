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
/// repeated), numbers only integers that print as they are written.
bool printedInOrder(JsonScanner& in) {
    switch (in.peek()) {
        case '{': {
            std::string previous;
            bool first = true;
            return in.object([&](std::string_view key) {
                if (!first && previous.compare(key) >= 0) {
                    return false;
                }
                first = false;
                previous.assign(key);
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

/// The value at `in` as a slice of the text; empty when the scanner refuses it.
std::string_view valueText(JsonScanner& in) {
    (void)in.peek();
    const char* start = in.position();
    if (!in.skip()) {
        return {};
    }
    return {start, static_cast<std::size_t>(in.position() - start)};
}

}  // namespace

std::optional<PlainLog> readPlainLog(std::string_view body) {
    namespace member = protocol::member;
    JsonScanner in(body, static_cast<std::size_t>(kMaxBodyDepth));
    std::string deviceId;
    std::string_view message;
    bool hasDeviceId = false;
    std::string scratch;
    // A repeated member keeps its last value, as in the parsed body.
    const bool read = in.peek() == '{' && in.object([&](std::string_view key) {
        if (key == member::kDeviceId) {
            scratch.clear();
            std::string_view value;
            hasDeviceId = in.peek() == '"' && in.string(&scratch, &value);
            deviceId.assign(value);
            return hasDeviceId;
        }
        if (key == member::kMessage) {
            message = valueText(in);
            return !message.empty();
        }
        return in.skip();
    }) && in.atEnd();
    if (!read || !hasDeviceId || message.empty() || deviceId.size() > limits::kDeviceId ||
        deviceId.find('\0') != std::string::npos || !writtenTight(message)) {
        return std::nullopt;
    }
    PlainLog out;
    int members = 0;
    JsonScanner inMessage(message, static_cast<std::size_t>(kMaxBodyDepth) - 1);
    const bool printed = inMessage.peek() == '{' && inMessage.object([&](std::string_view key) {
        out.eventName.assign(key);
        return ++members == 1 && printedInOrder(inMessage);
    });
    if (!printed || members != 1 || out.eventName.empty() || out.eventName.size() > limits::kLogEventName ||
        out.eventName.find('\0') != std::string::npos) {
        return std::nullopt;
    }
    out.deviceId = std::move(deviceId);
    out.text.assign(message);
    return out;
}

}  // namespace tovrel::server
