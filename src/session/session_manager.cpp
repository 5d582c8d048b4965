#include "tovrel/session_manager.h"

#include "context/toast.h"
#include "delivery/offer_desk.h"
#include "foundation/format.h"
#include "foundation/log.h"
#include "foundation/stored_values.h"
#include "foundation/value.h"
#include "tovrel/analytics_manager.h"
#include "tovrel/data_service.h"
#include "tovrel/environment.h"
#include "tovrel/location_manager.h"
#include "tovrel/notification_names.h"
#include "tovrel/platform/thread_check.h"
#include "tovrel/preferences_keys.h"
#include "tovrel/version.h"

namespace tovrel {

SessionManager::SessionManager(Environment& environment) : environment_(environment) {
    reachabilityObserver_ = environment_.notificationCenter().addObserver(
        kReachabilityChangedNotification, nullptr, [this](const Notification& n) { checkNetworkStatus(&n); });
    hostReachability_ =
        Reachability::reachabilityWithHostName(environment_, environment_.configuration().serviceBaseURL);
    if (hostReachability_) {
        hostReachability_->startNotifier();
    }
    internetReachability_ = Reachability::reachabilityForInternetConnection(environment_);
    if (internetReachability_) {
        internetReachability_->startNotifier();
    }
    auto& prefs = *environment_.platform().preferences;
    if (!prefs.objectForKey(prefs::kAdid)) {
        // A platform without an identifier stores nothing, so a later launch that has one keeps it.
        if (const std::string identifier = deviceId(); !identifier.empty()) {
            prefs.setObject(prefs::kAdid, identifier);
        }
    }
}

SessionManager::~SessionManager() {
    environment_.notificationCenter().removeObserver(reachabilityObserver_);
}

SessionManager& SessionManager::sharedInstance() {
    return Environment::current().sessionManager();
}

std::string SessionManager::deviceId() {
    return environment_.platform().device->advertisingIdentifier();
}

std::optional<std::string> SessionManager::startSession(const std::string& sdkKey) {
    return requestSession(sdkKey, false);
}

std::optional<std::string> SessionManager::startSessionUsingLocation(const std::string& sdkKey) {
    return requestSession(sdkKey, true);
}

std::optional<std::string> SessionManager::sessionKey() const {
    TOVREL_ASSERT_MAIN_THREAD(*environment_.platform().mainLoop);
    return storedSessionKey(*environment_.platform().preferences);
}

std::optional<std::string> SessionManager::requestSession(const std::string& sdkKey, bool usingLocation) {
    const auto& platform = environment_.platform();
    auto& prefs = *platform.preferences;
    const nlohmann::json body{
        {"deviceId", prefs.objectForKey(prefs::kAdid).value_or(nlohmann::json(""))},
        {"deviceType", "iOS"},
        {"deviceModel", platform.device->model()},
        {"sdkkey", sdkKey},
    };
    environment_.dataService().requestSessionWithBody(
        body, [this, sdkKey, usingLocation](const nlohmann::json& answer, const ServiceError& error) {
            if (!error) {
                sessionStarted(answer, usingLocation);
                return;
            }
            TOVREL_LOG(*environment_.platform().log, "Error: %s", error->localizedDescription.c_str());
            if (usingLocation) {
                startSessionUsingLocation(sdkKey);
            }
        });
    return storedSessionKey(prefs);
}

void SessionManager::sessionStarted(const nlohmann::json& response, bool usingLocation) {
    auto& prefs = *environment_.platform().preferences;
    auto& log = *environment_.platform().log;
    const nlohmann::json& sessionKey = response.is_object() && response.contains("sessionKey")
                                           ? response.at("sessionKey")
                                           : static_cast<const nlohmann::json&>(nlohmann::json());
    if (sessionKey.is_null()) {
        prefs.removeObject(prefs::kSessionId);
    } else {
        prefs.setObject(prefs::kSessionId, sessionKey);
    }
    TOVREL_LOG(log, "\n\nDEVICEID: %s\n\n", deviceId().c_str());
    TOVREL_LOG(log, "\n\nSESSIONKEY: %s\n\n", describe(sessionKey).c_str());
    if (usingLocation) {
        startLocationMonitoring();
    }
}

void SessionManager::startLocationMonitoring() {
    const auto& platform = environment_.platform();
    lm_ = LocationManager::create(environment_, delivery::OfferDesk::create(environment_));
    lm_->presentNotifications = presentNotifications_;
    lm_->presentOfferView = presentOfferView_;
    lm_->initLocation();
    platform.application->setApplicationIconBadgeNumber(0);

    const nlohmann::json message{
        {"session_started",
         {
             {"timestamp", format0f(platform.clock->now())},
             {"environment", "PRD"},
             {"application", platform.application->bundleIdentifier()},
             {"version", kVersion},
             {"client", platform.device->systemName()},
             {"model", platform.device->model()},
         }},
    };
    environment_.analyticsManager().logMessage(message, deviceId(), [](const auto&) {});
}

void SessionManager::stopSession() {
    if (lm_) {
        lm_->stopMonitoringLocation();
    }
    lm_.reset();
}

bool SessionManager::checkNetworkStatus(const Notification* /*notification*/) {
    const NetworkStatus status =
        internetReachability_ ? internetReachability_->currentReachabilityStatus() : StatusNotReachable;
    const auto provider = lm_ ? lm_->locationManager() : nullptr;
    switch (status) {
        case StatusNotReachable:
            if (provider) {
                provider->stopUpdatingLocation();
                provider->stopMonitoringSignificantLocationChanges();
            }
            isReachable_ = false;
            return false;
        case StatusViaWiFi:
        case StatusViaWWAN:
            if (provider) {
                provider->startUpdatingLocation();
                provider->startMonitoringSignificantLocationChanges();
            }
            isReachable_ = true;
            return true;
    }
    const NetworkStatus hostStatus =
        hostReachability_ ? hostReachability_->currentReachabilityStatus() : StatusNotReachable;
    isReachable_ = hostStatus == StatusViaWiFi || hostStatus == StatusViaWWAN;
    return isReachable_;
}

void SessionManager::showToast(Environment& environment, const std::string& message) {
    tovrel::showToast(environment, message);
}

void SessionManager::showToastMessage(const std::string& message) {
    showToast(Environment::current(), message);
}

void SessionManager::showAlert(const std::string& message) {
    showMessageAlert(*environment_.platform().alerts, message);
}

}  // namespace tovrel
