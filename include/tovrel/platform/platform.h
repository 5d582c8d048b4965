#pragma once

#include <memory>

#include "tovrel/export.h"
#include "tovrel/platform/alerts.h"
#include "tovrel/platform/application.h"
#include "tovrel/platform/background.h"
#include "tovrel/platform/clock.h"
#include "tovrel/platform/device.h"
#include "tovrel/platform/http.h"
#include "tovrel/platform/location.h"
#include "tovrel/platform/log_sink.h"
#include "tovrel/platform/main_loop.h"
#include "tovrel/platform/motion.h"
#include "tovrel/platform/notifications.h"
#include "tovrel/platform/preferences.h"
#include "tovrel/platform/reachability.h"

namespace tovrel::platform {

class ViewSystem;

/// Every port one device's component needs. A backend fills all of them; `views` may stay empty
/// for a host without screens.
struct TOVREL_EXPORT Platform {
    std::shared_ptr<MainLoop> mainLoop;
    std::shared_ptr<BackgroundWork> background;
    std::shared_ptr<Clock> clock;
    std::shared_ptr<HttpClient> http;
    std::shared_ptr<PreferencesStore> preferences;
    std::shared_ptr<Device> device;
    std::shared_ptr<Application> application;
    std::shared_ptr<LocalNotifications> notifications;
    std::shared_ptr<ReachabilitySource> reachability;
    std::shared_ptr<AlertPresenter> alerts;
    std::shared_ptr<LogSink> log;
    std::shared_ptr<LocationServices> location;
    std::shared_ptr<MotionServices> motion;
    std::shared_ptr<ViewSystem> views;
};

}  // namespace tovrel::platform
