#pragma once

#include <string_view>

namespace tovrel::platform {

/// The platform log.
class LogSink {
public:
    virtual ~LogSink() = default;
    /// Any thread. Writes one log line.
    virtual void write(std::string_view line) = 0;
};

}  // namespace tovrel::platform
