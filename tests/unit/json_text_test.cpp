#include <gtest/gtest.h>

#include <charconv>
#include <cmath>
#include <cstring>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "foundation/json_writer.h"
#include "tovrel/place_record.h"
#include "tovrel/platform/json_scanner.h"

namespace tovrel::platform {
namespace {

using nlohmann::json;

/// Whether two values are the same down to the kind of every number and the bits of every double
/// (operator== takes 1, 1u and 1.0 for one another).
bool identical(const json& a, const json& b) {
    if (a.type() != b.type()) {
        return false;
    }
    switch (a.type()) {
        case json::value_t::object: {
            if (a.size() != b.size()) {
                return false;
            }
            for (auto i = a.begin(), j = b.begin(); i != a.end(); ++i, ++j) {
                if (i.key() != j.key() || !identical(*i, *j)) {
                    return false;
                }
            }
            return true;
        }
        case json::value_t::array: {
            if (a.size() != b.size()) {
                return false;
            }
            for (std::size_t i = 0; i < a.size(); ++i) {
                if (!identical(a[i], b[i])) {
                    return false;
                }
            }
            return true;
        }
        case json::value_t::number_float: {
            const double x = a.get<double>();
            const double y = b.get<double>();
            return std::memcmp(&x, &y, sizeof x) == 0;
        }
        case json::value_t::discarded:
            return true;  // == holds for no discarded value
        default:
            return a == b;
    }
}

/// The reader must give exactly what the full parser gives: the value, the problem and the message;
/// the checker the same judgement.
void expectSameAsFullParser(std::string_view text) {
    const JsonText fast = readJsonText(text);
    const JsonText full = parseJsonText(text);
    EXPECT_EQ(fast.ok(), full.ok()) << text;
    EXPECT_EQ(fast.problem, full.problem) << text;
    EXPECT_EQ(fast.error, full.error) << text;
    EXPECT_TRUE(identical(fast.value, full.value))
        << text << ": " << fast.value.dump() << " against " << full.value.dump();
    const JsonText checked = checkJsonText(text);
    EXPECT_EQ(checked.problem, full.problem) << text;
    EXPECT_EQ(checked.error, full.error) << text;
}

TEST(ReadJsonText, ReadsAPlaceAnswerAsTheFullParserDoes) {
    const std::string answer =
        R"({"places":[{"alertText":"Summer collection 30% off.","campaignName":"Old Town Cafés",)"
        R"("centroidLat":48.13815,"centroidLon":11.5718,"centroidRadius":90.0,"dwellTime":0,)"
        R"("endDate":"2035-10-31","eventId":"1029","eventTypeId":3,"isLinked":0,"mediaURL":)"
        R"("http://127.0.0.1:8080/media/offer-1029.html","tags":"shopping,food"},{"eventId":"1030",)"
        R"("centroidLat":-0.0,"centroidLon":1e-7,"centroidRadius":1E+2,"isLinked":1}]})";
    const JsonText read = readJsonText(answer);
    ASSERT_TRUE(read.ok()) << read.error;
    EXPECT_EQ(read.value["places"][0]["campaignName"], "Old Town Cafés");
    expectSameAsFullParser(answer);
}

TEST(ReadJsonText, KeepsTheKindOfEveryNumber) {
    // clang-format off
    for (std::string_view text :
         {"0", "-0", "-0.0", "1.0", "1e2", "1E-2", "-12.5e+3", "9223372036854775807", "9223372036854775808",
          "-9223372036854775808", "-9223372036854775809", "18446744073709551615", "18446744073709551616",
          "123456789012345678901234567890", "0.1", "2.2250738585072011e-308", "4.9e-324", "1e-400",
          "1.7976931348623157e308", "1e309", "-1e309", "[1,-1,1.5,-1.5]", "48.13762", "-11.5718", "1e22",
          "1e23", "1e-22", "1e-23", "123456789012345e7", "1234567890123456e1", "0.000123456789012345",
          "9007199254740993.0", "4.35e-20", "0.30000000000000004", "1.00000000000000000000", "1e0000000000000000001",
          "8.98846567431158e307", "2.2250738585072014e-308"}) {
        // clang-format on
        expectSameAsFullParser(text);
    }
}

TEST(ReadJsonText, ReadsStringsAndEscapesAsTheFullParserDoes) {
    // clang-format off
    for (std::string_view text :
         {R"("")", R"("plain")", R"("a\"b\\c\/d\b\f\n\r\t")", R"("\u00e9\ud83d\ude00")", R"("\ud83d")",
          R"("\u12")", R"("\x")", "\"tab\there\"", "\"del\x7f\"", "\"caf\xc3\xa9\"", "\"\xe2\x82\xac\"",
          "\"\xf0\x9f\x98\x80\"", "\"\xc3\"", "\"\xc0\xaf\"", "\"\xe0\x80\xaf\"", "\"\xed\xa0\x80\"",
          "\"\xf4\x90\x80\x80\"", "\"\xf5\x80\x80\x80\"", "\"\x80\"", "\"unterminated", R"("ends\)"}) {
        // clang-format on
        expectSameAsFullParser(text);
    }
    expectSameAsFullParser(std::string_view("\"nul\0inside\"", 12));
}

TEST(ReadDouble, ReadsEveryDecimalAsFromCharsDoes) {
    std::mt19937_64 rng(20261127);
    const auto sameAsFromChars = [](const std::string& text) {
        double expected = 0;
        const auto read = std::from_chars(text.data(), text.data() + text.size(), expected);
        const bool whole = read.ec == std::errc() && read.ptr == text.data() + text.size();
        const std::optional<double> got = readDouble(text);
        ASSERT_EQ(got.has_value(), whole) << text;
        if (whole) {
            ASSERT_EQ(std::memcmp(&*got, &expected, sizeof expected), 0) << text;
        }
    };
    for (int i = 0; i < 100'000; ++i) {
        const int digits = 1 + static_cast<int>(rng() % 19);
        std::string mantissa =
            std::to_string(rng() % 10'000'000'000'000'000'000ULL).substr(0, static_cast<std::size_t>(digits));
        const auto point = static_cast<std::size_t>(rng() % (mantissa.size() + 1));
        std::string text =
            (rng() % 2 == 0 ? "-" : "") + mantissa.insert(point, point == mantissa.size() ? "" : ".");
        if (rng() % 3 == 0) {
            text += (rng() % 2 == 0 ? "e" : "E") + std::string(rng() % 2 == 0 ? "-" : "+") +
                    std::to_string(rng() % 40);
        }
        sameAsFromChars(text);
    }
    for (const char* text : {"",
                             "-",
                             ".5",
                             "1.",
                             "1e",
                             "1e+",
                             "007",
                             "-0",
                             "-0.0",
                             "inf",
                             "nan",
                             "0x10",
                             "1e400",
                             "1e-400",
                             "4.9e-324",
                             "1.7976931348623157e308",
                             "123456789012345678901234567890",
                             "0.000000000000000000000000000001",
                             "1e00000000000000000000000000000000001",
                             " 1",
                             "1 "}) {
        sameAsFromChars(text);
    }
}

TEST(JsonScanner, SkippingCheckedTextEndsWhereCheckingItEnds) {
    // clang-format off
    for (std::string_view text : {R"({"a":"x\\\"y","b":[1,{"c":"]}"}],"d":-1.5e3,"e":true,"f":null},0)",
                                  R"(["\\",["\\\\"],{}],0)", R"("tail\\\\",0)", "17,0", " [ 1 , 2 ] ,0",
                                  "-0.5e-3}"}) {
        // clang-format on
        JsonScanner checking(text);
        JsonScanner stepping(text);
        ASSERT_TRUE(checking.skip()) << text;
        ASSERT_TRUE(stepping.skipChecked()) << text;
        EXPECT_EQ(stepping.position(), checking.position()) << text;
    }
    // Escapes the checker leaves to the full parser are stepped over all the same.
    const std::string_view escaped = R"({"k":"\u0022"}])";
    JsonScanner stepping(escaped);
    ASSERT_TRUE(stepping.skipChecked());
    EXPECT_EQ(stepping.position(), escaped.data() + escaped.size() - 1);
    // Whatever the bytes, stepping stays inside them.
    std::mt19937 rng(20261127);
    for (int i = 0; i < 5000; ++i) {
        std::string bytes(static_cast<std::size_t>(rng() % 40), '\0');
        for (char& c : bytes) {
            c = "{}[]\"\\,: a1"[rng() % 12];
        }
        for (std::string_view rest = bytes; !rest.empty(); rest.remove_prefix(1)) {
            JsonScanner scanner(rest);
            (void)scanner.skipChecked();
            ASSERT_LE(scanner.position(), rest.data() + rest.size());
            ASSERT_GE(scanner.position(), rest.data());
        }
    }
}

