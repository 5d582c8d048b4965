#pragma once

#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>

#include "foundation/log.h"
#include "foundation/stored_values.h"
#include "tovrel/platform/device.h"
#include "tovrel/platform/location.h"
#include "tovrel/platform/preferences.h"

namespace tovrel::targeting {

/// The position stored under "currentLocation", if any.
std::optional<platform::Location> storedLocation(const platform::PreferencesStore& prefs);
/// Whether the float value of the system version is 8.0 or more.
bool systemVersionAtLeast8(const platform::Device& device);
/// Starts a log line ("<function> [Line <n>] ", as logLine writes it) in `buffer`, which keeps its
/// capacity, so a hot path logs without allocating: append the message, then write the buffer.
std::string& beginLogLine(std::string& buffer, std::string_view function, int line);

}  // namespace tovrel::targeting

/// beginLogLine with the calling function's name (worked out once per call site).
#define TOVREL_BEGIN_LOG_LINE(buffer)                                                              \
    ([&]() -> std::string& {                                                                       \
        static const std::string tovrelFunctionName = ::tovrel::functionName(__PRETTY_FUNCTION__); \
        return ::tovrel::targeting::beginLogLine((buffer), tovrelFunctionName, __LINE__);          \
    }())
