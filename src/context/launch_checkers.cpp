#include "tovrel/launch_checkers.h"

#include "tovrel/environment.h"
#include "tovrel/notification_names.h"

namespace tovrel {
namespace {

void record(const Notification& launch, const char* key, LaunchRecord& into) {
    const auto& options = launch.userInfo;
    const auto it = options.is_object() ? options.find(key) : options.end();
    if (options.is_object() && it != options.end() && !it->is_null()) {
        into.launchedWithNotification = true;
        into.localNotification = *it;
    } else {
        into.launchedWithNotification = false;
    }
}

}  // namespace

LaunchCheckers::LaunchCheckers(NotificationCenter& center) {
    center.addObserver(kApplicationDidFinishLaunchingNotification, nullptr,
                       [this](const Notification& launch) {
                           NotificationChecker::createNotificationChecker(launch, notification);
                       });
    center.addObserver(
        kApplicationDidFinishLaunchingNotification, nullptr,
        [this](const Notification& launch) { LocationChecker::createNotificationChecker(launch, location); });
}

void NotificationChecker::createNotificationChecker(const Notification& launch, LaunchRecord& into) {
    record(launch, kLaunchOptionsLocalNotificationKey, into);
}

bool NotificationChecker::applicationWasLaunchedWithNotification() {
    return Environment::current().launchCheckers().notification.launchedWithNotification;
}

nlohmann::json NotificationChecker::getLocalNotification() {
    return Environment::current().launchCheckers().notification.localNotification;
}

void LocationChecker::createNotificationChecker(const Notification& launch, LaunchRecord& into) {
    record(launch, kLaunchOptionsLocationKey, into);
}

bool LocationChecker::applicationWasLaunchedWithNotification() {
    return Environment::current().launchCheckers().location.launchedWithNotification;
}

nlohmann::json LocationChecker::getLocalNotification() {
    return Environment::current().launchCheckers().location.localNotification;
}

}  // namespace tovrel
