#include <gtest/gtest.h>

#include "scenarios/scenario_device.h"

namespace tovrel::scenarios {
namespace {

/// The status upload: what each pass sends to the log endpoint and what it leaves in the buffers.
class DiagnosticsScenario : public ::testing::Test {
  protected:
    ScenarioDevice device;
    const platform::Coordinate shop{48.137154, 11.575400};

    void storePosition() {
        device.vp.preferences->setObject("currentLocation",
                                         {{"latitude", 48.1371539}, {"longitude", 11.5754}});
    }
    /// Three proximity checks against one target 600 m away: three records in each buffer.
    void fillBuffers() {
        storePosition();
        device.lm->getTargets();
        device.answerPlaces({PlaceSpec{offset(shop, 600, 0)}});
        device.deliverFix(offset(shop, 1, 1));
        device.deliverFix(offset(shop, 2, 2));
        device.deliverFix(offset(shop, 3, 3));
        device.http().clear();
    }
    std::vector<std::string> eventNames() const {
        std::vector<std::string> out;
        for (const auto& message : device.logMessages()) {
            out.push_back(message.items().begin().key());
        }
        return out;
    }
};

TEST_F(DiagnosticsScenario, EmptyBuffersSendExactlyTwoMessages) {
    device.start();
    storePosition();
    device.lm->sendLogs();
    const auto messages = device.logMessages();
    ASSERT_EQ(messages.size(), 2u);
    EXPECT_EQ(messages[0],
              (Json{{"tovrel_services",
                     {{"location_services", "Enabled"}, {"notification_services", "Enabled"}}}}));
    EXPECT_EQ(messages[1], (Json{{"location_updates",
                                  {{"timestamp", "1750000000"},
                                   {"lat", "48.137154"},
                                   {"lng", "11.575400"},
                                   {"location_accuracy", "10"}}}}));
    for (const auto& request : device.requestsTo("/v1/log")) {
        EXPECT_EQ(request.body["deviceid"], ScenarioDevice::kAdid);
    }
}

TEST_F(DiagnosticsScenario, BeforeTheFirstFixNothingIsSentAndTheBuffersGrow) {
    device.start();
    fillBuffers();
    device.vp.preferences->removeObject("currentLocation");
    device.lm->sendLogs();
    EXPECT_TRUE(device.logMessages().empty());
    EXPECT_EQ(device.lm->logHistoryArray().size(), 3u);
    EXPECT_EQ(device.lm->logTargetsArray().size(), 3u);
}

TEST_F(DiagnosticsScenario, FullBuffersAreSentInOrderAndEmptiedEvenWhenUploadsFail) {
    device.start();
    fillBuffers();
    device.lm->sendLogs();
    EXPECT_EQ(eventNames(), (std::vector<std::string>{"tovrel_services", "location_updates",
                                                      "targeting_updates", "bounding_area"}));
    EXPECT_TRUE(device.lm->logHistoryArray().empty());
    EXPECT_TRUE(device.lm->logTargetsArray().empty());
    while (device.http().respondTo("/v1/log", Reply::json(500, {{"error", "down"}}))) {
    }
    device.loop().runUntilIdle();

    const auto messages = device.logMessages();
    const Json& history = messages[2]["targeting_updates"];
    ASSERT_EQ(history.size(), 3u);
    EXPECT_EQ(history[0]["timestamp"], "1750000000");
    EXPECT_EQ(history[0]["target_size"], "50.000000");
    EXPECT_EQ(history[0]["location_accuracy"], "10");
    EXPECT_EQ(history[0]["location_distancefilter"], "10");
    EXPECT_EQ(history[1]["location_accuracy"], "1000") << "the ladder ran after the first record";
    EXPECT_EQ(history[1]["location_distancefilter"], "500");
    EXPECT_EQ(history[0].size(), 7u);
    const double distance = std::stod(history[0]["distance_from_target"].get<std::string>());
    EXPECT_NEAR(distance, 599, 1.5);
    const Json& bounding = messages[3]["bounding_area"];
    ASSERT_EQ(bounding.size(), 3u);
    EXPECT_EQ(bounding[0]["event_id"], "e1");
    EXPECT_EQ(bounding[0]["event_centroidlon"], "11.575400");
    EXPECT_EQ(bounding[0].size(), 4u);

    device.lm->sendLogs();
    EXPECT_EQ(device.logMessages().size(), 6u) << "the next pass finds empty buffers";
}

TEST_F(DiagnosticsScenario, NotificationAndLocationServiceFlags) {
    device.start();
    storePosition();
    const auto services = [this](std::optional<int> mask, bool locationOn) {
        device.vp.notifications->setUserNotificationSettings(mask);
        device.location->setLocationServicesEnabled(locationOn);
        device.http().clear();
        device.lm->sendLogs();
        return device.logMessages().at(0)["tovrel_services"];
    };
    EXPECT_EQ(services(1, true)["notification_services"], "Enabled") << "badge only";
    EXPECT_EQ(services(0, true)["notification_services"], "Disabled");
    EXPECT_EQ(services(std::nullopt, true)["notification_services"], "Enabled");
    EXPECT_EQ(services(6, false)["location_services"], "Disabled");
}

TEST_F(DiagnosticsScenario, AccuracyIsTheConfiguredSettingOrZeroWithoutAManager) {
    device.start();
    storePosition();
    device.lm->locationManager()->setDesiredAccuracy(platform::accuracy::kBest);
    device.lm->sendLogs();
    EXPECT_EQ(device.logMessages().at(1)["location_updates"]["location_accuracy"], "-1");
    device.lm->stopMonitoringLocation();
    device.http().clear();
    device.lm->sendLogs();
    EXPECT_EQ(device.logMessages().at(1)["location_updates"]["location_accuracy"], "0");
}

TEST_F(DiagnosticsScenario, TimerUploadsEveryHalfHourFromABackgroundThread) {
    device.start();
    fillBuffers();
    device.loop().fastForwardBy(1799);
    EXPECT_TRUE(device.logMessages().empty());
    device.loop().fastForwardBy(1);
    EXPECT_EQ(device.logMessages().size(), 4u);
    device.loop().fastForwardBy(1800);
    EXPECT_EQ(device.logMessages().size(), 6u);
}

}  // namespace
}  // namespace tovrel::scenarios
