// Random and malformed requests at every endpoint: no crash, no 5xx, and no stored data lost.
#include <gtest/gtest.h>

#include <random>

#include "test_support.h"

namespace tovrel::server::test {
namespace {

constexpr int kBodiesPerEndpoint = 150;

class RandomInput {
  public:
    explicit RandomInput(uint32_t seed) : rng_(seed) {}

    int below(int n) { return std::uniform_int_distribution<int>(0, n - 1)(rng_); }

    std::string bytes(std::size_t maxLength) {
        std::string s(static_cast<std::size_t>(below(static_cast<int>(maxLength) + 1)), '\0');
        for (char& c : s) {
            c = static_cast<char>(below(256));
        }
        return s;
    }

    std::string text() {
        static const std::vector<std::string> samples = {"",
                                                         "0",
                                                         "-1",
                                                         "17",
                                                         "1e400",
                                                         "48.137154",
                                                         "NaN",
                                                         "ack",
                                                         "seen",
                                                         "\u00e9\u00e8",
                                                         "../..",
                                                         "%00",
                                                         std::string(3000, 'a'),
                                                         "9999999999999999999999",
                                                         " 12",
                                                         "0x1F",
                                                         "null"};
        return below(3) == 0 ? bytes(20)
                             : samples[static_cast<std::size_t>(below(static_cast<int>(samples.size())))];
    }

    json value(int depth = 0) {
        switch (below(depth > 3 ? 7 : 9)) {
            case 0:
                return nullptr;
            case 1:
                return below(2) == 0;
            case 2:
                return static_cast<int64_t>(rng_()) - (int64_t{1} << 31);
            case 3:
                return std::uniform_real_distribution<double>(-1e12, 1e12)(rng_);
            case 4:
                return std::numeric_limits<uint64_t>::max() - static_cast<uint64_t>(below(10));
            case 5:
            case 6:
                return text();
            case 7: {
                json a = json::array();
                for (int i = below(4); i > 0; --i) {
                    a.push_back(value(depth + 1));
                }
                return a;
            }
            default: {
                json o = json::object();
                for (int i = below(4); i > 0; --i) {
                    o[text().substr(0, 8)] = value(depth + 1);
                }
                return o;
            }
        }
    }

    // A valid body with members replaced, removed or added.
    json mutate(json body) {
        const int changes = 1 + below(3);
        for (int i = 0; i < changes && body.is_object() && !body.empty(); ++i) {
            std::vector<std::string> keys;
            for (const auto& [k, v] : body.items()) {
                keys.push_back(k);
            }
            const std::string key = keys[static_cast<std::size_t>(below(static_cast<int>(keys.size())))];
            switch (below(4)) {
                case 0:
                    body.erase(key);
                    break;
                case 1:
                    body["extra" + std::to_string(below(5))] = value();
                    break;
                default:
                    body[key] = value();
                    break;
            }
        }
        return body;
    }

    std::string damage(const std::string& text) {
        std::string s = text;
        switch (below(3)) {
            case 0:
                return s.substr(0, static_cast<std::size_t>(below(static_cast<int>(s.size()) + 1)));
            case 1:
                for (int i = below(4) + 1; i > 0 && !s.empty(); --i) {
                    s[static_cast<std::size_t>(below(static_cast<int>(s.size())))] =
                        static_cast<char>(below(256));
                }
                return s;
            default:
                return s.insert(static_cast<std::size_t>(below(static_cast<int>(s.size()) + 1)), bytes(8));
        }
    }

