#include <cmath>

#include "context/toast.h"
#include "foundation/format.h"
#include "foundation/log.h"
#include "foundation/value.h"
#include "targeting/check_log.h"
#include "targeting/monitor_support.h"
#include "targeting/proximity_policy.h"
#include "targeting/shared_targets.h"
#include "tovrel/analytics_manager.h"
#include "tovrel/launch_checkers.h"
#include "tovrel/location_archive.h"
#include "tovrel/location_manager.h"
#include "tovrel/notification_names.h"
#include "tovrel/offer_sink.h"
#include "tovrel/preferences_keys.h"

namespace tovrel {
namespace {

constexpr double kBackgroundStopInterval = 3600;
constexpr double kRefreshInterval = 1800;
constexpr double kDiagnosticsInterval = 1800;
constexpr double kPausedResumeDelay = 1800;
constexpr double kTerminateGraceSeconds = 2;
constexpr double kStartDistanceFilter = 10.0;
constexpr double kStationaryDistanceFilter = 3000.0;
constexpr int kAllNotificationTypes =
    platform::kNotificationTypeBadge | platform::kNotificationTypeSound | platform::kNotificationTypeAlert;

constexpr const char* kServicesDisabledText =
    "This app requires location services enabled on your device. Please enable location services before "
    "running this app.";
constexpr const char* kRegionMonitoringText = "Region Monitoring is not available!";
constexpr const char* kAuthorizationText =
    "This app requires authorization to track your location. Please allow and enable location services for "
    "this app.";

}  // namespace

void LocationManager::observe(const char* name, void (LocationManager::*handler)(const Notification&)) {
    // The centre does not own its observers; a monitor that is gone is simply not called.
    observers_.push_back(center_.addObserver(
        name, nullptr, [weak = weak_from_this(), handler](const Notification& notification) {
            if (const auto self = weak.lock()) {
                ((*self).*handler)(notification);
            }
        }));
}

void LocationManager::initLocation() {
    TOVREL_ASSERT_MAIN_THREAD(mainLoop());
    const auto& platform = platform_;
    if (platform.notifications && targeting::systemVersionAtLeast8(*platform.device)) {
        platform.notifications->registerUserNotificationSettings(kAllNotificationTypes);
    }

    observe(kApplicationDidFinishLaunchingNotification, &LocationManager::applicationDidFinishLaunching);
    observe(kApplicationDidBecomeActiveNotification, &LocationManager::applicationDidBecomeActive);
    // Bound to did-become-active on purpose: the badge is cleared every time the application is active.
    observe(kApplicationDidBecomeActiveNotification, &LocationManager::applicationEnterForeground);
    observe(kApplicationDidEnterBackgroundNotification, &LocationManager::applicationEnterBackground);
    observe(kApplicationWillResignActiveNotification, &LocationManager::applicationWillResignActive);
    observe(kApplicationWillTerminateNotification, &LocationManager::applicationWillTeminate);
    observe(kTovrelNotificationReceived, &LocationManager::didReceiveLocalNotification);
    observe(kTovrelNotificationQueued, &LocationManager::tovrelNotificationQueued);

    checks_->clear();

    startMonitoringLocation();
    getTargets();
    sendLogs();
    startCoreMotion();

    // The loop owns these timers and they own the monitor, as the platform's timers own their target:
    // a monitor dropped by its session keeps refreshing and uploading for the life of the process.
    auto& loop = *platform.mainLoop;
    const auto self = shared_from_this();
    loop.scheduleTimer(kBackgroundStopInterval, true, [self] {
        const auto state = self->platform_.application->applicationState();
        if (state == platform::ApplicationState::kBackground ||
            state == platform::ApplicationState::kInactive) {
            if (const auto provider = self->providerOnMain()) {
                provider->stopUpdatingLocation();
            }
        }
    });
    loop.scheduleTimer(kRefreshInterval, true, [self] {
        self->platform_.background->detachNewThread([self] { self->getTargets(); });
    });
    loop.scheduleTimer(kDiagnosticsInterval, true,
                       [self] { self->platform_.background->detachNewThread([self] { self->sendLogs(); }); });
}

void LocationManager::startMonitoringLocation() {
    TOVREL_ASSERT_MAIN_THREAD(mainLoop());
    const auto& platform = platform_;
    TOVREL_LOG(*platform.log, "startMonitoringLocation");
    if (!platform.preferences->objectForKey(prefs::kSessionId)) {
        return;
    }
    // A host without a location port is a device whose location services are off.
    if (!platform.location || !platform.location->locationServicesEnabled()) {
        showAlert(kServicesDisabledText);
        return;
    }
    if (!platform.location->isMonitoringAvailableForCircularRegion()) {
        showAlert(kRegionMonitoringText);
        return;
    }
    const auto status = platform.location->authorizationStatus();
    const bool modern = targeting::systemVersionAtLeast8(*platform.device);
    if (status == platform::AuthorizationStatus::kDenied ||
        status == platform::AuthorizationStatus::kRestricted) {
        showAlert(kAuthorizationText);
        if (modern) {
            platform.application->openURL(platform.application->openSettingsURLString());
        }
        return;
    }

    auto provider = platform.location->createLocationManager();
    if (!provider) {
        return;
    }
    provider->setDistanceFilter(kStartDistanceFilter);
    provider->setDesiredAccuracy(platform::accuracy::kNearestTenMeters);
    provider->setPausesLocationUpdatesAutomatically(false);
    provider->setActivityType(platform::ActivityType::kFitness);
    provider->setDelegate(weak_from_this());
    setProvider(provider);

    targets_->clear();
    offers_->forget();

    if (modern) {
        provider->requestAlwaysAuthorization();
        provider->requestWhenInUseAuthorization();
    }
    startUpdates(provider);
}

void LocationManager::startUpdates(const std::shared_ptr<platform::LocationProvider>& provider) {
    const auto& platform = platform_;
    if (targeting::systemVersionAtLeast8(*platform.device)) {
        provider->startUpdatingLocation();
        provider->startMonitoringSignificantLocationChanges();
        return;
    }
    // Older systems start asynchronously from the background queue; the starts themselves are
    // main-thread operations of the port, so the queued task hands them back to the loop.
    auto* loop = platform.mainLoop.get();
    platform.background->dispatchBackground([loop, provider] {
        loop->post([provider] {
            provider->startUpdatingLocation();
            provider->startMonitoringSignificantLocationChanges();
        });
    });
}

void LocationManager::stopMonitoringLocation() {
    TOVREL_ASSERT_MAIN_THREAD(mainLoop());
    TOVREL_LOG(*platform_.log, "stopMonitoringLocation");
    if (const auto provider = providerOnMain()) {
        provider->stopUpdatingLocation();
        provider->stopMonitoringSignificantLocationChanges();
    }
    setProvider(nullptr);
}

void LocationManager::resumePausedLocationManager() {
    TOVREL_ASSERT_MAIN_THREAD(mainLoop());
    if (const auto provider = providerOnMain()) {
        startUpdates(provider);
    }
    TOVREL_LOG(*platform_.log, "resumePausedLocationManager");
}

void LocationManager::startCoreMotion() {
    TOVREL_ASSERT_MAIN_THREAD(mainLoop());
    const auto& motion = platform_.motion;
    if (!motion) {
        return;
    }
    motionActivityManager_ = motion->createMotionActivityManager();
    if (!motionActivityManager_) {
        return;
    }
    // The manager keeps the handler, so the handler must not keep the monitor; each queued task does.
    const platform::Platform* ports = &platform_;
    motionActivityManager_->startActivityUpdates(
        [weak = weak_from_this(), ports](const platform::MotionActivity& activity) {
            auto self = weak.lock();
            if (!self) {
                return;
            }
            ports->background->dispatchBackground(
                [self = std::move(self), activity] { self->applyMotionActivity(activity); });
        });
}

void LocationManager::applyMotionActivity(const platform::MotionActivity& activity) {
    if (activity.confidence == platform::MotionConfidence::kLow) {
        return;
    }
    const auto provider = locationManager();
    if (!provider) {
        return;
    }
    if (activity.stationary) {
        provider->setDesiredAccuracy(platform::accuracy::kThreeKilometers);
        provider->setDistanceFilter(kStationaryDistanceFilter);
    } else {
        // The filter stays as it is: after a stationary spell it remains 3000 m until retuned.
        provider->setDesiredAccuracy(platform::accuracy::kNearestTenMeters);
    }
}

void LocationManager::locationManagerDidPauseLocationUpdates() {
    TOVREL_ASSERT_MAIN_THREAD(mainLoop());
    TOVREL_LOG(*platform_.log, "Location Manager Paused - Starting 30 minute timer");
    platform_.mainLoop->scheduleTimer(kPausedResumeDelay, false,
                                      [self = shared_from_this()] { self->resumePausedLocationManager(); });
}

void LocationManager::locationManagerDidResumeLocationUpdates() {
    TOVREL_ASSERT_MAIN_THREAD(mainLoop());
    TOVREL_LOG(*platform_.log, "Location Manager Resumed");
}

void LocationManager::locationManagerDidUpdateLocations(const std::vector<platform::Location>& locations) {
    TOVREL_ASSERT_MAIN_THREAD(mainLoop());
    if (locations.empty()) {
        return;
    }
    const platform::Location& newest = locations.back();
    auto& prefs = *platform_.preferences;
    const platform::Coordinate stored =
        targeting::storedLocation(prefs).value_or(platform::Location{}).coordinate;
    // A move along an exact meridian or parallel does not count as a move.
    const bool moved =
        newest.coordinate.latitude != stored.latitude && newest.coordinate.longitude != stored.longitude;
    if (static_cast<double>(moved) > 0.00001) {
        checkForLocationTarget(newest);
    }
    nlohmann::json archived = archiveLocation(newest);
    prefs.setObject(prefs::kCurrentLocation, archived);
    center_.post(kTovrelLocationNotification, nlohmann::json{{"Location", std::move(archived)}});
}

void LocationManager::locationManagerDidFailWithError(const platform::LocationError& error) {
    TOVREL_ASSERT_MAIN_THREAD(mainLoop());
    if (error.code == 0) {
        accuracyError_ = true;
    }
    stopMonitoringLocation();
    startMonitoringLocation();
    TOVREL_LOG(*platform_.log, "location service error: Code=%d \"%s\"", error.code,
               error.description.c_str());
}

void LocationManager::applicationDidBecomeActive(const Notification& /*notification*/) {
    TOVREL_ASSERT_MAIN_THREAD(mainLoop());
    TOVREL_LOG(*platform_.log, "app became active mode");
}

void LocationManager::applicationEnterForeground(const Notification& /*notification*/) {
    TOVREL_ASSERT_MAIN_THREAD(mainLoop());
    const auto& platform = platform_;
    TOVREL_LOG(*platform.log, "app entered foreground mode");
    platform.application->setApplicationIconBadgeNumber(0);
    center_.post(kTovrelRefreshUserLocation);
}

void LocationManager::applicationWillResignActive(const Notification& /*notification*/) {
    TOVREL_ASSERT_MAIN_THREAD(mainLoop());
    TOVREL_LOG(*platform_.log, "applicationWillResignActive");
}

void LocationManager::applicationEnterBackground(const Notification& /*notification*/) {
    TOVREL_ASSERT_MAIN_THREAD(mainLoop());
    TOVREL_LOG(*platform_.log, "app entered background mode");
}

void LocationManager::applicationWillTeminate(const Notification& /*notification*/) {
    TOVREL_ASSERT_MAIN_THREAD(mainLoop());
    const auto& platform = platform_;
    const nlohmann::json message{{"session_stopped", {{"timestamp", format0f(platform.clock->now())}}}};
    analytics_.logMessage(message, storedText(*platform.preferences, prefs::kAdid), [](const auto&) {});
    // The process is about to end: give the request time to leave.
    platform.clock->sleepFor(kTerminateGraceSeconds);
    TOVREL_LOG(*platform.log, "app will teminate");
}

void LocationManager::applicationDidFinishLaunching(const Notification& notification) {
    TOVREL_ASSERT_MAIN_THREAD(mainLoop());
    const auto& platform = platform_;
    auto& log = *platform.log;
    TOVREL_LOG(log, "app finished launching");
    TOVREL_LOG(log, "launchOptions: %s", printed(notification.userInfo).c_str());
    auto& launches = launches_;
    if (launches.notification.launchedWithNotification) {
        // The launch notification itself is the object; its user info is the launch options, so
        // only an offer whose identifier reads as 0 can match.
        center_.post(kTovrelNotificationReceived, notification);
        platform.application->setApplicationIconBadgeNumber(
            platform.application->applicationIconBadgeNumber() + 1);
        const Json launchNotification = launches.notification.localNotification;
        const Json& type = memberOrNull(memberOrNull(launchNotification, "userInfo"), "type");
        TOVREL_LOG(log, "%s", printed(launchNotification).c_str());
        TOVREL_LOG(log, "%s", printed(type).c_str());
    }
    if (launches.location.launchedWithNotification) {
        startMonitoringLocation();
    }
}

void LocationManager::showAlert(const std::string& message) {
    TOVREL_ASSERT_MAIN_THREAD(mainLoop());
    showMessageAlert(*platform_.alerts, message);
}

}  // namespace tovrel
