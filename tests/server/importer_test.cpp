// The GeoJSON place importer: what it accepts, and the message it gives for each kind of fault.
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <sstream>
#include <tuple>

#include "catalog/catalog_data.h"
#include "common/field_limits.h"
#include "common/session_keys.h"
#include "store/sqlite/database.h"
#include "test_support.h"
#include "tovrel_server/admin.h"

namespace tovrel::server {
namespace {

using test::json;

std::string collection(const std::vector<json>& features, const json& properties = json::object()) {
    return json{{"type", "FeatureCollection"}, {"properties", properties}, {"features", json(features)}}
        .dump();
}

json offer(int eventId, const std::string& campaign = "C") {
    return {{"eventId", eventId},
            {"campaign", campaign},
            {"eventName", "N"},
            {"alertText", "A"},
            {"eventTypeId", 3}};
}

json feature(const json& placeId, const std::vector<json>& offers,
             const std::vector<json>& coordinates = {11.5, 48.1}) {
    return {{"type", "Feature"},
            {"geometry", {{"type", "Point"}, {"coordinates", json(coordinates)}}},
            {"properties", {{"placeId", placeId}, {"radius", 50}, {"offers", json(offers)}}}};
}

const json kCampaigns = {{"campaigns", {{{"name", "C"}}}}};

std::string parseError(const std::string& text) {
    try {
        parseGeoJson(text, "places.geojson");
    } catch (const ImportError& e) {
        return e.what();
    }
    return "(no error)";
}

TEST(Importer, ReadsPlacesOffersCampaignsAndApps) {
    const CatalogData data = parseGeoJson(test::testPlacesGeoJson(), "t.geojson");
    ASSERT_EQ(data.places.size(), 4u);
    EXPECT_EQ(data.places[0].id, 1);
    EXPECT_DOUBLE_EQ(data.places[0].lat, 48.137);
    EXPECT_DOUBLE_EQ(data.places[0].lon, 11.575);
    EXPECT_DOUBLE_EQ(data.places[0].radius, 50);
    EXPECT_EQ(data.places[0].offers, (std::vector<int64_t>{11, 12}));
    EXPECT_EQ(data.places[1].id, 2);  // given as the string "2"
    EXPECT_EQ(data.places[1].offers, (std::vector<int64_t>{11, 21, 22}));
    // Offer 11 appears at two places and is defined once.
    EXPECT_EQ(data.offers.size(), 7u);
    EXPECT_EQ(data.offers[0].tags, "coffee,food");
    EXPECT_EQ(data.offers[0].mediaType, "html");
    EXPECT_EQ(data.offers[2].mediaUrl, "");
    ASSERT_EQ(data.apps.size(), 1u);
    EXPECT_EQ(data.apps[0].key, "test-key");
    ASSERT_EQ(data.campaigns.size(), 4u);
    const auto capped = std::find_if(data.campaigns.begin(), data.campaigns.end(),
                                     [](const CampaignDef& c) { return c.name == "Capped"; });
    ASSERT_NE(capped, data.campaigns.end());
    EXPECT_EQ(capped->perDeviceCap, 1);
    EXPECT_EQ(capped->startTime, test::utc(2020, 1, 1));
    EXPECT_EQ(capped->endTime, test::utc(2035, 12, 31) + 86399);
}

TEST(Importer, CampaignsMayBeDefinedInsideAnOffer) {
    json o = offer(5);
    o["campaign"] = {{"name", "Inline"}, {"endDate", "2030-01-01"}, {"perDeviceCap", 2}};
    const CatalogData data = parseGeoJson(collection({feature(1, {o}), feature(2, {o})}), "f");
    ASSERT_EQ(data.campaigns.size(), 1u);
    EXPECT_EQ(data.campaigns[0].name, "Inline");
    EXPECT_EQ(data.campaigns[0].perDeviceCap, 2);
    EXPECT_FALSE(data.campaigns[0].startTime);
}

struct BadFile {
    std::string name;
    std::string text;
    std::string message;
};

class ImporterErrors : public ::testing::TestWithParam<BadFile> {};

TEST_P(ImporterErrors, NameTheFileAndTheFault) {
    EXPECT_EQ(parseError(GetParam().text), "places.geojson: " + GetParam().message);
}

json withProps(json f, const json& extra) {
    for (const auto& [k, v] : extra.items()) {
        f["properties"][k] = v;
    }
    return f;
}

json offerWith(const json& extra, int id = 7) {
    json o = offer(id);
    for (const auto& [k, v] : extra.items()) {
        if (v.is_null()) {
            o.erase(k);
        } else {
            o[k] = v;
        }
    }
    return o;
}

INSTANTIATE_TEST_SUITE_P(
    Messages, ImporterErrors,
    ::testing::Values(
        BadFile{"syntax", "{\n  \"type\": \"FeatureCollection\",\n  \"features\": [,]\n}",
                "line 3, column 16: not valid JSON (syntax error while parsing value - unexpected ','; "
                "expected '[', '{', "
                "or a literal)"},
        BadFile{"not_collection", R"({"type": "Feature"})", "\"type\" must be \"FeatureCollection\""},
        BadFile{"no_features", R"({"type": "FeatureCollection"})",
                "missing features (an array of Point features)"},
        BadFile{"line_string",
                collection({{{"type", "Feature"},
                             {"geometry", {{"type", "LineString"}, {"coordinates", {{1, 2}, {3, 4}}}}},
                             {"properties", json::object()}}}),
                "feature 1: geometry.type must be \"Point\" (one feature per place)"},
        BadFile{"coordinates_range", collection({feature(1, {}, {11.5, 91})}),
                "feature 1: geometry.coordinates [11.5, 91] out of range: longitude must be -180..180, "
                "latitude -90..90"},
        BadFile{"coordinates_type", collection({feature(1, {}, {"11.5", "48.1"})}),
                "feature 1: geometry.coordinates must be [longitude, latitude]"},
        BadFile{"place_id", collection({feature("P1", {})}),
                "feature 1: properties.placeId must be a whole number from 1 to 2147483647 (or such a number "
                "as a string)"},
        BadFile{"duplicate_place", collection({feature(1, {}), feature(1, {})}),
                "feature 2: placeId 1 is already used by feature 1"},
        BadFile{"radius", collection({withProps(feature(1, {}), {{"radius", -5}})}),
                "feature 1: properties.radius must be a number of metres above 0"},
        BadFile{"unknown_campaign", collection({feature(1, {offer(1, "Nope")})}, kCampaigns),
                "feature 1: offer 1: unknown campaign \"Nope\" (define it in properties.campaigns)"},
        BadFile{"missing_event_id", collection({feature(1, {offerWith({{"eventId", nullptr}})})}, kCampaigns),
                "feature 1: offer 1: missing eventId"},
        BadFile{"event_type",
                collection({feature(1, {offer(1), offerWith({{"eventTypeId", 4}})})}, kCampaigns),
                "feature 1: offer 2: eventTypeId must be 1, 2 or 3"},
        BadFile{"dwell", collection({feature(1, {offerWith({{"dwellTime", 1.5}})})}, kCampaigns),
                "feature 1: offer 1: dwellTime must be a whole number of minutes from 0 to 1440"},
        BadFile{"alert_type", collection({feature(1, {offerWith({{"alertText", 5}})})}, kCampaigns),
                "feature 1: offer 1: alertText must be a string"},
        BadFile{"tags", collection({feature(1, {offerWith({{"tags", {1, 2}}})})}, kCampaigns),
                "feature 1: offer 1: tags must be a string or an array of strings"},
        BadFile{"twice_in_place", collection({feature(1, {offer(1), offer(1)})}, kCampaigns),
                "feature 1: offer 2: eventId 1 appears twice in this place"},
        BadFile{"redefined_offer",
                collection({feature(1, {offer(1)}), feature(2, {offerWith({{"eventName", "Other"}}, 1)})},
                           kCampaigns),
                "feature 2: offer 1: eventId 1 is already defined differently in feature 1"},
        BadFile{"bad_date", collection({}, {{"campaigns", {{{"name", "C"}, {"startDate", "2020-02-30"}}}}}),
                "campaign 1: startDate \"2020-02-30\" is not a date like 2020-01-31 or 2020-01-31T08:00:00Z"},
        BadFile{"dates_reversed",
                collection({}, {{"campaigns",
                                 {{{"name", "C"}, {"startDate", "2030-01-01"}, {"endDate", "2020-01-01"}}}}}),
                "campaign 1: endDate is before startDate"},
        BadFile{"cap", collection({}, {{"campaigns", {{{"name", "C"}, {"perDeviceCap", -1}}}}}),
                "campaign 1: perDeviceCap must be a whole number of 0 or more"},
        BadFile{"campaign_twice",
                collection({}, {{"campaigns", {{{"name", "C"}}, {{"name", "C"}, {"perDeviceCap", 1}}}}}),
                "campaign 2: campaign \"C\" is already defined with other values"},
        BadFile{"app_key", collection({}, {{"apps", {{{"key", ""}, {"name", "x"}}}}}),
                "app 1: key must not be empty"},
        BadFile{"mistyped_offer_member",
                collection({feature(1, {[] {
                                        json o = offer(1);
                                        o["dwelltime"] = 5;
                                        return o;
                                    }()})},
                           kCampaigns),
                "feature 1: offer 1: unknown member \"dwelltime\" in an offer (did you mean \"dwellTime\"?)"},
        BadFile{"unknown_place_member",
                collection({[] {
                               json f = feature(1, {});
                               f["properties"]["colour"] = "red";
                               return f;
                           }()},
                           kCampaigns),
                "feature 1: unknown member \"colour\" in properties"},
        BadFile{"unknown_campaign_member",
                collection({}, {{"campaigns", {{{"name", "C"}, {"startdate", "2020-01-01"}}}}}),
                "campaign 1: unknown member \"startdate\" in a campaign (did you mean \"startDate\"?)"},
        BadFile{
            "media_url_without_slash",
            collection({feature(1, {[] {
                                    json o = offer(1);
                                    o["mediaUrl"] = "media/offer.html";
                                    return o;
                                }()})},
                       kCampaigns),
            "feature 1: offer 1: mediaUrl \"media/offer.html\" must start with \"/\" (a page of the content "
            "folder) or be an http(s) URL"}),
    [](const ::testing::TestParamInfo<BadFile>& p) { return p.param.name; });

TEST(Importer, MissingOffersNamesTheFeature) {
    json second = feature(2, {});
    second["properties"].erase("offers");
    EXPECT_EQ(parseError(collection({feature(1, {offer(1)}), feature(3, {}), second}, kCampaigns)),
              "places.geojson: feature 3: missing properties.offers");
}

TEST(Importer, EveryFaultyFeatureIsNamedAtOnce) {
    std::vector<json> features;
    for (int i = 1; i <= 120; ++i) {
        features.push_back(i % 2 == 0 ? feature(i, {offer(i)}) : feature(i, {offer(i, "Nowhere")}));
    }
    const std::string message = parseError(collection(features, kCampaigns));
    // 60 faulty features: the first 50 are listed, then how many more.
    EXPECT_EQ(std::count(message.begin(), message.end(), '\n'), 50) << message;
    EXPECT_TRUE(message.ends_with("\n(and 10 more)")) << message;
    EXPECT_EQ(message.rfind("places.geojson: feature 1: offer 1: unknown campaign \"Nowhere\"", 0), 0u)
        << message;
    EXPECT_NE(message.find("places.geojson: feature 99: offer 1: unknown campaign"), std::string::npos);
    EXPECT_EQ(message.find("places.geojson: feature 101:"), std::string::npos);
    EXPECT_EQ(parseError(collection({feature(1, {offer(1)}), feature(2, {offer(2)})}, kCampaigns)),
              "(no error)");
}

// The reader streams: what it finds must not depend on where reads split the file, and every
// unusual shape of input ends in a problem, never a crash or a partial catalogue.
std::vector<PlaceFileProblem> problemsOf(const std::string& text) {
    return checkPlaceFile(std::string_view(text), "places.geojson").problems;
}

TEST(PlaceFileStream, ReadsTheSameWhereverTheReadsSplitIt) {
    const std::string text = test::testPlacesGeoJson();
    const CatalogData whole = parseGeoJson(text, "t.geojson");
    for (const std::size_t chunk : {std::size_t{1}, std::size_t{7}, std::size_t{64}, text.size() - 1,
                                    text.size(), std::size_t{1} << 20}) {
        std::istringstream in(text);
        PlaceFileCheck check = checkPlaceFile(in, "t.geojson", chunk);
        ASSERT_TRUE(check.problems.empty()) << chunk << ": " << check.problems.front().message;
        const CatalogData split = check.catalog->expand();
        ASSERT_EQ(split.places.size(), whole.places.size()) << chunk;
        for (std::size_t i = 0; i < whole.places.size(); ++i) {
            EXPECT_EQ(split.places[i].id, whole.places[i].id);
            EXPECT_EQ(split.places[i].name, whole.places[i].name);
            EXPECT_EQ(split.places[i].lat, whole.places[i].lat);
            EXPECT_EQ(split.places[i].offers, whole.places[i].offers);
        }
        EXPECT_EQ(split.offers, whole.offers) << chunk;
        EXPECT_EQ(split.campaigns, whole.campaigns) << chunk;
    }
}

TEST(PlaceFileStream, EveryTruncationIsASyntaxErrorAndNothingElse) {
    const std::string text = collection({feature(1, {offer(1)}), feature(2, {offer(2)})}, kCampaigns);
    for (std::size_t cut = 0; cut < text.size(); ++cut) {
        std::istringstream in(text.substr(0, cut));
        const PlaceFileCheck check = checkPlaceFile(in, "places.geojson", 5);
        ASSERT_EQ(check.problems.size(), 1u) << cut;
        EXPECT_FALSE(check.catalog) << cut;
        EXPECT_NE(check.problems[0].message.find("not valid JSON"), std::string::npos)
            << check.problems[0].message;
        EXPECT_FALSE(check.problems[0].feature);
    }
}

TEST(PlaceFileStream, TrailingBytesAfterTheCollectionAreRefused) {
    const std::string text = collection({feature(1, {offer(1)})}, kCampaigns);
    EXPECT_TRUE(problemsOf(text + " \n\t\n").empty());
    for (const std::string garbage : {"x", "{}", ",", "]"}) {
        const auto problems = problemsOf(text + "\n" + garbage);
        ASSERT_EQ(problems.size(), 1u) << garbage;
        EXPECT_EQ(problems[0].message.rfind("places.geojson: line 2, column 1: not valid JSON", 0), 0u)
            << problems[0].message;
    }
}

TEST(PlaceFileStream, AHugeStringCrossesManyReads) {
    // The longest alert text, ending in a two-byte character, read 7 bytes at a time.
    json o = offer(1);
    o["alertText"] = std::string(limits::kAlertText - 2, 'a') + "\u00e9";
    std::istringstream in(collection({feature(1, {o})}, kCampaigns));
    const PlaceFileCheck check = checkPlaceFile(in, "big.geojson", 7);
    ASSERT_TRUE(check.catalog);
    EXPECT_EQ(check.catalog->offer(0).alertText, o["alertText"].get<std::string>());
    // 20 MB of it is read through and refused in one short line.
    o["alertText"] = std::string(20 << 20, 'a');
    std::istringstream huge(collection({feature(1, {o})}, kCampaigns));
    const auto problems = checkPlaceFile(huge, "big.geojson").problems;
    ASSERT_EQ(problems.size(), 1u);
    EXPECT_EQ(problems[0].message,
              "big.geojson: feature 1: offer 1: alertText is 20971520 bytes long; at most 1024 are allowed");
}

TEST(PlaceFileStream, DeepNestingIsAnOrdinaryProblem) {
    constexpr int kDepth = 200000;
    const std::string deep = std::string(kDepth, '[') + std::string(kDepth, ']');
    json f = feature(1, {});
    f["properties"]["name"] = "NAME";
    std::string inFeature = collection({f}, kCampaigns);
    inFeature.replace(inFeature.find("\"NAME\""), 6, deep);
    const auto problems = problemsOf(inFeature);
    ASSERT_EQ(problems.size(), 1u);
    EXPECT_EQ(problems[0].message, "places.geojson: feature 1: properties.name must be a string");
    EXPECT_EQ(problems[0].member, "/features/0/properties/name");
    // A foreign member of the collection is skipped without being built.
    std::string foreign = collection({feature(1, {})}, kCampaigns);
    foreign.insert(1, "\"extra\": " + deep + ", ");
    EXPECT_TRUE(problemsOf(foreign).empty());
}

TEST(PlaceFileStream, EveryProblemHasItsFeatureAndMember) {
    // nlohmann writes keys in alphabetical order: the features come before the campaigns they name.
    json bad = offer(3);
    bad["dwellTime"] = -1;
    const std::string text =
        collection({feature(1, {offer(1, "Later")}), feature(2, {offer(2, "Nowhere")}), feature(3, {bad}),
                    feature(4, {offer(4, "Nowhere"), bad}), feature(5, {offer(5, "Later")})},
                   {{"campaigns", {{{"name", "Later"}}, {{"name", ""}}}}, {"app", 1}});
    ASSERT_LT(text.find("\"features\""), text.find("\"campaigns\""));
    const auto problems = problemsOf(text);
    std::vector<std::tuple<std::optional<std::size_t>, std::string>> got;
    for (const auto& p : problems) {
        got.emplace_back(p.feature, p.member);
    }
    using Row = std::tuple<std::optional<std::size_t>, std::string>;
    EXPECT_EQ(got, (std::vector<Row>{{std::nullopt, "/properties/app"},
                                     {std::nullopt, "/properties/campaigns/1/name"},
                                     {2, "/features/1/properties/offers/0/campaign"},
                                     {3, "/features/2/properties/offers/0/dwellTime"},
                                     {4, "/features/3/properties/offers/1/dwellTime"}}));
    EXPECT_EQ(problems[0].message, "places.geojson: unknown member \"app\" in the collection's properties");
    EXPECT_EQ(problems[2].message,
              "places.geojson: feature 2: offer 1: unknown campaign \"Nowhere\" (define it in "
              "properties.campaigns)");
    EXPECT_EQ(describeProblems(problems), parseError(text));
}

TEST(PlaceFileStream, WhatIsNotACollectionGetsOneProblem) {
    for (const std::string text : {"[]", "42", "\"FeatureCollection\"", "null"}) {
        const auto problems = problemsOf(text);
        ASSERT_EQ(problems.size(), 1u) << text;
        EXPECT_EQ(problems[0].message,
                  "places.geojson: the file must hold a GeoJSON FeatureCollection object");
    }
    // A syntax error anywhere wins over what was found before it.
    const auto problems = problemsOf(collection({feature(1, {offer(1, "Nowhere")})}) + "}");
    ASSERT_EQ(problems.size(), 1u);
    EXPECT_NE(problems[0].message.find("not valid JSON"), std::string::npos);
    EXPECT_EQ(problemsOf(R"({"features": {}, "type": "FeatureCollection"})")[0].message,
              "places.geojson: missing features (an array of Point features)");
    EXPECT_EQ(
        problemsOf("{\"features\": [], \"type\": \"FeatureCollection\", \"properties\": [1]}")[0].message,
        "places.geojson: properties must be an object");
}

// Every text the file carries has a longest length in bytes; the problem names the member and its
// length, never the text.
struct TextLimit {
    std::string name;
    std::function<std::string(const std::string&)> file;  ///< a place file holding the text
    std::size_t maxBytes;
    std::string member;           ///< as the message names it, after the file's name
    std::string pointer;          ///< the problem's JSON Pointer
    std::string prefix;           ///< how the text must start
    std::string refusedAtMaxFor;  ///< why a text of the longest length is still refused; "": it is read
};

void PrintTo(const TextLimit& t, std::ostream* out) {
    *out << t.name;
}

class TextLimits : public ::testing::TestWithParam<TextLimit> {};

// maxBytes bytes that are fewer characters: a limit counted in characters lets one more byte through.
std::string textOf(const TextLimit& t, std::size_t bytes) {
    return t.prefix + std::string(bytes - t.prefix.size() - 2, 'x') + "\u00e9";
}

TEST_P(TextLimits, TheLongestTextIsReadAndOneByteMoreIsRefused) {
    const TextLimit& t = GetParam();
    const auto atMax = problemsOf(t.file(textOf(t, t.maxBytes)));
    if (t.refusedAtMaxFor.empty()) {
        EXPECT_TRUE(atMax.empty()) << atMax.front().message;
    } else {
        ASSERT_EQ(atMax.size(), 1u);
        EXPECT_NE(atMax[0].message.find(t.refusedAtMaxFor), std::string::npos) << atMax[0].message;
    }
    const auto over = problemsOf(t.file(textOf(t, t.maxBytes + 1)));
    ASSERT_EQ(over.size(), 1u);
    EXPECT_EQ(over[0].message, "places.geojson: " + t.member + " is " + std::to_string(t.maxBytes + 1) +
                                   " bytes long; at most " + std::to_string(t.maxBytes) + " are allowed");
    EXPECT_EQ(over[0].member, t.pointer);
}

std::string inApp(const std::string& member, const std::string& text) {
    json app = {{"key", "k"}, {"name", "n"}};
    app[member] = text;
    return collection({}, {{"apps", {app}}});
}

std::string inCampaign(const std::string& member, const std::string& text) {
    json campaign = {{"name", "C"}};
    campaign[member] = text;
    return collection({feature(1, {offer(1)})}, {{"campaigns", {campaign}}});
}

std::string inOffer(const std::string& member, const json& value) {
    return collection({feature(1, {offerWith({{member, value}})})}, kCampaigns);
}

std::string placeNamed(const std::string& text) {
    return collection({withProps(feature(1, {}), {{"name", text}})});
}

INSTANTIATE_TEST_SUITE_P(
    Members, TextLimits,
    ::testing::Values(
        TextLimit{"app_key", [](auto& v) { return inApp("key", v); }, limits::kSdkKey, "app 1: key",
                  "/properties/apps/0/key", "", ""},
        TextLimit{"app_name", [](auto& v) { return inApp("name", v); }, limits::kAppName, "app 1: name",
                  "/properties/apps/0/name", "", ""},
        TextLimit{"campaign_name",
                  [](auto& v) {
                      return collection({}, {{"campaigns", {{{"name", v}}}}});
                  },
                  limits::kCampaignName, "campaign 1: name", "/properties/campaigns/0/name", "", ""},
        TextLimit{"start_date", [](auto& v) { return inCampaign("startDate", v); }, limits::kDate,
                  "campaign 1: startDate", "/properties/campaigns/0/startDate", "2020-01-01",
                  "is not a date"},
        TextLimit{"end_date", [](auto& v) { return inCampaign("endDate", v); }, limits::kDate,
                  "campaign 1: endDate", "/properties/campaigns/0/endDate", "2030-01-01", "is not a date"},
        TextLimit{"place_name", placeNamed, limits::kPlaceName, "feature 1: properties.name",
                  "/features/0/properties/name", "", ""},
        TextLimit{"event_name", [](auto& v) { return inOffer("eventName", v); }, limits::kOfferEventName,
                  "feature 1: offer 1: eventName", "/features/0/properties/offers/0/eventName", "", ""},
        TextLimit{"alert_text", [](auto& v) { return inOffer("alertText", v); }, limits::kAlertText,
                  "feature 1: offer 1: alertText", "/features/0/properties/offers/0/alertText", "", ""},
        TextLimit{"media_type", [](auto& v) { return inOffer("mediaType", v); }, limits::kMediaType,
                  "feature 1: offer 1: mediaType", "/features/0/properties/offers/0/mediaType", "", ""},
        TextLimit{"media_url", [](auto& v) { return inOffer("mediaUrl", v); }, limits::kMediaUrl,
                  "feature 1: offer 1: mediaUrl", "/features/0/properties/offers/0/mediaUrl", "https://", ""},
        TextLimit{"tags", [](auto& v) { return inOffer("tags", v); }, limits::kOfferTags,
                  "feature 1: offer 1: tags", "/features/0/properties/offers/0/tags", "", ""},
        // Tags given as a list count as they are stored: joined by commas.
        TextLimit{"tag_list",
                  [](auto& v) {
                      return inOffer("tags", json::array({v.substr(0, 100), v.substr(101)}));
                  },
                  limits::kOfferTags, "feature 1: offer 1: tags", "/features/0/properties/offers/0/tags", "",
                  ""}),
    [](const ::testing::TestParamInfo<TextLimit>& p) { return p.param.name; });

TEST(Importer, ControlCharactersAreRefusedInNamesKeysAndLinks) {
    struct Case {
        std::string file;
        std::string message;  ///< "": read
    };
    const std::string nul("A\0B", 3);
    const Case cases[] = {
        {placeNamed(nul),
         "feature 1: properties.name must not contain control characters (U+0000 at byte offset 1)"},
        {inApp("key", "k\tey"), "app 1: key must not contain control characters (U+0009 at byte offset 1)"},
        {inApp("name", "\x1f"), "app 1: name must not contain control characters (U+001F at byte offset 0)"},
        {collection({}, {{"campaigns", {{{"name", "Spring\n"}}}}}),
         "campaign 1: name must not contain control characters (U+000A at byte offset 6)"},
        {inCampaign("endDate", "2030-01-01\r"),
         "campaign 1: endDate must not contain control characters (U+000D at byte offset 10)"},
        {inOffer("eventName", "E\x7f"),
         "feature 1: offer 1: eventName must not contain control characters (U+007F at byte offset 1)"},
        {inOffer("mediaType", "ht\nml"),
         "feature 1: offer 1: mediaType must not contain control characters (U+000A at byte offset 2)"},
        {inOffer("mediaUrl", "/a\tb.html"),
         "feature 1: offer 1: mediaUrl must not contain control characters (U+0009 at byte offset 2)"},
        {inOffer("alertText", "Caf\u00e9 \u00ab1\u00bb\n\tnow\x7e"), ""},
        {inOffer("alertText", "two\r\nlines"),
         "feature 1: offer 1: alertText must not contain control characters other than newline and tab "
         "(U+000D at byte offset 3)"},
        {inOffer("alertText", "a\n" + nul),
         "feature 1: offer 1: alertText must not contain control characters other than newline and tab "
         "(U+0000 at byte offset 3)"},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(parseError(c.file), c.message.empty() ? "(no error)" : "places.geojson: " + c.message);
    }
}

TEST(Importer, MessagesQuoteAtMostTheStartOfAValue) {
    // 63 bytes of "a" and "é" fit; the next "é" would split at byte 64.
    std::string url = "a";
    for (int i = 0; i < 1000; ++i) {
        url += "\u00e9";
    }
    std::string shown = "a";
    for (int i = 0; i < 31; ++i) {
        shown += "\u00e9";
    }
    EXPECT_EQ(parseError(inOffer("mediaUrl", url)),
              "places.geojson: feature 1: offer 1: mediaUrl \"" + shown +
                  "\u2026\" (2001 bytes) must start with \"/\" (a page of the content folder) or be an "
                  "http(s) URL");
    const std::string name(200, 'n');
    EXPECT_EQ(parseError(collection({feature(1, {offer(1, name)})}, kCampaigns)),
              "places.geojson: feature 1: offer 1: unknown campaign \"" +
                  name.substr(0, limits::kQuotedValue) +
                  "\u2026\" (200 bytes) (define it in properties.campaigns)");
    EXPECT_EQ(parseError(
                  collection({}, {{"campaigns", {{{"name", name}}, {{"name", name}, {"perDeviceCap", 1}}}}})),
              "places.geojson: campaign 2: campaign \"" + name.substr(0, limits::kQuotedValue) +
                  "\u2026\" (200 bytes) is already defined with other values");
    // An unknown member: its name is cut, its control characters shown, and the problem points at
    // the object that holds it.
    const auto unknown = problemsOf(inOffer(std::string(1 << 20, 'k') + "\x01", "v"));
    ASSERT_EQ(unknown.size(), 1u);
    EXPECT_EQ(unknown[0].message, "places.geojson: feature 1: offer 1: unknown member \"" +
                                      std::string(limits::kQuotedValue, 'k') +
                                      "\u2026\" (1048577 bytes) in an offer");
    EXPECT_EQ(unknown[0].member, "/features/0/properties/offers/0");
    EXPECT_EQ(problemsOf(inOffer("x\x01", "v"))[0].message,
              "places.geojson: feature 1: offer 1: unknown member \"x\\u0001\" in an offer");
    // 1 MB of alert text, and 1 MB of a string the parser gives up on.
    for (const std::string& file :
         {inOffer("alertText", std::string(1 << 20, 'a')),
          "{\"type\": \"FeatureCollection\", \"features\": [\"" + std::string(1 << 20, 'a') + "\n\"]}"}) {
        const auto problems = problemsOf(file);
        ASSERT_EQ(problems.size(), 1u);
        EXPECT_LT(problems[0].message.size(), 300u) << problems[0].message.substr(0, 300);
    }
}

// A number beyond a double's range stops the parser; the problem still names where it stood.
TEST(PlaceFileStream, NumbersBeyondADoubleAreAProblemAtTheirMember) {
    struct Case {
        std::string file;
        std::string number;
        std::optional<std::size_t> feature;
        std::string member;
        std::string message;  ///< between the file's name and "the number"
    };
    const auto replaced = [](std::string text, const std::string& from, const std::string& to) {
        return text.replace(text.find(from), from.size(), to);
    };
    const std::string offers =
        collection({feature(1, {offer(1)}), feature(2, {offerWith({{"dwellTime", 77}})})}, kCampaigns);
    const std::string cap = collection({}, {{"campaigns", {{{"name", "C"}, {"perDeviceCap", 77}}}}});
    const std::string digits = "1" + std::string(400, '0');
    const Case cases[] = {
        {replaced(collection({feature(1, {})}), "48.1", "1e400"), "1e400", 1,
         "/features/0/geometry/coordinates/1", "feature 1: geometry.coordinates[1]: "},
        {replaced(offers, "\"dwellTime\":77", "\"dwellTime\":-1e400"), "-1e400", 2,
         "/features/1/properties/offers/0/dwellTime", "feature 2: offer 1: dwellTime: "},
        {replaced(cap, "77", "1E+309"), "1E+309", std::nullopt, "/properties/campaigns/0/perDeviceCap",
         "campaign 1: perDeviceCap: "},
        {replaced(collection({}), "{", "{\"extra\": [[" + digits + "]],"), digits, std::nullopt, "/extra",
         "extra: "},
    };
    for (const Case& c : cases) {
        const auto problems = problemsOf(c.file);
        ASSERT_EQ(problems.size(), 1u) << c.file;
        const std::size_t column = c.file.find(c.number) + 1;
        const std::string quoted = c.number.size() > limits::kQuotedValue
                                       ? c.number.substr(0, limits::kQuotedValue) + "\u2026\" (401 bytes)"
                                       : c.number + "\"";
        EXPECT_EQ(problems[0].message, "places.geojson: " + c.message + "the number \"" + quoted +
                                           " at line 1, column " + std::to_string(column) +
                                           " is out of range (numbers must lie within about \u00b11.8e308)");
        EXPECT_EQ(problems[0].feature, c.feature);
        EXPECT_EQ(problems[0].member, c.member);
    }
    // Lines count from 1; columns from the number's first character.
    EXPECT_EQ(problemsOf("{\"type\": \"FeatureCollection\",\n  \"features\": [1e999]}")[0].message,
              "places.geojson: feature 1: the number \"1e999\" at line 2, column 16 is out of range (numbers "
              "must lie within about \u00b11.8e308)");
}

TEST(Importer, IsoTimes) {
    EXPECT_EQ(parseIsoTime("1970-01-01", false), 0.0);
    EXPECT_EQ(parseIsoTime("1970-01-01", true), 86399.0);
    EXPECT_EQ(parseIsoTime("2024-02-29T12:30:15Z", false), test::utc(2024, 2, 29) + 45015);
    EXPECT_EQ(parseIsoTime("2024-02-29T12:30+02:00", false), test::utc(2024, 2, 29) + 37800);
    EXPECT_EQ(parseIsoTime("2024-02-29T12:30:00-01:30", true), test::utc(2024, 2, 29) + 45000 + 5400);
    for (const char* bad : {"2023-02-29", "2024-13-01", "24-01-01", "2024-01-01T25:00Z", "2024-01-01T10:00",
                            "2024-01-01 10:00Z", "2024-01-01T10:00:00Zjunk", "", "2024/01/01"}) {
        EXPECT_FALSE(parseIsoTime(bad, false)) << bad;
    }
}

class ImportIntoDatabase : public ::testing::Test {
  protected:
    test::TempDir dir;
    std::string db = (dir / "i.db").string();
};

TEST_F(ImportIntoDatabase, AFileWithAnErrorWritesNothing) {
    const std::string good = dir.write("good.geojson", test::testPlacesGeoJson());
    importGeoJsonFile(db, good);
    const auto before = test::queryRows(db, "SELECT * FROM offers ORDER BY id");
    json broken = json::parse(test::testPlacesGeoJson());
    broken["features"][0]["properties"]["offers"][0]["eventName"] = "Changed";
    broken["features"][3]["properties"]["radius"] = 0;
    EXPECT_THROW(importGeoJsonFile(db, dir.write("bad.geojson", broken.dump())), ImportError);
    EXPECT_EQ(test::queryRows(db, "SELECT * FROM offers ORDER BY id"), before);
}

TEST_F(ImportIntoDatabase, ImportingAgainUpdatesByIdentifier) {
    importGeoJsonFile(db, dir.write("a.geojson", test::testPlacesGeoJson()));
    json changed = json::parse(test::testPlacesGeoJson());
    changed["features"][0]["properties"]["radius"] = 75;
    changed["features"][0]["properties"]["offers"] =
        json::array({changed["features"][0]["properties"]["offers"][1]});
    changed["features"][0]["properties"]["offers"][0]["eventName"] = "Tower 2";
    const ImportSummary s = importGeoJsonFile(db, dir.write("b.geojson", changed.dump()));
    EXPECT_EQ(s.places, 4);
    EXPECT_EQ(test::queryRows(db, "SELECT COUNT(*) FROM places"), std::vector<std::string>{"4"});
    EXPECT_EQ(test::queryRows(db, "SELECT radius FROM places WHERE id = 1"),
              std::vector<std::string>{"75.0"});
    EXPECT_EQ(test::queryRows(db, "SELECT offer FROM place_offers WHERE place = 1"),
              std::vector<std::string>{"12"});
    EXPECT_EQ(test::queryRows(db, "SELECT event_name FROM offers WHERE id = 12"),
              std::vector<std::string>{"Tower 2"});
}

TEST_F(ImportIntoDatabase, TheExampleDataSetImports) {
    const ImportSummary s =
        importGeoJsonFile(db, (test::examplesDir() / "places" / "munich.geojson").string());
    EXPECT_EQ(s.apps, 1);
    EXPECT_GE(s.places, 40);
    EXPECT_GE(s.campaigns, 5);
    EXPECT_EQ(test::queryRows(db, "SELECT DISTINCT event_type FROM offers ORDER BY 1"),
              (std::vector<std::string>{"1", "2", "3"}));
    EXPECT_EQ(test::queryRows(db, "SELECT MIN(radius) >= 40, MAX(radius) <= 150 FROM places"),
              std::vector<std::string>{"1|1"});
    EXPECT_EQ(test::queryRows(db, "SELECT COUNT(*) > 0 FROM offers WHERE dwell_time BETWEEN 1 AND 2"),
              std::vector<std::string>{"1"});
    EXPECT_EQ(test::queryRows(db, "SELECT key FROM apps"), std::vector<std::string>{"demo-key"});
}

TEST(Migrations, NewDatabasesGetTheCurrentSchema) {
    test::TempDir dir;
    const std::string path = (dir / "m.db").string();
    { Database db(path); }
    EXPECT_EQ(test::queryRows(path, "PRAGMA user_version"),
              std::vector<std::string>{std::to_string(currentSchemaVersion())});
    EXPECT_EQ(test::queryRows(path, "PRAGMA journal_mode"), std::vector<std::string>{"wal"});
}

// Takes a database this program made back to schema version 3, before apps, campaigns, offers and
// places could be disabled.
void downgradeToVersion3(Database& db) {
    db.exec(
        "DROP TABLE admin_tokens; DROP TABLE audit_log; "
        "DROP TABLE webhook_endpoints; DROP TABLE webhook_messages; DROP TABLE webhook_attempts; "
        "DROP INDEX device_events_delivered; DROP TABLE settings; ALTER TABLE campaigns DROP COLUMN rules; "
        "ALTER TABLE apps DROP COLUMN rules; ALTER TABLE device_events DROP COLUMN suppressed_by; "
        "ALTER TABLE device_events DROP COLUMN control_group; "
        "DROP INDEX device_events_device; DROP INDEX sessions_device; DROP INDEX sessions_created; "
        "DROP INDEX log_messages_device; "
        "DROP TABLE funnel_erased");
    for (const char* table : {"apps", "campaigns", "offers", "places"}) {
        db.exec(std::string("ALTER TABLE ") + table + " DROP COLUMN disabled");
    }
    db.exec("PRAGMA user_version = 3");
}

TEST(Migrations, OlderDatabasesAreUpgradedAndKeepTheirData) {
    test::TempDir dir;
    const std::string path = (dir / "m.db").string();
    {
        Database db(path);
        downgradeToVersion3(db);
        db.exec("INSERT INTO apps VALUES('k', 'n', 0)");
        db.exec("ALTER TABLE sessions RENAME COLUMN key_hash TO session_key");
        db.exec("DROP INDEX log_messages_event; PRAGMA user_version = 1");
    }
    { Database db(path); }
    EXPECT_EQ(test::queryRows(path, "SELECT name FROM sqlite_master WHERE name = 'log_messages_event'"),
              std::vector<std::string>{"log_messages_event"});
    EXPECT_EQ(test::queryRows(path, "SELECT key, disabled FROM apps"), std::vector<std::string>{"k|0"});
    EXPECT_EQ(test::queryRows(path,
                              "SELECT count(*) FROM sqlite_master WHERE name IN ('funnel_erased', "
                              "'device_events_device', 'sessions_device', 'log_messages_device')"),
              std::vector<std::string>{"4"});
}

TEST(Migrations, StoredSessionKeysBecomeTheirHashes) {
    test::TempDir dir;
    const std::string path = (dir / "m.db").string();
    {
        Database db(path);
        downgradeToVersion3(db);
        db.exec("ALTER TABLE sessions RENAME COLUMN key_hash TO session_key");
        db.exec("INSERT INTO devices VALUES(1, 'D', 'iOS', 'x', 'k', 0, 0)");
        db.exec("INSERT INTO sessions VALUES('0123456789abcdef0123456789abcdef', 1, 'k', 0)");
        db.exec("PRAGMA user_version = 2");
    }
    { Database db(path); }
    EXPECT_EQ(test::queryRows(path, "SELECT key_hash, device FROM sessions"),
              std::vector<std::string>{sessionKeyHash("0123456789abcdef0123456789abcdef") + "|1"});
    // The known SHA-256 of "abc".
    EXPECT_EQ(sessionKeyHash("abc"), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
}

TEST(Migrations, NewerDatabasesAreRefused) {
    test::TempDir dir;
    const std::string path = (dir / "m.db").string();
    {
        Database db(path);
        db.exec("PRAGMA user_version = 99");
    }
    try {
        Database db(path);
        FAIL() << "opened a database from the future";
    } catch (const std::runtime_error& e) {
        EXPECT_NE(std::string(e.what()).find("schema version 99, newer than this program's"),
                  std::string::npos)
            << e.what();
    }
}

TEST(Migrations, NotADatabaseIsRefused) {
    test::TempDir dir;
    const std::string path = dir.write("junk.db", std::string(4096, 'j'));
    EXPECT_THROW(Database db(path), std::runtime_error);
}

// The funnel counts each device event once per status, by the campaign it was linked under, and by
// the UTC day on which each step happened.
TEST_F(ImportIntoDatabase, TheFunnelCountsEachStepOncePerEventAndDay) {
    importGeoJsonFile(db, dir.write("p.geojson", test::testPlacesGeoJson()));
    const double day2 = test::utc(2025, 6, 2);
    {
        Database d(db);
        d.exec("INSERT INTO devices VALUES(1, 'A', 'iOS', 'x', 'k', 0, 0), (2, 'B', 'iOS', 'x', 'k', 0, 0)");
        const auto campaignOf = [&](int offer) {
            return test::queryRows(db, "SELECT campaign FROM offers WHERE id = " + std::to_string(offer))[0];
        };
        const std::string c11 = campaignOf(11);
        const std::string c12 = campaignOf(12);
        // Offer 11: two devices, linked the last second of day 1 and the first of day 2; the second
        // one cleared (still counted). Offer 12: one device, never answered.
        d.exec(
            "INSERT INTO device_events(id, device, offer, place, campaign, suppressed, created_at, "
            "cleared_at) VALUES(1, 1, 11, 1, " +
            c11 + ", 0, " + std::to_string(day2 - 1) + ", NULL), (2, 2, 11, 1, " + c11 + ", 0, " +
            std::to_string(day2) + ", " + std::to_string(day2 + 5) + "), (3, 1, 12, 1, " + c12 + ", 0, " +
            std::to_string(day2 + 60) + ", NULL)");
        // Event 1 is seen on both days and twice on day 2; event 2 is acknowledged and declined.
        d.exec("INSERT INTO device_event_status(device_event, status, at) VALUES(1, 'ack', " +
               std::to_string(day2 - 1) + "), (1, 'seen', " + std::to_string(day2 - 1) + "), (1, 'seen', " +
               std::to_string(day2 + 10) + "), (1, 'seen', " + std::to_string(day2 + 20) + "), (2, 'ack', " +
               std::to_string(day2 + 1) + "), (2, 'declined', " + std::to_string(day2 + 2) +
               "), (2, 'bogus', " + std::to_string(day2 + 3) + ")");
    }
    const Funnel funnel = readFunnel(db, true);
    const auto offerRow = [&](const std::vector<FunnelRow>& rows, int64_t id, const std::string& day) {
        const auto it = std::find_if(rows.begin(), rows.end(),
                                     [&](const FunnelRow& r) { return r.eventId == id && r.day == day; });
        return it == rows.end() ? FunnelCounts{-1, -1, -1, -1, -1} : it->counts;
    };
    EXPECT_EQ(offerRow(funnel.offers, 11, ""), (FunnelCounts{2, 2, 1, 0, 1}));
    EXPECT_EQ(offerRow(funnel.offers, 12, ""), (FunnelCounts{1, 0, 0, 0, 0}));
    EXPECT_EQ(offerRow(funnel.offers, 21, ""), (FunnelCounts{}));
    EXPECT_EQ(offerRow(funnel.offerDays, 11, "2025-06-01"), (FunnelCounts{1, 1, 1, 0, 0}));
    EXPECT_EQ(offerRow(funnel.offerDays, 11, "2025-06-02"), (FunnelCounts{1, 1, 1, 0, 1}));
    EXPECT_EQ(offerRow(funnel.offerDays, 12, "2025-06-02"), (FunnelCounts{1, 0, 0, 0, 0}));
    EXPECT_EQ(funnel.offerDays.size(), 3u);
    ASSERT_FALSE(funnel.campaigns.empty());
    FunnelCounts total;
    for (const FunnelRow& c : funnel.campaigns) {
        EXPECT_EQ(c.eventId, 0);
        total.links += c.counts.links;
        total.ack += c.counts.ack;
        total.seen += c.counts.seen;
        total.declined += c.counts.declined;
    }
    EXPECT_EQ(total, (FunnelCounts{3, 2, 1, 0, 1}));
    EXPECT_TRUE(std::is_sorted(funnel.campaignDays.begin(), funnel.campaignDays.end(),
                               [](const FunnelRow& a, const FunnelRow& b) {
                                   return std::tie(a.day, a.campaignId) < std::tie(b.day, b.campaignId);
                               }));
    // Without byDay, no day lists; the per-offer report reads the same numbers.
    EXPECT_TRUE(readFunnel(db, false).offerDays.empty());
    const Report report = readReport(db);
    const auto row = std::find_if(report.offers.begin(), report.offers.end(),
                                  [](const OfferReport& o) { return o.eventId == 11; });
    ASSERT_NE(row, report.offers.end());
    EXPECT_EQ(std::vector<int64_t>({row->links, row->ack, row->seen, row->saved, row->declined}),
              (std::vector<int64_t>{2, 2, 1, 0, 1}));
}

TEST(ReportTable, ColumnsAlignByWhatATerminalShows) {
    Report report;
    report.offers.push_back({1, "Cafés", "Crème-brûlée", 12, 3, 2, 1, 0});
    report.offers.push_back({2, "Plain", "Tea", 5, 5, 0, 0, 0});
    report.offers.push_back({3, "茶館", "e\u0301", 7, 0, 0, 0, 0});
    const std::string text = formatReport(report);
    // The "links" column ends at the same terminal column on every offer line.
    std::vector<std::size_t> ends;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line) && !line.empty();) {
        if (line.find("  ") == std::string::npos) {
            continue;
        }
        std::size_t columns = 0;
        std::size_t bytes = 0;
        for (int field = 0; field < 4 && bytes < line.size(); ++field) {
            while (bytes < line.size() && line[bytes] == ' ') {
                ++bytes, ++columns;
            }
            while (bytes < line.size() && line[bytes] != ' ') {
                const auto c = static_cast<unsigned char>(line[bytes]);
                const bool continuation = (c & 0xC0) == 0x80;
                const bool wide = c >= 0xE3 && c <= 0xE9;  // CJK
                const bool combining = c == 0xCC;          // U+0301
                columns += continuation || combining ? 0 : wide ? 2 : 1;
                ++bytes;
            }
        }
        ends.push_back(columns);
    }
    ASSERT_EQ(ends.size(), 4u) << text;
    EXPECT_EQ(std::count(ends.begin(), ends.end(), ends.front()), 4) << text;
}

}  // namespace
}  // namespace tovrel::server
