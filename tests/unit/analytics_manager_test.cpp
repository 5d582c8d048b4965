#include "tovrel/analytics_manager.h"

#include <gtest/gtest.h>

#include "support/test_device.h"

namespace tovrel {
namespace {

using virtualbackend::Reply;

class AnalyticsManagerTest : public ::testing::Test {
  protected:
    testing::TestDevice device;
    AnalyticsManager& analytics = AnalyticsManager::instance();
};

TEST_F(AnalyticsManagerTest, MessageTravelsAsANestedObject) {
    nlohmann::json message{{"session_stopped", {{"timestamp", "1750000000"}}}};
    analytics.logMessage(message, "ADID", nullptr);
    message["session_stopped"]["timestamp"] = "changed after the call";
    const auto request = device.http().requests().back();
    EXPECT_EQ(request.url, "http://service.test/v1/log");
    EXPECT_EQ(request.body,
              (nlohmann::json{{"deviceid", "ADID"},
                              {"message", {{"session_stopped", {{"timestamp", "1750000000"}}}}}}));
    EXPECT_TRUE(request.body["message"].is_object());
    EXPECT_NE(request.rawBody.find("\"message\":{"), std::string::npos);
}

TEST_F(AnalyticsManagerTest, NotFoundLogsOnceAndCompletesWithTheError) {
    std::optional<platform::HttpError> error;
    int calls = 0;
    analytics.logMessage({{"x", nlohmann::json::object()}}, "ADID", [&](const auto& e) {
        error = e;
        ++calls;
    });
    device.http().respondTo("/v1/log", Reply::json(404, {{"error", "no such endpoint"}}));
    device.loop().runUntilIdle();
    EXPECT_EQ(calls, 1);
    ASSERT_TRUE(error);
    EXPECT_EQ(error->code, 404);
    EXPECT_EQ(device.log().lines().size(), 1u);
    EXPECT_EQ(device.http().requests().size(), 1u);
}

TEST_F(AnalyticsManagerTest, SuccessCompletesWithoutErrorAndLogsNothing) {
    std::optional<platform::HttpError> error{platform::HttpError{}};
    analytics.logMessage({{"x", nlohmann::json::object()}}, "ADID", [&](const auto& e) { error = e; });
    device.http().respondTo("/v1/log", Reply::json(200, {{"status", 1}}));
    device.loop().runUntilIdle();
    EXPECT_FALSE(error);
    EXPECT_TRUE(device.log().lines().empty());
}

TEST_F(AnalyticsManagerTest, TwoMessagesAreTwoIndependentRequests) {
    std::vector<int> order;
    analytics.logMessage({{"a", nlohmann::json::object()}}, "ADID", [&](const auto&) { order.push_back(1); });
    analytics.logMessage({{"b", nlohmann::json::object()}}, "ADID", [&](const auto&) { order.push_back(2); });
    const auto pending = device.http().pending();
    ASSERT_EQ(pending.size(), 2u);
    device.http().respond(pending[1].id, Reply::json(200, {{"status", 1}}));
    device.http().respond(pending[0].id, Reply::json(200, {{"status", 1}}));
    device.loop().runUntilIdle();
    EXPECT_EQ(order, (std::vector<int>{2, 1}));
}

TEST(AnalyticsLocation, UsesSinglePrecisionNumbers) {
    const auto location = AnalyticsManager::buildLocationDictionaryWithLatitude(48.1371539, 11.5754);
    EXPECT_EQ(location["lat"].get<double>(), static_cast<double>(48.1371539f));
    EXPECT_EQ(location["lon"].get<double>(), static_cast<double>(11.5754f));
}

}  // namespace
}  // namespace tovrel
