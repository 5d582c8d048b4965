#pragma once

#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <vector>

#include "tovrel/export.h"

namespace tovrel {

/// One record of a place answer's "places", read once. The numbers the component computes with are
/// converted as the platform converts them; the values it shows, stores or sends back stay as they
/// stand (a string, a number, or null when the record lacks them). Any thread.
struct TOVREL_EXPORT PlaceRecord {
    double latitude = 0;   ///< "centroidLat"
    double longitude = 0;  ///< "centroidLon"
    double radius = 0;     ///< "centroidRadius", metres
    int dwellTime = 0;     ///< minutes inside before the visit is linked; 0 or less: at once
    int eventTypeId = 0;   ///< 1, 2 or 3: how the offer is delivered

    nlohmann::json centroidLat;  ///< as it stands (the map pins convert it to single precision)
    nlohmann::json centroidLon;
    nlohmann::json placeId;
    nlohmann::json eventId;
    nlohmann::json eventName;
    nlohmann::json alertText;
    nlohmann::json mediaType;
    nlohmann::json mediaURL;
    nlohmann::json mediaUrl;
    nlohmann::json campaignName;
    nlohmann::json endDate;
    nlohmann::json isLinked;  ///< the targets read it as a 32-bit value, the map as a 64-bit one

    /// Reads one record; anything that is not an object reads as an empty record.
    static PlaceRecord read(const nlohmann::json& record);
};

/// The records of a place answer.
struct TOVREL_EXPORT PlaceAnswer {
    std::vector<PlaceRecord> places;  ///< one per element of the answer's "places" array, in order
    /// The kind of a "places" member that is not an array ("object", "null", ...); else empty.
    std::string placesKind;
};

/// Reads a place answer straight from its text, to what PlaceRecord::read() gives for each element of
/// the parsed answer's "places" (the last one when the member repeats), without the parsed tree. Text
/// that is not a JSON object, or lacks the member, has no records. Any thread.
TOVREL_EXPORT PlaceAnswer readPlaceAnswer(std::string_view text);
/// The same for an answer already parsed. Any thread.
TOVREL_EXPORT PlaceAnswer readParsedPlaceAnswer(const nlohmann::json& answer);

/// Reads one record from its JSON text as PlaceRecord::read() reads its parsed value; text that is not
/// JSON reads as an empty record. Any thread.
TOVREL_EXPORT PlaceRecord readPlaceRecord(std::string_view text);

}  // namespace tovrel
