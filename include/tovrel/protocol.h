#pragma once

#include <string_view>

/// The wire contract between the component and the service: the paths of the service's endpoints, each
/// a POST of a JSON object answered with one, and the members of a place record. The component,
/// tovrel-server and tovrel-sim all spell them from here. Constants only; any thread.
namespace tovrel::protocol {

/// Starts a session: the app's key and the device's identity in, a session key out.
inline constexpr std::string_view kSessionPath = "/v1/session";
/// The places near a position, each with its offers.
inline constexpr std::string_view kPlacePath = "/v2/place";
/// Links a visit to an offer: the device event the answer names.
inline constexpr std::string_view kLinkPath = "/v1/deviceevent/link";
/// The user's answer to a linked offer.
inline constexpr std::string_view kLinkStatusPath = "/v1/deviceevent/update";
/// Forgets the device's links.
inline constexpr std::string_view kClearLinksPath = "/v1/deviceevent/clear";
/// Sets the device's tags.
inline constexpr std::string_view kTagUpdatePath = "/v1/devicetag/update";
/// Removes tags of the device.
inline constexpr std::string_view kTagDeletePath = "/v1/devicetag/delete";
/// A diagnostics message.
inline constexpr std::string_view kLogPath = "/v1/log";

/// The members of the requests and answers.
namespace member {
inline constexpr const char* kSessionKey = "sessionKey";  ///< every request of a session
inline constexpr const char* kDeviceId = "deviceid";      ///< a diagnostics message's device
inline constexpr const char* kMessage = "message";        ///< a diagnostics message: {event name: fields}
inline constexpr const char* kCoordinatesList = "coordinatesList";  ///< [{"lat", "lon"}] of a place request
inline constexpr const char* kLatitude = "lat";
inline constexpr const char* kLongitude = "lon";
inline constexpr const char* kDistanceThreshold = "distanceThreshold";
inline constexpr const char* kEventId = "eventId";  ///< the offer a link request names
inline constexpr const char* kPlaceId = "placeId";  ///< the place a link request names
inline constexpr const char* kDeviceEventId =
    "deviceEventId";                                      ///< a linked visit, in link answers and updates
inline constexpr const char* kStatusCode = "statusCode";  ///< "ack", "seen", "saved" or "declined"
inline constexpr const char* kSuppressMessage = "suppressMessage";  ///< 1: linked, but not to be shown
inline constexpr const char* kTag = "tag";
inline constexpr const char* kTagValue = "tagValue";
inline constexpr const char* kGroupTag = "groupTag";
inline constexpr const char* kPlaces = "places";  ///< the records of place and link answers
inline constexpr const char* kStatus = "status";  ///< a status answer's value
}  // namespace member

/// The members of one record of a place answer's "places": the place, then one of its offers, then
/// whether the device is linked to it. The service writes them in this order.
namespace place {
inline constexpr const char* kLatitude = "centroidLat";
inline constexpr const char* kLongitude = "centroidLon";
inline constexpr const char* kRadius = "centroidRadius";  ///< metres
inline constexpr const char* kPlaceId = "placeId";
inline constexpr const char* kEventId = "eventId";  ///< the offer's identifier
inline constexpr const char* kEventName = "eventName";
inline constexpr const char* kAlertText = "alertText";
inline constexpr const char* kMediaType = "mediaType";
/// The offer's media, twice: the targets read the first spelling, the map the second.
inline constexpr const char* kMediaURL = "mediaURL";
inline constexpr const char* kMediaUrl = "mediaUrl";
inline constexpr const char* kCampaignName = "campaignName";
inline constexpr const char* kTags = "tags";
inline constexpr const char* kStartDate = "startDate";
inline constexpr const char* kEndDate = "endDate";
inline constexpr const char* kDwellTime = "dwellTime";      ///< minutes inside before the visit links
inline constexpr const char* kEventTypeId = "eventTypeId";  ///< 1, 2 or 3: how the offer is delivered
inline constexpr const char* kIsLinked = "isLinked";
}  // namespace place

}  // namespace tovrel::protocol
