// The JSON endpoints over real HTTP on 127.0.0.1, against an in-process server.
#include <gtest/gtest.h>

#include <filesystem>
#include <set>

#include "common/field_limits.h"
#include "common/session_keys.h"
#include "test_support.h"

namespace tovrel::server::test {
namespace {

// (eventId, placeId) of every record in a places answer, in order.
std::vector<std::pair<std::string, std::string>> pairs(const json& answer) {
    std::vector<std::pair<std::string, std::string>> out;
    for (const json& r : answer.at("places")) {
        out.emplace_back(r.at("eventId").get<std::string>(), r.at("placeId").get<std::string>());
    }
    return out;
}

using Pairs = std::vector<std::pair<std::string, std::string>>;

class SessionEndpoint : public StoreTest {
  protected:
    ServerFixture fx{fixtureOptions()};
};

TEST_P(SessionEndpoint, EachStartGivesANewKeyAndOldKeysStayValid) {
    const std::string first = fx.startSession("DEVICE-A");
    const std::string second = fx.startSession("DEVICE-A");
    ASSERT_FALSE(first.empty());
    EXPECT_NE(first, second);
    EXPECT_EQ(fx.places(first, 48.137, 11.575).status, 200);
    EXPECT_EQ(fx.places(second, 48.137, 11.575).status, 200);
    EXPECT_EQ(queryRows(fx.dbPath(), "SELECT COUNT(*) FROM devices"), std::vector<std::string>{"1"});
}

TEST_P(SessionEndpoint, UnknownSdkKeyIsRefused) {
    const HttpResult r = fx.client().post(
        "/v1/session",
        json{{"deviceId", "D"}, {"deviceType", "iOS"}, {"deviceModel", "iPhone"}, {"sdkkey", "nope"}});
    EXPECT_EQ(r.status, 401);
    EXPECT_TRUE(r.parsed().at("error").is_string());
}

TEST_P(SessionEndpoint, DeviceIsRememberedAcrossSessions) {
    const std::string first = fx.startSession("DEVICE-A");
    ASSERT_EQ(fx.link(first, "11", "1").status, 200);
    const std::string second = fx.startSession("DEVICE-A");
    EXPECT_EQ(record(fx.places(second, 48.137, 11.575).parsed(), "11", "1").at("isLinked"), 1);
}

TEST_P(SessionEndpoint, KeysSurviveARestartOfTheServer) {
    const std::string key = fx.startSession("DEVICE-A");
    ASSERT_EQ(fx.link(key, "11", "1").status, 200);
    fx.server().stop();
    ServerOptions options;
    options.dbPath = fx.dbPath();
    Server again(options);
    HttpClient client(again.start());
    const HttpResult r =
        client.post("/v2/place", json{{"sessionKey", key},
                                      {"coordinatesList", {{{"lat", 48.137}, {"lon", 11.575}}}},
                                      {"distanceThreshold", 100}});
    ASSERT_EQ(r.status, 200) << r.body;
    EXPECT_EQ(record(r.parsed(), "11", "1").at("isLinked"), 1);
    // The database never held the key itself: only its SHA-256, which no client can present.
    const auto stored = queryRows(fx.dbPath(), "SELECT key_hash FROM sessions");
    ASSERT_EQ(stored.size(), 1u);
    EXPECT_EQ(stored[0], sessionKeyHash(key));
    EXPECT_EQ(stored[0].size(), 64u);
    EXPECT_EQ(client
                  .post("/v2/place", json{{"sessionKey", stored[0]},
                                          {"coordinatesList", {{{"lat", 48.137}, {"lon", 11.575}}}},
                                          {"distanceThreshold", 100}})
                  .status,
              401);
}

TEST(SqliteFile, TheDatabaseHoldingTheKeysIsTheOwnersAlone) {
    ServerFixture fx;
    fx.startSession("DEVICE-A");
    namespace fs = std::filesystem;
    const auto others = fs::perms::group_all | fs::perms::others_all;
    for (const std::string suffix : {"", "-wal", "-shm"}) {
        const fs::path file = fx.dbPath() + suffix;
        ASSERT_TRUE(fs::exists(file)) << file;
        EXPECT_EQ(fs::status(file).permissions() & others, fs::perms::none) << file;
    }
}

class PlaceEndpoint : public StoreTest {
  protected:
    ServerFixture fx{fixtureOptions()};
    std::string key = fx.startSession("DEVICE-A");
};

TEST_P(PlaceEndpoint, ActiveOffersWithinTheThresholdNearestFirst) {
    const HttpResult r = fx.places(key, 48.137, 11.575);
    ASSERT_EQ(r.status, 200) << r.body;
    EXPECT_EQ(r.contentType, "application/json");
    EXPECT_EQ(pairs(r.parsed()), (Pairs{{"11", "1"}, {"12", "1"}, {"11", "2"}, {"21", "2"}, {"32", "3"}}));
}

TEST_P(PlaceEndpoint, ThresholdIsInclusiveAndInMetres) {
    // Place 2 lies 500 m north of the query point (to within a few millimetres).
    EXPECT_EQ(pairs(fx.places(key, 48.137, 11.575, "499.9").parsed()), (Pairs{{"11", "1"}, {"12", "1"}}));
    EXPECT_EQ(pairs(fx.places(key, 48.137, 11.575, "500.1").parsed()).size(), 4u);
    EXPECT_TRUE(fx.places(key, 10.0, 10.0).parsed().at("places").empty());
}

TEST_P(PlaceEndpoint, NumbersAndNumericStringsAreTheSame) {
    const json asNumbers =
        fx.client()
            .post("/v2/place", json{{"sessionKey", key},
                                    {"coordinatesList", {{{"lat", 48.137}, {"lon", 11.575}}}},
                                    {"distanceThreshold", 8047}})
            .parsed();
    const json asStrings = fx.places(key, 48.137, 11.575).parsed();
    EXPECT_EQ(asNumbers, asStrings);
}

TEST_P(PlaceEndpoint, OnlyTheFirstCoordinateCounts) {
    const HttpResult r = fx.client().post(
        "/v2/place", json{{"sessionKey", key},
                          {"coordinatesList",
                           {{{"lat", "48.4068"}, {"lon", "11.575"}}, {{"lat", 48.137}, {"lon", 11.575}}}},
                          {"distanceThreshold", "1000"}});
    EXPECT_EQ(pairs(r.parsed()), (Pairs{{"41", "4"}}));
}

TEST_P(PlaceEndpoint, RecordCarriesEveryMemberWithItsType) {
    const json r = record(fx.places(key, 48.137, 11.575).parsed(), "11", "1");
    ASSERT_TRUE(r.is_object());
    EXPECT_DOUBLE_EQ(r.at("centroidLat").get<double>(), 48.137);
    EXPECT_DOUBLE_EQ(r.at("centroidLon").get<double>(), 11.575);
    EXPECT_DOUBLE_EQ(r.at("centroidRadius").get<double>(), 50);
    EXPECT_EQ(r.at("eventName"), "Coffee");
    EXPECT_EQ(r.at("alertText"), "Free coffee");
    EXPECT_EQ(r.at("mediaType"), "html");
    const std::string media = "http://127.0.0.1:" + std::to_string(fx.port()) + "/media/offer-1001.html";
    EXPECT_EQ(r.at("mediaURL"), media);
    EXPECT_EQ(r.at("mediaUrl"), media);
    EXPECT_EQ(r.at("campaignName"), "Open");
    EXPECT_EQ(r.at("tags"), "coffee,food");
    EXPECT_EQ(r.at("startDate"), "");
    EXPECT_EQ(r.at("endDate"), "");
    EXPECT_EQ(r.at("isLinked"), 0);
    EXPECT_EQ(r.at("dwellTime"), 0);
    EXPECT_EQ(r.at("eventTypeId"), 3);

    const json capped = record(fx.places(key, 48.137, 11.575).parsed(), "12", "1");
    EXPECT_EQ(capped.at("mediaUrl"), "https://media.example.test/tower.html");
    EXPECT_EQ(capped.at("mediaType"), "web");
    EXPECT_EQ(capped.at("startDate"), "2020-01-01");
    EXPECT_EQ(capped.at("endDate"), "2035-12-31");
    EXPECT_EQ(capped.at("dwellTime"), 1);
    EXPECT_EQ(capped.at("eventTypeId"), 2);
}

TEST_P(PlaceEndpoint, RelativeMediaTakesTheRequestsHost) {
    const HttpResult r = fx.client().request("POST", "/v2/place",
                                             json{{"sessionKey", key},
                                                  {"coordinatesList", {{{"lat", 48.137}, {"lon", 11.575}}}},
                                                  {"distanceThreshold", 10}}
                                                 .dump(),
                                             {"Host: offers.example.test:8080"});
    EXPECT_EQ(record(r.parsed(), "11", "1").at("mediaUrl"),
              "http://offers.example.test:8080/media/offer-1001.html");

    const HttpResult odd = fx.client().request("POST", "/v2/place",
                                               json{{"sessionKey", key},
                                                    {"coordinatesList", {{{"lat", 48.137}, {"lon", 11.575}}}},
                                                    {"distanceThreshold", 10}}
                                                   .dump(),
                                               {"Host: evil\"host"});
    const std::string fallback = "http://127.0.0.1:" + std::to_string(fx.port()) + "/media/offer-1001.html";
    EXPECT_EQ(record(odd.parsed(), "11", "1").at("mediaUrl"), fallback);
}

TEST(PlaceEndpointOptions, MediaBaseOptionWinsOverTheHost) {
    ServerFixture::Options options;
    options.mediaBaseUrl = "https://cdn.example.test";
    ServerFixture fx(options);
    const std::string key = fx.startSession("D");
    const json r = record(fx.places(key, 48.137, 11.575).parsed(), "11", "1");
    EXPECT_EQ(r.at("mediaURL"), "https://cdn.example.test/media/offer-1001.html");
}

TEST_P(PlaceEndpoint, CampaignsCountOnlyBetweenTheirDates) {
    fx.setTime(utc(2019, 6, 1));
    std::set<std::string> events;
    for (const auto& [e, p] : pairs(fx.places(key, 48.137, 11.575, "6000").parsed())) {
        events.insert(e);
    }
    EXPECT_EQ(events, (std::set<std::string>{"11", "22", "32"}));

    fx.setTime(utc(2040, 1, 1));
    events.clear();
    for (const auto& [e, p] : pairs(fx.places(key, 48.137, 11.575, "6000").parsed())) {
        events.insert(e);
    }
    EXPECT_EQ(events, (std::set<std::string>{"11", "31", "32"}));

    // The end date's whole last day still counts.
    fx.setTime(utc(2035, 12, 31) + 86399);
    EXPECT_EQ(record(fx.places(key, 48.137, 11.575).parsed(), "12", "1").at("eventId"), "12");
    fx.setTime(utc(2036, 1, 1));
    EXPECT_TRUE(record(fx.places(key, 48.137, 11.575).parsed(), "12", "1").is_null());
}

TEST_P(PlaceEndpoint, BadCoordinatesAreRefused) {
    auto send = [&](const json& coords, const json& threshold) {
        return fx.client()
            .post("/v2/place",
                  json{{"sessionKey", key}, {"coordinatesList", coords}, {"distanceThreshold", threshold}})
            .status;
    };
    EXPECT_EQ(send(json::array({{{"lat", "91"}, {"lon", "0"}}}), "8047"), 400);
    EXPECT_EQ(send(json::array({{{"lat", "48.1x"}, {"lon", "11"}}}), "8047"), 400);
    EXPECT_EQ(send(json::array({{{"lat", true}, {"lon", "11"}}}), "8047"), 400);
    EXPECT_EQ(send(json::array({{{"lon", "11"}}}), "8047"), 400);
    EXPECT_EQ(send(json::array(), "8047"), 400);
    EXPECT_EQ(send("48.1,11.5", "8047"), 400);
    EXPECT_EQ(send(json::array({{{"lat", "48"}, {"lon", "11"}}}), "-1"), 400);
    EXPECT_EQ(send(json::array({{{"lat", "48"}, {"lon", "11"}}}), "far"), 400);
    EXPECT_EQ(send(json::array({{{"lat", "48"}, {"lon", "11"}}}), nullptr), 400);
    // One request must not be able to ask for the whole catalogue.
    EXPECT_EQ(send(json::array({{{"lat", "48"}, {"lon", "11"}}}), "50000"), 200);
    EXPECT_EQ(send(json::array({{{"lat", "48"}, {"lon", "11"}}}), "50000.5"), 400);
    EXPECT_EQ(send(json::array({{{"lat", "48"}, {"lon", "11"}}}), "1e8"), 400);
}

TEST_P(PlaceEndpoint, AnAnswerCarriesAtMostTheNearestThousandRecords) {
    // 1,200 places on a line going east from the query point, 5 m apart, each with one open offer.
    json features = json::array();
    for (int i = 0; i < 1200; ++i) {
        features.push_back(
            {{"type", "Feature"},
             {"geometry", {{"type", "Point"}, {"coordinates", {11.575 + i * 0.0000672, 48.137}}}},
             {"properties",
              {{"placeId", 10000 + i},
               {"radius", 30},
               {"offers", json::array({{{"eventId", 50000 + i},
                                        {"campaign", "Open"},
                                        {"eventName", "Many"},
                                        {"alertText", "One of many"},
                                        {"eventTypeId", 3}}})}}}});
    }
    const json many = {{"type", "FeatureCollection"},
                       {"properties", {{"campaigns", json::array({{{"name", "Open"}}})}}},
                       {"features", features}};
    fx.server().importGeoJson(fx.dir().write("many.geojson", many.dump()));
    fx.server().reloadPlaces();
    const json answer = fx.places(key, 48.137, 11.575).parsed();
    ASSERT_EQ(answer.at("places").size(), 1000u);
    // Nearest first: the test's own places at the query point come before the line's far end.
    EXPECT_EQ(answer["places"][0].at("placeId"), "1");
    std::set<std::string> ids;
    for (const json& r : answer["places"]) {
        ids.insert(r.at("placeId").get<std::string>());
    }
    EXPECT_TRUE(ids.contains("10000"));
    EXPECT_FALSE(ids.contains("11199"));
}

class LinkEndpoint : public StoreTest {
  protected:
    ServerFixture fx{fixtureOptions()};
    std::string key = fx.startSession("DEVICE-A");
};

TEST_P(LinkEndpoint, FirstLinkCreatesAnEventAndRepeatsReturnIt) {
    const HttpResult first = fx.link(key, "11", "1");
    ASSERT_EQ(first.status, 200) << first.body;
    const json r = first.parsed().at("places").at(0);
    EXPECT_EQ(first.parsed().at("places").size(), 1u);
    EXPECT_TRUE(r.at("deviceEventId").is_number_integer());
    EXPECT_EQ(r.at("suppressMessage"), 0);
    EXPECT_EQ(r.at("isLinked"), 1);
    EXPECT_EQ(r.at("eventId"), "11");
    EXPECT_EQ(r.at("placeId"), "1");
    EXPECT_EQ(r.at("mediaUrl"), "http://127.0.0.1:" + std::to_string(fx.port()) + "/media/offer-1001.html");

    const json again = fx.link(key, "11", "1").parsed().at("places").at(0);
    EXPECT_EQ(again.at("deviceEventId"), r.at("deviceEventId"));
    // Numbers are accepted as well as digit strings.
    const json asNumbers =
        fx.client()
            .post("/v1/deviceevent/link", json{{"sessionKey", key}, {"eventId", 11}, {"placeId", 1}})
            .parsed();
    EXPECT_EQ(asNumbers.at("places").at(0).at("deviceEventId"), r.at("deviceEventId"));
    EXPECT_EQ(queryRows(fx.dbPath(), "SELECT COUNT(*) FROM device_events"), std::vector<std::string>{"1"});
}

TEST_P(LinkEndpoint, LinkedPlacesReadAsLinkedForThatDeviceOnly) {
    ASSERT_EQ(fx.link(key, "11", "1").status, 200);
    const json mine = fx.places(key, 48.137, 11.575).parsed();
    EXPECT_EQ(record(mine, "11", "1").at("isLinked"), 1);
    // The same offer at another place is another visit.
    EXPECT_EQ(record(mine, "11", "2").at("isLinked"), 0);
    EXPECT_EQ(record(mine, "12", "1").at("isLinked"), 0);

    const std::string other = fx.startSession("DEVICE-B");
    EXPECT_EQ(record(fx.places(other, 48.137, 11.575).parsed(), "11", "1").at("isLinked"), 0);
}

TEST_P(LinkEndpoint, SameOfferAtTwoPlacesGivesTwoEvents) {
    const json a = fx.link(key, "11", "1").parsed().at("places").at(0);
    const json b = fx.link(key, "11", "2").parsed().at("places").at(0);
    EXPECT_NE(a.at("deviceEventId"), b.at("deviceEventId"));
}

TEST_P(LinkEndpoint, CampaignCapSuppressesLaterVisits) {
    // "Capped" allows one delivery per device: offer 12 at place 1 and offer 21 at place 2.
    const json first = fx.link(key, "12", "1").parsed().at("places").at(0);
    EXPECT_EQ(first.at("suppressMessage"), 0);
    const json second = fx.link(key, "21", "2").parsed().at("places").at(0);
    EXPECT_EQ(second.at("suppressMessage"), 1);
    EXPECT_NE(second.at("deviceEventId"), first.at("deviceEventId"));
    // Repeats keep their own answer; other campaigns and other devices are not affected.
    EXPECT_EQ(fx.link(key, "12", "1").parsed().at("places").at(0).at("suppressMessage"), 0);
    EXPECT_EQ(fx.link(key, "21", "2").parsed().at("places").at(0).at("suppressMessage"), 1);
    EXPECT_EQ(fx.link(key, "11", "1").parsed().at("places").at(0).at("suppressMessage"), 0);
    const std::string other = fx.startSession("DEVICE-B");
    EXPECT_EQ(fx.link(other, "21", "2").parsed().at("places").at(0).at("suppressMessage"), 0);
}

TEST_P(LinkEndpoint, UnknownOffersAndPlacesAreNotFound) {
    EXPECT_EQ(fx.link(key, "99", "1").status, 404);
    EXPECT_EQ(fx.link(key, "11", "99").status, 404);
    // Offer 41 exists, but not at place 1.
    const HttpResult notHere = fx.link(key, "41", "1");
    EXPECT_EQ(notHere.status, 404);
    EXPECT_NE(notHere.parsed().at("error").get<std::string>().find("not offered"), std::string::npos);
    EXPECT_EQ(fx.link(key, "eleven", "1").status, 400);
    EXPECT_EQ(fx.link(key, "-11", "1").status, 400);
    EXPECT_EQ(fx.client()
                  .post("/v1/deviceevent/link", json{{"sessionKey", key}, {"eventId", 11.5}, {"placeId", 1}})
                  .status,
              400);
    EXPECT_EQ(fx.client().post("/v1/deviceevent/link", json{{"sessionKey", key}, {"eventId", "11"}}).status,
              400);
}

class UpdateEndpoint : public StoreTest {
  protected:
    ServerFixture fx{fixtureOptions()};
    std::string key = fx.startSession("DEVICE-A");
    int64_t eventId = fx.link(key, "11", "1").parsed().at("places").at(0).at("deviceEventId").get<int64_t>();

