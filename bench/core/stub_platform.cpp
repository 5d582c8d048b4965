#include "stub_platform.h"

namespace tovrel::bench {
namespace {

class NeverTimer final : public platform::Timer {
  public:
    void invalidate() override { valid_ = false; }
    [[nodiscard]] bool isValid() const override { return valid_; }

  private:
    std::atomic<bool> valid_{true};
};

class MapPreferences final : public platform::PreferencesStore {
  public:
    [[nodiscard]] std::optional<nlohmann::json> objectForKey(std::string_view key) const override {
        std::lock_guard lock(mutex_);
        const auto it = values_.find(key);
        return it == values_.end() ? std::nullopt : std::optional<nlohmann::json>(it->second);
    }
    void setObject(std::string_view key, const nlohmann::json& value) override {
        std::lock_guard lock(mutex_);
        values_.insert_or_assign(std::string(key), value);
    }
    void removeObject(std::string_view key) override {
        std::lock_guard lock(mutex_);
        if (const auto it = values_.find(key); it != values_.end()) {
            values_.erase(it);
        }
    }

  private:
    mutable std::mutex mutex_;
    std::map<std::string, nlohmann::json, std::less<>> values_;
};

class FixedDevice final : public platform::Device {
  public:
    [[nodiscard]] std::string model() const override { return "iPhone"; }
    [[nodiscard]] std::string systemName() const override { return "iOS"; }
    [[nodiscard]] std::string systemVersion() const override { return "17.4"; }
    [[nodiscard]] std::string advertisingIdentifier() const override {
        return "6D92078A-8246-4BA4-AE5B-76104861E7DC";
    }
};

class BackgroundApplication final : public platform::Application {
  public:
    [[nodiscard]] platform::ApplicationState applicationState() const override {
        return platform::ApplicationState::kBackground;
    }
    [[nodiscard]] long applicationIconBadgeNumber() const override { return 0; }
    void setApplicationIconBadgeNumber(long /*number*/) override {}
    [[nodiscard]] std::string bundleIdentifier() const override { return "bench"; }
    bool openURL(const std::string& /*url*/) override { return false; }
    [[nodiscard]] std::string openSettingsURLString() const override { return "app-settings:"; }
    void setEventHandler(platform::ApplicationEventHandler /*handler*/) override {}
};

class DropNotifications final : public platform::LocalNotifications {
  public:
    void presentLocalNotificationNow(const platform::LocalNotification& /*notification*/) override {}
    void scheduleLocalNotification(const platform::LocalNotification& /*notification*/) override {}
    [[nodiscard]] std::vector<platform::LocalNotification> scheduledLocalNotifications() const override {
        return {};
    }
    void cancelAllLocalNotifications() override {}
    void registerUserNotificationSettings(int /*typeMask*/) override {}
    [[nodiscard]] std::optional<int> currentUserNotificationSettings() const override { return 7; }
};

class DropAlerts final : public platform::AlertPresenter {
  public:
    platform::AlertId show(platform::AlertSpec /*alert*/) override { return 1; }
    void dismiss(platform::AlertId /*id*/, int /*buttonIndex*/, bool /*animated*/) override {}
};

class NullLog final : public platform::LogSink {
  public:
    void write(std::string_view /*line*/) override {}
};

class StubLocationServices final : public platform::LocationServices {
  public:
    [[nodiscard]] bool locationServicesEnabled() const override { return true; }
    [[nodiscard]] bool isMonitoringAvailableForCircularRegion() const override { return true; }
    [[nodiscard]] platform::AuthorizationStatus authorizationStatus() const override {
        return platform::AuthorizationStatus::kAuthorizedAlways;
    }
    std::shared_ptr<platform::LocationProvider> createLocationManager() override {
        return std::make_shared<StubLocationProvider>();
    }
};

}  // namespace

void CannedHttp::postJson(const std::string& url, std::string /*body*/, platform::JsonCompletion completion) {
    std::optional<std::string> answer;
    {
        std::lock_guard lock(mutex_);
        answer = placesAnswer_;
    }
    if (answer && url.ends_with("/v2/place") && completion) {
        platform::JsonResult result;
        result.status = 200;
        result.text = std::move(*answer);
        completion(std::move(result));
    }
}

void CannedHttp::setPlacesAnswer(std::optional<nlohmann::json> answer) {
    std::lock_guard lock(mutex_);
    placesAnswer_ = answer ? std::optional<std::string>(answer->dump()) : std::nullopt;
}

std::shared_ptr<platform::Timer> StubLoop::scheduleTimer(double /*seconds*/, bool /*repeats*/,
                                                         platform::Task /*action*/) {
    return std::make_shared<NeverTimer>();
}

StubPlatform makeStubPlatform(double latitude, double longitude) {
    auto loop = std::make_shared<StubLoop>();
    auto prefs = std::make_shared<MapPreferences>();
    prefs->setObject("sessionid", "bench-session");
    prefs->setObject("adid", "6D92078A-8246-4BA4-AE5B-76104861E7DC");
    prefs->setObject("currentLocation", {{"latitude", latitude}, {"longitude", longitude}});
    platform::Platform p;
    p.mainLoop = loop;
    p.background = loop;
    p.clock = loop;
    auto http = std::make_shared<CannedHttp>();
    p.http = http;
    p.preferences = prefs;
    p.device = std::make_shared<FixedDevice>();
    p.application = std::make_shared<BackgroundApplication>();
    p.notifications = std::make_shared<DropNotifications>();
    p.alerts = std::make_shared<DropAlerts>();
    p.log = std::make_shared<NullLog>();
    p.location = std::make_shared<StubLocationServices>();
    return {p, http};
}

}  // namespace tovrel::bench
