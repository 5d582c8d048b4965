// A device's day replayed: a simulated device walks through the service (so the truth is known), its
// uploaded diagnostics are fetched through the admin API and run again in virtual time, and the replay
// must reach the service's outcome for every offer; with a stretch of the track taken out, the offers
// along it are reported as uncertain instead of a confident wrong answer.
#include <gtest/gtest.h>

#include <fstream>

#include "test_support.h"

namespace tovrel::server::test {
namespace {

constexpr const char* kToken = "0123456789abcdef-replay";
// 2026-06-01 09:00 UTC: the simulator's own start.
constexpr double kStart = 1780304400.0;

TEST(Replay, ADayRecordedThroughTheServiceReplaysToItsOutcomesAndAGapIsUncertain) {
    ServerFixture::Options options;
    options.configure = [](ServerOptions& s) {
        s.adminAddress = "127.0.0.1";
        s.adminToken = kToken;
    };
    ServerFixture fixture(options);
    const std::string places = (examplesDir() / "places" / "munich.geojson").string();
    fixture.server().importGeoJson(places);
    fixture.setTime(kStart + 1800);
    const std::string tokenFile = fixture.dir().write("token", kToken);
    const std::string events = (fixture.dir() / "events.jsonl").string();

    const CommandResult walked = runCommand(
        std::string(TOVREL_SIM_BINARY) +
        " run --quiet --service http://127.0.0.1:" + std::to_string(fixture.port()) + " --route " +
        (examplesDir() / "routes" / "city-walk.csv").string() + " --linger 400 --events " + events + " 2>&1");
    ASSERT_EQ(walked.exitCode, 0) << walked.output;
    std::string deviceId;
    std::ifstream in(events);
    for (std::string line; deviceId.empty() && std::getline(in, line);) {
        const json event = json::parse(line);
        if (event.value("path", "") == "/v1/log" && event.value("type", "") == "request") {
            deviceId = event["body"].value("deviceid", "");
        }
    }
    ASSERT_FALSE(deviceId.empty());
    const auto stored = queryRows(fixture.dbPath(), "SELECT count(*) FROM device_events");
    ASSERT_NE(stored, std::vector<std::string>{"0"});

    // Against the service's own catalogue, fetched around the track.
    const std::string sim = std::string(TOVREL_SIM_BINARY) + " replay --json ";
    const CommandResult fetched =
        runCommand(sim + "--admin http://127.0.0.1:" + std::to_string(fixture.adminPort()) +
                   " --token-file " + tokenFile + " --device " + deviceId + " --date 2026-06-01");
    const json found = json::parse(fetched.output);
    EXPECT_NE(found["catalogue"].get<std::string>().find("service's catalogue"), std::string::npos);
    EXPECT_GT(found["positions"].get<int>(), 100);
    // Every offer the service linked is in the findings, and the replay reaches the same outcome for each.
    int recorded = 0;
    for (const json& f : found["findings"]) {
        EXPECT_TRUE(f["agrees"].get<bool>()) << f;
        recorded += f["recorded"].get<bool>() ? 1 : 0;
    }
    EXPECT_EQ(std::to_string(recorded), stored[0]);
    EXPECT_EQ(fetched.exitCode, 0) << fetched.output;

    // Without the minutes from 40 s to 400 s, the places passed then have no track to stand on.
    HttpClient admin(fixture.adminPort());
    json day = admin
                   .request("GET", "/admin/v1/devices/" + deviceId + "/day?date=2026-06-01", {},
                            {std::string("Authorization: Bearer ") + kToken})
                   .parsed();
    json kept = json::array();
    for (const json& p : day["positions"]) {
        const double at = p["at"].get<double>() - kStart;
        if (at < 40 || at > 400) {
            kept.push_back(p);
        }
    }
    day["positions"] = kept;
    const std::string gap = fixture.dir().write("gap.json", day.dump());
    EXPECT_EQ(runCommand(sim + "--day " + gap + " 2>&1").exitCode, 2) << "no place file and no service";
    const std::string replay = sim + "--places " + places + " ";
    const CommandResult gapped = runCommand(replay + "--day " + gap);
    const json doubted = json::parse(gapped.output);
    int uncertain = 0;
    for (const json& f : doubted["findings"]) {
        EXPECT_TRUE(f["agrees"].get<bool>() || !f["uncertain"].empty()) << "a confident wrong answer: " << f;
        uncertain += f["uncertain"].empty() ? 0 : 1;
    }
    EXPECT_GE(uncertain, 3) << doubted;

    EXPECT_EQ(runCommand(replay + "--day " +
                         fixture.dir().write("bad.json", R"({"positions": [{"at": 1}]})") + " 2>&1")
                  .exitCode,
              2);
}

}  // namespace
}  // namespace tovrel::server::test
