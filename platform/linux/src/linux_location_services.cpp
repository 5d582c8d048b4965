#include "tovrel/linux/linux_location_services.h"

#include <map>
#include <vector>

#include "tovrel/linux/fix_filter.h"
#include "tovrel/platform/thread_annotations.h"

namespace tovrel::linuxbackend {

/// One platform location manager's settings and filter. Every field is read and written under the
/// services' lock (Shared::mutex).
struct ProviderState {
    explicit ProviderState(double grace) : filter(grace) {}

    FixFilterSettings settings;
    FixFilter filter;
    std::weak_ptr<platform::LocationManagerDelegate> delegate;
    bool released = false;

    [[nodiscard]] bool running() const {
        return !released && (settings.standardUpdates || settings.significantChanges);
    }
};

struct LinuxLocationServices::Shared : FixSink, std::enable_shared_from_this<LinuxLocationServices::Shared> {
    std::shared_ptr<platform::MainLoop> loop;
    std::shared_ptr<platform::Clock> clock;
    std::unique_ptr<FixSource> source;
    LocationServicesOptions options;

    mutable platform::Mutex mutex;
    std::vector<std::weak_ptr<ProviderState>> providers TOVREL_GUARDED_BY(mutex);
    std::map<std::uint64_t, std::function<void(const TrackPoint&)>> observers TOVREL_GUARDED_BY(mutex);
    std::uint64_t nextObserver TOVREL_GUARDED_BY(mutex) = 0;
    std::optional<platform::Location> latest TOVREL_GUARDED_BY(mutex);
    bool sourceStarted TOVREL_GUARDED_BY(mutex) = false;
    std::size_t published TOVREL_GUARDED_BY(mutex) = 0;
    std::size_t delivered TOVREL_GUARDED_BY(mutex) = 0;

    void startSource() {
        {
            platform::Lock lock(mutex);
            if (sourceStarted || !source) {
                return;
            }
            sourceStarted = true;
        }
        source->start(weak_from_this());
    }

    /// Posts `fix` to the delegate of `state` (which has accepted it).
    void queueFix(const std::shared_ptr<ProviderState>& state, const platform::Location& fix)
        TOVREL_REQUIRES(mutex) {
        loop->post([self = shared_from_this(), state, fix] {
            std::shared_ptr<platform::LocationManagerDelegate> delegate;
            {
                platform::Lock lock(self->mutex);
                if (!state->running()) {
                    return;
                }
                delegate = state->delegate.lock();
                if (!delegate) {
                    return;
                }
                ++self->delivered;
            }
            delegate->locationManagerDidUpdateLocations({fix});
        });
    }

    void publishFix(const TrackPoint& point) override {
        std::vector<std::function<void(const TrackPoint&)>> watchers;
        {
            platform::Lock lock(mutex);
            ++published;
            latest = point.fix;
            std::erase_if(providers, [](const std::weak_ptr<ProviderState>& weak) { return weak.expired(); });
            for (const auto& weak : providers) {
                const auto state = weak.lock();
                if (state && state->running() && state->filter.accept(point.fix, state->settings)) {
                    queueFix(state, point.fix);
                }
            }
            for (const auto& [id, observer] : observers) {
                watchers.push_back(observer);
            }
        }
        for (const auto& observer : watchers) {
            observer(point);
        }
    }

    void publishError(const platform::LocationError& error) override {
        platform::Lock lock(mutex);
        for (const auto& weak : providers) {
            const auto state = weak.lock();
            if (!state || !state->running()) {
                continue;
            }
            loop->post([self = shared_from_this(), state, error] {
                std::shared_ptr<platform::LocationManagerDelegate> delegate;
                {
                    platform::Lock inner(self->mutex);
                    if (!state->running()) {
                        return;
                    }
                    delegate = state->delegate.lock();
                }
                if (delegate) {
                    delegate->locationManagerDidFailWithError(error);
                }
            });
        }
    }

    /// A manager that has just started hears the latest fix when it is fresh.
    void offerLatest(const std::shared_ptr<ProviderState>& state) TOVREL_REQUIRES(mutex) {
        if (!latest || !state->running()) {
            return;
        }
        if (clock && clock->now() - latest->timestamp > options.cachedFixMaxAgeSeconds) {
            return;
        }
        if (state->filter.accept(*latest, state->settings)) {
            queueFix(state, *latest);
        }
    }
};

namespace {

class LinuxLocationProvider final : public platform::LocationProvider {
  public:
    using Shared = LinuxLocationServices::Shared;

