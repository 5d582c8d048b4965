#pragma once

#include <functional>
#include <memory>

#include "event_log.h"
#include "gps.h"
#include "tovrel/platform/platform.h"

namespace tovrel::sim {

/// Decorators that pass every call through to a real port and record what the component did, so a
/// run's timeline comes from the component's own port traffic.

/// Location managers whose settings changes and delivered fixes are recorded, and whose updates
/// `meter` follows (may be null).
std::shared_ptr<platform::LocationServices> observeLocation(std::shared_ptr<platform::LocationServices> inner,
                                                            EventLog& events,
                                                            std::shared_ptr<GpsMeter> meter = nullptr);

/// Alerts, recorded; `answer` picks the button a simulated user presses (nullopt: none).
using AlertAnswerer = std::function<void(platform::AlertId id, const platform::AlertSpec& shown)>;
std::shared_ptr<platform::AlertPresenter> observeAlerts(std::shared_ptr<platform::AlertPresenter> inner,
                                                        EventLog& events, AlertAnswerer answerer);

/// Local notifications, recorded; `onPresented` sees each one presented now.
std::shared_ptr<platform::LocalNotifications> observeNotifications(
    std::shared_ptr<platform::LocalNotifications> inner, EventLog& events,
    std::function<void(const platform::LocalNotification&)> onPresented);

/// The application, with badge changes recorded.
std::shared_ptr<platform::Application> observeApplication(std::shared_ptr<platform::Application> inner,
                                                          EventLog& events);

/// Log lines, recorded (and passed on).
std::shared_ptr<platform::LogSink> observeLog(std::shared_ptr<platform::LogSink> inner, EventLog& events);

}  // namespace tovrel::sim