  private:
    std::mt19937 rng_;
};

std::vector<std::string> tableRows(const std::string& db) {
    std::vector<std::string> all;
    for (const char* sql :
         {"SELECT * FROM apps", "SELECT * FROM campaigns", "SELECT * FROM offers", "SELECT * FROM places",
          "SELECT * FROM place_offers", "SELECT * FROM devices WHERE device_id = 'DEVICE-A'",
          "SELECT s.* FROM sessions s JOIN devices d ON d.id = s.device WHERE d.device_id = 'DEVICE-A'",
          "SELECT e.* FROM device_events e JOIN devices d ON d.id = e.device WHERE d.device_id = 'DEVICE-A'",
          "SELECT s.* FROM device_event_status s JOIN device_events e ON e.id = s.device_event "
          "JOIN devices d ON d.id = e.device WHERE d.device_id = 'DEVICE-A'",
          "SELECT t.* FROM device_tags t JOIN devices d ON d.id = t.device WHERE d.device_id = 'DEVICE-A'",
          "SELECT * FROM log_messages WHERE device_id = 'DEVICE-A'"}) {
        for (std::string& row : queryRows(db, sql)) {
            all.push_back(std::string(sql).substr(0, 40) + ": " + row);
        }
    }
    return all;
}

TEST(Robustness, RandomBodiesNeitherCrashNorLoseData) {
    ServerFixture fx;
    const std::string keyA = fx.startSession("DEVICE-A");
    const json linkA = fx.link(keyA, "11", "1").parsed().at("places").at(0);
    ASSERT_EQ(fx.link(keyA, "12", "1").status, 200);
    ASSERT_EQ(fx.client()
                  .post("/v1/deviceevent/update", json{{"sessionKey", keyA},
                                                       {"deviceEventId", linkA.at("deviceEventId")},
                                                       {"statusCode", "ack"}})
                  .status,
              200);
    ASSERT_EQ(
        fx.client()
            .post("/v1/devicetag/update",
                  json{{"sessionKey", keyA}, {"tag", "lang"}, {"tagValue", "de"}, {"groupTag", "profile"}})
            .status,
        200);
    ASSERT_EQ(fx.client()
                  .post("/v1/log", json{{"deviceid", "DEVICE-A"}, {"message", {{"session_started", {}}}}})
                  .status,
              200);
    const std::vector<std::string> before = tableRows(fx.dbPath());
    ASSERT_GT(before.size(), 10u);

    const std::string keyB = fx.startSession("FUZZ-B");
    const int64_t eventB =
        fx.link(keyB, "11", "2").parsed().at("places").at(0).at("deviceEventId").get<int64_t>();
    const std::map<std::string, json> templates = {
        {"/v1/session",
         {{"deviceId", "FUZZ-B"}, {"deviceType", "iOS"}, {"deviceModel", "iPhone"}, {"sdkkey", "test-key"}}},
        {"/v2/place",
         {{"sessionKey", keyB},
          {"coordinatesList", {{{"lat", "48.137"}, {"lon", "11.575"}}}},
          {"distanceThreshold", "8047"}}},
        {"/v1/deviceevent/link", {{"sessionKey", keyB}, {"eventId", "11"}, {"placeId", "2"}}},
        {"/v1/deviceevent/update", {{"sessionKey", keyB}, {"deviceEventId", eventB}, {"statusCode", "seen"}}},
        {"/v1/deviceevent/clear", {{"sessionKey", keyB}}},
        {"/v1/devicetag/update", {{"sessionKey", keyB}, {"tag", "t"}, {"tagValue", "v"}, {"groupTag", "g"}}},
        {"/v1/devicetag/delete", {{"sessionKey", keyB}, {"tag", "t"}, {"groupTag", "g"}}},
        {"/v1/log", {{"deviceid", "FUZZ-B"}, {"message", {{"fuzz", {{"timestamp", "1"}}}}}}},
    };

    RandomInput random(20240611);
    int answered = 0;
    for (const auto& [path, valid] : templates) {
        for (int i = 0; i < kBodiesPerEndpoint; ++i) {
            std::string body;
            switch (random.below(4)) {
                case 0:
                    body = random.bytes(300);
                    break;
                case 1:
                    body = random.damage(valid.dump());
                    break;
                default:
                    body = random.mutate(valid).dump(-1, ' ', false, json::error_handler_t::replace);
                    break;
            }
            const HttpResult r = fx.client().post(path, body);
            ASSERT_EQ(r.curlCode, 0) << path << " " << body;
            ASSERT_TRUE(r.status == 200 || r.status == 400 || r.status == 401 || r.status == 404)
                << path << " answered " << r.status << " " << r.body << " to " << body;
            if (r.status != 200) {
                const json error = r.parsed();
                ASSERT_TRUE(error.is_object() && error.contains("error")) << r.body;
            }
            ++answered;
        }
    }
    for (int i = 0; i < 50; ++i) {
        const std::string method = std::vector<std::string>{
            "GET", "PUT", "DELETE", "OPTIONS", "POST"}[static_cast<std::size_t>(random.below(5))];
        const HttpResult r =
            fx.client().request(method, "/v1/" + std::to_string(random.below(1000)), random.bytes(50));
        ASSERT_EQ(r.curlCode, 0);
        ASSERT_LT(r.status, 500);
    }
    EXPECT_EQ(answered, kBodiesPerEndpoint * static_cast<int>(templates.size()));

    EXPECT_EQ(tableRows(fx.dbPath()), before);
    const json again = fx.link(keyA, "11", "1").parsed().at("places").at(0);
    EXPECT_EQ(again.at("deviceEventId"), linkA.at("deviceEventId"));
    const HttpResult places = fx.places(keyA, 48.137, 11.575);
    ASSERT_EQ(places.status, 200);
    EXPECT_EQ(places.parsed().at("places").at(0).at("isLinked"), 1);
}

// An embedder that has read a body already (the simulator's in-process service) gets the answer its
// text gets, refusals included.
TEST(Robustness, ABodyReadAlreadyIsAnsweredAsItsText) {
    ServerFixture fx;
    const std::string key = fx.startSession("DEVICE-A");
    const json place{{"sessionKey", key},
                     {"coordinatesList", {{{"lat", "48.137"}, {"lon", "11.575"}}}},
                     {"distanceThreshold", "8047"}};
    std::string deep = "{\"sessionKey\":";
    for (int i = 0; i < 40; ++i) {
        deep += "[";
    }
    deep += std::string(40, ']') + "}";
    const std::vector<std::pair<std::string, std::string>> requests = {
        {"/v2/place", place.dump()},
        {"/v2/place",
         json{{"sessionKey", "unknown"}, {"coordinatesList", place.at("coordinatesList")}}.dump()},
        {"/v2/place", json{{"sessionKey", key}}.dump()},
        {"/v2/place", json{{"sessionKey", key}, {"coordinatesList", {{{"lat", "91"}, {"lon", "0"}}}}}.dump()},
        {"/v2/place", deep},
        {"/v2/place", json::array({1, 2}).dump()},
        {"/v1/log", json{{"deviceid", "DEVICE-A"}, {"message", std::string(300 * 1024, 'x')}}.dump()},
        {"/v1/log", json{{"deviceid", "DEVICE-A"}, {"message", json::array()}}.dump()},
        {"/v1/deviceevent/link", json{{"sessionKey", key}, {"eventId", "x"}, {"placeId", "1"}}.dump()},
        {"/v9/nothing", json::object().dump()},
    };
    for (const auto& [path, text] : requests) {
        const Reply asText = fx.server().handle(path, text, "http://media");
        const Reply asRead = fx.server().handle(path, text, json::parse(text), "http://media");
        EXPECT_EQ(asRead.status, asText.status) << path << " " << text.substr(0, 80);
        EXPECT_EQ(asRead.body, asText.body) << path << " " << text.substr(0, 80);
    }
}

// Place requests written plainly are answered without building a JSON value; the answer is the one the
// general reader gives, and whatever the plain reader does not take, the general reader answers.
TEST(Robustness, PlainPlaceRequestsAreAnsweredAsTheGeneralReaderAnswersThem) {
    ServerFixture fx;
    const std::string key = fx.startSession("DEVICE-A");
    ASSERT_EQ(fx.places(key, 48.137, 11.575).status, 200);
    const auto body = [&key](const std::string& lat, const std::string& lon, const std::string& threshold) {
        return R"({"sessionKey":")" + key + R"(","coordinatesList":[{"lat":)" + lat + R"(,"lon":)" + lon +
               R"(}],"distanceThreshold":)" + threshold + "}";
    };
    std::vector<std::string> texts = {
        body("48.137", "11.575", "8047"),
        body("\"48.137\"", "\"11.575\"", "\"8047\""),
        " \n{ \"distanceThreshold\" : 8047 , \"coordinatesList\" : [ { \"lon\" : 11.575 , \"lat\" : 48.137 } "
        "] , "
        "\"sessionKey\" : \"" +
            key + "\" } \t",
        R"({"sessionKey":")" + key + R"(","sessionKey":")" + key +
            R"(","coordinatesList":[{"lat":48,"lon":11}],"distanceThreshold":8047})",
        R"({"sessionKey":")" + key +
            R"(","coordinatesList":[{"lat":48,"lon":11},{"lat":1,"lon":1}],)"
            R"("distanceThreshold":8047})",
        R"({"sessionKey":")" + key +
            R"(","coordinatesList":[{"lat":48,"lon":11,"alt":3}],"distanceThreshold":1})",
        R"({"sessionKey":")" + key + R"(","coordinatesList":[],"distanceThreshold":1})",
        R"({"sessionKey":")" + key + R"(","coordinatesList":[{"lat":48,"lon":11}]})",
        R"({"sessionKey":")" + key +
            R"(","coordinatesList":[{"lat":48,"lon":11}],"distanceThreshold":1,"x":1})",
        R"({"\u0073essionKey":")" + key +
            R"(","coordinatesList":[{"lat":48,"lon":11}],"distanceThreshold":1})",
        R"({"sessionKey":"\u0041)" + key +
            R"(","coordinatesList":[{"lat":48,"lon":11}],"distanceThreshold":1})",
        R"({"sessionKey":"unknown","coordinatesList":[{"lat":48,"lon":11}],"distanceThreshold":1})",
        R"({"sessionKey":")" + std::string(300, 'k') +
            R"(","coordinatesList":[{"lat":48,"lon":11}],"distanceThreshold":1})",
        R"({"sessionKey":")" + key + R"(","coordinatesList":[{"lat":48,"lon":11}],"distanceThreshold":1,})",
        body("48", "11", "1") + "x",
        body("48", "11", "1") + "{}",
    };
    for (const char* number : {"-0",
                               "0",
                               "01",
                               "1.",
                               ".5",
                               "1e1",
                               "1E+1",
                               "4.8137e1",
                               "\"4.8137e1\"",
                               "\"+48\"",
                               "\" 48\"",
                               "\"48 \"",
                               "\"nan\"",
                               "\"inf\"",
                               "1e400",
                               "\"1e400\"",
                               "90",
                               "90.0000001",
                               "-90",
                               "-90.5",
                               "\"0x30\"",
                               "true",
                               "null",
                               "[48]",
                               "\"\"",
                               "-",
                               "48.1370000000000000000000001",
                               "2e-400",
                               "18446744073709551616",
                               "\"\u0034\"",
                               "\"48\u0000\""}) {
        texts.push_back(body(number, "11.575", "8047"));
        texts.push_back(body("48.137", number, "8047"));
        texts.push_back(body("48.137", "11.575", number));
    }
    RandomInput random(20261127);
    for (int i = 0; i < 400; ++i) {
        texts.push_back(random.damage(body("48.137154", "11.575400", "\"8047\"")));
    }
    for (const std::string& text : texts) {
        const Reply plain = fx.server().handle("/v2/place", text, "http://media");
        const json parsed = json::parse(text, nullptr, false);
        if (parsed.is_discarded()) {
            EXPECT_EQ(plain.status, 400) << text;
            continue;
        }
        const Reply general = fx.server().handle("/v2/place", text, parsed, "http://media");
        EXPECT_EQ(plain.status, general.status) << text;
        EXPECT_EQ(plain.body, general.body) << text;
    }
}

