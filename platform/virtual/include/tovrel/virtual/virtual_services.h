#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "tovrel/export.h"
#include "tovrel/platform/alerts.h"
#include "tovrel/platform/application.h"
#include "tovrel/platform/application_lifecycle.h"
#include "tovrel/platform/device.h"
#include "tovrel/platform/log_sink.h"
#include "tovrel/platform/main_loop.h"
#include "tovrel/platform/notifications.h"
#include "tovrel/platform/preferences.h"
#include "tovrel/platform/reachability.h"

namespace tovrel::virtualbackend {

/// Preferences kept in memory.
class TOVREL_EXPORT InMemoryPreferences final : public platform::PreferencesStore {
  public:
    [[nodiscard]] std::optional<nlohmann::json> objectForKey(std::string_view key) const override;
    void readObject(std::string_view key,
                    const std::function<void(const nlohmann::json*)>& read) const override;
    void setObject(std::string_view key, const nlohmann::json& value) override;
    void removeObject(std::string_view key) override;
    /// Everything stored, for saving a simulated device between runs.
    [[nodiscard]] nlohmann::json snapshot() const;
    void restore(const nlohmann::json& snapshot);

  private:
    mutable std::mutex mutex_;
    std::map<std::string, nlohmann::json, std::less<>> values_;
};

/// A device whose facts the test sets.
class TOVREL_EXPORT VirtualDevice final : public platform::Device {
  public:
    [[nodiscard]] std::string model() const override;
    [[nodiscard]] std::string systemName() const override;
    [[nodiscard]] std::string systemVersion() const override;
    [[nodiscard]] std::string advertisingIdentifier() const override;
    void setModel(std::string model);
    void setSystem(std::string name, std::string version);
    void setAdvertisingIdentifier(std::string identifier);

  private:
    mutable std::mutex mutex_;
    std::string model_ = "iPhone";
    std::string systemName_ = "iOS";
    std::string systemVersion_ = "17.4";
    std::string advertisingIdentifier_ = "6D92078A-8246-4BA4-AE5B-76104861E7DC";
};

/// The host application: its state, badge and opened URLs; the test drives its life cycle (the
/// ApplicationLifecycle steps), whose events reach the handler at once on the calling thread.
class TOVREL_EXPORT VirtualApplication final : public platform::Application,
                                               public platform::ApplicationLifecycle {
  public:
    [[nodiscard]] platform::ApplicationState applicationState() const override;
    [[nodiscard]] long applicationIconBadgeNumber() const override;
    void setApplicationIconBadgeNumber(long number) override;
    [[nodiscard]] std::string bundleIdentifier() const override;
    bool openURL(const std::string& url) override;
    [[nodiscard]] std::string openSettingsURLString() const override;
    void setEventHandler(platform::ApplicationEventHandler handler) override;

    void setBundleIdentifier(std::string identifier);
    /// Sets the state without any event.
    void setState(platform::ApplicationState state);
    [[nodiscard]] std::vector<std::string> openedURLs() const;
    /// Every badge number set, in order.
    [[nodiscard]] std::vector<long> badgeHistory() const;

  private:
    [[nodiscard]] platform::ApplicationState lifecycleState() const override { return applicationState(); }
    void setLifecycleState(platform::ApplicationState state) override { setState(state); }
    /// Hands `event` to the handler at once, on the calling thread.
    void deliverLifecycleEvent(platform::ApplicationEvent event,
                               const nlohmann::json& launchOptions) override;

    mutable std::mutex mutex_;
    platform::ApplicationState state_ = platform::ApplicationState::kBackground;
    long badge_ = 0;
    std::vector<long> badgeHistory_;
    std::string bundleIdentifier_ = "com.example.tovrel.host";
    std::vector<std::string> openedURLs_;
    platform::ApplicationEventHandler handler_;
};

/// Local notifications, recorded.
class TOVREL_EXPORT VirtualNotifications final : public platform::LocalNotifications {
  public:
    void presentLocalNotificationNow(const platform::LocalNotification& notification) override;
    void scheduleLocalNotification(const platform::LocalNotification& notification) override;
    [[nodiscard]] std::vector<platform::LocalNotification> scheduledLocalNotifications() const override;
    void cancelAllLocalNotifications() override;
    void registerUserNotificationSettings(int typeMask) override;
    [[nodiscard]] std::optional<int> currentUserNotificationSettings() const override;

    [[nodiscard]] std::vector<platform::LocalNotification> presented() const;
    [[nodiscard]] std::optional<int> registeredTypes() const;
    /// What the user allows; nullopt makes the query unanswerable. Default: badge, sound and alert.
    void setUserNotificationSettings(std::optional<int> typeMask);

  private:
    mutable std::mutex mutex_;
    std::vector<platform::LocalNotification> presented_;
    std::vector<platform::LocalNotification> scheduled_;
    std::optional<int> registered_;
    std::optional<int> allowed_ = 7;
};

/// Reachability with scripted flags. Handles are keyed by the host name, or by the dotted address
/// ("0.0.0.0" for the Internet monitor).
class TOVREL_EXPORT VirtualReachability final : public platform::ReachabilitySource {
  public:
    explicit VirtualReachability(std::shared_ptr<platform::MainLoop> loop);
    std::unique_ptr<platform::ReachabilityHandle> createWithName(const std::string& name) override;
    std::unique_ptr<platform::ReachabilityHandle> createWithAddress(
        const platform::Ipv4SocketAddress& address) override;

    /// Sets the flags of every target (existing and later ones) and tells scheduled handles.
    void setFlags(std::uint32_t flags);
    /// Sets the flags of one target and tells its scheduled handles.
    void setFlags(const std::string& target, std::uint32_t flags);
    /// Makes the flags unreadable (getFlags fails) until the next setFlags.
    void setUnreadable(bool unreadable);
    /// Makes handle creation fail.
    void setCreationFails(bool fails);

    struct Shared;

  private:
    std::shared_ptr<Shared> shared_;
};

/// Alerts, recorded; the test presses their buttons.
class TOVREL_EXPORT RecordingAlerts final : public platform::AlertPresenter {
  public:
    struct Shown {
        platform::AlertId id;
        platform::AlertSpec alert;
        bool visible;
        std::optional<int> dismissedWith;
    };

    platform::AlertId show(platform::AlertSpec alert) override;
    void dismiss(platform::AlertId id, int buttonIndex, bool animated) override;

    [[nodiscard]] std::vector<Shown> all() const;
    [[nodiscard]] std::vector<Shown> visible() const;
    /// Presses button `index` of alert `id`, as the user would.
    void press(platform::AlertId id, int index);

  private:
    mutable std::mutex mutex_;
    std::vector<Shown> alerts_;
    platform::AlertId nextId_ = 1;
};

/// Log lines, recorded (and echoed to stderr when asked).
class TOVREL_EXPORT RecordingLog final : public platform::LogSink {
  public:
    void write(std::string_view line) override;
    [[nodiscard]] std::vector<std::string> lines() const;
    /// True when some line contains `text`.
    [[nodiscard]] bool contains(std::string_view text) const;
    [[nodiscard]] std::size_t count(std::string_view text) const;
    void clear();
    void setEcho(bool echo) { echo_ = echo; }

  private:
    mutable std::mutex mutex_;
    std::vector<std::string> lines_;
    bool echo_ = false;
};

}  // namespace tovrel::virtualbackend
