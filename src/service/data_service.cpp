#include "tovrel/data_service.h"

#include "foundation/format.h"
#include "foundation/log.h"
#include "tovrel/environment.h"
#include "tovrel/platform/json_scanner.h"
#include "tovrel/protocol.h"

namespace tovrel {
namespace {

namespace member = protocol::member;

constexpr const char* kDistanceThreshold = "8047";

/// Reading a response member the way a keyed lookup on an arbitrary object would: anything that is
/// not what the reader expects raises, and the caller logs it.
struct ReadFailure {
    std::string description;
};

/// The parsed text of a successful answer (which the HTTP port has checked to be JSON).
Json readAnswer(const platform::JsonResult& result) {
    auto parsed = platform::readJsonText(result.text);
    return parsed.ok() ? std::move(parsed.value) : Json();
}

}  // namespace

DataService::DataService(const platform::Platform& platform, std::string serviceBaseURL)
    : platform_(platform), serviceBaseURL_(std::move(serviceBaseURL)) {}

DataService& DataService::instance() {
    return Environment::current().dataService();
}

Json DataService::buildLocationDictionaryWithLatitude(double latitude, double longitude) {
    return Json{{protocol::member::kLatitude, formatF(latitude)},
                {protocol::member::kLongitude, formatF(longitude)}};
}

void DataService::post(std::string_view path, const Json& body, platform::JsonCompletion onAnswer) {
    const std::string url = serviceBaseURL_ + std::string(path);
    // Invalid UTF-8 in a string becomes U+FFFD rather than an exception on the caller's thread.
    platform_.http->postJson(url, body.dump(-1, ' ', false, Json::error_handler_t::replace),
                             std::move(onAnswer));
}

void DataService::getLocationsWithLocation(const platform::Location& location, const SessionKey& sessionKey,
                                           PlacesCompletion completion) {
    if (!sessionKey) {
        return;
    }
    const Json body{
        {member::kSessionKey, *sessionKey},
        {member::kCoordinatesList, Json::array({buildLocationDictionaryWithLatitude(
                                       location.coordinate.latitude, location.coordinate.longitude)})},
        {member::kDistanceThreshold, kDistanceThreshold},
    };
    auto& log = *platform_.log;
    post(protocol::kPlacePath, body, [&log, completion = std::move(completion)](platform::JsonResult result) {
        if (!result.ok()) {
            TOVREL_LOG(log, "%s", result.error->localizedDescription.c_str());
            if (completion) {
                completion({}, result.error);
            }
            return;
        }
        // The records are read straight from the text: an answer's parsed tree is several times its size.
        PlaceAnswer answer = readPlaceAnswer(result.text);
        if (!answer.placesKind.empty()) {
            TOVREL_LOG(log, "\"places\" is %s, not an array", answer.placesKind.c_str());
        }
        if (completion) {
            completion(std::move(answer.places), std::nullopt);
        }
    });
}

void DataService::sendDeviceLinkWithEventId(const Json& eventId, const Json& placeId,
                                            const SessionKey& sessionKey, LinkCompletion completion) {
    if (!sessionKey) {
        return;
    }
    const Json body{
        {member::kSessionKey, *sessionKey}, {member::kEventId, eventId}, {member::kPlaceId, placeId}};
    auto& log = *platform_.log;
    post(protocol::kLinkPath, body,
         [&log, completion = std::move(completion)](const platform::JsonResult& result) {
             if (!result.ok()) {
                 TOVREL_LOG(log, "%s", result.error->localizedDescription.c_str());
                 if (completion) {
                     completion(Json(), Json(), result.error);
                 }
                 return;
             }
             Json places = Json::array();
             Json deviceEventId;
             const Json answer = readAnswer(result);
             if (answer.is_object()) {
                 try {
                     const auto it = answer.find(member::kPlaces);
                     places = it == answer.end() ? Json() : *it;
                     if (!places.is_null()) {
                         if (!places.is_array()) {
                             throw ReadFailure{std::string("cannot take element 0 of ") + places.type_name()};
                         }
                         if (places.empty()) {
                             throw ReadFailure{"index 0 beyond bounds for empty array"};
                         }
                         const Json& first = places.front();
                         if (!first.is_object()) {
                             throw ReadFailure{std::string("cannot read \"deviceEventId\" of ") +
                                               first.type_name()};
                         }
                         const auto id = first.find(member::kDeviceEventId);
                         if (id != first.end()) {
                             deviceEventId = *id;
                         }
                     }
                 } catch (const ReadFailure& failure) {
                     TOVREL_LOG(log, "%s", failure.description.c_str());
                 }
             }
             if (completion) {
                 completion(places, deviceEventId, std::nullopt);
             }
         });
}

void DataService::sendStatusRequest(std::string_view path, const Json& body, StatusCompletion completion) {
    auto& log = *platform_.log;
    post(path, body, [&log, completion = std::move(completion)](const platform::JsonResult& result) {
        if (!result.ok()) {
            TOVREL_LOG(log, "%s", result.error->localizedDescription.c_str());
            if (completion) {
                completion(Json(), result.error);
            }
            return;
        }
        Json status;
        if (const Json answer = readAnswer(result); answer.is_object()) {
            const auto it = answer.find(member::kStatus);
            if (it != answer.end()) {
                status = *it;
            }
        }
        if (completion) {
            completion(status, std::nullopt);
        }
    });
}

void DataService::sendDeviceUpdateWithDeviceEventId(const Json& deviceEventId, const std::string& statusCode,
                                                    const SessionKey& sessionKey,
                                                    StatusCompletion completion) {
    if (!sessionKey) {
        return;
    }
    sendStatusRequest(protocol::kLinkStatusPath,
                      {{member::kSessionKey, *sessionKey},
                       {member::kDeviceEventId, deviceEventId},
                       {member::kStatusCode, statusCode}},
                      std::move(completion));
}

void DataService::sendDeviceClearWithSessionKey(const SessionKey& sessionKey, StatusCompletion completion) {
    if (!sessionKey) {
        return;
    }
    sendStatusRequest(protocol::kClearLinksPath, {{member::kSessionKey, *sessionKey}}, std::move(completion));
}

void DataService::addDeviceTagWithSessionKey(const SessionKey& sessionKey, const std::string& deviceTag,
                                             const std::string& deviceTagValue, const std::string& groupTag,
                                             StatusCompletion completion) {
    if (!sessionKey) {
        return;
    }
    sendStatusRequest(protocol::kTagUpdatePath,
                      {{member::kSessionKey, *sessionKey},
                       {member::kTag, deviceTag},
                       {member::kTagValue, deviceTagValue},
                       {member::kGroupTag, groupTag}},
                      std::move(completion));
}

void DataService::deleteDeviceTagWithSessionKey(const SessionKey& sessionKey, const std::string& deviceTag,
                                                const std::string& groupTag, StatusCompletion completion) {
    if (!sessionKey) {
        return;
    }
    sendStatusRequest(
        protocol::kTagDeletePath,
        {{member::kSessionKey, *sessionKey}, {member::kTag, deviceTag}, {member::kGroupTag, groupTag}},
        std::move(completion));
}

void DataService::requestSessionWithBody(const Json& body, AnswerCompletion completion) {
    post(protocol::kSessionPath, body,
         [completion = std::move(completion)](const platform::JsonResult& result) {
             if (completion) {
                 completion(result.ok() ? readAnswer(result) : Json(), result.error);
             }
         });
}

}  // namespace tovrel
