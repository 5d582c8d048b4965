#include "tovrel/place_record.h"

#include "foundation/value.h"
#include "tovrel/platform/json_scanner.h"
#include "tovrel/protocol.h"

namespace tovrel {
namespace {

namespace field = protocol::place;

/// Where a record's member goes: one of its values as they stand, or one of the numbers it converts.
struct RecordFields {
    PlaceRecord& record;
    Json radius;
    Json dwellTime;
    Json eventTypeId;

    Json* find(std::string_view key) {
        static constexpr std::pair<std::string_view, Json PlaceRecord::*> kStanding[] = {
            {field::kLatitude, &PlaceRecord::centroidLat}, {field::kLongitude, &PlaceRecord::centroidLon},
            {field::kPlaceId, &PlaceRecord::placeId},      {field::kEventId, &PlaceRecord::eventId},
            {field::kEventName, &PlaceRecord::eventName},  {field::kAlertText, &PlaceRecord::alertText},
            {field::kMediaType, &PlaceRecord::mediaType},  {field::kMediaURL, &PlaceRecord::mediaURL},
            {field::kMediaUrl, &PlaceRecord::mediaUrl},    {field::kCampaignName, &PlaceRecord::campaignName},
            {field::kEndDate, &PlaceRecord::endDate},      {field::kIsLinked, &PlaceRecord::isLinked},
        };
        // The names differ in their length, first or last letter: most members take one comparison.
        const auto named = [key](std::string_view name) {
            return key.size() == name.size() && key.front() == name.front() && key.back() == name.back() &&
                   key == name;
        };
        for (const auto& [name, member] : kStanding) {
            if (named(name)) {
                return &(record.*member);
            }
        }
        if (named(field::kRadius)) {
            return &radius;
        }
        if (named(field::kDwellTime)) {
            return &dwellTime;
        }
        if (named(field::kEventTypeId)) {
            return &eventTypeId;
        }
        return nullptr;
    }

    void convert() {
        record.latitude = doubleValue(record.centroidLat);
        record.longitude = doubleValue(record.centroidLon);
        record.radius = doubleValue(radius);
        record.dwellTime = intValue(dwellTime);
        record.eventTypeId = intValue(eventTypeId);
    }
};

/// Reads one element of "places"; false when the scanner leaves the text to the full parser.
bool readRecord(platform::JsonScanner& scanner, PlaceRecord& out) {
    if (scanner.peek() != '{') {
        return scanner.skip();
    }
    RecordFields fields{out, {}, {}, {}};
    const bool read = scanner.object([&](std::string_view key) {
        Json* value = fields.find(key);
        return value != nullptr ? scanner.value(value) : scanner.skip();
    });
    fields.convert();
    return read;
}

const char* kindOf(char first) {
    switch (first) {
        case '{':
            return "object";
        case '"':
            return "string";
        case 't':
        case 'f':
            return "boolean";
        case 'n':
            return "null";
        default:
            return "number";
    }
}

}  // namespace

PlaceRecord PlaceRecord::read(const nlohmann::json& record) {
    const auto raw = [&record](const char* key) { return memberOrNull(record, key); };
    PlaceRecord out;
    out.centroidLat = raw(field::kLatitude);
    out.centroidLon = raw(field::kLongitude);
    out.latitude = doubleValue(out.centroidLat);
    out.longitude = doubleValue(out.centroidLon);
    out.radius = doubleValueFor(record, field::kRadius);
    out.dwellTime = intValueFor(record, field::kDwellTime);
    out.eventTypeId = intValueFor(record, field::kEventTypeId);
    out.placeId = raw(field::kPlaceId);
    out.eventId = raw(field::kEventId);
    out.eventName = raw(field::kEventName);
    out.alertText = raw(field::kAlertText);
    out.mediaType = raw(field::kMediaType);
    out.mediaURL = raw(field::kMediaURL);
    out.mediaUrl = raw(field::kMediaUrl);
    out.campaignName = raw(field::kCampaignName);
    out.endDate = raw(field::kEndDate);
    out.isLinked = raw(field::kIsLinked);
    return out;
}

PlaceAnswer readPlaceAnswer(std::string_view text) {
    platform::JsonScanner in(text);
    PlaceAnswer out;
    const auto readPlaces = [&in, &out] {
        // A repeated member keeps its last value, as in the parsed tree.
        out = PlaceAnswer();
        if (const char first = in.peek(); first != '[') {
            out.placesKind = kindOf(first);
            return in.skip();
        }
        return in.array([&in, &out] { return readRecord(in, out.places.emplace_back()); });
    };
    static constexpr std::string_view kPlaces = protocol::member::kPlaces;
    const bool read =
        in.peek() == '{'
            ? in.object([&](std::string_view key) { return key == kPlaces ? readPlaces() : in.skip(); })
            : in.skip();
    if (!read || !in.atEnd()) {
        const auto parsed = platform::parseJsonText(text);
        return parsed.ok() ? readParsedPlaceAnswer(parsed.value) : PlaceAnswer();
    }
    return out;
}

PlaceAnswer readParsedPlaceAnswer(const nlohmann::json& answer) {
    PlaceAnswer out;
    const auto places = answer.is_object() ? answer.find(protocol::member::kPlaces) : answer.end();
    if (places == answer.end()) {
        return out;
    }
    if (!places->is_array()) {
        out.placesKind = places->type_name();
        return out;
    }
    out.places.reserve(places->size());
    for (const Json& record : *places) {
        out.places.push_back(PlaceRecord::read(record));
    }
    return out;
}

PlaceRecord readPlaceRecord(std::string_view text) {
    platform::JsonScanner in(text);
    PlaceRecord record;
    if (readRecord(in, record) && in.atEnd()) {
        return record;
    }
    const auto parsed = platform::parseJsonText(text);
    return PlaceRecord::read(parsed.ok() ? parsed.value : Json());
}

}  // namespace tovrel
