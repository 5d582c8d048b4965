#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <random>

#include "delivery/delivery_policy.h"
#include "foundation/format.h"
#include "targeting/proximity_policy.h"
#include "tovrel/location_manager.h"
#include "tovrel/notification_center.h"
#include "tovrel/region.h"

namespace tovrel::targeting {
namespace {

using Json = nlohmann::json;
namespace accuracy = platform::accuracy;

TEST(Distance, OneDegreeOfLongitudeOnTheEquator) {
    const double d = LocationManager::calculateDistanceInMetersBetweenCoord({0, 0}, {0, 1});
    EXPECT_EQ(strprintf("%.2f", d), "111194.93");
    EXPECT_EQ(d, haversineMeters({0, 0}, {0, 1}));
}

TEST(AccuracyLadder, RowsAndTheirExactBoundaries) {
    using S = LocationSettings;
    const std::vector<std::pair<double, std::optional<S>>> rows = {
        {-5, S{accuracy::kNearestTenMeters, 10}},
        {0, S{accuracy::kNearestTenMeters, 10}},
        {299.999999, S{accuracy::kNearestTenMeters, 10}},
        {300, std::nullopt},
        {std::nextafter(300.0, 1e9), S{accuracy::kHundredMeters, 300}},
        {499.9, S{accuracy::kHundredMeters, 300}},
        {500, std::nullopt},
        {500.1, S{accuracy::kKilometer, 500}},
        {std::nextafter(1000.0, 0.0), S{accuracy::kKilometer, 500}},
        {1000, std::nullopt},
        {1000.1, S{accuracy::kThreeKilometers, 1000}},
        {1e12, S{accuracy::kThreeKilometers, 1000}},
        {std::numeric_limits<double>::infinity(), S{accuracy::kThreeKilometers, 1000}},
        {std::numeric_limits<double>::quiet_NaN(), std::nullopt},
    };
    for (const auto& [nearest, expected] : rows) {
        EXPECT_EQ(accuracyLadder(nearest, false), expected) << nearest;
    }
}

TEST(AccuracyLadder, AccuracyErrorChoosesTenMetresOnEveryRow) {
    using S = LocationSettings;
    EXPECT_EQ(accuracyLadder(100, true), (S{accuracy::kNearestTenMeters, 10}));
    EXPECT_EQ(accuracyLadder(400, true), (S{accuracy::kNearestTenMeters, 300}));
    EXPECT_EQ(accuracyLadder(700, true), (S{accuracy::kNearestTenMeters, 500}));
    EXPECT_EQ(accuracyLadder(2000, true), (S{accuracy::kNearestTenMeters, 1000}));
    EXPECT_EQ(accuracyLadder(500, true), std::nullopt);
}

TEST(AccuracyLevels, KeepThePlatformValuesAndPrintWhole) {
    EXPECT_EQ(format0f(accuracy::kBest), "-1");
    EXPECT_EQ(format0f(accuracy::kNearestTenMeters), "10");
    EXPECT_EQ(format0f(accuracy::kHundredMeters), "100");
    EXPECT_EQ(format0f(accuracy::kKilometer), "1000");
    EXPECT_EQ(format0f(accuracy::kThreeKilometers), "3000");
}

TEST(OfferMessage, JoinsNameAndTextOnTwoLines) {
    EXPECT_EQ(offerMessage("Coffee", "50% off"), "Coffee\n50% off");
    EXPECT_EQ(offerMessage(nullptr, "t"), "(null)\nt");
    EXPECT_EQ(offerMessage(5, 2.5), "5\n2.5");
}

TEST(FixedFormat, MatchesPrintfForEveryKindOfValue) {
    std::mt19937_64 random(11);
    std::uniform_real_distribution<double> mantissa(-10, 10);
    std::uniform_int_distribution<int> exponent(-12, 12);
    std::vector<double> values = {0.0,   -0.0,    0.5e-6, 1.5e-6,    2.5e-6, 0.0000005,
                                  1e300, -1e-300, 1234.5, 0.1234565, 300.0,  6371000.0};
    for (int i = 0; i < 100000; ++i) {
        values.push_back(mantissa(random) * std::pow(10.0, exponent(random)));
    }
    values.push_back(std::numeric_limits<double>::infinity());
    values.push_back(-std::numeric_limits<double>::infinity());
    values.push_back(std::numeric_limits<double>::quiet_NaN());
    for (const double value : values) {
        std::string out;
        appendFormatF(out, value);
        ASSERT_EQ(out, strprintf("%f", value)) << value;
    }
}

TEST(NearestTargetMessage, IsTheCheckLogText) {
    EXPECT_EQ(nearestTargetMessage(12.5, -1, 10, 50),
              "\n\ncurrent distance in meters to closest target: 12.500000\ncurrent accuracy: -1.000000\n"
              "current distance filter: 10.000000\ncurrent target bounds area^: 50.000000\n\n");
}

TEST(DiagnosticRecords, FormatAsTheUploadSendsThem) {
    EXPECT_EQ(toJson(HistoryRecord{1750000000.4, 12.25, -1, 10, 150, 48.1371539, -11.5754}),
              (Json{{"timestamp", "1750000000"},
                    {"distance_from_target", "12.250000"},
                    {"location_accuracy", "-1"},
                    {"location_distancefilter", "10"},
                    {"target_size", "150.000000"},
                    {"lat", "48.137154"},
                    {"lng", "-11.575400"}}));
    auto target = std::make_shared<hRegion>();
    target->center = {48.1, 11.5};
    target->eventId = 42;
    EXPECT_EQ(toJson(TargetRecord{1750000000.6, target}), (Json{{"timestamp", "1750000001"},
                                                                {"event_id", 42},
                                                                {"event_centroidlat", "48.100000"},
                                                                {"event_centroidlon", "11.500000"}}));
}

TEST(NotificationText, PercentSignsBecomeFullWidth) {
    EXPECT_EQ(delivery::fullWidthPercent("50% off"), "50\xEF\xBC\x85 off");
    EXPECT_EQ(delivery::fullWidthPercent("%%d"),
              "\xEF\xBC\x85\xEF\xBC\x85"
              "d");
    EXPECT_EQ(delivery::fullWidthPercent("caf\xC3\xA9"), "caf\xC3\xA9");
    EXPECT_EQ(delivery::fullWidthPercent(""), "");
}

TEST(NotificationText, OfferNotificationFields) {
    const auto n = delivery::offerNotification("10% more", -7);
    EXPECT_EQ(n.alertBody, "10\xEF\xBC\x85 more");
    EXPECT_EQ(n.alertAction, "Resume");
    EXPECT_EQ(n.soundName, platform::kDefaultSoundName);
    EXPECT_EQ(n.userInfo, (Json{{"deviceeventId", "-7"}}));
    EXPECT_EQ(n.applicationIconBadgeNumber, 0);
    EXPECT_FALSE(n.fireDate);
}

TEST(DeliveredObjects, UserInfoOfWhatTheHostOrTheLaunchPosts) {
    platform::LocalNotification local;
    local.userInfo = {{"deviceeventId", "9"}};
    EXPECT_EQ(delivery::userInfoOf(local), local.userInfo);
    EXPECT_EQ(delivery::userInfoOf(std::make_shared<platform::LocalNotification>(local)), local.userInfo);
    EXPECT_EQ(delivery::userInfoOf(Notification{"launch", {}, nullptr, {{"k", 1}}}), (Json{{"k", 1}}));
    EXPECT_EQ(delivery::userInfoOf(Json{{"userInfo", {{"deviceeventId", 3}}}}), (Json{{"deviceeventId", 3}}));
    EXPECT_TRUE(delivery::userInfoOf(std::any()).is_null());
    EXPECT_TRUE(delivery::userInfoOf(std::any(3)).is_null());
}

TEST(OfferRecords, MediaKeysAndFirstElement) {
    const Json full{{"eventId", 1}, {"deviceEventId", 2}, {"mediaType", nullptr}, {"mediaUrl", "u"}};
    EXPECT_TRUE(delivery::hasOfferMediaKeys(full)) << "a null member is still present";
    Json partial = full;
    partial.erase("mediaUrl");
    EXPECT_FALSE(delivery::hasOfferMediaKeys(partial));
    EXPECT_FALSE(delivery::hasOfferMediaKeys(Json::array()));
    EXPECT_EQ(delivery::offerElement(Json::array({full, 5})), full);
    EXPECT_TRUE(delivery::offerElement(Json::array()).is_null());
    EXPECT_TRUE(delivery::offerElement(full).is_null());
}

}  // namespace
}  // namespace tovrel::targeting
