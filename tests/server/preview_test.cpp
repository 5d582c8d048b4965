// A preview through the admin API: the draft and the live catalogue run by the real simulator in a process
// of its own, the same answer for the same request, a bad draft refused in the simulator's words, and a
// preview beyond its CPU time stopped by the kernel.
#include <gtest/gtest.h>

#include "admin/preview_process.h"
#include "test_support.h"

namespace tovrel::server::test {
namespace {

constexpr const char* kToken = "0123456789abcdef-preview";

ServerFixture::Options withPreview(std::size_t devices, double cpuSeconds) {
    ServerFixture::Options options;
    options.configure = [devices, cpuSeconds](ServerOptions& o) {
        o.adminAddress = "127.0.0.1";
        o.adminToken = kToken;
        if (devices > 0) {
            o.preview = previewInProcess({TOVREL_SIM_BINARY, devices, cpuSeconds, 7});
        }
    };
    return options;
}

HttpResult call(ServerFixture& fixture, const std::string& method, const std::string& path,
                const std::string& body = {}) {
    return HttpClient(fixture.adminPort())
        .request(method, path, body, {std::string("Authorization: Bearer ") + kToken});
}

const json* offerOf(const json& comparison, const std::string& eventId, const std::string& placeId) {
    for (const json& offer : comparison["offers"]) {
        if (offer.value("eventId", "") == eventId && offer.value("placeId", "") == placeId) {
            return &offer;
        }
    }
    return nullptr;
}

TEST(Preview, ADraftIsComparedWithTheLiveCatalogueTheSameWayEveryTime) {
    ServerFixture fixture(withPreview(8, 60));
    json draft = call(fixture, "GET", "/admin/v1/catalogue").parsed();
    ASSERT_TRUE(draft.is_object());
    // The draft takes the coffee offer away from the square.
    json& square = draft["features"][0]["properties"];
    ASSERT_EQ(square["placeId"], 1);
    square["offers"].erase(0);
    const HttpResult first = call(fixture, "POST", "/admin/v1/preview", draft.dump());
    ASSERT_EQ(first.status, 200) << first.body;
    const json comparison = first.parsed();
    EXPECT_EQ(comparison["devices"], 8);
    const json* coffee = offerOf(comparison, "11", "1");
    ASSERT_NE(coffee, nullptr) << first.body;
    EXPECT_EQ((*coffee)["namedDraft"], 0) << *coffee;
    EXPECT_EQ((*coffee)["draft"], 0) << *coffee;
    EXPECT_GT((*coffee)["namedLive"].get<int>(), 0) << *coffee;
    EXPECT_EQ(call(fixture, "POST", "/admin/v1/preview", draft.dump()).body, first.body);
    // The simulator's own --compare-service reaches the same numbers from the command line.
    json file = draft;
    file["properties"]["apps"] = json::array({{{"key", "tovrel-preview"}, {"name", "Preview"}}});
    const std::string command =
        std::string(TOVREL_SIM_BINARY) + " fleet --places " +
        fixture.dir().write("draft.geojson", file.dump()) +
        " --compare-service http://127.0.0.1:" + std::to_string(fixture.adminPort()) + " --token-file " +
        fixture.dir().write("token", kToken) +
        " --devices 8 --seed 7 --start 2025-06-01T00:00:00Z --sdk-key tovrel-preview --jobs 1 --quiet --json";
    const CommandResult cli = runCommand(command);
    EXPECT_EQ(cli.exitCode, 0) << cli.output;
    EXPECT_EQ(json::parse(cli.output, nullptr, false), comparison);
    // Nothing of the draft reached the live catalogue.
    EXPECT_EQ(
        call(fixture, "GET", "/admin/v1/catalogue").parsed()["features"][0]["properties"]["offers"].size(),
        2u);

    // As an import, a file of one place changes that place alone: the others keep their offers, and an
    // offer it redefines (the coffee, now a dwell of two minutes) changes wherever it is offered.
    json update =
        json::object({{"type", "FeatureCollection"}, {"features", json::array({draft["features"][0]})}});
    update["features"][0]["properties"]["offers"] = json::array({{{"eventId", 11},
                                                                  {"campaign", {{"name", "Open"}}},
                                                                  {"eventName", "Coffee"},
                                                                  {"alertText", "Free coffee"},
                                                                  {"dwellTime", 2},
                                                                  {"eventTypeId", 3}}});
    const HttpResult merged = call(fixture, "POST", "/admin/v1/preview?import=1", update.dump());
    ASSERT_EQ(merged.status, 200) << merged.body;
    const json asImport = merged.parsed();
    ASSERT_NE(offerOf(asImport, "11", "1"), nullptr);
    EXPECT_GT((*offerOf(asImport, "11", "1"))["namedDraft"].get<int>(), 0);
    EXPECT_EQ((*offerOf(asImport, "12", "1"))["namedDraft"], 0) << "the file's place 1 has the coffee alone";
    EXPECT_EQ((*offerOf(asImport, "32", "3"))["namedDraft"], (*offerOf(asImport, "32", "3"))["namedLive"]);
    EXPECT_GT((*offerOf(asImport, "11", "2"))["namedDraft"].get<int>(), 0) << "place 2 keeps the coffee";

    // Over four days the budget of 8 device-days is 2 devices, each entering once a day; a cap of one
    // a week leaves each device one delivery of an offer it got every day.
    json capped = call(fixture, "GET", "/admin/v1/catalogue").parsed();
    for (json& campaign : capped["properties"]["campaigns"]) {
        campaign["caps"] = json::array({{{"count", 1}, {"per", "week"}}});
    }
    const HttpResult week = call(fixture, "POST", "/admin/v1/preview?days=4", capped.dump());
    ASSERT_EQ(week.status, 200) << week.body;
    const json weekly = week.parsed();
    EXPECT_EQ(weekly["devices"], 2);
    EXPECT_EQ(weekly["days"], 4);
    long long cappedDays = 0;
    for (const json& offer : weekly["offers"]) {
        EXPECT_LE(offer["draft"].get<long long>(), offer["namedDraft"].get<long long>()) << offer;
        for (const auto& [why, count] : offer["reasons"].items()) {
            cappedDays += why.find("frequency") != std::string::npos ? count.get<long long>() : 0;
        }
    }
    EXPECT_GT(cappedDays, 0) << week.body;
    EXPECT_GT(weekly["deliveries"]["live"].get<long long>(), weekly["deliveries"]["draft"].get<long long>());
    for (const char* days : {"0", "29", "x"}) {
        EXPECT_EQ(call(fixture, "POST", std::string("/admin/v1/preview?days=") + days, capped.dump()).status,
                  400)
            << days;
    }

    const HttpResult bad = call(fixture, "POST", "/admin/v1/preview", R"({"type": "Feature"})");
    EXPECT_EQ(bad.status, 400) << bad.body;
    EXPECT_NE(bad.body.find("FeatureCollection"), std::string::npos) << bad.body;
    EXPECT_EQ(call(fixture, "POST", "/admin/v1/preview", "[1]").status, 400);
}

TEST(Preview, OneBeyondItsCpuTimeIsRefusedAndAServerWithoutTheSimulatorSaysSo) {
    ServerFixture costly(withPreview(100000, 1));
    const std::string live = call(costly, "GET", "/admin/v1/catalogue").body;
    const HttpResult refused = call(costly, "POST", "/admin/v1/preview", live);
    EXPECT_EQ(refused.status, 422) << refused.body;
    EXPECT_NE(refused.body.find("CPU time"), std::string::npos) << refused.body;

    ServerFixture plain(withPreview(0, 0));
    EXPECT_EQ(call(plain, "POST", "/admin/v1/preview", live).status, 501);
}

}  // namespace
}  // namespace tovrel::server::test