TEST(PlainLogBodies, AreKeptAsTheGeneralReaderKeepsThem) {
    ServerFixture fx;
    const std::string records =
        R"([{"distance_from_target":"12.500000","lat":"48.137154","lng":"11.575400","timestamp":"1750000001"}])";
    std::vector<std::string> texts = {
        R"({"deviceid":"D-1","message":{"targeting_updates":)" + records + "}}",
        R"({"message":{"bounding_area":[{"event_id":1029,"timestamp":"1"}]},"deviceid":"D-2"})",
        R"({"deviceid":"D-3","message":{"e":{"b":1,"a":2}}})",
        R"({"deviceid":"D-4","message":{"e":{"a":1,"a":2}}})",
        R"({"deviceid":"D-5","message":{"e":[1.5,-0,1e2,-0.0,18446744073709551616]}})",
        R"({"deviceid":"D-6","message":{"e":{"k":"a\/b\"c\\d\n"}}})",
        R"({"deviceid":"D-7","message":{"e":"caf\u00e9"}})",
        R"({ "deviceid" : "D-8", "message" : { "e" : [ true, null ] } })",
        R"({"deviceid":"D-9","message":{"e":{}},"deviceid":"D-10","extra":[{"x":1}]})",
        R"({"deviceid":"D-11","message":{"a":1,"b":2}})",
        R"({"deviceid":"D-12","message":{"":1}})",
        R"({"deviceid":")" + std::string(129, 'd') + R"(","message":{"e":1}})",
        R"({"deviceid":"D-13","message":{")" + std::string(129, 'e') + R"(":1}})",
        R"({"deviceid":13,"message":{"e":1}})",
        R"({"deviceid":"D-14","message":[{"e":1}]})",
        R"({"deviceid":"D-15"})",
        R"({"deviceid":"D-16","message":{"e":1}} x)",
        "{\"deviceid\":\"D-17\",\"message\":{\"e\":\"caf\xc3\xa9 \xe2\x82\xac\"}}",
        R"({"deviceid":"D-18","message":{"e":)" + std::string(40, '[') + std::string(40, ']') + "}}",
    };
    RandomInput random(20261127);
    for (int i = 0; i < 200; ++i) {
        texts.push_back(random.damage(texts[static_cast<std::size_t>(i % 3)]));
    }
    const auto lastKept = [&fx] {
        const auto rows =
            queryRows(fx.dbPath(), "SELECT device_id || '|' || message FROM log_messages ORDER BY id");
        return rows.empty() ? std::string() : rows.back();
    };
    for (const std::string& text : texts) {
        const Reply plain = fx.server().handle("/v1/log", text, "http://media");
        const std::string keptPlainly = lastKept();
        const json parsed = json::parse(text, nullptr, false);
        if (parsed.is_discarded() || !parsed.is_object()) {
            EXPECT_EQ(plain.status, 400) << text;
            continue;
        }
        const Reply general = fx.server().handle("/v1/log", text, parsed, "http://media");
        EXPECT_EQ(plain.status, general.status) << text;
        EXPECT_EQ(plain.body, general.body) << text;
        EXPECT_EQ(keptPlainly, lastKept()) << text;
    }
}

}  // namespace
}  // namespace tovrel::server::test
