#pragma once

#include <gtest/gtest.h>

#include <any>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "delivery/offer_desk.h"
#include "tovrel/environment.h"
#include "tovrel/location_manager.h"
#include "tovrel/notification_names.h"
#include "tovrel/region.h"
#include "tovrel/virtual/virtual_location.h"
#include "tovrel/virtual/virtual_motion.h"
#include "tovrel/virtual/virtual_platform.h"

namespace tovrel::scenarios {

using Json = nlohmann::json;
using virtualbackend::RecordedRequest;
using virtualbackend::Reply;

/// Metres per degree of latitude on the component's 6371 km sphere.
inline constexpr double kMetresPerDegree = 111194.92664455873;

/// A point `north` and `east` metres from (lat, lon) (flat-earth offsets, fine at these distances).
inline platform::Coordinate offset(const platform::Coordinate& from, double north, double east) {
    const double kRadians = 0.017453292519943295;
    return {from.latitude + north / kMetresPerDegree,
            from.longitude + east / (kMetresPerDegree * std::cos(from.latitude * kRadians))};
}

/// A place record as the service sends it.
struct PlaceSpec {
    platform::Coordinate centre;
    double radius = 50;
    std::string eventId = "e1";
    std::string placeId = "p1";
    int eventTypeId = 3;
    int dwellTime = 0;
    int isLinked = 0;
    std::string eventName = "Coffee";
    std::string alertText = "50% off";

    [[nodiscard]] Json record() const {
        return {{"centroidLat", centre.latitude},
                {"centroidLon", centre.longitude},
                {"centroidRadius", radius},
                {"eventId", eventId},
                {"placeId", placeId},
                {"eventTypeId", eventTypeId},
                {"dwellTime", dwellTime},
                {"isLinked", isLinked},
                {"eventName", eventName},
                {"alertText", alertText},
                {"mediaType", "html"},
                {"mediaURL", "http://m.test/x"},
                {"mediaUrl", "http://m.test/x"},
                {"campaignName", "c"},
                {"endDate", "2030-01-01"}};
    }
};

/// A link answer: one record carrying the device event identifier and the offer's media.
inline Json linkAnswer(const Json& deviceEventId, const std::string& eventId = "e1",
                       int suppressMessage = 0) {
    return {{"places", Json::array({{{"deviceEventId", deviceEventId},
                                     {"eventId", eventId},
                                     {"mediaType", "html"},
                                     {"mediaUrl", "http://m.test/x"},
                                     {"suppressMessage", suppressMessage}}})}};
}

/// One posted in-process notification, as an observer saw it.
struct Posted {
    std::string name;
    std::any object;
};

/// One simulated device with location and motion, an environment on it made current on this thread,
/// a session key and an advertising identifier already stored, and a recorder of the notifications
/// the component posts.
class ScenarioDevice {
  public:
    static constexpr const char* kSessionKey = "sk-1";
    static constexpr const char* kAdid = "6D92078A-8246-4BA4-AE5B-76104861E7DC";

    ScenarioDevice() : location(vp.location), motion(vp.motion) {
        environment.emplace(vp.platform(), Configuration{"http://service.test", "http://content.test"});
        scope.emplace(*environment);
        vp.preferences->setObject("sessionid", kSessionKey);
        vp.preferences->setObject("adid", kAdid);
        for (const char* name : {kTovrelInBounds, kTovrelRefreshUserLocation, kTovrelNotificationQueued,
                                 kTovrelMessageViewed, kTovrelNotificationReceived}) {
            environment->notificationCenter().addObserver(name, nullptr, [this](const Notification& n) {
                posted.push_back({n.name, n.object});
            });
        }
    }

    /// A monitor made and wired as a location-enabled session start does.
    std::shared_ptr<LocationManager> start(bool presentNotifications = true, bool presentOfferView = true) {
        lm = LocationManager::create(*environment, delivery::OfferDesk::create(*environment));
        lm->presentNotifications = presentNotifications;
        lm->presentOfferView = presentOfferView;
        lm->initLocation();
        loop().runUntilIdle();
        return lm;
    }

    virtualbackend::VirtualScheduler& loop() { return *vp.scheduler; }
    virtualbackend::RecordingHttpClient& http() { return *vp.http; }

    /// The device moves to `c`; the location source decides whether the monitor hears of it.
    void moveTo(const platform::Coordinate& c) {
        location->moveTo(c.latitude, c.longitude);
        loop().runUntilIdle();
    }
    /// Hands one fix straight to the monitor, as the platform's delegate call would.
    void deliverFix(const platform::Coordinate& c) {
        platform::Location fix;
        fix.coordinate = c;
        fix.timestamp = loop().now();
        lm->locationManagerDidUpdateLocations({fix});
        loop().runUntilIdle();
    }

    /// Answers the oldest pending request to `path`.
    void answer(const std::string& path, const Json& body, int status = 200) {
        ASSERT_TRUE(http().respondTo(path, Reply::json(status, body))) << "no pending request to " << path;
        loop().runUntilIdle();
    }
    void answerPlaces(const std::vector<PlaceSpec>& places) {
        Json records = Json::array();
        for (const auto& place : places) {
            records.push_back(place.record());
        }
        answer("/v2/place", {{"places", records}});
    }
    /// A first fix (stored) and a second one that asks for places, answered with `places`: the
    /// monitor then knows its targets. Leaves the device at `second`.
    void loadTargets(const platform::Coordinate& first, const platform::Coordinate& second,
                     const std::vector<PlaceSpec>& places) {
        moveTo(first);
        moveTo(second);
        answerPlaces(places);
    }

    [[nodiscard]] std::vector<RecordedRequest> requestsTo(const std::string& path) const {
        return vp.http->requestsTo(path);
    }
    /// The bodies' "message" members of every log upload so far.
    [[nodiscard]] std::vector<Json> logMessages() const {
        std::vector<Json> out;
        for (const auto& request : vp.http->requestsTo("/v1/log")) {
            out.push_back(request.body.value("message", Json()));
        }
        return out;
    }
    /// Device event updates so far, as (deviceEventId, statusCode).
    [[nodiscard]] std::vector<std::pair<Json, std::string>> updates() const {
        std::vector<std::pair<Json, std::string>> out;
        for (const auto& request : vp.http->requestsTo("/v1/deviceevent/update")) {
            out.emplace_back(request.body.value("deviceEventId", Json()),
                             request.body.value("statusCode", std::string()));
        }
        return out;
    }
    [[nodiscard]] std::vector<std::string> postedNames() const {
        std::vector<std::string> out;
        for (const auto& p : posted) {
            out.push_back(p.name);
        }
        return out;
    }
    [[nodiscard]] std::size_t postedCount(const std::string& name) const {
        std::size_t n = 0;
        for (const auto& p : posted) {
            n += p.name == name ? 1 : 0;
        }
        return n;
    }
    [[nodiscard]] virtualbackend::LocationProviderRecord provider() const {
        const auto latest = location->latestProvider();
        return latest ? *latest : virtualbackend::LocationProviderRecord{};
    }

    virtualbackend::VirtualPlatform vp;
    std::shared_ptr<virtualbackend::VirtualLocationServices> location;
    std::shared_ptr<virtualbackend::VirtualMotionServices> motion;
    std::vector<Posted> posted;
    std::optional<Environment> environment;
    std::optional<Environment::Scope> scope;
    std::shared_ptr<LocationManager> lm;
};

}  // namespace tovrel::scenarios
