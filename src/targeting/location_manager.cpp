#include "tovrel/location_manager.h"

#include "context/toast.h"
#include "foundation/value.h"
#include "targeting/check_log.h"
#include "targeting/proximity_policy.h"
#include "targeting/shared_targets.h"
#include "tovrel/environment.h"
#include "tovrel/offer_sink.h"

namespace tovrel {

std::shared_ptr<LocationManager> LocationManager::create(Environment& environment,
                                                         std::shared_ptr<OfferSink> offers) {
    return std::make_shared<LocationManager>(
        Collaborators{environment.platform(), environment.notificationCenter(), environment.dataService(),
                      environment.analyticsManager(), environment.launchCheckers()},
        std::move(offers));
}

LocationManager::LocationManager(const Collaborators& collaborators, std::shared_ptr<OfferSink> offers)
    : platform_(collaborators.platform),
      center_(collaborators.notificationCenter),
      service_(collaborators.dataService),
      analytics_(collaborators.analytics),
      launches_(collaborators.launches),
      targets_(std::make_unique<targeting::SharedTargets>()),
      checks_(std::make_unique<targeting::CheckLog>()),
      nearestScratch_(std::make_unique<targeting::NearestSet>()),
      offers_(std::move(offers)) {}

// Timers, completions and background tasks may release the last reference after the environment is
// gone, so nothing here reaches back into it.
LocationManager::~LocationManager() = default;

const platform::MainLoop& LocationManager::mainLoop() const {
    return *platform_.mainLoop;
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

void LocationManager::showToastMessage(const std::string& message) {
    showToastMessage(Environment::current(), message);
}

void LocationManager::showToastMessage(Environment& environment, const std::string& message) {
    showToast(environment, message);
}

}  // namespace tovrel