TEST(ReadJsonText, StringsReadEightBytesAtATimeStopAtEveryByteThatNeedsAttention) {
    // Each byte that ends a plain run, at every offset of the first two words and past them.
    for (std::string_view special : {"\\\"", "\\n", "\xc3\xa9", "\x01", "\x7f", "\"", "\xff"}) {
        for (std::size_t before = 0; before < 20; ++before) {
            const std::string text = '"' + std::string(before, 'a') + std::string(special) + "bcdefghijk\"";
            expectSameAsFullParser(text);
            expectSameAsFullParser("[" + text + "]");
        }
    }
}

TEST(ReadJsonText, RefusesWhatTheFullParserRefusesWithItsMessage) {
    // clang-format off
    for (std::string_view text :
         {"", " ", "{", "}", "[", "[1,]", "[,1]", "{,}", R"({"a"})", R"({"a":})", R"({"a":1,})", R"({"a" 1})",
          R"({1:2})", "[1 2]", "01", "-", "1.", ".5", "1e", "1e+", "+1", "tru", "truex", "nul", "NaN",
          "Infinity", "[] []", "{}x", "// comment\n{}", "\xef\xbb\xbf{}", "\xef\xbb{}", "'a'",
          "[\"a\"\x01]"}) {
        // clang-format on
        expectSameAsFullParser(text);
    }
}

