#include "tovrel/curl/json_response.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <string>

namespace tovrel::curl {
namespace {

using platform::HttpErrorKind;

constexpr std::string_view kHost = "127.0.0.1:8080";

TEST(ClassifyJsonResponse, AcceptsAnyJsonValueUnderAnyTwoHundredStatus) {
    for (int status : {200, 201, 204, 299}) {
        for (std::string_view body : {R"({"a":1})", "[]", "1", R"("x")", "null", "true", " {} \r\n"}) {
            auto result = classifyJsonResponse(status, std::string(body), kHost);
            EXPECT_TRUE(result.ok()) << status << " " << body;
            EXPECT_EQ(result.status, status);
            EXPECT_EQ(result.text, body);
        }
    }
}

TEST(ClassifyJsonResponse, NumbersBeyondDoubleRangeAreBadBodiesNotExceptions) {
    auto result = classifyJsonResponse(200, R"({"places":[-12.5e312]})", kHost);
    ASSERT_FALSE(result.ok());
    EXPECT_EQ(result.error->kind, HttpErrorKind::kBadBody);
    result = classifyJsonResponse(503, "1e999", kHost);
    ASSERT_FALSE(result.ok());
    EXPECT_EQ(result.error->kind, HttpErrorKind::kStatus);
    EXPECT_EQ(result.text, "1e999");
}

TEST(ClassifyJsonResponse, StatusesJustOutsideTwoHundredAreStatusErrors) {
    for (int status : {0, 100, 199, 300, 304, 404, 500, 599}) {
        auto result = classifyJsonResponse(status, R"({"a":1})", kHost);
        ASSERT_FALSE(result.ok()) << status;
        EXPECT_EQ(result.error->kind, HttpErrorKind::kStatus);
        EXPECT_EQ(result.error->code, status);
        EXPECT_EQ(result.status, status);
    }
}

TEST(ClassifyJsonResponse, StatusErrorQuotesTheServersErrorMessageAndKeepsTheBody) {
    auto result = classifyJsonResponse(400, R"({"error":"sdkKey is missing","field":"sdkKey"})", kHost);
    ASSERT_FALSE(result.ok());
    EXPECT_EQ(result.error->localizedDescription,
              R"(The server answered 400 Bad Request: "sdkKey is missing".)");
    EXPECT_EQ(result.text, R"({"error":"sdkKey is missing","field":"sdkKey"})");

    EXPECT_EQ(classifyJsonResponse(503, "<html>down</html>", kHost).error->localizedDescription,
              "The server answered 503 Service Unavailable.");
    EXPECT_EQ(classifyJsonResponse(503, R"({"error":42})", kHost).error->localizedDescription,
              "The server answered 503 Service Unavailable.");
    EXPECT_EQ(classifyJsonResponse(599, "", kHost).error->localizedDescription, "The server answered 599.");
}

TEST(ClassifyJsonResponse, LongOrMultiLineErrorMessagesAreCutToOneShortLine) {
    const std::string longMessage = "é" + std::string(300, 'x') + "\nsecond line";
    auto result = classifyJsonResponse(500, nlohmann::json{{"error", longMessage}}.dump(), kHost);
    const std::string& text = result.error->localizedDescription;
    EXPECT_EQ(text.find('\n'), std::string::npos);
    EXPECT_LT(text.size(), 200U);
    EXPECT_NE(text.find("…\"."), std::string::npos) << text;

    auto multiLine = classifyJsonResponse(500, R"({"error":"first\nsecond"})", kHost);
    EXPECT_EQ(multiLine.error->localizedDescription,
              R"(The server answered 500 Internal Server Error: "first second".)");
}

TEST(ClassifyJsonResponse, EmptyOrBlankBodyIsABadBodyNamingTheServer) {
    for (std::string_view body : {"", "  \r\n"}) {
        auto result = classifyJsonResponse(200, std::string(body), kHost);
        ASSERT_FALSE(result.ok());
        EXPECT_EQ(result.error->kind, HttpErrorKind::kBadBody);
        EXPECT_EQ(result.status, 200);
        EXPECT_EQ(result.error->localizedDescription,
                  "The server at 127.0.0.1:8080 sent an empty answer where JSON was expected.");
    }
}

TEST(ClassifyJsonResponse, MalformedBodyReportsWhereParsingStopped) {
    auto result = classifyJsonResponse(200, R"({"a":1,,})", kHost);
    ASSERT_FALSE(result.ok());
    EXPECT_EQ(result.error->kind, HttpErrorKind::kBadBody);
    EXPECT_EQ(result.error->localizedDescription,
              "The server's answer is not valid JSON (parse error at byte 8).");

    EXPECT_EQ(classifyJsonResponse(200, "{} trailing", kHost).error->kind, HttpErrorKind::kBadBody);
    EXPECT_EQ(classifyJsonResponse(200, R"({"a":)", kHost).error->kind, HttpErrorKind::kBadBody);
}

TEST(ClassifyJsonResponse, NestingIsBoundedWhereverTheTextComesFrom) {
    const auto nested = [](std::size_t depth) { return std::string(depth, '[') + std::string(depth, ']'); };
    EXPECT_TRUE(classifyJsonResponse(200, nested(64), kHost).ok());
    for (const std::string& body : {nested(65), nested(100'000), std::string(100'000, '{')}) {
        const auto result = classifyJsonResponse(200, body, kHost);
        ASSERT_FALSE(result.ok());
        EXPECT_EQ(result.error->kind, HttpErrorKind::kBadBody);
        EXPECT_EQ(result.error->localizedDescription,
                  "The server's answer is not usable JSON (nested deeper than 64 levels).");
    }
    // Brackets inside strings (escaped quotes included) are text, not nesting.
    const std::string quoted = "[\"" + std::string(200, '[') + "\\\"{{{\"]";
    const auto result = classifyJsonResponse(200, quoted, kHost);
    ASSERT_TRUE(result.ok()) << result.error->localizedDescription;
    EXPECT_EQ(result.text, quoted);
    // An error body too deep to read still gives the status sentence, without a quoted error.
    const auto failed = classifyJsonResponse(503, "{\"error\":" + nested(100'000) + "}", kHost);
    EXPECT_EQ(failed.error->localizedDescription, "The server answered 503 Service Unavailable.");
}

}  // namespace
}  // namespace tovrel::curl
