#pragma once

#include <string_view>

#include "tovrel/export.h"

namespace tovrel::platform {

/// The platform log.
class TOVREL_EXPORT LogSink {
  public:
    virtual ~LogSink() = default;
    /// Any thread. Writes one log line.
    virtual void write(std::string_view line) = 0;
};

}  // namespace tovrel::platform
