#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>

#include "process_support.h"
#include "tovrel/environment.h"
#include "tovrel/linux/linux_platform.h"
#include "tovrel/notification_names.h"
#include "tovrel/session_manager.h"
#include "track_samples.h"

namespace tovrel::linuxbackend {
namespace {

using namespace std::chrono_literals;

constexpr double kPlaceLatitude = 48.2;
constexpr double kPlaceLongitude = 11.6;
constexpr const char* kAlertText = "Linux host test: one free coffee";

/// One place with one offer delivered at once on entry (dwell 0, event type 3), and the app key.
std::string placeFile() {
    nlohmann::json offer = {
        {"eventId", 9101},         {"campaign", "Linux"}, {"eventName", "Coffee"},
        {"alertText", kAlertText}, {"mediaType", "html"}, {"mediaUrl", "/media/offer-9101.html"},
        {"tags", "test"},          {"dwellTime", 0},      {"eventTypeId", 3}};
    nlohmann::json place = {{"placeId", 9001}, {"name", "Test corner"}, {"radius", 80}};
    place["offers"] = nlohmann::json::array({offer});
    nlohmann::json feature = {{"type", "Feature"}, {"properties", place}};
    feature["geometry"] = {{"type", "Point"}, {"coordinates", {kPlaceLongitude, kPlaceLatitude}}};
    nlohmann::json properties;
    properties["apps"] = nlohmann::json::array({{{"key", "linux-key"}, {"name", "Linux host test"}}});
    properties["campaigns"] =
        nlohmann::json::array({{{"name", "Linux"}, {"startDate", "2020-01-01"}, {"endDate", "2099-12-31"}}});
    nlohmann::json places = {{"type", "FeatureCollection"}, {"properties", properties}};
    places["features"] = nlohmann::json::array({feature});
    return places.dump(2);
}

/// A walk from 400 m south-west of the place to its centre in 20 m steps, one a second, then a minute
/// there. It goes diagonally: a fix whose latitude or longitude alone changed does not run the check.
std::string walkIntoThePlace() {
    constexpr double kMetresPerDegree = 111194.93;
    const double metresPerLongitudeDegree =
        kMetresPerDegree * std::cos(kPlaceLatitude * 3.14159265358979 / 180);
    std::string gpx = "<?xml version=\"1.0\"?>\n<gpx version=\"1.1\"><trk><trkseg>\n";
    for (int i = 0; i <= 80; ++i) {
        const double away = std::max(0, 400 - 20 * i) / std::sqrt(2.0);
        char point[256];
        std::snprintf(point, sizeof point,
                      "<trkpt lat=\"%.7f\" lon=\"%.7f\"><time>2024-06-01T12:%02d:%02dZ</time></trkpt>\n",
                      kPlaceLatitude - away / kMetresPerDegree,
                      kPlaceLongitude - away / metresPerLongitudeDegree, i / 60, i % 60);
        gpx += point;
    }
    return gpx + "</trkseg></trk></gpx>\n";
}

bool acceptsConnections(int port) {
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const bool ok = ::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
    ::close(fd);
    return ok;
}

std::string slurp(std::FILE* stream) {
    std::fflush(stream);
    std::rewind(stream);
    std::string text;
    char buffer[4096];
    std::size_t got = 0;
    while ((got = std::fread(buffer, 1, sizeof buffer, stream)) > 0) {
        text.append(buffer, got);
    }
    return text;
}

/// The whole chain on real parts: tovrel-server on loopback, the libcurl client, SQLite preferences,
/// a GPX replay walking into a place, the component's targeting, and a desktop notification on a
/// private session bus.
class LinuxSessionTest : public ::testing::Test {
  protected:
    void SetUp() override {
        if (findExecutable("dbus-daemon").empty() ||
            test::runCommand("/usr/bin/python3 -c 'import dbus, gi' 2>/dev/null") != 0) {
            GTEST_SKIP() << "needs dbus-daemon, python3-dbus and python3-gi for the notification server";
        }
        const auto db = (directory.path() / "server.sqlite").string();
        std::ofstream(directory.path() / "places.geojson") << placeFile();
        ASSERT_EQ(test::runCommand(std::string(TOVREL_SERVER_BINARY) + " import --db " + db + " " +
                                   (directory.path() / "places.geojson").string() + " >/dev/null"),
                  0);
        port = test::freeLoopbackPort();
        server = std::make_unique<test::ChildProcess>(
            std::vector<std::string>{TOVREL_SERVER_BINARY, "serve", "--db", db, "--listen",
                                     "127.0.0.1:" + std::to_string(port), "--admin-listen", "off"});
        ASSERT_TRUE(test::waitUntil([&] { return acceptsConnections(port); }, 20s))
            << "tovrel-server did not start";

        bus = std::make_unique<test::ChildProcess>(
            std::vector<std::string>{"dbus-daemon", "--session", "--nofork", "--print-address=1"}, true);
        busAddress = bus->readLine(10s);
        ASSERT_FALSE(busAddress.empty());
        notificationServer = std::make_unique<test::ChildProcess>(
            std::vector<std::string>{"env", "DBUS_SESSION_BUS_ADDRESS=" + busAddress, "/usr/bin/python3",
                                     std::string(TOVREL_LINUX_TEST_DIR) + "/notification_service.py"},
            true, true);
        ASSERT_EQ(notificationServer->readLine(10s), "ready");
        std::ofstream(directory.path() / "walk.gpx") << walkIntoThePlace();
    }

