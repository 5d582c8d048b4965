#include "tovrel/location_manager.h"

#include "foundation/value.h"
#include "targeting/offer_view_port.h"
#include "targeting/proximity_policy.h"
#include "targeting/target_list.h"
#include "tovrel/environment.h"

namespace tovrel {

std::shared_ptr<LocationManager> LocationManager::create(Environment& environment) {
    auto manager = std::make_shared<LocationManager>(environment);
    if (environment.platform().views) {
        manager->setOfferViewOpener(
            [&environment, weak = std::weak_ptr<LocationManager>(manager)](const OfferViewRequest& request) {
                if (auto self = weak.lock()) {
                    self->offerFullViewController = targeting::presentOfferView(environment, request);
                }
            });
    }
    return manager;
}

LocationManager::LocationManager(Environment& environment)
    : environment_(environment),
      targets_(std::make_unique<targeting::TargetList>()),
      nearestScratch_(std::make_unique<targeting::NearestSet>()) {}

// Timers, completions and background tasks may release the last reference after the environment is
// gone, so nothing here reaches back into it.
LocationManager::~LocationManager() = default;

const platform::MainLoop& LocationManager::mainLoop() const {
    return *environment_.platform().mainLoop;
}

std::shared_ptr<platform::LocationProvider> LocationManager::locationManager() const {
    std::lock_guard lock(mutex_);
    return locationManager_;
}

void LocationManager::setProvider(std::shared_ptr<platform::LocationProvider> provider) {
    std::lock_guard lock(mutex_);
    locationManager_ = std::move(provider);
}

std::shared_ptr<platform::MotionActivityManager> LocationManager::motionActivityManager() const {
    TOVREL_ASSERT_MAIN_THREAD(mainLoop());
    return motionActivityManager_;
}

std::vector<std::shared_ptr<hRegion>> LocationManager::targets() const {
    std::lock_guard lock(mutex_);
    return targets_->items();
}

std::vector<nlohmann::json> LocationManager::offers() const {
    std::lock_guard lock(mutex_);
    return offers_;
}

nlohmann::json LocationManager::logHistoryArray() const {
    std::vector<targeting::HistoryRecord> records;
    {
        std::lock_guard lock(mutex_);
        records = logHistory_;
    }
    nlohmann::json out = nlohmann::json::array();
    for (const auto& record : records) {
        out.push_back(targeting::toJson(record));
    }
    return out;
}

nlohmann::json LocationManager::logTargetsArray() const {
    std::vector<targeting::TargetRecord> records;
    {
        std::lock_guard lock(mutex_);
        records = logTargets_;
    }
    nlohmann::json out = nlohmann::json::array();
    for (const auto& record : records) {
        out.push_back(targeting::toJson(record));
    }
    return out;
}

void LocationManager::openOfferView(const nlohmann::json& offerElement) {
    TOVREL_ASSERT_MAIN_THREAD(mainLoop());
    OfferViewRequest request{
        memberOrNull(offerElement, "eventId"),
        memberOrNull(offerElement, "deviceEventId"),
        memberOrNull(offerElement, "mediaType"),
        memberOrNull(offerElement, "mediaUrl"),
        0,
    };
    request.tag = integerValue(request.eventId);
    if (offerViewRequests_.size() == kKeptOfferViewRequests) {
        offerViewRequests_.pop_front();
    }
    offerViewRequests_.push_back(request);
    if (offerViewOpener_) {
        offerViewOpener_(request);
    }
}

void LocationManager::setOfferViewOpener(OfferViewOpener opener) {
    TOVREL_ASSERT_MAIN_THREAD(mainLoop());
    offerViewOpener_ = std::move(opener);
}

std::vector<OfferViewRequest> LocationManager::offerViewRequests() const {
    TOVREL_ASSERT_MAIN_THREAD(mainLoop());
    return {offerViewRequests_.begin(), offerViewRequests_.end()};
}

}  // namespace tovrel
