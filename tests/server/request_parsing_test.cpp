// Reading request members, paths and listen addresses; the per-address request budget.
#include <gtest/gtest.h>

#include "common/rate_limiter.h"
#include "common/request_fields.h"
#include "http/listen_address.h"
#include "http/static_files.h"

namespace tovrel::server {
namespace {

using nlohmann::json;

unsigned statusOf(const std::function<void()>& f) {
    try {
        f();
    } catch (const ApiError& e) {
        return e.status();
    }
    return 200;
}

TEST(RequestFields, NumbersMayArriveAsNumbersOrNumericStrings) {
    const json req =
        json::parse(R"({"a": 48.137154, "b": "48.137154", "c": "8047", "d": 8047, "e": "-0.5e1"})");
    EXPECT_DOUBLE_EQ(requireNumber(req, "a", -90, 90), 48.137154);
    EXPECT_DOUBLE_EQ(requireNumber(req, "b", -90, 90), 48.137154);
    EXPECT_DOUBLE_EQ(requireNumber(req, "c", 0, 1e8), 8047);
    EXPECT_DOUBLE_EQ(requireNumber(req, "d", 0, 1e8), 8047);
    EXPECT_DOUBLE_EQ(requireNumber(req, "e", -10, 10), -5);
}

TEST(RequestFields, AnythingElseIsABadRequest) {
    const json req = json::parse(
        R"({"s1": "48.1x", "s2": " 48", "s3": "", "s4": "nan", "s5": "inf", "s6": "+1", "b": true, "n": null,
            "a": [1], "o": {}, "big": 1e300, "neg": -91})");
    for (const char* name :
         {"s1", "s2", "s3", "s4", "s5", "s6", "b", "n", "a", "o", "big", "neg", "missing"}) {
        EXPECT_EQ(statusOf([&] { requireNumber(req, name, -90, 90); }), 400u) << name;
    }
}

TEST(RequestFields, IdentifiersAreWholeAndNotNegative) {
    const json req = json::parse(
        R"({"s": "17", "n": 17, "zero": "0", "neg": -1, "f": 17.0, "sf": "17.0", "sx": "17x", "e": "",
            "huge": 18446744073709551615, "hugeText": "99999999999999999999", "sneg": "-3"})");
    EXPECT_EQ(requireId(req, "s"), 17);
    EXPECT_EQ(requireId(req, "n"), 17);
    EXPECT_EQ(requireId(req, "zero"), 0);
    for (const char* name : {"neg", "f", "sf", "sx", "e", "huge", "hugeText", "sneg", "missing"}) {
        EXPECT_EQ(statusOf([&] { requireId(req, name); }), 400u) << name;
    }
}

TEST(RequestFields, StringsAreStringsWithinTheirLimitAndWithoutNul) {
    const json req = json::parse(R"({"s": "xyz", "n": 1, "nul": "a\u0000b", "utf8": "\u00e9\u00e9"})");
    EXPECT_EQ(requireString(req, "s", 3), "xyz");
    EXPECT_EQ(optionalString(req, "s", 3, ""), "xyz");
    EXPECT_EQ(optionalString(req, "missing", 3, "fallback"), "fallback");
    // The limit counts bytes: two two-byte characters are four.
    EXPECT_EQ(requireString(req, "utf8", 4), "\xc3\xa9\xc3\xa9");
    for (const char* name : {"n", "missing", "nul"}) {
        EXPECT_EQ(statusOf([&] { requireString(req, name, 100); }), 400u) << name;
    }
    EXPECT_EQ(statusOf([&] { optionalString(req, "n", 100, ""); }), 400u);
    EXPECT_EQ(statusOf([&] { optionalString(req, "nul", 100, ""); }), 400u);
    for (const char* name : {"s", "utf8"}) {
        try {
            requireString(req, name, std::string(name) == "s" ? 2 : 3);
            ADD_FAILURE() << name << " passed its limit";
        } catch (const ApiError& e) {
            EXPECT_EQ(e.status(), 400u);
            EXPECT_NE(std::string(e.what()).find(std::string("\"") + name + "\""), std::string::npos)
                << e.what();
        }
    }
}

