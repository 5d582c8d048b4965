#pragma once

#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "tovrel/platform/platform.h"

namespace tovrel::bench {

/// Ports that answer at once and keep nothing, so a benchmark measures the component alone: timers
/// never fire, background work and HTTP requests are dropped, the log is discarded, the clock stands
/// still, and the location manager only keeps its two settings.
class StubLoop final : public platform::MainLoop, public platform::BackgroundWork, public platform::Clock {
  public:
    /// Any thread. Dropped.
    void post(platform::Task /*task*/) override {}
    /// Any thread. Returns a timer that never fires.
    std::shared_ptr<platform::Timer> scheduleTimer(double seconds, bool repeats,
                                                   platform::Task action) override;
    /// Any thread.
    [[nodiscard]] bool isMainThread() const override { return true; }
    /// Any thread. Dropped.
    void detachNewThread(platform::Task /*task*/) override {}
    /// Any thread. Dropped.
    void dispatchBackground(platform::Task /*task*/) override {}
    /// Any thread. A fixed time.
    [[nodiscard]] double now() const override { return 1'750'000'000.0; }
    /// Any thread. Returns at once.
    void sleepFor(double /*seconds*/) override {}
};

class StubLocationProvider final : public platform::LocationProvider {
  public:
    /// Any thread.
    void setDesiredAccuracy(double metres) override { accuracy_.store(metres, std::memory_order_relaxed); }
    /// Any thread.
    [[nodiscard]] double desiredAccuracy() const override {
        return accuracy_.load(std::memory_order_relaxed);
    }
    /// Any thread.
    void setDistanceFilter(double metres) override { filter_.store(metres, std::memory_order_relaxed); }
    /// Any thread.
    [[nodiscard]] double distanceFilter() const override { return filter_.load(std::memory_order_relaxed); }
    /// Main thread. Ignored.
    void setActivityType(platform::ActivityType /*type*/) override {}
    /// Main thread. Ignored.
    void setPausesLocationUpdatesAutomatically(bool /*pauses*/) override {}
    /// Main thread. Ignored: no fixes are ever delivered.
    void setDelegate(std::weak_ptr<platform::LocationManagerDelegate> /*delegate*/) override {}
    /// Main thread. Ignored.
    void startUpdatingLocation() override {}
    /// Main thread. Ignored.
    void stopUpdatingLocation() override {}
    /// Main thread. Ignored.
    void startMonitoringSignificantLocationChanges() override {}
    /// Main thread. Ignored.
    void stopMonitoringSignificantLocationChanges() override {}
    /// Main thread. Ignored.
    void requestAlwaysAuthorization() override {}
    /// Main thread. Ignored.
    void requestWhenInUseAuthorization() override {}

  private:
    std::atomic<double> accuracy_{-1};
    std::atomic<double> filter_{-1};
};

/// HTTP that drops every request, except that a places request is answered at once, on the calling
/// thread, with the canned answer while one is set.
class CannedHttp final : public platform::HttpClient {
  public:
    /// Any thread.
    void postJson(const std::string& url, std::string body, platform::JsonCompletion completion) override;
    /// Any thread. Dropped.
    void send(platform::HttpRequest /*request*/, platform::ResponseCompletion /*completion*/) override {}
    /// Any thread. The answer to later places requests (nullopt: drop them).
    void setPlacesAnswer(std::optional<nlohmann::json> answer);

  private:
    std::mutex mutex_;
    std::optional<std::string> placesAnswer_;  ///< as text
};

struct StubPlatform {
    platform::Platform platform;
    std::shared_ptr<CannedHttp> http;
};

/// Builds a platform of stubs; the preferences already hold a session key, an identifier and the
/// position `latitude`, `longitude`.
StubPlatform makeStubPlatform(double latitude, double longitude);

}  // namespace tovrel::bench