    HttpResult update(const json& id, const std::string& code, const std::string& sessionKey = "") {
        return fx.client().post("/v1/deviceevent/update",
                                json{{"sessionKey", sessionKey.empty() ? key : sessionKey},
                                     {"deviceEventId", id},
                                     {"statusCode", code}});
    }
};

TEST_P(UpdateEndpoint, EveryStatusChangeIsKeptWithItsTime) {
    fx.setTime(1000);
    EXPECT_EQ(update(std::to_string(eventId), "ack").parsed(), json::parse(R"({"status":1})"));
    fx.setTime(2000);
    EXPECT_EQ(update(eventId, "seen").status, 200);
    fx.setTime(3000);
    EXPECT_EQ(update(eventId, "saved").status, 200);
    fx.setTime(4000);
    EXPECT_EQ(update(eventId, "seen").status, 200);
    EXPECT_EQ(update(eventId, "declined").status, 200);
    EXPECT_EQ(queryRows(fx.dbPath(), "SELECT status, at FROM device_event_status ORDER BY id"),
              (std::vector<std::string>{"ack|1000.0", "seen|2000.0", "saved|3000.0", "seen|4000.0",
                                        "declined|4000.0"}));
    const Report report = fx.server().report();
    const auto row = std::find_if(report.offers.begin(), report.offers.end(),
                                  [](const OfferReport& o) { return o.eventId == 11; });
    ASSERT_NE(row, report.offers.end());
    EXPECT_EQ(row->links, 1);
    EXPECT_EQ(row->ack, 1);
    EXPECT_EQ(row->seen, 1);
    EXPECT_EQ(row->saved, 1);
    EXPECT_EQ(row->declined, 1);
}

TEST_P(UpdateEndpoint, OnlyTheFourStatusCodesAreAccepted) {
    for (const char* code : {"ACK", "", "opened", "seen "}) {
        EXPECT_EQ(update(eventId, code).status, 400) << code;
    }
    EXPECT_EQ(fx.client()
                  .post("/v1/deviceevent/update",
                        json{{"sessionKey", key}, {"deviceEventId", eventId}, {"statusCode", 1}})
                  .status,
              400);
}

TEST_P(UpdateEndpoint, AnotherDevicesOrAnUnknownEventIsNotFound) {
    const std::string other = fx.startSession("DEVICE-B");
    const HttpResult others = update(eventId, "seen", other);
    EXPECT_EQ(others.status, 404);
    EXPECT_EQ(others.parsed().value("error", ""),
              "this device has no device event " + std::to_string(eventId));
    EXPECT_EQ(update(eventId + 1000, "seen").status, 404);
    EXPECT_EQ(update("17x", "seen").status, 400);
    EXPECT_TRUE(queryRows(fx.dbPath(), "SELECT * FROM device_event_status").empty());
}

TEST_P(UpdateEndpoint, ClearRemovesTheDevicesEventsOnly) {
    const std::string other = fx.startSession("DEVICE-B");
    const auto otherEvent = fx.link(other, "11", "1").parsed().at("places").at(0).at("deviceEventId");
    ASSERT_EQ(fx.link(key, "12", "1").status, 200);

    const HttpResult cleared = fx.client().post("/v1/deviceevent/clear", json{{"sessionKey", key}});
    EXPECT_EQ(cleared.parsed(), json::parse(R"({"status":1})"));
    const json mine = fx.places(key, 48.137, 11.575).parsed();
    EXPECT_EQ(record(mine, "11", "1").at("isLinked"), 0);
    EXPECT_EQ(record(mine, "12", "1").at("isLinked"), 0);
    EXPECT_EQ(update(eventId, "seen").status, 404);
    EXPECT_EQ(record(fx.places(other, 48.137, 11.575).parsed(), "11", "1").at("isLinked"), 1);
    EXPECT_EQ(update(otherEvent, "seen", other).status, 200);

    // A new link is a new event, and the campaign cap counts from zero again.
    const json relinked = fx.link(key, "11", "1").parsed().at("places").at(0);
    EXPECT_NE(relinked.at("deviceEventId"), eventId);
    EXPECT_EQ(fx.link(key, "21", "2").parsed().at("places").at(0).at("suppressMessage"), 0);
}

class TagEndpoints : public StoreTest {
  protected:
    ServerFixture fx{fixtureOptions()};
    std::string key = fx.startSession("DEVICE-A");
};

TEST_P(TagEndpoints, TagsAreSetReplacedAndDeleted) {
    auto set = [&](const std::string& tag, const std::string& value, const std::string& group) {
        return fx.client().post(
            "/v1/devicetag/update",
            json{{"sessionKey", key}, {"tag", tag}, {"tagValue", value}, {"groupTag", group}});
    };
    EXPECT_EQ(set("language", "de", "profile").parsed(), json::parse(R"({"status":1})"));
    EXPECT_EQ(set("language", "en", "profile").status, 200);
    EXPECT_EQ(set("language", "fr", "other").status, 200);
    EXPECT_EQ(queryRows(fx.dbPath(), "SELECT group_tag, tag, value FROM device_tags ORDER BY group_tag"),
              (std::vector<std::string>{"other|language|fr", "profile|language|en"}));
    const HttpResult deleted = fx.client().post(
        "/v1/devicetag/delete", json{{"sessionKey", key}, {"tag", "language"}, {"groupTag", "profile"}});
    EXPECT_EQ(deleted.parsed(), json::parse(R"({"status":1})"));
    EXPECT_EQ(queryRows(fx.dbPath(), "SELECT group_tag FROM device_tags"), std::vector<std::string>{"other"});
    // Deleting what is not there is not an error.
    EXPECT_EQ(
        fx.client()
            .post("/v1/devicetag/delete", json{{"sessionKey", key}, {"tag", "none"}, {"groupTag", "profile"}})
            .status,
        200);
}

TEST_P(TagEndpoints, MissingOrMistypedMembersAreRefused) {
    EXPECT_EQ(fx.client().post("/v1/devicetag/update", json{{"sessionKey", key}, {"tagValue", "x"}}).status,
              400);
    EXPECT_EQ(fx.client()
                  .post("/v1/devicetag/update", json{{"sessionKey", key}, {"tag", "t"}, {"tagValue", 5}})
                  .status,
              400);
    EXPECT_EQ(
        fx.client().post("/v1/devicetag/delete", json{{"sessionKey", key}, {"tag", json::array()}}).status,
        400);
}

class LogEndpoint : public StoreTest {
  protected:
    ServerFixture fx{fixtureOptions()};
    HttpResult log(const json& body) { return fx.client().post("/v1/log", body); }
};

TEST_P(LogEndpoint, MessagesAreStoredAsReceivedAndCountedByEventName) {
    const json started = {
        {"session_started", {{"timestamp", "1700000000"}, {"environment", "PRD"}, {"version", "1.2.4"}}}};
    EXPECT_EQ(log({{"deviceid", "DEVICE-A"}, {"message", started}}).parsed(), json::parse(R"({"status":1})"));
    EXPECT_EQ(
        log({{"deviceid", "DEVICE-A"}, {"message", {{"session_started", {{"timestamp", "1"}}}}}}).status,
        200);
    const json targeting = {{"targeting_updates", json::array({{{"lat", "48.1"}, {"lng", "11.5"}}})}};
    EXPECT_EQ(log({{"deviceid", "DEVICE-B"}, {"message", targeting}}).status, 200);

    EXPECT_EQ(fx.server().report().logCounts,
              (std::map<std::string, int64_t>{{"session_started", 2}, {"targeting_updates", 1}}));
    const auto stored = queryRows(fx.dbPath(), "SELECT device_id, message FROM log_messages ORDER BY id");
    ASSERT_EQ(stored.size(), 3u);
    EXPECT_EQ(json::parse(stored[0].substr(stored[0].find('|') + 1)), started);
    EXPECT_EQ(stored[2].substr(0, stored[2].find('|')), "DEVICE-B");
}

TEST_P(LogEndpoint, DaysBeyondTheRetentionAreDropped) {
    ServerFixture::Options options = fixtureOptions();
    options.configure = [](ServerOptions& o) { o.logRetentionDays = 2; };
    ServerFixture kept(options);
    const json message = {{"deviceid", "D"}, {"message", {{"day", 1}}}};
    const auto counted = [&] { return kept.server().report().logCounts["day"]; };
    // One message on 1 June, two on the 2nd, three on the 3rd: the 3rd keeps the 2nd and itself.
    for (unsigned day = 1; day <= 3; ++day) {
        kept.setTime(utc(2025, 6, day) + 3600);
        for (unsigned i = 0; i < day; ++i) {
            ASSERT_EQ(kept.client().post("/v1/log", message).status, 200);
        }
    }
    EXPECT_EQ(counted(), 5);
    kept.setTime(utc(2025, 6, 4) - 1);
    ASSERT_EQ(kept.client().post("/v1/log", message).status, 200);
    EXPECT_EQ(counted(), 6);
    // The first second of the 4th drops the 2nd.
    kept.setTime(utc(2025, 6, 4));
    ASSERT_EQ(kept.client().post("/v1/log", message).status, 200);
    EXPECT_EQ(counted(), 5);
}

TEST_P(LogEndpoint, MessagesOver256KiBAreTooLarge) {
    const auto body = [](std::size_t size) {
        std::string text = json{{"deviceid", "D"}, {"message", {{"big", ""}}}}.dump();
        text.insert(text.size() - 3, std::string(size - text.size(), 'x'));
        return text;
    };
    EXPECT_EQ(fx.client().post("/v1/log", body(256 * 1024)).status, 200);
    const HttpResult over = fx.client().post("/v1/log", body(256 * 1024 + 1));
    EXPECT_EQ(over.status, 413);
    EXPECT_NE(over.body.find("256 KiB"), std::string::npos) << over.body;
    EXPECT_EQ(fx.server().report().logCounts, (std::map<std::string, int64_t>{{"big", 1}}));
}

TEST_P(LogEndpoint, MessageMustBeAnObjectOfOneEvent) {
    EXPECT_EQ(log({{"deviceid", "D"}, {"message", "session_started"}}).status, 400);
    EXPECT_EQ(log({{"deviceid", "D"}, {"message", json::object()}}).status, 400);
    EXPECT_EQ(log({{"deviceid", "D"}, {"message", {{"a", 1}, {"b", 2}}}}).status, 400);
    EXPECT_EQ(log({{"message", {{"a", 1}}}}).status, 400);
    EXPECT_EQ(log({{"deviceid", 5}, {"message", {{"a", 1}}}}).status, 400);
    EXPECT_TRUE(fx.server().report().logCounts.empty());
}

// Every text a client sends has a limit checked before it reaches a cache, a limiter or the database:
// both stores take a value at the limit and refuse one byte more with the same 400.
class FieldLimits : public StoreTest {};

TEST_P(FieldLimits, AValueAtItsLimitIsTakenAndOneByteMoreIsRefusedAlike) {
    ServerFixture fx{fixtureOptions()};
    const std::string key = fx.startSession("LIMITS");
    struct Case {
        std::string path;
        std::string named;  ///< what the refusal names
        std::size_t limit;
        long atLimit;
        std::function<json(const std::string&)> body;
    };
    const std::vector<Case> cases = {
        {"/v1/session", "\"deviceId\"", limits::kDeviceId, 200,
         [](const std::string& v) {
             return json{{"deviceId", v}, {"sdkkey", "test-key"}};
         }},
        {"/v1/session", "\"sdkkey\"", limits::kSdkKey, 401,
         [](const std::string& v) {
             return json{{"deviceId", "D"}, {"sdkkey", v}};
         }},
        {"/v1/session", "\"deviceType\"", limits::kDeviceType, 200,
         [](const std::string& v) {
             return json{{"deviceId", "D"}, {"sdkkey", "test-key"}, {"deviceType", v}};
         }},
        {"/v1/session", "\"deviceModel\"", limits::kDeviceModel, 200,
         [](const std::string& v) {
             return json{{"deviceId", "D"}, {"sdkkey", "test-key"}, {"deviceModel", v}};
         }},
        {"/v2/place", "\"sessionKey\"", limits::kSessionKey, 401,
         [](const std::string& v) {
             return json{{"sessionKey", v},
                         {"coordinatesList", {{{"lat", 48.1}, {"lon", 11.5}}}},
                         {"distanceThreshold", 100}};
         }},
        {"/v1/devicetag/update", "\"tag\"", limits::kTag, 200,
         [&](const std::string& v) {
             return json{{"sessionKey", key}, {"tag", v}, {"tagValue", "x"}};
         }},
        {"/v1/devicetag/update", "\"tagValue\"", limits::kTagValue, 200,
         [&](const std::string& v) {
             return json{{"sessionKey", key}, {"tag", "t"}, {"tagValue", v}};
         }},
        {"/v1/devicetag/update", "\"groupTag\"", limits::kGroupTag, 200,
         [&](const std::string& v) {
             return json{{"sessionKey", key}, {"tag", "t"}, {"tagValue", "x"}, {"groupTag", v}};
         }},
        {"/v1/devicetag/delete", "\"tag\"", limits::kTag, 200,
         [&](const std::string& v) {
             return json{{"sessionKey", key}, {"tag", v}};
         }},
        {"/v1/log", "\"deviceid\"", limits::kDeviceId, 200,
         [](const std::string& v) {
             return json{{"deviceid", v}, {"message", {{"e", 1}}}};
         }},
        {"/v1/log", "event name", limits::kLogEventName, 200,
         [](const std::string& v) {
             return json{{"deviceid", "D"}, {"message", {{v, 1}}}};
         }},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.path + " " + c.named);
        const HttpResult at = fx.client().post(c.path, c.body(std::string(c.limit, 'a')));
        EXPECT_EQ(at.status, c.atLimit) << at.body;
        const HttpResult over = fx.client().post(c.path, c.body(std::string(c.limit + 1, 'b')));
        EXPECT_EQ(over.status, 400) << over.body;
        EXPECT_NE(over.parsed().value("error", "").find(c.named), std::string::npos) << over.body;
        EXPECT_EQ(over.body.find("bbbb"), std::string::npos) << "the refusal repeats the value";
        const HttpResult nul = fx.client().post(c.path, c.body(std::string("a\0b", 3)));
        EXPECT_EQ(nul.status, 400) << nul.body;
    }
    // Nothing refused reached the database.
    EXPECT_EQ(queryRows(fx.dbPath(), "SELECT count(*) FROM devices WHERE length(device_id) > 128"),
              std::vector<std::string>{"0"});
}

TOVREL_ON_BOTH_STORES(FieldLimits);
TOVREL_ON_BOTH_STORES(SessionEndpoint);
TOVREL_ON_BOTH_STORES(PlaceEndpoint);
TOVREL_ON_BOTH_STORES(LinkEndpoint);
TOVREL_ON_BOTH_STORES(UpdateEndpoint);
TOVREL_ON_BOTH_STORES(TagEndpoints);
TOVREL_ON_BOTH_STORES(LogEndpoint);

}  // namespace
}  // namespace tovrel::server::test
