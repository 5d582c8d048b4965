#pragma once

#include <string>

#include "tovrel/export.h"

namespace tovrel::platform {

/// Facts about the device the component runs on.
class TOVREL_EXPORT Device {
  public:
    virtual ~Device() = default;
    /// Any thread. The model name, for example "iPhone".
    [[nodiscard]] virtual std::string model() const = 0;
    /// Any thread. The operating system's name, for example "iOS" or "Linux".
    [[nodiscard]] virtual std::string systemName() const = 0;
    /// Any thread. The operating system's version text, for example "17.2".
    [[nodiscard]] virtual std::string systemVersion() const = 0;
    /// Any thread. The advertising identifier: a 36-character upper-case UUID (8-4-4-4-12), or an
    /// empty string when the platform has none.
    [[nodiscard]] virtual std::string advertisingIdentifier() const = 0;
};

}  // namespace tovrel::platform