TEST(ReadJsonText, RepeatedKeysAndUnsortedMembersEndAsWithTheFullParser) {
    // clang-format off
    for (std::string_view text : {R"({"b":1,"a":2,"b":3})", R"({"a":{"x":1},"a":[2]})", R"({"z":0,"y":1,"x":2})",
                                  R"({"a":{"b":{"c":[{"d":null}]}}})", " \t\r\n{ \"a\" : [ true , false ] } \n"}) {
        // clang-format on
        expectSameAsFullParser(text);
    }
}

TEST(ReadJsonText, NestingAtTheLimitIsReadAndBeyondItRefused) {
    const std::string atLimit = std::string(kMaxJsonNesting, '[') + std::string(kMaxJsonNesting, ']');
    EXPECT_TRUE(readJsonText(atLimit).ok());
    expectSameAsFullParser(atLimit);
    const std::string beyond = '[' + atLimit + ']';
    EXPECT_EQ(readJsonText(beyond).problem, JsonTextProblem::kNesting);
    expectSameAsFullParser(beyond);
    // Brackets inside strings do not nest.
    expectSameAsFullParser("[\"" + std::string(200, '[') + "\"]");
}

}  // namespace
}  // namespace tovrel::platform

namespace tovrel {
namespace {

using Json = nlohmann::json;

/// The records of an answer as the parsed tree gives them.
PlaceAnswer readFromTree(std::string_view text) {
    PlaceAnswer answer;
    const auto parsed = platform::parseJsonText(text);
    if (!parsed.ok() || !parsed.value.is_object() || !parsed.value.contains("places")) {
        return answer;
    }
    const Json& places = parsed.value["places"];
    if (!places.is_array()) {
        answer.placesKind = places.type_name();
        return answer;
    }
    for (const Json& record : places) {
        answer.places.push_back(PlaceRecord::read(record));
    }
    return answer;
}

void expectSameAsTree(std::string_view text) {
    const PlaceAnswer read = readPlaceAnswer(text);
    const PlaceAnswer tree = readFromTree(text);
    EXPECT_EQ(read.placesKind, tree.placesKind) << text;
    ASSERT_EQ(read.places.size(), tree.places.size()) << text;
    for (std::size_t i = 0; i < read.places.size(); ++i) {
        const PlaceRecord& a = read.places[i];
        const PlaceRecord& b = tree.places[i];
        const auto same = [](double x, double y) { return std::memcmp(&x, &y, sizeof x) == 0; };
        EXPECT_TRUE(same(a.latitude, b.latitude) && same(a.longitude, b.longitude) &&
                    same(a.radius, b.radius))
            << text;
        EXPECT_EQ(a.dwellTime, b.dwellTime) << text;
        EXPECT_EQ(a.eventTypeId, b.eventTypeId) << text;
        for (const auto member :
             {&PlaceRecord::centroidLat, &PlaceRecord::centroidLon, &PlaceRecord::placeId,
              &PlaceRecord::eventId, &PlaceRecord::eventName, &PlaceRecord::alertText,
              &PlaceRecord::mediaType, &PlaceRecord::mediaURL, &PlaceRecord::mediaUrl,
              &PlaceRecord::campaignName, &PlaceRecord::endDate, &PlaceRecord::isLinked}) {
            EXPECT_EQ((a.*member).dump(), (b.*member).dump()) << text;
        }
    }
}

TEST(ReadPlaceAnswer, GivesEveryRecordAsTheParsedTreeDoes) {
    // clang-format off
    for (std::string_view text : {
             R"({"places":[{"alertText":"30% off","campaignName":"Old Town Cafés","centroidLat":48.13815,)"
             R"("centroidLon":11.5718,"centroidRadius":90.0,"dwellTime":5,"endDate":"2035-10-31","eventId":"1029",)"
             R"("eventName":"Brass \"Band\"","eventTypeId":3,"isLinked":0,"mediaType":"html","mediaURL":"http:\/\/x",)"
             R"("mediaUrl":"http://x","placeId":"113","startDate":"2020","tags":"a,b"}]})",
             R"({"other":[1,{"places":2}],"places":[{"eventId":1,"eventId":"2"},7,null,[],{"centroidLat":"48.5abc"}]})",
             R"({"places":[{"eventId":"1"}],"places":[{"eventId":"2"}]})",
             R"({"places":[{"eventId":"1"}],"places":"later"})",
             R"({"places":{"eventId":"1"}})", R"({"places":null})", R"({"places":true})", R"({"places":-1.5})",
             R"({"places":[{"eventName":{"nested":[1,2]},"isLinked":[1],"dwellTime":"12","eventTypeId":4294967298.0}]})",
             R"({"places":[{"eventName":"caf\u00e9","centroidRadius":1e400}]})",
             R"({"places":[{"centroidRadius":-0.0,"centroidLat":18446744073709551616,"dwellTime":-3}]})",
             R"([{"places":[]}])", "17", "", "{", R"({"places":[{"eventId":"1"},]})", " {\"places\" : [ { } ] } ",
         }) {
        // clang-format on
        expectSameAsTree(text);
    }
}

TEST(ReadPlaceAnswer, NestingBeyondTheLimitGivesNoRecords) {
    const std::string deep =
        R"({"places":[{"eventName":)" + std::string(70, '[') + std::string(70, ']') + "}]}";
    expectSameAsTree(deep);
    EXPECT_TRUE(readPlaceAnswer(deep).places.empty());
}

TEST(JsonWriter, WritesStringsAndValuesAsADumpPrintsThem) {
    // clang-format off
    for (std::string_view text : {"", "plain", "quote\"", "back\\slash", "tab\tnew\nline", "\x01\x1f", "\x7f",
                                  "caf\xc3\xa9", "bad \xc3 utf", "\xff\xfe", "/slash"}) {
        // clang-format on
        const Json value = std::string(text);
        std::string written;
        appendJsonString(written, text);
        EXPECT_EQ(written, value.dump(-1, ' ', false, Json::error_handler_t::replace)) << text;
        written.clear();
        appendJson(written, value);
        EXPECT_EQ(written, value.dump(-1, ' ', false, Json::error_handler_t::replace)) << text;
    }
    std::string members = "{";
    appendMemberName(members, "a", true);
    appendJson(members, Json{{"x", 1.5}, {"b", nullptr}});
    appendMemberName(members, "b");
    appendJson(members, 17);
    members += '}';
    EXPECT_EQ(members, Json({{"a", {{"x", 1.5}, {"b", nullptr}}}, {"b", 17}}).dump());
}

}  // namespace
}  // namespace tovrel
