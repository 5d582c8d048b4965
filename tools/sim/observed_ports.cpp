#include "observed_ports.h"

#include <atomic>
#include <mutex>
#include <optional>

namespace tovrel::sim {
namespace {

using nlohmann::json;

class ObservedDelegate final : public platform::LocationManagerDelegate {
  public:
    ObservedDelegate(std::weak_ptr<platform::LocationManagerDelegate> inner, EventLog& events)
        : inner_(std::move(inner)), events_(events) {}

    void locationManagerDidUpdateLocations(const std::vector<platform::Location>& locations) override {
        for (const auto& location : locations) {
            if (!events_.wantsEvents()) {
                events_.count("position");
                continue;
            }
            events_.record("position",
                           {{"lat", location.coordinate.latitude}, {"lon", location.coordinate.longitude}});
        }
        if (auto inner = inner_.lock()) {
            inner->locationManagerDidUpdateLocations(locations);
        }
    }
    void locationManagerDidFailWithError(const platform::LocationError& error) override {
        events_.record("location_error", {{"code", error.code}, {"description", error.description}});
        if (auto inner = inner_.lock()) {
            inner->locationManagerDidFailWithError(error);
        }
    }
    void locationManagerDidPauseLocationUpdates() override {
        if (auto inner = inner_.lock()) {
            inner->locationManagerDidPauseLocationUpdates();
        }
    }
    void locationManagerDidResumeLocationUpdates() override {
        if (auto inner = inner_.lock()) {
            inner->locationManagerDidResumeLocationUpdates();
        }
    }

  private:
    std::weak_ptr<platform::LocationManagerDelegate> inner_;
    EventLog& events_;
};

class ObservedProvider final : public platform::LocationProvider {
  public:
    ObservedProvider(std::shared_ptr<platform::LocationProvider> inner, EventLog& events,
                     std::shared_ptr<GpsMeter> meter)
        : inner_(std::move(inner)), events_(events), meter_(std::move(meter)) {}
    ~ObservedProvider() override {
        if (meter_) {
            meter_->release(reinterpret_cast<std::uintptr_t>(this));
        }
    }
    ObservedProvider(const ObservedProvider&) = delete;
    ObservedProvider& operator=(const ObservedProvider&) = delete;

    void setDesiredAccuracy(double metres) override {
        inner_->setDesiredAccuracy(metres);
        recordSettings();
        meter();
    }
    [[nodiscard]] double desiredAccuracy() const override { return inner_->desiredAccuracy(); }
    void setDistanceFilter(double metres) override {
        inner_->setDistanceFilter(metres);
        recordSettings();
    }
    [[nodiscard]] double distanceFilter() const override { return inner_->distanceFilter(); }
    void setActivityType(platform::ActivityType type) override { inner_->setActivityType(type); }
    void setPausesLocationUpdatesAutomatically(bool pauses) override {
        inner_->setPausesLocationUpdatesAutomatically(pauses);
    }
    void setDelegate(std::weak_ptr<platform::LocationManagerDelegate> delegate) override {
        delegate_ = std::make_shared<ObservedDelegate>(std::move(delegate), events_);
        inner_->setDelegate(delegate_);
    }
    void startUpdatingLocation() override {
        inner_->startUpdatingLocation();
        updating_ = true;
        meter();
    }
    void stopUpdatingLocation() override {
        inner_->stopUpdatingLocation();
        updating_ = false;
        meter();
    }
    void startMonitoringSignificantLocationChanges() override {
        inner_->startMonitoringSignificantLocationChanges();
        significant_ = true;
        meter();
    }
    void stopMonitoringSignificantLocationChanges() override {
        inner_->stopMonitoringSignificantLocationChanges();
        significant_ = false;
        meter();
    }
    void requestAlwaysAuthorization() override { inner_->requestAlwaysAuthorization(); }
    void requestWhenInUseAuthorization() override { inner_->requestWhenInUseAuthorization(); }

