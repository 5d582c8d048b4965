#include "tovrel/location_manager.h"

#include "tovrel/environment.h"

namespace tovrel {

std::shared_ptr<LocationManager> LocationManager::create(Environment& environment) {
    return std::make_shared<LocationManager>(environment);
}

LocationManager::LocationManager(Environment& environment) : environment_(environment) {}
LocationManager::~LocationManager() = default;

void LocationManager::initLocation() {}
void LocationManager::startMonitoringLocation() {}
void LocationManager::stopMonitoringLocation() { locationManager_.reset(); }
void LocationManager::locationManagerDidUpdateLocations(const std::vector<platform::Location>&) {}
void LocationManager::locationManagerDidFailWithError(const platform::LocationError&) {}
void LocationManager::locationManagerDidPauseLocationUpdates() {}
void LocationManager::locationManagerDidResumeLocationUpdates() {}

}  // namespace tovrel
