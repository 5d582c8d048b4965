#pragma once

#include <functional>
#include <memory>
#include <string>

#include "tovrel/export.h"
#include "tovrel/platform/clock.h"
#include "tovrel/platform/log_sink.h"
#include "tovrel/platform/main_loop.h"
#include "tovrel/platform/notifications.h"

namespace tovrel::linuxbackend {

struct TOVREL_EXPORT DbusNotificationsOptions {
    /// The application name the notification server shows, and the notification's summary line.
    std::string applicationName = "Tovrel";
    /// The desktop entry of the host ("org.example.Shop"), sent as the "desktop-entry" hint when set.
    std::string desktopEntry{};
    /// A bus address ("unix:path=..."); empty: the session bus named by the environment.
    std::string busAddress{};
    /// -1: the server's default display time; 0: until the user closes it.
    int expireTimeoutMilliseconds = -1;
    /// The action title when a notification has no alertAction.
    std::string defaultActionTitle = "Open";
};

/// Local notifications through the freedesktop Notifications service on the session bus (sdbus-c++;
/// its own event-loop thread receives the server's signals, which are posted to the main loop). Each
/// notification carries one action, "default", titled by its alertAction; when the user activates it
/// the activation handler receives the notification on the main loop. Scheduled notifications are kept
/// here and fire with main-loop timers. Without a session bus every notification is written to the log
/// instead and the user settings answer 0.
class TOVREL_EXPORT DbusNotifications final : public platform::LocalNotifications {
  public:
    /// Any thread. Connects to the bus; never throws (a missing bus is logged).
    DbusNotifications(std::shared_ptr<platform::MainLoop> loop, std::shared_ptr<platform::Clock> clock,
                      std::shared_ptr<platform::LogSink> log, DbusNotificationsOptions options = {});
    /// Main thread. Cancels the scheduled notifications and closes the connection.
    ~DbusNotifications() override;
    DbusNotifications(const DbusNotifications&) = delete;
    DbusNotifications& operator=(const DbusNotifications&) = delete;

    /// Main thread. Sends the notification to the server (asynchronously); sets the badge when the
    /// notification carries a non-zero badge number.
    void presentLocalNotificationNow(const platform::LocalNotification& notification) override;
    /// Main thread. A notification without a future fire date is presented at once.
    void scheduleLocalNotification(const platform::LocalNotification& notification) override;
    /// Main thread. Ordered by fire date, then by scheduling order.
    [[nodiscard]] std::vector<platform::LocalNotification> scheduledLocalNotifications() const override;
    /// Main thread.
    void cancelAllLocalNotifications() override;
    /// Main thread. Remembered; the desktop does not ask the user.
    void registerUserNotificationSettings(int typeMask) override;
    /// Any thread. 7 (badge, sound, alert) while a notification server owns its bus name, 0 when none
    /// does or there is no bus. Blocks for at most a second asking the bus.
    [[nodiscard]] std::optional<int> currentUserNotificationSettings() const override;

    /// Any thread. Runs on the main loop when the user activates a notification presented here.
    void setActivationHandler(std::function<void(const platform::LocalNotification&)> handler);
    /// Any thread. Runs on the main thread with the badge number of each presented notification that has
    /// one (the platform wires it to the application's badge).
    void setBadgeHandler(std::function<void(long)> handler);
    /// Any thread. Whether a bus connection exists.
    [[nodiscard]] bool connected() const;
    /// Main thread. The types passed to registerUserNotificationSettings, if any.
    [[nodiscard]] std::optional<int> registeredTypes() const;

    class Impl;

  private:
    std::shared_ptr<Impl> impl_;
};

}  // namespace tovrel::linuxbackend
