#include "foundation/format.h"
#include "targeting/check_log.h"
#include "targeting/monitor_support.h"
#include "targeting/proximity_policy.h"
#include "tovrel/analytics_manager.h"
#include "tovrel/location_manager.h"
#include "tovrel/preferences_keys.h"

namespace tovrel {
namespace {

const char* enabledText(bool enabled) {
    return enabled ? "Enabled" : "Disabled";
}

}  // namespace

void LocationManager::sendLogs() {
    const auto& platform = platform_;
    const auto stored = targeting::storedLocation(*platform.preferences);
    if (!stored) {
        return;
    }
    const bool locationServices = platform.location && platform.location->locationServicesEnabled();
    bool notificationServices = true;
    if (platform.notifications && targeting::systemVersionAtLeast8(*platform.device)) {
        // Only a mask of 0 (nothing allowed) counts as disabled; a badge-only mask is enabled.
        if (const auto mask = platform.notifications->currentUserNotificationSettings(); mask && *mask == 0) {
            notificationServices = false;
        }
    }

    auto& analytics = analytics_;
    const std::string deviceId = storedText(*platform.preferences, prefs::kAdid);
    const auto ignore = [](const auto&) {};
    analytics.logMessage({{"tovrel_services",
                           {{"location_services", enabledText(locationServices)},
                            {"notification_services", enabledText(notificationServices)}}}},
                         deviceId, ignore);

    const auto provider = locationManager();
    const double accuracy = provider ? provider->desiredAccuracy() : 0;
    analytics.logMessage({{"location_updates",
                           {{"timestamp", format0f(platform.clock->now())},
                            {"lat", formatF(stored->coordinate.latitude)},
                            {"lng", formatF(stored->coordinate.longitude)},
                            {"location_accuracy", format0f(accuracy)}}}},
                         deviceId, ignore);

    // Records a check appends meanwhile wait for the next pass, in order.
    targeting::CheckLog::Batch batch = checks_->take();
    if (!batch.history.empty()) {
        analytics.logMessageText(R"({"targeting_updates":)" + targeting::toJsonText(batch.history) + '}',
                                 deviceId, ignore);
    }
    if (!batch.targets.empty()) {
        analytics.logMessageText(R"({"bounding_area":)" + targeting::toJsonText(batch.targets) + '}',
                                 deviceId, ignore);
    }
    checks_->giveBack(std::move(batch));
}

}  // namespace tovrel
