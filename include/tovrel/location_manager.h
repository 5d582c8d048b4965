#pragma once

#include <memory>

#include "tovrel/platform/location.h"

namespace tovrel {

class Environment;

/// The location monitor: owns the platform location manager, the place targets, the pending offers,
/// the diagnostic buffers and the periodic timers. Made by the session manager once a
/// location-enabled session has started.
class LocationManager : public platform::LocationManagerDelegate,
                        public std::enable_shared_from_this<LocationManager> {
public:
    static std::shared_ptr<LocationManager> create(Environment& environment);
    explicit LocationManager(Environment& environment);
    ~LocationManager() override;

    void initLocation();
    void startMonitoringLocation();
    void stopMonitoringLocation();

    void locationManagerDidUpdateLocations(const std::vector<platform::Location>& locations) override;
    void locationManagerDidFailWithError(const platform::LocationError& error) override;
    void locationManagerDidPauseLocationUpdates() override;
    void locationManagerDidResumeLocationUpdates() override;

    [[nodiscard]] const std::shared_ptr<platform::LocationProvider>& locationManager() const { return locationManager_; }
    bool presentNotifications = false;
    bool presentOfferView = false;

private:
    Environment& environment_;
    std::shared_ptr<platform::LocationProvider> locationManager_;
};

}  // namespace tovrel
