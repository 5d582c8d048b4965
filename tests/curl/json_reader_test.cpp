#include "tovrel/curl/json_reader.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <string>
#include <vector>

namespace tovrel::curl {
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

/// The reader must give exactly what the full parser gives: the value, the problem and the message.
void expectSameAsFullParser(std::string_view text) {
    const platform::JsonText fast = readJsonText(text);
    const platform::JsonText full = platform::parseJsonText(text);
    EXPECT_EQ(fast.ok(), full.ok()) << text;
    EXPECT_EQ(fast.problem, full.problem) << text;
    EXPECT_EQ(fast.error, full.error) << text;
    EXPECT_TRUE(identical(fast.value, full.value))
        << text << ": " << fast.value.dump() << " against " << full.value.dump();
}

TEST(ReadJsonText, ReadsAPlaceAnswerAsTheFullParserDoes) {
    const std::string answer =
        R"({"places":[{"alertText":"Summer collection 30% off.","campaignName":"Old Town Cafés",)"
        R"("centroidLat":48.13815,"centroidLon":11.5718,"centroidRadius":90.0,"dwellTime":0,)"
        R"("endDate":"2035-10-31","eventId":"1029","eventTypeId":3,"isLinked":0,"mediaURL":)"
        R"("http://127.0.0.1:8080/media/offer-1029.html","tags":"shopping,food"},{"eventId":"1030",)"
        R"("centroidLat":-0.0,"centroidLon":1e-7,"centroidRadius":1E+2,"isLinked":1}]})";
    const platform::JsonText read = readJsonText(answer);
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
          "1.7976931348623157e308", "1e309", "-1e309", "[1,-1,1.5,-1.5]"}) {
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
    const std::string atLimit =
        std::string(platform::kMaxJsonNesting, '[') + std::string(platform::kMaxJsonNesting, ']');
    EXPECT_TRUE(readJsonText(atLimit).ok());
    expectSameAsFullParser(atLimit);
    const std::string beyond = '[' + atLimit + ']';
    EXPECT_EQ(readJsonText(beyond).problem, platform::JsonTextProblem::kNesting);
    expectSameAsFullParser(beyond);
    // Brackets inside strings do not nest.
    expectSameAsFullParser("[\"" + std::string(200, '[') + "\"]");
}

}  // namespace
}  // namespace tovrel::curl
