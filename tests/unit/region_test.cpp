#include "tovrel/region.h"

#include <gtest/gtest.h>

namespace tovrel {
namespace {

using Json = nlohmann::json;

TEST(PlaceRecord, BuildsTheTargetWithEveryLaterFieldInCentroidLon) {
    const Json record{{"centroidLat", 48.1},     {"centroidLon", 11.5},
                      {"centroidRadius", 150},   {"isLinked", 0},
                      {"dwellTime", 0},          {"eventTypeId", 3},
                      {"endDate", "2030-01-01"}, {"eventId", "12"},
                      {"placeId", "7"},          {"campaignName", "Spring"},
                      {"tags", "food"},          {"startDate", "2020-01-01"},
                      {"alertText", "50% off"},  {"eventName", "Lunch"},
                      {"mediaType", "html"},     {"mediaURL", "http://m/1"}};
    const auto target = hRegion::fromPlaceRecord(record);
    EXPECT_DOUBLE_EQ(target->center.latitude, 48.1);
    EXPECT_DOUBLE_EQ(target->center.longitude, 11.5);
    EXPECT_DOUBLE_EQ(target->radius, 150);
    EXPECT_EQ(target->identifier, "target");
    EXPECT_EQ(target->centroidLon, Json("2030-01-01"));
    EXPECT_EQ(target->centroidLat, Json(48.1));
    EXPECT_TRUE(target->endDate.is_null());
    EXPECT_TRUE(target->startDate.is_null());
    EXPECT_TRUE(target->campaignName.is_null());
    EXPECT_TRUE(target->tags.is_null());
    EXPECT_TRUE(target->centroidRadius.is_null());
    EXPECT_EQ(target->eventId, Json("12"));
    EXPECT_EQ(target->placeId, Json("7"));
    EXPECT_EQ(target->alertText, Json("50% off"));
    EXPECT_EQ(target->eventName, Json("Lunch"));
    EXPECT_EQ(target->mediaType, Json("html"));
    EXPECT_EQ(target->mediaURL, Json("http://m/1"));
    EXPECT_EQ(target->linked, 0);
    EXPECT_EQ(target->dwelltime, 0);
    EXPECT_EQ(target->eventTypeId, 3);
}

TEST(PlaceRecord, WithoutEndDateCentroidLonIsNullEvenWithALongitude) {
    const auto target = hRegion::fromPlaceRecord({{"centroidLon", 11.5}, {"tags", "x"}});
    EXPECT_TRUE(target->centroidLon.is_null());
    EXPECT_DOUBLE_EQ(target->center.longitude, 11.5);
}

TEST(PlaceRecord, NumbersConvertLikeThePlatformDoes) {
    EXPECT_EQ(hRegion::fromPlaceRecord({{"dwellTime", "5"}})->dwelltime, 5);
    EXPECT_EQ(hRegion::fromPlaceRecord({{"dwellTime", 2.9}})->dwelltime, 2);
    EXPECT_EQ(hRegion::fromPlaceRecord({{"dwellTime", nullptr}})->dwelltime, 0);
    EXPECT_EQ(hRegion::fromPlaceRecord({{"isLinked", "1"}})->linked, 1);
    EXPECT_DOUBLE_EQ(hRegion::fromPlaceRecord({{"centroidLat", "48.25abc"}})->center.latitude, 48.25);
    EXPECT_EQ(hRegion::fromPlaceRecord({{"eventTypeId", 4294967298.0}})->eventTypeId, 2147483647);
}

TEST(PlaceRecord, MissingFieldsGiveZeroAndNull) {
    const auto target = hRegion::fromPlaceRecord(Json::object());
    EXPECT_DOUBLE_EQ(target->center.latitude, 0);
    EXPECT_DOUBLE_EQ(target->center.longitude, 0);
    EXPECT_DOUBLE_EQ(target->radius, 0);
    EXPECT_TRUE(target->eventId.is_null());
    const auto notAnObject = hRegion::fromPlaceRecord(Json::array({1, 2}));
    EXPECT_DOUBLE_EQ(notAnObject->radius, 0);
}

TEST(PlaceRecord, RangesAreKeptAsGiven) {
    const auto target =
        hRegion::fromPlaceRecord({{"centroidLat", 123.0}, {"centroidLon", -500}, {"centroidRadius", -3}});
    EXPECT_DOUBLE_EQ(target->center.latitude, 123.0);
    EXPECT_DOUBLE_EQ(target->center.longitude, -500);
    EXPECT_DOUBLE_EQ(target->radius, -3);
}

TEST(PlaceRecord, EveryTargetSharesOneIdentifier) {
    EXPECT_EQ(hRegion::fromPlaceRecord({{"eventId", "1"}})->identifier,
              hRegion::fromPlaceRecord({{"eventId", "2"}})->identifier);
}

}  // namespace
}  // namespace tovrel
