#pragma once

#include <functional>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>

#include "tovrel/export.h"
#include "tovrel/platform/http.h"
#include "tovrel/platform/platform.h"

namespace tovrel {

class Environment;

/// Sends analytics and diagnostic messages to the service's log endpoint, fire-and-forget. A message
/// is an object with one member, the event name, whose value holds the event's fields.
class TOVREL_EXPORT AnalyticsManager {
  public:
    using Completion = std::function<void(const std::optional<platform::HttpError>& error)>;

    /// Any thread. Requests go through `platform`'s HTTP client (held by reference, with the log) to
    /// `serviceBaseURL` (scheme and host).
    AnalyticsManager(const platform::Platform& platform, std::string serviceBaseURL);

    /// The shared instance of the current environment.
    static AnalyticsManager& instance();

    /// POSTs {"deviceid": deviceId, "message": message}. The body is built before this returns, so the
    /// caller may change its message afterwards. A failure is logged once and dropped.
    void logMessage(const nlohmann::json& message, const std::string& deviceId, Completion completion);
    /// The same for a message already written as JSON text, as a dump prints it (so the large ones are
    /// written, never built as a tree): sent as it stands. Any thread.
    void logMessageText(std::string_view message, const std::string& deviceId, Completion completion);

    /// {"lat": number, "lon": number}, each rounded to single precision.
    static nlohmann::json buildLocationDictionaryWithLatitude(double latitude, double longitude);

  private:
    const platform::Platform& platform_;
    const std::string serviceBaseURL_;
};

}  // namespace tovrel