TEST(RequestFields, BodiesMustBeShallowJsonObjects) {
    EXPECT_TRUE(parseObjectBody(R"({"a": [[["]]]]]]]]"]]]})").is_object());
    EXPECT_EQ(statusOf([] { parseObjectBody("[]"); }), 400u);
    EXPECT_EQ(statusOf([] { parseObjectBody(""); }), 400u);
    EXPECT_EQ(statusOf([] { parseObjectBody(R"({"a": 1} trailing)"); }), 400u);
    EXPECT_EQ(statusOf([] { parseObjectBody("{\"a\": \"\xc3\x28\"}"); }), 400u);
    EXPECT_EQ(
        statusOf([] { parseObjectBody("{\"a\":" + std::string(40, '[') + std::string(40, ']') + "}"); }),
        400u);
}

TEST(StaticPaths, PercentDecoding) {
    EXPECT_EQ(percentDecode("/a%20b%2Fc"), "/a b/c");
    EXPECT_EQ(percentDecode("/%e2%82%ac"), "/\xe2\x82\xac");
    EXPECT_FALSE(percentDecode("/a%2"));
    EXPECT_FALSE(percentDecode("/a%"));
    EXPECT_FALSE(percentDecode("/a%g0"));
}

TEST(StaticPaths, ContentTypes) {
    EXPECT_EQ(contentTypeFor("a/b.html"), "text/html; charset=utf-8");
    EXPECT_EQ(contentTypeFor("b.HTM"), "text/html; charset=utf-8");
    EXPECT_EQ(contentTypeFor("x.svg"), "image/svg+xml");
    EXPECT_EQ(contentTypeFor("x.json"), "application/json");
    EXPECT_EQ(contentTypeFor("Makefile"), "application/octet-stream");
}

TEST(StaticPaths, NoFolderServesNothing) {
    const StaticFiles none("");
    EXPECT_EQ(none.resolve("/appcontent/about.html").status, 404u);
    EXPECT_EQ(none.resolve("relative").status, 400u);
    EXPECT_THROW(StaticFiles("/no/such/folder/anywhere"), std::runtime_error);
}

TEST(ListenAddresses, HostAndPort) {
    EXPECT_EQ(parseListenAddress("127.0.0.1:8080").host, "127.0.0.1");
    EXPECT_EQ(parseListenAddress("127.0.0.1:8080").port, 8080);
    EXPECT_EQ(parseListenAddress("[::1]:0").host, "::1");
    EXPECT_EQ(parseListenAddress(":9000").host, "127.0.0.1");
    for (const char* bad : {"127.0.0.1", "127.0.0.1:", "127.0.0.1:65536", "127.0.0.1:http", "::1:80"}) {
        EXPECT_THROW(parseListenAddress(bad), std::invalid_argument) << bad;
    }
}

TEST(RateLimiter, EachAddressHasItsOwnBucketThatRefillsWithTime) {
    RateLimiter limiter(10, 20);
    int allowed = 0;
    for (int i = 0; i < 50; ++i) {
        allowed += limiter.allow("10.0.0.1", 100.0) ? 1 : 0;
    }
    EXPECT_EQ(allowed, 20);  // the burst, then nothing at the same instant
    EXPECT_EQ(limiter.limited(), 30u);
    EXPECT_TRUE(limiter.allow("10.0.0.2", 100.0));  // another client is not affected
    EXPECT_FALSE(limiter.allow("10.0.0.1", 100.05));
    // 0.15 s more refill 1.5 tokens (2 with the half left), at 10 a second.
    EXPECT_TRUE(limiter.allow("10.0.0.1", 100.2));
    EXPECT_TRUE(limiter.allow("10.0.0.1", 100.2));
    EXPECT_FALSE(limiter.allow("10.0.0.1", 99.0));        // a clock that steps back refills nothing
    EXPECT_TRUE(RateLimiter(0, 0).allow("10.0.0.1", 0));  // off
}

TEST(RateLimiter, MemoryIsBoundedByForgettingIdleAddresses) {
    RateLimiter limiter(1, 1, 3);
    for (const char* address : {"a", "b", "c"}) {
        EXPECT_TRUE(limiter.allow(address, 0));
    }
    // All three are active: a fourth address goes unlimited rather than evicting one of them.
    EXPECT_TRUE(limiter.allow("d", 0.5));
    EXPECT_TRUE(limiter.allow("d", 0.5));
    EXPECT_FALSE(limiter.allow("a", 0.5));
    // Once they have refilled they are forgotten and a new address gets a bucket again.
    EXPECT_TRUE(limiter.allow("e", 5));
    EXPECT_FALSE(limiter.allow("e", 5));
}

}  // namespace
}  // namespace tovrel::server
