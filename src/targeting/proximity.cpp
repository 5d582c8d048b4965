#include <cstdint>
#include <limits>

#include "foundation/format.h"
#include "foundation/log.h"
#include "foundation/value.h"
#include "targeting/check_log.h"
#include "targeting/monitor_support.h"
#include "targeting/proximity_policy.h"
#include "targeting/shared_targets.h"
#include "tovrel/analytics_manager.h"
#include "tovrel/data_service.h"
#include "tovrel/location_manager.h"
#include "tovrel/notification_names.h"
#include "tovrel/offer_sink.h"
#include "tovrel/preferences_keys.h"
#include "tovrel/region.h"

namespace tovrel {
namespace {

/// The first element of a link answer's places (null when there is none).
const Json& firstRecord(const Json& places) {
    static const Json kNull;
    return places.is_array() && !places.empty() ? places.front() : kNull;
}

}  // namespace

struct LocationManager::Check {
    const platform::Location& location;
    double nearest;  ///< the distance to the nearest targets, metres
    std::shared_ptr<platform::Timer> dwellTimer;
    LogSite site;                 ///< where the check's links log from
    const std::string& function;  ///< the name its log lines carry: the check's
};

double LocationManager::calculateDistanceInMetersBetweenCoord(const platform::Coordinate& first,
                                                              const platform::Coordinate& second) {
    return targeting::haversineMeters(first, second);
}

double LocationManager::getClosestBB(const platform::Location& location) {
    TOVREL_ASSERT_MAIN_THREAD(mainLoop());
    targeting::NearestSet nearest;
    return targets_->nearest(location.coordinate, nearest) && !nearest.hits.empty()
               ? nearest.distance
               : std::numeric_limits<double>::infinity();
}

void LocationManager::checkForLocationTarget(const platform::Location& location) {
    TOVREL_ASSERT_MAIN_THREAD(mainLoop());
    // Taken out for the duration of the check, so a check started from inside this one stays correct.
    std::unique_ptr<targeting::NearestSet> scan = std::move(nearestScratch_);
    if (!scan) {
        scan = std::make_unique<targeting::NearestSet>();
    }
    const std::optional<std::uint64_t> found = targets_->nearest(location.coordinate, *scan);
    if (!found) {
        nearestScratch_ = std::move(scan);
        getTargets();
        return;
    }
    const std::uint64_t version = *found;
    const double nearest = scan->distance;

    // The dwell timer belongs to this one check: a timer from an earlier update is never cancelled.
    static const std::string kFunction = functionName(__PRETTY_FUNCTION__);
    Check check{location, nearest, nullptr, {__PRETTY_FUNCTION__, __LINE__}, kFunction};
    // Every target at the nearest distance is handled, in list order. Handling one may change the list
    // (a link answered at once): the remaining rounds then run against the list as it has become,
    // re-reading its length each round, as a plain indexed walk would.
    std::size_t nextIndex = 0;
    bool listChanged = false;
    for (const auto& hit : scan->hits) {
        std::shared_ptr<hRegion> target = targets_->version() == version ? targets_->at(hit.index) : nullptr;
        if (!target) {
            listChanged = true;
            break;
        }
        handleTarget(check, target, hit.distance);
        nextIndex = hit.index + 1;
    }
    nearestScratch_ = std::move(scan);
    if (listChanged || targets_->version() != version) {
        for (std::size_t i = nextIndex;; ++i) {
            const std::shared_ptr<hRegion> target = targets_->at(i);
            if (!target) {
                break;
            }
            const double distance = targeting::haversineMeters(target->center, location.coordinate);
            if (!(distance > nearest)) {
                handleTarget(check, target, distance);
            }
        }
    }

    if (nearest > targeting::kRefreshDistance) {
        auto& center = center_;
        center.post(kTovrelInBounds);
        center.post(kTovrelRefreshUserLocation);
        getTargets();
    }
}

void LocationManager::handleTarget(Check& check, const std::shared_ptr<hRegion>& target, double distance) {
    const auto provider = providerOnMain();
    const double accuracy = provider ? provider->desiredAccuracy() : 0;
    const double filter = provider ? provider->distanceFilter() : 0;
    const double now = platform_.clock->now();
    const platform::Coordinate here = check.location.coordinate;
    checks_->add({now, distance, accuracy, filter, target->radius, here.latitude, here.longitude},
                 {now, target});
    targeting::appendNearestTargetMessage(targeting::beginLogLine(logLineBuffer_, check.function, __LINE__),
                                          distance, accuracy, filter, target->radius);
    platform_.log->write(logLineBuffer_);
    if (target->radius < distance) {
        outsideTarget(check, provider);
    }
    if (distance < target->radius) {
        insideTarget(check, target, provider, accuracy);
    }
}

void LocationManager::outsideTarget(Check& check,
                                    const std::shared_ptr<platform::LocationProvider>& provider) {
    deviceHasExited_ = true;
    targeting::beginLogLine(logLineBuffer_, check.function, __LINE__).append("Outside the target bounds!");
    platform_.log->write(logLineBuffer_);
    if (check.dwellTimer) {
        check.dwellTimer->invalidate();
    }
    if (const auto settings = targeting::accuracyLadder(check.nearest, accuracyError_);
        settings && provider) {
        provider->setDesiredAccuracy(settings->desiredAccuracy);
        provider->setDistanceFilter(settings->distanceFilter);
    }
}

void LocationManager::insideTarget(Check& check, const std::shared_ptr<hRegion>& target,
                                   const std::shared_ptr<platform::LocationProvider>& provider,
                                   double accuracy) {
    deviceHasExited_ = false;
    targeting::beginLogLine(logLineBuffer_, check.function, __LINE__).append("Inside the target bounds!");
    platform_.log->write(logLineBuffer_);
    // Inside, the accuracy alternates: one update switches to best and links, the next one switches
    // back to ten metres.
    if (provider && accuracy == platform::accuracy::kBest) {
        provider->setDesiredAccuracy(platform::accuracy::kNearestTenMeters);
        return;
    }
    if (provider) {
        provider->setDesiredAccuracy(platform::accuracy::kBest);
    }
    const std::string message = targeting::offerMessage(target->eventName, target->alertText);
    if (!presentNotifications) {
        return;
    }
    const int dwell = static_cast<int>(target->dwelltime);
    if (dwell <= 0) {
        linkVisit(target, message, check.site);
        return;
    }
    if (check.dwellTimer) {
        check.dwellTimer->invalidate();
    }
    const int seconds = static_cast<int>(static_cast<std::uint32_t>(dwell) * 60U);
    check.dwellTimer = platform_.mainLoop->scheduleTimer(
        static_cast<double>(seconds), false, [self = shared_from_this(), target, message, site = check.site] {
            self->linkVisit(target, message, site);
        });
}

void LocationManager::linkVisit(const std::shared_ptr<hRegion>& target, const std::string& message,
                                LogSite site) {
    service_.sendDeviceLinkWithEventId(
        target->eventId, target->placeId, storedSessionKey(*platform_.preferences),
        [self = shared_from_this(), target, message, site](const Json& places, const Json& deviceEventId,
                                                           const ServiceError& /*error*/) {
            self->linkAnswer(places, deviceEventId, target, message, site);
        });
}

void LocationManager::linkAnswer(const Json& places, const Json& deviceEventId,
                                 const std::shared_ptr<hRegion>& target, const std::string& message,
                                 LogSite site) {
    if (deviceEventId.is_null()) {
        return;
    }
    const auto& platform = platform_;
    auto& prefs = *platform.preferences;
    if (!places.is_null()) {
        offers_->keep(places);
        const Json& first = firstRecord(places);
        const long long stored = integerValue(prefs.objectForKey(prefs::kDeviceEventId).value_or(Json()));
        const long long fresh = integerValueFor(first, "deviceEventId");
        // A repeated identifier was delivered already; a suppressed message is never delivered.
        if (stored != fresh && integerValueFor(first, "suppressMessage") == 0) {
            prefs.setObject(prefs::kDeviceEventId, deviceEventId);
            if (target->eventTypeId == 1) {
                logLine(*platform.log, functionName(site.prettyFunction), site.line, "TODO intercept");
            } else {
                offers_->deliver({deviceEventId, message, target->eventTypeId}, presentOfferView);
            }
            platform.application->setApplicationIconBadgeNumber(1);
            service_.sendDeviceUpdateWithDeviceEventId(
                prefs.objectForKey(prefs::kDeviceEventId).value_or(Json()), "ack", storedSessionKey(prefs),
                [self = shared_from_this(), target](const Json& /*status*/, const ServiceError& /*error*/) {
                    self->acknowledged(target);
                });
        }
    }
    targets_->eraseFront();
}

void LocationManager::acknowledged(const std::shared_ptr<hRegion>& target) {
    const auto& platform = platform_;
    platform.background->detachNewThread([self = shared_from_this()] { self->getTargets(); });
    center_.post(kTovrelInBounds, target);
    const Json message{
        {"event_notification_sent",
         {{"timestamp", format0f(platform.clock->now())}, {"eventid", printed(target->eventId)}}},
    };
    analytics_.logMessage(message, storedText(*platform.preferences, prefs::kAdid), [](const auto&) {});
}

}  // namespace tovrel