  private:
    void meter() {
        if (meter_) {
            meter_->update(reinterpret_cast<std::uintptr_t>(this), updating_, inner_->desiredAccuracy(),
                           significant_);
        }
    }
    void recordSettings() {
        const double accuracy = inner_->desiredAccuracy();
        const double filter = inner_->distanceFilter();
        if (!events_.wantsEvents()) {
            events_.count("settings");
            return;
        }
        std::lock_guard lock(mutex_);
        if (last_ && last_->first == accuracy && last_->second == filter) {
            return;
        }
        last_ = {accuracy, filter};
        events_.record("settings", {{"desiredAccuracy", accuracy}, {"distanceFilter", filter}});
    }

    std::shared_ptr<platform::LocationProvider> inner_;
    EventLog& events_;
    std::shared_ptr<GpsMeter> meter_;
    std::atomic<bool> updating_{false};
    std::atomic<bool> significant_{false};
    std::shared_ptr<ObservedDelegate> delegate_;
    std::mutex mutex_;
    std::optional<std::pair<double, double>> last_;
};

class ObservedLocationServices final : public platform::LocationServices {
  public:
    ObservedLocationServices(std::shared_ptr<platform::LocationServices> inner, EventLog& events,
                             std::shared_ptr<GpsMeter> meter)
        : inner_(std::move(inner)), events_(events), meter_(std::move(meter)) {}

    [[nodiscard]] bool locationServicesEnabled() const override { return inner_->locationServicesEnabled(); }
    [[nodiscard]] bool isMonitoringAvailableForCircularRegion() const override {
        return inner_->isMonitoringAvailableForCircularRegion();
    }
    [[nodiscard]] platform::AuthorizationStatus authorizationStatus() const override {
        return inner_->authorizationStatus();
    }
    std::shared_ptr<platform::LocationProvider> createLocationManager() override {
        return std::make_shared<ObservedProvider>(inner_->createLocationManager(), events_, meter_);
    }

  private:
    std::shared_ptr<platform::LocationServices> inner_;
    EventLog& events_;
    std::shared_ptr<GpsMeter> meter_;
};

class ObservedAlerts final : public platform::AlertPresenter {
  public:
    ObservedAlerts(std::shared_ptr<platform::AlertPresenter> inner, EventLog& events, AlertAnswerer answerer)
        : inner_(std::move(inner)), events_(events), answerer_(std::move(answerer)) {}

    platform::AlertId show(platform::AlertSpec alert) override {
        json buttons = json::array();
        if (alert.cancelButtonTitle) {
            buttons.push_back(*alert.cancelButtonTitle);
        }
        for (const auto& title : alert.otherButtonTitles) {
            buttons.push_back(title);
        }
        events_.record("alert", {{"title", alert.title ? json(*alert.title) : json()},
                                 {"message", alert.message},
                                 {"buttons", buttons},
                                 {"tag", alert.tag}});
        const platform::AlertSpec copy = alert;
        const platform::AlertId id = inner_->show(std::move(alert));
        if (answerer_) {
            answerer_(id, copy);
        }
        return id;
    }
    void dismiss(platform::AlertId id, int buttonIndex, bool animated) override {
        inner_->dismiss(id, buttonIndex, animated);
    }

  private:
    std::shared_ptr<platform::AlertPresenter> inner_;
    EventLog& events_;
    AlertAnswerer answerer_;
};

class ObservedNotifications final : public platform::LocalNotifications {
  public:
    ObservedNotifications(std::shared_ptr<platform::LocalNotifications> inner, EventLog& events,
                          std::function<void(const platform::LocalNotification&)> onPresented)
        : inner_(std::move(inner)), events_(events), onPresented_(std::move(onPresented)) {}

