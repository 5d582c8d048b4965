#include "tovrel/virtual/virtual_location.h"

#include <cmath>
#include <functional>
#include <mutex>

#include "tovrel/platform/distance_filter.h"

namespace tovrel::virtualbackend {

struct LocationProviderState {
    LocationProviderRecord record;
    std::weak_ptr<platform::LocationManagerDelegate> delegate;
    std::optional<platform::Location> lastDelivered;

    [[nodiscard]] bool started() const {
        return !record.released && (record.updatingLocation || record.monitoringSignificantChanges);
    }
    /// Whether `fix` passes this manager's software filter (the caller holds the lock).
    [[nodiscard]] bool accepts(const platform::Location& fix) const {
        if (!started()) {
            return false;
        }
        return platform::passesDistanceFilter(lastDelivered ? &lastDelivered->coordinate : nullptr,
                                              fix.coordinate, record.updatingLocation && !record.paused,
                                              record.monitoringSignificantChanges, record.distanceFilter);
    }
};

struct VirtualLocationServices::Shared {
    std::weak_ptr<platform::MainLoop> loop;
    std::weak_ptr<platform::Clock> clock;
    mutable std::mutex mutex;
    bool enabled = true;
    bool monitoringAvailable = true;
    platform::AuthorizationStatus status = platform::AuthorizationStatus::kAuthorizedAlways;
    std::optional<platform::Location> position;
    std::vector<std::shared_ptr<LocationProviderState>> providers;
    std::size_t delivered = 0;

    void post(platform::Task task) const {
        if (const auto live = loop.lock()) {
            live->post(std::move(task));
        }
    }

    /// Queues `fix` for `state`'s delegate (the caller holds the lock and has decided to deliver).
    void queueFix(const std::shared_ptr<Shared>& self, const std::shared_ptr<LocationProviderState>& state,
                  const platform::Location& fix) {
        state->lastDelivered = fix;
        post([self, state, fix] {
            std::shared_ptr<platform::LocationManagerDelegate> delegate;
            {
                std::lock_guard lock(self->mutex);
                if (!state->started()) {
                    return;
                }
                delegate = state->delegate.lock();
                if (!delegate) {
                    return;
                }
                state->record.delivered.push_back(fix);
                ++self->delivered;
            }
            delegate->locationManagerDidUpdateLocations({fix});
        });
    }

    /// Queues one call on `state`'s delegate, if it still has one when the loop runs it.
    void queueCall(const std::shared_ptr<LocationProviderState>& state,
                   std::function<void(platform::LocationManagerDelegate&)> call) const {
        post([state, call = std::move(call)] {
            if (const auto delegate = state->delegate.lock()) {
                call(*delegate);
            }
        });
    }
};

namespace {

class VirtualLocationProvider final : public platform::LocationProvider {
  public:
    VirtualLocationProvider(std::shared_ptr<VirtualLocationServices::Shared> shared,
                            std::shared_ptr<LocationProviderState> state)
        : shared_(std::move(shared)), state_(std::move(state)) {}

    ~VirtualLocationProvider() override {
        std::lock_guard lock(shared_->mutex);
        state_->record.released = true;
    }
    VirtualLocationProvider(const VirtualLocationProvider&) = delete;
    VirtualLocationProvider& operator=(const VirtualLocationProvider&) = delete;

