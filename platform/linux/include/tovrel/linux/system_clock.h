#pragma once

#include "tovrel/export.h"
#include "tovrel/platform/clock.h"

namespace tovrel::linuxbackend {

/// The system's wall clock.
class TOVREL_EXPORT SystemClock final : public platform::Clock {
  public:
    /// Any thread. Seconds since 1970 from the system clock.
    [[nodiscard]] double now() const override;
    /// Any thread. Really blocks the calling thread; negative or NaN durations return at once.
    void sleepFor(double seconds) override;
};

}  // namespace tovrel::linuxbackend
