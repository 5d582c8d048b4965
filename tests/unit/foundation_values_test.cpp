#include <gtest/gtest.h>

#include <array>
#include <cstdio>
#include <limits>
#include <random>
#include <string>

#include "foundation/format.h"
#include "foundation/log.h"
#include "foundation/value.h"

namespace tovrel {
namespace {

TEST(IntegerValue, ReadsLeadingNumericTextOfStrings) {
    EXPECT_EQ(integerValue(Json("5")), 5);
    EXPECT_EQ(integerValue(Json("  42abc")), 42);
    EXPECT_EQ(integerValue(Json("-17")), -17);
    EXPECT_EQ(integerValue(Json("+8")), 8);
    EXPECT_EQ(integerValue(Json("12.9")), 12);
    EXPECT_EQ(integerValue(Json("abc")), 0);
    EXPECT_EQ(integerValue(Json("")), 0);
    EXPECT_EQ(integerValue(Json("- 5")), 0);
}

TEST(IntegerValue, TruncatesNumbersAndZeroesEverythingElse) {
    EXPECT_EQ(integerValue(Json(2.9)), 2);
    EXPECT_EQ(integerValue(Json(-2.9)), -2);
    EXPECT_EQ(integerValue(Json(7)), 7);
    EXPECT_EQ(integerValue(Json(nullptr)), 0);
    EXPECT_EQ(integerValue(Json()), 0);
    EXPECT_EQ(integerValue(Json::array({1, 2})), 0);
    EXPECT_EQ(integerValue(Json::object({{"a", 1}})), 0);
    EXPECT_EQ(integerValue(Json(true)), 1);
}

TEST(IntegerValue, SaturatesInsteadOfOverflowing) {
    EXPECT_EQ(integerValue(Json("99999999999999999999999")), std::numeric_limits<long long>::max());
    EXPECT_EQ(integerValue(Json("-99999999999999999999999")), std::numeric_limits<long long>::min());
    EXPECT_EQ(integerValue(Json(1e300)), std::numeric_limits<long long>::max());
    EXPECT_EQ(integerValue(Json(std::numeric_limits<double>::quiet_NaN())), 0);
    EXPECT_EQ(intValue(Json("4294967296")), std::numeric_limits<int>::max());
    EXPECT_EQ(intValue(Json("-4294967296")), std::numeric_limits<int>::min());
    EXPECT_EQ(intValue(Json(1e12)), std::numeric_limits<int>::max());
}

TEST(IntValue, IsA32BitConversion) {
    EXPECT_EQ(intValue(Json("5")), 5);
    EXPECT_EQ(intValue(Json(2.9)), 2);
    EXPECT_EQ(intValue(Json(-1)), -1);
    EXPECT_EQ(intValue(Json(4294967297LL)), 1);  // integers wrap like a 32-bit cast
    EXPECT_EQ(intValue(Json(nullptr)), 0);
}

TEST(DoubleValue, ReadsDecimalPrefixesOnly) {
    EXPECT_DOUBLE_EQ(doubleValue(Json("48.1371539")), 48.1371539);
    EXPECT_DOUBLE_EQ(doubleValue(Json(" -11.5xyz")), -11.5);
    EXPECT_DOUBLE_EQ(doubleValue(Json("1e3")), 1000);
    EXPECT_DOUBLE_EQ(doubleValue(Json("2e")), 2);
    EXPECT_DOUBLE_EQ(doubleValue(Json(".5")), 0.5);
    EXPECT_DOUBLE_EQ(doubleValue(Json("0x10")), 0);
    EXPECT_DOUBLE_EQ(doubleValue(Json("nan")), 0);
    EXPECT_DOUBLE_EQ(doubleValue(Json("inf")), 0);
    EXPECT_DOUBLE_EQ(doubleValue(Json("-")), 0);
    EXPECT_DOUBLE_EQ(doubleValue(Json(nullptr)), 0);
    EXPECT_EQ(doubleValue(Json("1e999")), std::numeric_limits<double>::infinity());
    EXPECT_DOUBLE_EQ(doubleValue(Json("1e-999")), 0);
}

TEST(FloatValue, RoundsToSinglePrecision) {
    EXPECT_EQ(floatValue(Json(48.1371539)), 48.1371539f);
    EXPECT_NE(static_cast<double>(floatValue(Json(48.1371539))), 48.1371539);
}

TEST(MemberLookups, TolerateNonObjects) {
    EXPECT_EQ(integerValueFor(Json::array(), "x"), 0);
    EXPECT_EQ(integerValueFor(Json("text"), "x"), 0);
    EXPECT_EQ(integerValueFor(Json{{"x", "7"}}, "x"), 7);
    EXPECT_TRUE(memberOrNull(Json{{"y", 1}}, "x").is_null());
}

TEST(Formats, MatchThePrintfForms) {
    EXPECT_EQ(formatF(48.1371539), "48.137154");
    EXPECT_EQ(formatF(11.5754), "11.575400");
    EXPECT_EQ(format0f(1700000000.6), "1700000001");
    EXPECT_EQ(format0f(-1), "-1");
    EXPECT_EQ(format0f(2.5), "2");  // round half to even, as printf does
    EXPECT_EQ(formatD(-42), "-42");
    EXPECT_EQ(formatLd(1234567890123L), "1234567890123");
}

TEST(Formats, FixedPointAgreesWithPrintfAtItsEdges) {
    std::array<char, 512> text{};
    const auto printfF = [&text](double value) {
        std::snprintf(text.data(), text.size(), "%f", value);
        return std::string(text.data());
    };
    const auto printf0f = [&text](double value) {
        std::snprintf(text.data(), text.size(), "%0.f", value);
        return std::string(text.data());
    };
    // Exact ties (2.5 to a whole number, 1/128 to six places; 0.0000005 is none), negative zero, values too
    // long for a short buffer, the smallest and largest doubles, and what is not a number.
    const auto expectPrintfs = [&](double value) {
        EXPECT_EQ(formatF(value), printfF(value)) << value;
        EXPECT_EQ(format0f(value), printf0f(value)) << value;
        std::string appended = "x";
        appendFormatF(appended, value);
        EXPECT_EQ(appended, "x" + printfF(value)) << value;
        appended = "x";
        appendFormat0f(appended, value);
        EXPECT_EQ(appended, "x" + printf0f(value)) << value;
    };
    std::mt19937_64 rng(20261127);
    for (int i = 0; i < 20'000; ++i) {
        // Whole and half numbers up to 2^54, and values of every magnitude.
        const double scale = std::ldexp(1.0, static_cast<int>(rng() % 60) - 4);
        expectPrintfs(std::floor(static_cast<double>(rng() % 1'000'000) * scale) / 2 *
                      (rng() % 2 == 0 ? 1 : -1));
        expectPrintfs(std::uniform_real_distribution<double>(-1, 1)(rng) * scale);
    }
    for (const double value : {0.0, -0.0, 0.5, 1.5, 2.5, -2.5, 0.0078125, 0.0234375, 0.0000005, 0.0000015,
                               -0.0000004, 48.1371535, 1e15 + 0.5, 1e22, -1e300}) {
        expectPrintfs(value);
    }
    using limits = std::numeric_limits<double>;
    for (const double value : {limits::denorm_min(), limits::max(), limits::infinity(), -limits::infinity(),
                               limits::quiet_NaN(), -limits::quiet_NaN()}) {
        expectPrintfs(value);
    }
}

TEST(Describe, PrintsObjectsAsTheyStand) {
    EXPECT_EQ(describe(Json("abc")), "abc");
    EXPECT_EQ(describe(Json(12)), "12");
    EXPECT_EQ(describe(Json(48.1)), "48.1");
    EXPECT_EQ(describe(Json()), "(null)");
}

class CapturingSink : public platform::LogSink {
  public:
    void write(std::string_view line) override { last = line; }
    std::string last;
};

struct Widget {
    void act(CapturingSink& sink) { TOVREL_LOG(sink, "moved %d m", 5); }
    void inLambda(CapturingSink& sink) {
        [&sink] { TOVREL_LOG(sink, "inside"); }();
    }
};

TEST(LogLine, NamesTheFunctionAndLine) {
    CapturingSink sink;
    Widget().act(sink);
    EXPECT_NE(sink.last.find("Widget::act [Line "), std::string::npos) << sink.last;
    EXPECT_EQ(sink.last.find("void"), std::string::npos) << sink.last;
    EXPECT_TRUE(sink.last.ends_with("] moved 5 m")) << sink.last;
    Widget().inLambda(sink);
    EXPECT_NE(sink.last.find("Widget::inLambda [Line "), std::string::npos) << sink.last;
}

TEST(LogLine, StripsReturnTypesAndTemplates) {
    EXPECT_EQ(functionName("void tovrel::SessionManager::startSession(const std::string&)"),
              "SessionManager::startSession");
    EXPECT_EQ(
        functionName("std::optional<std::basic_string<char> > tovrel::SessionManager::requestSession(int)"),
        "SessionManager::requestSession");
    EXPECT_EQ(functionName("int main()"), "main");
}

}  // namespace
}  // namespace tovrel