    void setDesiredAccuracy(double metres) override {
        std::lock_guard lock(shared_->mutex);
        state_->record.desiredAccuracy = metres;
        state_->record.settingsHistory.emplace_back(metres, state_->record.distanceFilter);
    }
    [[nodiscard]] double desiredAccuracy() const override {
        std::lock_guard lock(shared_->mutex);
        return state_->record.desiredAccuracy;
    }
    void setDistanceFilter(double metres) override {
        std::lock_guard lock(shared_->mutex);
        state_->record.distanceFilter = metres;
        state_->record.settingsHistory.emplace_back(state_->record.desiredAccuracy, metres);
    }
    [[nodiscard]] double distanceFilter() const override {
        std::lock_guard lock(shared_->mutex);
        return state_->record.distanceFilter;
    }
    void setActivityType(platform::ActivityType type) override {
        std::lock_guard lock(shared_->mutex);
        state_->record.activityType = type;
    }
    void setPausesLocationUpdatesAutomatically(bool pauses) override {
        std::lock_guard lock(shared_->mutex);
        state_->record.pausesLocationUpdatesAutomatically = pauses;
    }
    void setDelegate(std::weak_ptr<platform::LocationManagerDelegate> delegate) override {
        std::lock_guard lock(shared_->mutex);
        state_->delegate = std::move(delegate);
        state_->record.hasDelegate = !state_->delegate.expired();
        state_->record.calls.emplace_back("setDelegate");
    }
    void startUpdatingLocation() override {
        std::lock_guard lock(shared_->mutex);
        auto& record = state_->record;
        record.calls.emplace_back("startUpdatingLocation");
        const bool wasDelivering = record.updatingLocation && !record.paused;
        record.updatingLocation = true;
        record.paused = false;
        if (!wasDelivering) {
            deliverCurrentPosition();
        }
    }
    void stopUpdatingLocation() override {
        std::lock_guard lock(shared_->mutex);
        state_->record.calls.emplace_back("stopUpdatingLocation");
        state_->record.updatingLocation = false;
        state_->record.paused = false;
    }
    void startMonitoringSignificantLocationChanges() override {
        std::lock_guard lock(shared_->mutex);
        auto& record = state_->record;
        record.calls.emplace_back("startMonitoringSignificantLocationChanges");
        const bool wasDelivering =
            record.monitoringSignificantChanges || (record.updatingLocation && !record.paused);
        record.monitoringSignificantChanges = true;
        if (!wasDelivering) {
            deliverCurrentPosition();
        }
    }
    void stopMonitoringSignificantLocationChanges() override {
        std::lock_guard lock(shared_->mutex);
        state_->record.calls.emplace_back("stopMonitoringSignificantLocationChanges");
        state_->record.monitoringSignificantChanges = false;
    }
    void requestAlwaysAuthorization() override {
        std::lock_guard lock(shared_->mutex);
        state_->record.calls.emplace_back("requestAlwaysAuthorization");
    }
    void requestWhenInUseAuthorization() override {
        std::lock_guard lock(shared_->mutex);
        state_->record.calls.emplace_back("requestWhenInUseAuthorization");
    }

  private:
    /// A (re)started manager reports where the device is now (the caller holds the lock).
    void deliverCurrentPosition() {
        if (shared_->position) {
            shared_->queueFix(shared_, state_, *shared_->position);
        }
    }

