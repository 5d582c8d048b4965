#pragma once

#include <any>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

#include "tovrel/platform/alerts.h"
#include "tovrel/platform/notifications.h"

namespace tovrel {

class Environment;

namespace targeting {

// What the location monitor needs of offer delivery, declared here so that targeting includes
// nothing above it; delivery defines it (delivery/delivery_port.cpp).

/// What a button of the event alert means.
enum class EventAlertAnswer { kNever, kView, kLater, kNone };

/// Any thread. The event alert for one offer message: "Never" (cancel), "View" and "Later" when the
/// offer view is enabled, else one "OK"; tagged with the device event identifier, without delegate.
platform::AlertSpec eventAlert(const std::string& message, bool withOfferView, int deviceEventId);
/// Any thread. The answer button `buttonIndex` of the event alert gives ("OK" reads as "Never").
EventAlertAnswer eventAlertAnswer(int buttonIndex);

/// Any thread. The local notification for one offer message.
platform::LocalNotification offerNotification(std::string_view body, int deviceEventId);
/// Any thread. The user info of the object posted with "tovrelNotificationReceived".
nlohmann::json notificationUserInfo(const std::any& object);
/// Main thread. Resets the badge and renumbers the scheduled notifications' badges 1, 2, 3... in the
/// system's order.
void renumberScheduledNotificationBadges(Environment& environment);

/// Any thread. The first element of an offer record (null when the record is not a non-empty array).
const nlohmann::json& offerElement(const nlohmann::json& offer);
/// Any thread. Whether an offer record's first element has the four members its view needs.
bool hasOfferMediaKeys(const nlohmann::json& element);

}  // namespace targeting
}  // namespace tovrel