    LinuxLocationProvider(std::shared_ptr<Shared> shared, std::shared_ptr<ProviderState> state)
        : shared_(std::move(shared)), state_(std::move(state)) {}
    ~LinuxLocationProvider() override {
        platform::Lock lock(shared_->mutex);
        state_->released = true;
    }
    LinuxLocationProvider(const LinuxLocationProvider&) = delete;
    LinuxLocationProvider& operator=(const LinuxLocationProvider&) = delete;

    void setDesiredAccuracy(double metres) override {
        platform::Lock lock(shared_->mutex);
        state_->settings.desiredAccuracy = metres;
    }
    [[nodiscard]] double desiredAccuracy() const override {
        platform::Lock lock(shared_->mutex);
        return state_->settings.desiredAccuracy;
    }
    void setDistanceFilter(double metres) override {
        platform::Lock lock(shared_->mutex);
        state_->settings.distanceFilter = metres;
    }
    [[nodiscard]] double distanceFilter() const override {
        platform::Lock lock(shared_->mutex);
        return state_->settings.distanceFilter;
    }
    void setActivityType(platform::ActivityType /*type*/) override {}
    void setPausesLocationUpdatesAutomatically(bool /*pauses*/) override {}
    void setDelegate(std::weak_ptr<platform::LocationManagerDelegate> delegate) override {
        platform::Lock lock(shared_->mutex);
        state_->delegate = std::move(delegate);
    }
    void startUpdatingLocation() override { start(&FixFilterSettings::standardUpdates); }
    void stopUpdatingLocation() override { stop(&FixFilterSettings::standardUpdates); }
    void startMonitoringSignificantLocationChanges() override {
        start(&FixFilterSettings::significantChanges);
    }
    void stopMonitoringSignificantLocationChanges() override { stop(&FixFilterSettings::significantChanges); }
    void requestAlwaysAuthorization() override {}
    void requestWhenInUseAuthorization() override {}

  private:
    void start(bool FixFilterSettings::*mode) {
        bool wasRunning = false;
        {
            platform::Lock lock(shared_->mutex);
            wasRunning = state_->running();
            state_->settings.*mode = true;
            if (!wasRunning) {
                state_->filter.reset();
                shared_->offerLatest(state_);
            }
        }
        shared_->startSource();
        if (!wasRunning && shared_->source) {
            shared_->source->wake();
        }
    }

    void stop(bool FixFilterSettings::*mode) {
        platform::Lock lock(shared_->mutex);
        state_->settings.*mode = false;
    }

    std::shared_ptr<Shared> shared_;
    std::shared_ptr<ProviderState> state_;
};

}  // namespace

LinuxLocationServices::LinuxLocationServices(std::shared_ptr<platform::MainLoop> loop,
                                             std::shared_ptr<platform::Clock> clock,
                                             std::unique_ptr<FixSource> source,
                                             LocationServicesOptions options)
    : shared_(std::make_shared<Shared>()) {
    shared_->loop = std::move(loop);
    shared_->clock = std::move(clock);
    shared_->source = std::move(source);
    shared_->options = options;
}

LinuxLocationServices::~LinuxLocationServices() {
    if (shared_->source) {
        shared_->source->stop();
    }
}

bool LinuxLocationServices::locationServicesEnabled() const {
    return shared_->options.servicesEnabled;
}

bool LinuxLocationServices::isMonitoringAvailableForCircularRegion() const {
    return shared_->options.regionMonitoringAvailable;
}

platform::AuthorizationStatus LinuxLocationServices::authorizationStatus() const {
    return shared_->options.authorization;
}

std::shared_ptr<platform::LocationProvider> LinuxLocationServices::createLocationManager() {
    auto state = std::make_shared<ProviderState>(shared_->options.poorFixGraceSeconds);
    {
        platform::Lock lock(shared_->mutex);
        shared_->providers.push_back(state);
    }
    return std::make_shared<LinuxLocationProvider>(shared_, std::move(state));
}

std::shared_ptr<void> LinuxLocationServices::observeRawFixes(
    std::function<void(const TrackPoint&)> observer) {
    std::uint64_t id = 0;
    {
        platform::Lock lock(shared_->mutex);
        id = shared_->nextObserver++;
        shared_->observers.emplace(id, std::move(observer));
    }
    return std::shared_ptr<void>(nullptr, [weak = std::weak_ptr<Shared>(shared_), id](void*) {
        if (const auto shared = weak.lock()) {
            platform::Lock lock(shared->mutex);
            shared->observers.erase(id);
        }
    });
}

void LinuxLocationServices::startSource() {
    shared_->startSource();
}

std::size_t LinuxLocationServices::publishedCount() const {
    platform::Lock lock(shared_->mutex);
    return shared_->published;
}

std::size_t LinuxLocationServices::deliveredCount() const {
    platform::Lock lock(shared_->mutex);
    return shared_->delivered;
}

}  // namespace tovrel::linuxbackend
