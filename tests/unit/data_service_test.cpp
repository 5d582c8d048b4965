#include "tovrel/data_service.h"

#include <gtest/gtest.h>

#include "support/test_device.h"

namespace tovrel {
namespace {

using virtualbackend::Reply;

class DataServiceTest : public ::testing::Test {
  protected:
    testing::TestDevice device;
    DataService& service = DataService::instance();
    const SessionKey key = std::string("session-1");

    platform::Location at(double lat, double lon) {
        platform::Location location;
        location.coordinate = {lat, lon};
        return location;
    }

    /// Answers the one pending request and runs the loop.
    void answer(const Reply& reply) {
        const auto pending = device.http().pending();
        ASSERT_EQ(pending.size(), 1u);
        device.http().respond(pending[0].id, reply);
        device.loop().runUntilIdle();
    }

    Json lastBody() { return device.http().requests().back().body; }
};

TEST_F(DataServiceTest, NoSessionKeySendsNothingAndNeverCompletes) {
    int completions = 0;
    service.getLocationsWithLocation(at(1, 2), std::nullopt,
                                     [&](std::vector<PlaceRecord>, const ServiceError&) { ++completions; });
    service.sendDeviceLinkWithEventId("1", "2", std::nullopt,
                                      [&](const Json&, const Json&, const ServiceError&) { ++completions; });
    service.sendDeviceUpdateWithDeviceEventId("3", "ack", std::nullopt,
                                              [&](const Json&, const ServiceError&) { ++completions; });
    service.sendDeviceClearWithSessionKey(std::nullopt,
                                          [&](const Json&, const ServiceError&) { ++completions; });
    service.addDeviceTagWithSessionKey(std::nullopt, "t", "v", "g",
                                       [&](const Json&, const ServiceError&) { ++completions; });
    service.deleteDeviceTagWithSessionKey(std::nullopt, "t", "g",
                                          [&](const Json&, const ServiceError&) { ++completions; });
    device.loop().runUntilIdle();
    EXPECT_TRUE(device.http().requests().empty());
    EXPECT_EQ(completions, 0);
    EXPECT_TRUE(device.log().lines().empty());
}

TEST_F(DataServiceTest, PlacesRequestSendsSixDecimalTextsAndTheFixedThreshold) {
    service.getLocationsWithLocation(at(48.1371539, 11.5754), key, nullptr);
    const auto request = device.http().requests().back();
    EXPECT_EQ(request.url, "http://service.test/v2/place");
    EXPECT_EQ(request.body,
              (Json{{"sessionKey", "session-1"},
                    {"coordinatesList", Json::array({{{"lat", "48.137154"}, {"lon", "11.575400"}}})},
                    {"distanceThreshold", "8047"}}));
}

TEST_F(DataServiceTest, PlacesAnswersAreReadAsFarAsTheyGo) {
    struct Case {
        const char* name;
        Reply reply;
        std::vector<Json> eventIds;  ///< of the records, in order
        const char* logged;          ///< a line the answer must log, or nullptr for none
    };
    const Json record{{"eventId", "1"}};
    const Case cases[] = {
        {"records", Reply::json(200, {{"places", {record, {{"eventId", 2}}}}}), {"1", 2}, nullptr},
        {"empty array", Reply::json(200, {{"places", Json::array()}}), {}, nullptr},
        {"no places", Reply::json(200, {{"other", 1}}), {}, nullptr},
        {"places not an array",
         Reply::json(200, {{"places", "nope"}}),
         {},
         "\"places\" is string, not an array"},
        {"places repeated",
         Reply::text(200, R"({"places":[{"eventId":"1"}],"places":[]})", "application/json"),
         {},
         nullptr},
        {"a record not an object", Reply::json(200, {{"places", {7, record}}}), {nullptr, "1"}, nullptr},
        {"body an array", Reply::json(200, Json::array({record})), {}, nullptr},
        {"body a fragment", Reply::text(200, "17", "application/json"), {}, nullptr},
    };
    for (const auto& c : cases) {
        device.log().clear();
        std::vector<PlaceRecord> places{PlaceRecord()};
        ServiceError error;
        bool called = false;
        service.getLocationsWithLocation(at(0, 0), key,
                                         [&](std::vector<PlaceRecord> p, const ServiceError& e) {
                                             places = std::move(p);
                                             error = e;
                                             called = true;
                                         });
        answer(c.reply);
        EXPECT_TRUE(called) << c.name;
        EXPECT_FALSE(error) << c.name;
        std::vector<Json> eventIds;
        for (const PlaceRecord& place : places) {
            eventIds.push_back(place.eventId);
        }
        EXPECT_EQ(eventIds, c.eventIds) << c.name;
        EXPECT_EQ(device.log().lines().size(), c.logged != nullptr ? 1u : 0u) << c.name;
        if (c.logged != nullptr) {
            EXPECT_TRUE(device.log().contains(c.logged)) << c.name;
        }
    }
}

TEST_F(DataServiceTest, FailuresCompleteWithNullsAndTheErrorAndLogOnce) {
    std::vector<PlaceRecord> places{PlaceRecord()};
    ServiceError error;
    service.getLocationsWithLocation(at(0, 0), key, [&](std::vector<PlaceRecord> p, const ServiceError& e) {
        places = std::move(p);
        error = e;
    });
    answer(Reply::json(500, {{"error", "boom"}}));
    EXPECT_TRUE(places.empty());
    ASSERT_TRUE(error);
    EXPECT_EQ(error->kind, platform::HttpErrorKind::kStatus);
    EXPECT_EQ(device.log().lines().size(), 1u);
    EXPECT_TRUE(device.log().contains("DataService::getLocationsWithLocation [Line "));

    Json status = "untouched";
    service.sendDeviceUpdateWithDeviceEventId("1", "seen", key, [&](const Json& s, const ServiceError& e) {
        status = s;
        error = e;
    });
    answer(
        Reply::failure(platform::HttpErrorKind::kTransport, "Could not connect to service.test: refused."));
    EXPECT_TRUE(status.is_null());
    EXPECT_EQ(error->localizedDescription, "Could not connect to service.test: refused.");
    EXPECT_TRUE(device.log().contains("Could not connect to service.test: refused."));
}

TEST_F(DataServiceTest, NonJsonSuccessIsAnError) {
    ServiceError error;
    service.sendDeviceClearWithSessionKey(key, [&](const Json&, const ServiceError& e) { error = e; });
    answer(Reply::text(200, "<html>oops</html>"));
    ASSERT_TRUE(error);
    EXPECT_EQ(error->kind, platform::HttpErrorKind::kBadBody);
}

TEST_F(DataServiceTest, LinkRequestAndFirstRecordsDeviceEventId) {
    Json places;
    Json deviceEventId;
    service.sendDeviceLinkWithEventId("12", "7", key, [&](const Json& p, const Json& d, const ServiceError&) {
        places = p;
        deviceEventId = d;
    });
    EXPECT_EQ(lastBody(), (Json{{"sessionKey", "session-1"}, {"eventId", "12"}, {"placeId", "7"}}));
    EXPECT_EQ(device.http().requests().back().path, "/v1/deviceevent/link");
    answer(Reply::json(200, {{"places", {{{"deviceEventId", "d1"}}, {{"deviceEventId", "d2"}}}}}));
    EXPECT_EQ(places.size(), 2u);
    EXPECT_EQ(deviceEventId, "d1");
}

TEST_F(DataServiceTest, LinkAnswersThatCannotBeReadLogAndYieldNoIdentifier) {
    struct Case {
        const char* name;
        Reply reply;
        Json expectedPlaces;
        bool logs;
    };
    const Case cases[] = {
        {"empty places", Reply::json(200, {{"places", Json::array()}}), Json::array(), true},
        {"places a string", Reply::json(200, {{"places", "x"}}), Json("x"), true},
        {"first record a number", Reply::json(200, {{"places", {5}}}), Json::array({5}), true},
        {"no places", Reply::json(200, Json::object()), Json(), false},
        {"record without id", Reply::json(200, {{"places", {{{"eventId", "1"}}}}}),
         Json::array({{{"eventId", "1"}}}), false},
        {"body not an object", Reply::json(200, Json::array()), Json::array(), false},
    };
    for (const auto& c : cases) {
        device.log().clear();
        Json places = "untouched";
        Json deviceEventId = "untouched";
        ServiceError error;
        service.sendDeviceLinkWithEventId("1", "2", key,
                                          [&](const Json& p, const Json& d, const ServiceError& e) {
                                              places = p;
                                              deviceEventId = d;
                                              error = e;
                                          });
        answer(c.reply);
        EXPECT_FALSE(error) << c.name;
        EXPECT_EQ(places, c.expectedPlaces) << c.name;
        EXPECT_TRUE(deviceEventId.is_null()) << c.name;
        EXPECT_EQ(device.log().lines().size(), c.logs ? 1u : 0u) << c.name;
    }
}

TEST_F(DataServiceTest, StatusIsReadWhateverItsType) {
    const std::pair<Json, Json> cases[] = {
        {Json{{"status", 1}}, Json(1)},
        {Json{{"status", "ok"}}, Json("ok")},
        {Json::object(), Json()},
        {Json::array(), Json()},
    };
    for (const auto& [body, expected] : cases) {
        Json status = "untouched";
        service.sendDeviceUpdateWithDeviceEventId("9", "ack", key,
                                                  [&](const Json& s, const ServiceError&) { status = s; });
        answer(Reply::json(200, body));
        EXPECT_EQ(status, expected) << body.dump();
    }
}

TEST_F(DataServiceTest, EachStatusEndpointSendsItsMembers) {
    service.sendDeviceUpdateWithDeviceEventId(17, "ack", key, nullptr);
    EXPECT_EQ(device.http().requests().back().path, "/v1/deviceevent/update");
    EXPECT_EQ(lastBody(), (Json{{"sessionKey", "session-1"}, {"deviceEventId", 17}, {"statusCode", "ack"}}));
    service.sendDeviceClearWithSessionKey(key, nullptr);
    EXPECT_EQ(device.http().requests().back().path, "/v1/deviceevent/clear");
    EXPECT_EQ(lastBody(), (Json{{"sessionKey", "session-1"}}));
    service.addDeviceTagWithSessionKey(key, "tier", "gold", "loyalty", nullptr);
    EXPECT_EQ(device.http().requests().back().path, "/v1/devicetag/update");
    EXPECT_EQ(
        lastBody(),
        (Json{{"sessionKey", "session-1"}, {"tag", "tier"}, {"tagValue", "gold"}, {"groupTag", "loyalty"}}));
    service.deleteDeviceTagWithSessionKey(key, "tier", "loyalty", nullptr);
    EXPECT_EQ(device.http().requests().back().path, "/v1/devicetag/delete");
    EXPECT_EQ(lastBody(), (Json{{"sessionKey", "session-1"}, {"tag", "tier"}, {"groupTag", "loyalty"}}));

    // Empty completions are allowed on success and failure alike.
    for (const auto& request : device.http().pending()) {
        device.http().respond(request.id, Reply::json(request.id % 2 == 0 ? 200 : 500, {{"status", 1}}));
    }
    device.loop().runUntilIdle();
}

TEST(DataServiceFormat, LocationDictionaryUsesSixDecimals) {
    EXPECT_EQ(DataService::buildLocationDictionaryWithLatitude(48.1371539, 11.5754),
              (Json{{"lat", "48.137154"}, {"lon", "11.575400"}}));
    EXPECT_EQ(DataService::buildLocationDictionaryWithLatitude(-0.0000004, 180),
              (Json{{"lat", "-0.000000"}, {"lon", "180.000000"}}));
}

}  // namespace
}  // namespace tovrel
