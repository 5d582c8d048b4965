#include "tovrel/location_manager.h"

#include "foundation/value.h"
#include "targeting/check_log.h"
#include "targeting/offer_sink.h"
#include "targeting/proximity_policy.h"
#include "targeting/shared_targets.h"
#include "tovrel/environment.h"

namespace tovrel {

std::shared_ptr<LocationManager> LocationManager::create(Environment& environment,
                                                         std::shared_ptr<targeting::OfferSink> offers) {
    return std::make_shared<LocationManager>(environment, std::move(offers));
}

LocationManager::LocationManager(Environment& environment, std::shared_ptr<targeting::OfferSink> offers)
    : environment_(environment),
      targets_(std::make_unique<targeting::SharedTargets>()),
      checks_(std::make_unique<targeting::CheckLog>()),
      nearestScratch_(std::make_unique<targeting::NearestSet>()),
      offers_(std::move(offers)) {}

// Timers, completions and background tasks may release the last reference after the environment is
// gone, so nothing here reaches back into it.
LocationManager::~LocationManager() = default;

const platform::MainLoop& LocationManager::mainLoop() const {
    return *environment_.platform().mainLoop;
}

std::shared_ptr<platform::LocationProvider> LocationManager::locationManager() const {
    std::lock_guard lock(providerMutex_);
    return locationManager_;
}

void LocationManager::setProvider(std::shared_ptr<platform::LocationProvider> provider) {
    std::lock_guard lock(providerMutex_);
    locationManager_ = std::move(provider);
}

std::shared_ptr<platform::MotionActivityManager> LocationManager::motionActivityManager() const {
    TOVREL_ASSERT_MAIN_THREAD(mainLoop());
    return motionActivityManager_;
}

std::vector<std::shared_ptr<hRegion>> LocationManager::targets() const {
    return targets_->items();
}

nlohmann::json LocationManager::logHistoryArray() const {
    return checks_->historyJson();
}

nlohmann::json LocationManager::logTargetsArray() const {
    return checks_->targetsJson();
}

}  // namespace tovrel
