#include "foundation/log.h"
#include "foundation/value.h"
#include "targeting/delivery_port.h"
#include "targeting/monitor_support.h"
#include "tovrel/data_service.h"
#include "tovrel/environment.h"
#include "tovrel/launch_checkers.h"
#include "tovrel/location_manager.h"
#include "tovrel/notification_names.h"

namespace tovrel {

void LocationManager::sendNotification(const std::string& body, int deviceEventId) {
    TOVREL_ASSERT_MAIN_THREAD(mainLoop());
    const auto& platform = environment_.platform();
    if (platform.application->applicationState() != platform::ApplicationState::kActive) {
        localNotification_ = targeting::offerNotification(body, deviceEventId);
        platform.notifications->presentLocalNotificationNow(*localNotification_);
        return;
    }
    showEventAlert(body, deviceEventId);
}

void LocationManager::tovrelNotificationQueued(const Notification& notification) {
    TOVREL_ASSERT_MAIN_THREAD(mainLoop());
    if (!deviceHasExited_) {
        return;
    }
    // Only the timer in the property stops; a timer it replaced goes on delivering its own message.
    if (queueMessageTimer_) {
        queueMessageTimer_->invalidate();
    }
    queueMessageTimer_ = nullptr;
    static const Json kNothing;
    const auto* posted = std::any_cast<Json>(&notification.object);
    const Json& held = posted != nullptr ? *posted : kNothing;
    const Json& body = memberOrNull(held, "body");
    const Json& deviceEventId = memberOrNull(held, "deviceeventid");
    sendNotification(printed(body), static_cast<int>(integerValue(deviceEventId)));
    environment_.platform().background->detachNewThread([self = shared_from_this()] { self->getTargets(); });
    environment_.notificationCenter().post(kTovrelInBounds);
}

void LocationManager::didReceiveLocalNotification(const Notification& notification) {
    TOVREL_ASSERT_MAIN_THREAD(mainLoop());
    environment_.notificationCenter().post(kTovrelInBounds);
    if (!presentOfferView) {
        return;
    }
    const long long wanted =
        integerValue(memberOrNull(targeting::notificationUserInfo(notification.object), "deviceeventId"));
    const auto matches = [wanted](const Json& offer) {
        return integerValueFor(targeting::offerElement(offer), "deviceEventId") == wanted;
    };

    // Every matching offer opens its own view and sends its own report.
    for (const Json& offer : offers()) {
        if (!matches(offer)) {
            continue;
        }
        const Json& element = targeting::offerElement(offer);
        if (!targeting::hasOfferMediaKeys(element)) {
            return;
        }
        openOfferView(element);
        reportStatus(memberOrNull(element, "deviceEventId"), "seen");
    }
    std::lock_guard lock(mutex_);
    for (std::size_t i = offers_.size(); i-- > 0;) {
        if (matches(offers_[i])) {
            offers_.erase(offers_.begin() + static_cast<std::ptrdiff_t>(i));
        }
    }
}

void LocationManager::applicationDidFinishLaunching(const Notification& notification) {
    TOVREL_ASSERT_MAIN_THREAD(mainLoop());
    const auto& platform = environment_.platform();
    auto& log = *platform.log;
    TOVREL_LOG(log, "app finished launching");
    TOVREL_LOG(log, "launchOptions: %s", printed(notification.userInfo).c_str());
    auto& launches = environment_.launchCheckers();
    if (launches.notification.launchedWithNotification) {
        // The launch notification itself is the object; its user info is the launch options, so
        // only an offer whose identifier reads as 0 can match.
        environment_.notificationCenter().post(kTovrelNotificationReceived, notification);
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

void LocationManager::renumberBadgesOfPendingNotifications() {
    TOVREL_ASSERT_MAIN_THREAD(mainLoop());
    targeting::renumberScheduledNotificationBadges(environment_);
}

void LocationManager::reportStatus(const Json& deviceEventId, const char* statusCode) {
    environment_.dataService().sendDeviceUpdateWithDeviceEventId(
        deviceEventId, statusCode, storedSessionKey(*environment_.platform().preferences),
        [](const Json& /*status*/, const ServiceError& /*error*/) {});
}

}  // namespace tovrel
