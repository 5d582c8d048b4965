#pragma once

#include "tovrel/export.h"

namespace tovrel::platform {

/// Wall-clock time. The component never reads std::chrono directly, so a virtual clock can run a
/// three-hour route in milliseconds.
class TOVREL_EXPORT Clock {
  public:
    virtual ~Clock() = default;
    /// Any thread. Seconds since 1970-01-01 00:00 UTC.
    [[nodiscard]] virtual double now() const = 0;
    /// Any thread. Blocks the calling thread for `seconds` (a virtual clock moves forward instead).
    virtual void sleepFor(double seconds) = 0;
};

}  // namespace tovrel::platform
