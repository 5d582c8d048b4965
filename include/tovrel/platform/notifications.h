#pragma once

#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "tovrel/export.h"

namespace tovrel::platform {

/// A local notification: shown by the system, not sent by a server.
struct TOVREL_EXPORT LocalNotification {
    std::string alertBody;
    std::string alertAction;
    std::string soundName;
    nlohmann::json userInfo = nlohmann::json::object();
    long applicationIconBadgeNumber = 0;
    std::optional<double> fireDate;  ///< seconds since 1970; none means "now"
};

/// User notification types, as a bit mask.
enum NotificationType : int {
    kNotificationTypeBadge = 1,
    kNotificationTypeSound = 2,
    kNotificationTypeAlert = 4
};

inline constexpr const char* kDefaultSoundName = "default";

/// The system's local notifications for this application.
class TOVREL_EXPORT LocalNotifications {
  public:
    virtual ~LocalNotifications() = default;
    /// Main thread. Shows `notification` at once.
    virtual void presentLocalNotificationNow(const LocalNotification& notification) = 0;
    /// Main thread. Schedules `notification` for its fire date.
    virtual void scheduleLocalNotification(const LocalNotification& notification) = 0;
    /// Main thread. The notifications scheduled and not yet delivered, in the system's order.
    [[nodiscard]] virtual std::vector<LocalNotification> scheduledLocalNotifications() const = 0;
    /// Main thread. Cancels every scheduled notification.
    virtual void cancelAllLocalNotifications() = 0;
    /// Main thread. Asks the user for permission to use the types in `typeMask`.
    virtual void registerUserNotificationSettings(int typeMask) = 0;
    /// Any thread. The types the user allows, or nullopt when the platform cannot answer.
    [[nodiscard]] virtual std::optional<int> currentUserNotificationSettings() const = 0;
};

}  // namespace tovrel::platform
