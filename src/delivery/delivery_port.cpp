#include "targeting/delivery_port.h"

#include "delivery/delivery_policy.h"
#include "tovrel/environment.h"
#include "tovrel/platform/thread_check.h"

namespace tovrel::targeting {
namespace {

enum EventAlertButton : int { kNeverButton = 0, kViewButton = 1, kLaterButton = 2 };

}  // namespace

platform::AlertSpec eventAlert(const std::string& message, bool withOfferView, int deviceEventId) {
    platform::AlertSpec alert;
    alert.message = message;
    if (withOfferView) {
        alert.cancelButtonTitle = "Never";
        alert.otherButtonTitles = {"View", "Later"};
    } else {
        alert.cancelButtonTitle = "OK";
    }
    alert.tag = deviceEventId;
    return alert;
}

EventAlertAnswer eventAlertAnswer(int buttonIndex) {
    switch (buttonIndex) {
        case kNeverButton:
            return EventAlertAnswer::kNever;
        case kViewButton:
            return EventAlertAnswer::kView;
        case kLaterButton:
            return EventAlertAnswer::kLater;
        default:
            return EventAlertAnswer::kNone;
    }
}

platform::LocalNotification offerNotification(std::string_view body, int deviceEventId) {
    return delivery::offerNotification(body, deviceEventId);
}

nlohmann::json notificationUserInfo(const std::any& object) {
    return delivery::userInfoOf(object);
}

void renumberScheduledNotificationBadges(Environment& environment) {
    const auto& platform = environment.platform();
    platform.application->setApplicationIconBadgeNumber(0);
    auto scheduled = platform.notifications->scheduledLocalNotifications();
    if (scheduled.empty()) {
        return;
    }
    platform.notifications->cancelAllLocalNotifications();
    long badge = 1;
    for (auto& notification : scheduled) {
        notification.applicationIconBadgeNumber = badge++;
        platform.notifications->scheduleLocalNotification(notification);
    }
}

const nlohmann::json& offerElement(const nlohmann::json& offer) {
    return delivery::offerElement(offer);
}

bool hasOfferMediaKeys(const nlohmann::json& element) {
    return delivery::hasOfferMediaKeys(element);
}

}  // namespace tovrel::targeting