    void presentLocalNotificationNow(const platform::LocalNotification& notification) override {
        events_.record("notification", {{"alertBody", notification.alertBody},
                                        {"alertAction", notification.alertAction},
                                        {"userInfo", notification.userInfo}});
        inner_->presentLocalNotificationNow(notification);
        if (onPresented_) {
            onPresented_(notification);
        }
    }
    void scheduleLocalNotification(const platform::LocalNotification& notification) override {
        inner_->scheduleLocalNotification(notification);
    }
    [[nodiscard]] std::vector<platform::LocalNotification> scheduledLocalNotifications() const override {
        return inner_->scheduledLocalNotifications();
    }
    void cancelAllLocalNotifications() override { inner_->cancelAllLocalNotifications(); }
    void registerUserNotificationSettings(int typeMask) override {
        inner_->registerUserNotificationSettings(typeMask);
    }
    [[nodiscard]] std::optional<int> currentUserNotificationSettings() const override {
        return inner_->currentUserNotificationSettings();
    }

  private:
    std::shared_ptr<platform::LocalNotifications> inner_;
    EventLog& events_;
    std::function<void(const platform::LocalNotification&)> onPresented_;
};

class ObservedApplication final : public platform::Application {
  public:
    ObservedApplication(std::shared_ptr<platform::Application> inner, EventLog& events)
        : inner_(std::move(inner)), events_(events) {}

    [[nodiscard]] platform::ApplicationState applicationState() const override {
        return inner_->applicationState();
    }
    [[nodiscard]] long applicationIconBadgeNumber() const override {
        return inner_->applicationIconBadgeNumber();
    }
    void setApplicationIconBadgeNumber(long number) override {
        inner_->setApplicationIconBadgeNumber(number);
        if (events_.wantsEvents()) {
            events_.record("badge", {{"value", number}});
        } else {
            events_.count("badge");
        }
    }
    [[nodiscard]] std::string bundleIdentifier() const override { return inner_->bundleIdentifier(); }
    bool openURL(const std::string& url) override {
        events_.record("open_url", {{"url", url}});
        return inner_->openURL(url);
    }
    [[nodiscard]] std::string openSettingsURLString() const override {
        return inner_->openSettingsURLString();
    }
    void setEventHandler(platform::ApplicationEventHandler handler) override {
        inner_->setEventHandler(std::move(handler));
    }

  private:
    std::shared_ptr<platform::Application> inner_;
    EventLog& events_;
};

class ObservedLog final : public platform::LogSink {
  public:
    ObservedLog(std::shared_ptr<platform::LogSink> inner, EventLog& events)
        : inner_(std::move(inner)), events_(events) {}
    void write(std::string_view line) override {
        if (events_.wantsEvents()) {
            events_.record("log", {{"line", std::string(line)}});
        } else {
            events_.count("log");
        }
        if (inner_) {
            inner_->write(line);
        }
    }

  private:
    std::shared_ptr<platform::LogSink> inner_;
    EventLog& events_;
};

}  // namespace

std::shared_ptr<platform::LocationServices> observeLocation(std::shared_ptr<platform::LocationServices> inner,
                                                            EventLog& events,
                                                            std::shared_ptr<GpsMeter> meter) {
    return std::make_shared<ObservedLocationServices>(std::move(inner), events, std::move(meter));
}

std::shared_ptr<platform::AlertPresenter> observeAlerts(std::shared_ptr<platform::AlertPresenter> inner,
                                                        EventLog& events, AlertAnswerer answerer) {
    return std::make_shared<ObservedAlerts>(std::move(inner), events, std::move(answerer));
}

std::shared_ptr<platform::LocalNotifications> observeNotifications(
    std::shared_ptr<platform::LocalNotifications> inner, EventLog& events,
    std::function<void(const platform::LocalNotification&)> onPresented) {
    return std::make_shared<ObservedNotifications>(std::move(inner), events, std::move(onPresented));
}

std::shared_ptr<platform::Application> observeApplication(std::shared_ptr<platform::Application> inner,
                                                          EventLog& events) {
    return std::make_shared<ObservedApplication>(std::move(inner), events);
}

std::shared_ptr<platform::LogSink> observeLog(std::shared_ptr<platform::LogSink> inner, EventLog& events) {
    return std::make_shared<ObservedLog>(std::move(inner), events);
}

}  // namespace tovrel::sim
