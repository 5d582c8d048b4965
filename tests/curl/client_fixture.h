#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "fault_server.h"
#include "test_main_loop.h"
#include "tovrel/curl/curl_http_client.h"

namespace tovrel::curl::test {

using namespace std::chrono_literals;

/// A test main loop plus helpers that run one request to its single completion.
class ClientFixture : public ::testing::Test {
  protected:
    /// Posts `body` and returns the one result; fails the test if it does not arrive on the main loop
    /// in time or arrives more than once.
    platform::JsonResult post(CurlHttpClient& client, const std::string& url,
                              const nlohmann::json& body = nlohmann::json::object()) {
        int calls = 0;
        std::optional<platform::JsonResult> result;
        client.postJson(url, body.dump(), [&](platform::JsonResult r) {
            ++calls;
            EXPECT_TRUE(loop.isMainThread());
            result = std::move(r);
        });
        EXPECT_TRUE(loop.runUntil([&] { return calls > 0; }, 10s)) << "no completion for " << url;
        loop.runFor(20ms);
        EXPECT_EQ(calls, 1);
        return result.value_or(platform::JsonResult{});
    }

    /// The JSON value of a successful result's text.
    static nlohmann::json valueOf(const platform::JsonResult& result) {
        return nlohmann::json::parse(result.text);
    }

    platform::HttpResponse send(CurlHttpClient& client, platform::HttpRequest request) {
        int calls = 0;
        std::optional<platform::HttpResponse> response;
        const std::string url = request.url;
        client.send(std::move(request), [&](platform::HttpResponse r) {
            ++calls;
            EXPECT_TRUE(loop.isMainThread());
            response = std::move(r);
        });
        EXPECT_TRUE(loop.runUntil([&] { return calls > 0; }, 10s)) << "no completion for " << url;
        loop.runFor(20ms);
        EXPECT_EQ(calls, 1);
        return response.value_or(platform::HttpResponse{});
    }

    /// A request for `url` with the port's defaults (HttpRequest has members that designated
    /// initialisers would leave unnamed).
    static platform::HttpRequest requestTo(std::string url, std::string method = "GET") {
        platform::HttpRequest request;
        request.url = std::move(url);
        request.method = std::move(method);
        return request;
    }

    TestMainLoop loop;
};

}  // namespace tovrel::curl::test