    nlohmann::json report() {
        const auto out = directory.path() / "report.json";
        test::runCommand(std::string(TOVREL_SERVER_BINARY) + " report --json --db " +
                         (directory.path() / "server.sqlite").string() + " > " + out.string());
        std::ifstream in(out);
        return nlohmann::json::parse(in, nullptr, false);
    }

    /// Whether the server's report holds `text`; asks the server at most five times a second and
    /// answers the last verdict in between.
    bool reportHas(const std::string& text) {
        const auto now = std::chrono::steady_clock::now();
        if (text == lastQuestion_ && now - lastReport_ < 200ms) {
            return lastAnswer_;
        }
        lastQuestion_ = text;
        lastReport_ = now;
        lastAnswer_ = report().dump().find(text) != std::string::npos;
        return lastAnswer_;
    }

    test::TempDir directory;
    std::chrono::steady_clock::time_point lastReport_{};
    std::string lastQuestion_;
    bool lastAnswer_ = false;
    int port = 0;
    std::string busAddress;
    std::unique_ptr<test::ChildProcess> server;
    std::unique_ptr<test::ChildProcess> bus;
    std::unique_ptr<test::ChildProcess> notificationServer;
};

TEST_F(LinuxSessionTest, WalkingIntoAPlaceLinksAcknowledgesNotifiesAndReportsTheActivation) {
    std::FILE* logFile = std::tmpfile();
    ASSERT_NE(logFile, nullptr);
    LinuxPlatformOptions options;
    options.applicationId = "org.tovrel.linux-session-test";
    options.dataDirectory = directory.path() / "app";
    options.log.stream = logFile;
    options.notifications.busAddress = busAddress;
    ReplayOptions replay;
    replay.file = directory.path() / "walk.gpx";
    replay.speed = 8;
    options.locationSource = replay;

    nlohmann::json notified;
    {
        LinuxPlatform backend(options);
        Configuration configuration = Configuration::defaults();
        configuration.serviceBaseURL = "http://127.0.0.1:" + std::to_string(port);
        configuration.contentBaseURL = configuration.serviceBaseURL;
        {
            Environment env(backend.platform(), configuration);
            Environment::setDefault(&env);
            backend.notifications->setActivationHandler(
                [&env](const platform::LocalNotification& notification) {
                    env.notificationCenter().post(kTovrelNotificationReceived, notification);
                });
            backend.application->finishLaunching();
            backend.application->enterBackground();

            auto& session = SessionManager::sharedInstance();
            session.setPresentNotifications(true);
            session.setPresentOfferView(true);
            session.startSessionUsingLocation("linux-key");

            const bool sawNotify = backend.loop->runUntil(
                [&] {
                    const std::string line = notificationServer->readLine(1ms);
                    if (!line.empty()) {
                        notified = nlohmann::json::parse(line, nullptr, false);
                    }
                    return notified.is_object() && notified.contains("body");
                },
                60s);
            ASSERT_TRUE(sawNotify) << "no notification reached the session bus; fixes published "
                                   << backend.location->publishedCount() << ", delivered "
                                   << backend.location->deliveredCount() << "; server: " << report().dump();
            // The acknowledgement runs on its own thread; give it time to reach the server.
            EXPECT_TRUE(backend.loop->runUntil([&] { return reportHas("\"ack\":1"); }, 20s))
                << report().dump();

            // The user activates the notification: the host forwards it, and the component reports "seen".
            notificationServer->writeLine("invoke " + std::to_string(notified["id"].get<int>()) + " default");
            EXPECT_TRUE(backend.loop->runUntil([&] { return reportHas("\"seen\":1"); }, 20s))
                << report().dump();
            EXPECT_TRUE(backend.preferences->objectForKey("sessionid").has_value());
            EXPECT_TRUE(backend.preferences->objectForKey("currentLocation").has_value());
            session.stopSession();
            backend.loop->runFor(100ms);
            Environment::setDefault(nullptr);
        }
    }
    const std::string log = slurp(logFile);
    std::fclose(logFile);

    ASSERT_TRUE(notified.is_object());
    EXPECT_NE(notified["body"].get<std::string>().find(kAlertText), std::string::npos) << notified.dump();
    EXPECT_EQ(notified["actions"][0], "default");
    EXPECT_NE(log.find("Inside the target bounds!"), std::string::npos) << log;

    const auto counts = report();
    ASSERT_FALSE(counts.is_discarded());
    const std::string text = counts.dump();
    EXPECT_NE(text.find("9101"), std::string::npos) << text;
    EXPECT_NE(text.find("\"links\":1"), std::string::npos) << text;
    EXPECT_NE(text.find("\"ack\":1"), std::string::npos) << text;
}

}  // namespace
}  // namespace tovrel::linuxbackend