    std::shared_ptr<VirtualLocationServices::Shared> shared_;
    std::shared_ptr<LocationProviderState> state_;
};

}  // namespace

VirtualLocationServices::VirtualLocationServices(const std::shared_ptr<platform::MainLoop>& loop,
                                                 const std::shared_ptr<platform::Clock>& clock)
    : shared_(std::make_shared<Shared>()) {
    shared_->loop = loop;
    shared_->clock = clock;
}

VirtualLocationServices::~VirtualLocationServices() = default;

bool VirtualLocationServices::locationServicesEnabled() const {
    std::lock_guard lock(shared_->mutex);
    return shared_->enabled;
}

bool VirtualLocationServices::isMonitoringAvailableForCircularRegion() const {
    std::lock_guard lock(shared_->mutex);
    return shared_->monitoringAvailable;
}

platform::AuthorizationStatus VirtualLocationServices::authorizationStatus() const {
    std::lock_guard lock(shared_->mutex);
    return shared_->status;
}

std::shared_ptr<platform::LocationProvider> VirtualLocationServices::createLocationManager() {
    auto state = std::make_shared<LocationProviderState>();
    {
        std::lock_guard lock(shared_->mutex);
        state->record.id = shared_->providers.size() + 1;
        state->record.settingsHistory.emplace_back(state->record.desiredAccuracy,
                                                   state->record.distanceFilter);
        shared_->providers.push_back(state);
    }
    return std::make_shared<VirtualLocationProvider>(shared_, std::move(state));
}

void VirtualLocationServices::setLocationServicesEnabled(bool enabled) {
    std::lock_guard lock(shared_->mutex);
    shared_->enabled = enabled;
}

void VirtualLocationServices::setMonitoringAvailable(bool available) {
    std::lock_guard lock(shared_->mutex);
    shared_->monitoringAvailable = available;
}

void VirtualLocationServices::setAuthorizationStatus(platform::AuthorizationStatus status) {
    std::lock_guard lock(shared_->mutex);
    shared_->status = status;
}

void VirtualLocationServices::moveTo(platform::Location fix) {
    if (fix.timestamp == 0) {
        if (const auto clock = shared_->clock.lock()) {
            fix.timestamp = clock->now();
        }
    }
    std::lock_guard lock(shared_->mutex);
    shared_->position = fix;
    for (const auto& state : shared_->providers) {
        if (state->accepts(fix)) {
            shared_->queueFix(shared_, state, fix);
        }
    }
}

void VirtualLocationServices::moveTo(double latitude, double longitude) {
    platform::Location fix;
    fix.coordinate = {latitude, longitude};
    fix.horizontalAccuracy = 5;
    moveTo(fix);
}

std::optional<platform::Location> VirtualLocationServices::position() const {
    std::lock_guard lock(shared_->mutex);
    return shared_->position;
}

void VirtualLocationServices::failWithError(platform::LocationError error) {
    std::lock_guard lock(shared_->mutex);
    for (const auto& state : shared_->providers) {
        if (state->started()) {
            shared_->queueCall(state, [error](platform::LocationManagerDelegate& delegate) {
                delegate.locationManagerDidFailWithError(error);
            });
        }
    }
}

void VirtualLocationServices::pauseUpdates() {
    std::lock_guard lock(shared_->mutex);
    for (const auto& state : shared_->providers) {
        if (!state->record.released && state->record.updatingLocation && !state->record.paused) {
            state->record.paused = true;
            shared_->queueCall(state, [](platform::LocationManagerDelegate& delegate) {
                delegate.locationManagerDidPauseLocationUpdates();
            });
        }
    }
}

void VirtualLocationServices::resumeUpdates() {
    std::lock_guard lock(shared_->mutex);
    for (const auto& state : shared_->providers) {
        if (!state->record.released && state->record.paused) {
            state->record.paused = false;
            shared_->queueCall(state, [](platform::LocationManagerDelegate& delegate) {
                delegate.locationManagerDidResumeLocationUpdates();
            });
        }
    }
}

std::vector<LocationProviderRecord> VirtualLocationServices::providers() const {
    std::lock_guard lock(shared_->mutex);
    std::vector<LocationProviderRecord> out;
    out.reserve(shared_->providers.size());
    for (const auto& state : shared_->providers) {
        out.push_back(state->record);
    }
    return out;
}

std::optional<LocationProviderRecord> VirtualLocationServices::latestProvider() const {
    std::lock_guard lock(shared_->mutex);
    if (shared_->providers.empty()) {
        return std::nullopt;
    }
    return shared_->providers.back()->record;
}

std::size_t VirtualLocationServices::liveProviderCount() const {
    std::lock_guard lock(shared_->mutex);
    std::size_t live = 0;
    for (const auto& state : shared_->providers) {
        live += state->record.released ? 0 : 1;
    }
    return live;
}

std::size_t VirtualLocationServices::deliveredCount() const {
    std::lock_guard lock(shared_->mutex);
    return shared_->delivered;
}

}  // namespace tovrel::virtualbackend
