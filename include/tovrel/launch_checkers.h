#pragma once

#include <nlohmann/json.hpp>

#include "tovrel/export.h"
#include "tovrel/notification_center.h"

namespace tovrel {

class Environment;

/// What one launch option said: whether it was present, and its value.
struct TOVREL_EXPORT LaunchRecord {
    bool launchedWithNotification = false;
    nlohmann::json localNotification;  ///< null until a launch carries the option
};

/// The two launch records of an environment. Each observes the did-finish-launching notification from
/// the moment the environment is made, and is never unregistered.
class TOVREL_EXPORT LaunchCheckers {
  public:
    explicit LaunchCheckers(NotificationCenter& center);

    LaunchRecord notification;  ///< "UIApplicationLaunchOptionsLocalNotificationKey"
    LaunchRecord location;      ///< "UIApplicationLaunchOptionsLocationKey"
};

/// Records a launch caused by a local notification.
class TOVREL_EXPORT NotificationChecker {
  public:
    /// Records whether the launch options in `launch`'s user info hold the local-notification key.
    static void createNotificationChecker(const Notification& launch, LaunchRecord& record);
    static bool applicationWasLaunchedWithNotification();
    static nlohmann::json getLocalNotification();
};

/// Records a launch caused by a location event (the notification-flavoured names are kept).
class TOVREL_EXPORT LocationChecker {
  public:
    static void createNotificationChecker(const Notification& launch, LaunchRecord& record);
    static bool applicationWasLaunchedWithNotification();
    static nlohmann::json getLocalNotification();
};

}  // namespace tovrel
