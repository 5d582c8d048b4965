#pragma once

#include <functional>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tovrel/export.h"
#include "tovrel/place_record.h"
#include "tovrel/platform/http.h"
#include "tovrel/platform/location.h"
#include "tovrel/platform/platform.h"

namespace tovrel {

class Environment;

using Json = nlohmann::json;
using ServiceError = std::optional<platform::HttpError>;
using SessionKey = std::optional<std::string>;

/// Client of the service's place, device-event and device-tag endpoints, and of the session endpoint
/// for the session manager. Every call is one JSON POST carrying the session key (but the session
/// request, which asks for one); a missing key makes a call do nothing at all (no request, no
/// completion). Completions run on the main loop, may be empty, and receive null for "nothing".
/// Nothing is thrown out of a call: a response that cannot be read is logged and read as far as it goes.
class TOVREL_EXPORT DataService {
  public:
    /// (places, error): the answer's records (possibly none) on success, none and the error on failure.
    using PlacesCompletion = std::function<void(std::vector<PlaceRecord> places, const ServiceError& error)>;
    /// (places, device event id, error): the link answer's "places" as it stands and the
    /// "deviceEventId" of its first record (null when there is none).
    using LinkCompletion =
        std::function<void(const Json& places, const Json& deviceEventId, const ServiceError& error)>;
    /// (status, error): the answer's "status" as it stands (null when absent).
    using StatusCompletion = std::function<void(const Json& status, const ServiceError& error)>;
    /// (answer, error): the whole answer as it stands on success, null and the error on failure.
    using AnswerCompletion = std::function<void(const Json& answer, const ServiceError& error)>;

    /// Any thread. Requests go through `platform`'s HTTP client (held by reference, with the log) to
    /// `serviceBaseURL` (scheme and host).
    DataService(const platform::Platform& platform, std::string serviceBaseURL);

    /// The shared instance of the current environment.
    static DataService& instance();

    void getLocationsWithLocation(const platform::Location& location, const SessionKey& sessionKey,
                                  PlacesCompletion completion);
    void sendDeviceLinkWithEventId(const Json& eventId, const Json& placeId, const SessionKey& sessionKey,
                                   LinkCompletion completion);
    void sendDeviceUpdateWithDeviceEventId(const Json& deviceEventId, const std::string& statusCode,
                                           const SessionKey& sessionKey, StatusCompletion completion);
    void sendDeviceClearWithSessionKey(const SessionKey& sessionKey, StatusCompletion completion);
    void addDeviceTagWithSessionKey(const SessionKey& sessionKey, const std::string& deviceTag,
                                    const std::string& deviceTagValue, const std::string& groupTag,
                                    StatusCompletion completion);
    void deleteDeviceTagWithSessionKey(const SessionKey& sessionKey, const std::string& deviceTag,
                                       const std::string& groupTag, StatusCompletion completion);

    /// Main thread. Posts `body` (device identifier, type and model, SDK key) to the session endpoint.
    /// Logs nothing: the session manager reports a failure and decides whether to ask again.
    void requestSessionWithBody(const Json& body, AnswerCompletion completion);

    /// {"lat": "%f", "lon": "%f"}: six-decimal texts.
    static Json buildLocationDictionaryWithLatitude(double latitude, double longitude);

  private:
    void post(std::string_view path, const Json& body, platform::JsonCompletion onAnswer);
    void sendStatusRequest(std::string_view path, const Json& body, StatusCompletion completion);

    const platform::Platform& platform_;
    const std::string serviceBaseURL_;
};

}  // namespace tovrel
