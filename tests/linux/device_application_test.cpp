#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>

#include "process_support.h"
#include "tovrel/linux/asio_main_loop.h"
#include "tovrel/linux/linux_application.h"
#include "tovrel/linux/linux_device.h"
#include "tovrel/linux/log_alerts.h"

namespace tovrel::linuxbackend {
namespace {

using namespace std::chrono_literals;
using platform::ApplicationEvent;
using platform::ApplicationState;

/// Whether `text` has `pattern`'s shape: '9' a decimal digit, 'X' an upper-case hex digit, anything else
/// itself.
bool shaped(const std::string& text, const std::string& pattern) {
    if (text.size() != pattern.size()) {
        return false;
    }
    for (std::size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        const bool ok = pattern[i] == '9'   ? (c >= '0' && c <= '9')
                        : pattern[i] == 'X' ? ((c >= '0' && c <= '9') || (c >= 'A' && c <= 'F'))
                                            : c == pattern[i];
        if (!ok) {
            return false;
        }
    }
    return true;
}

class LinuxDeviceTest : public ::testing::Test {
  protected:
    test::TempDir directory;

    LinuxDeviceOptions options(const std::string& appId) {
        LinuxDeviceOptions o;
        o.applicationId = appId;
        o.dataDirectory = directory.path() / appId;
        o.machineIdFile = directory.path() / "machine-id";
        o.productNameFile = directory.path() / "product_name";
        return o;
    }
    void SetUp() override {
        std::ofstream(directory.path() / "machine-id") << "0123456789abcdef0123456789abcdef\n";
    }
};

TEST_F(LinuxDeviceTest, AdvertisingIdentifierIsAnUpperCaseUuidStablePerApplication) {
    LinuxDevice shop(options("com.example.shop"));
    const std::string id = shop.advertisingIdentifier();
    EXPECT_TRUE(shaped(id, "XXXXXXXX-XXXX-5XXX-XXXX-XXXXXXXXXXXX")) << id;
    EXPECT_NE(std::string("89AB").find(id[19]), std::string::npos) << "RFC 4122 variant: " << id;
    EXPECT_EQ(LinuxDevice(options("com.example.shop")).advertisingIdentifier(), id)
        << "stable across restarts";
    EXPECT_NE(LinuxDevice(options("com.example.other")).advertisingIdentifier(), id);
}

TEST_F(LinuxDeviceTest, ResetGivesANewIdentifierThatThenStays) {
    LinuxDevice device(options("app"));
    const std::string before = device.advertisingIdentifier();
    device.resetAdvertisingIdentifier();
    const std::string after = device.advertisingIdentifier();
    EXPECT_NE(after, before);
    EXPECT_EQ(LinuxDevice(options("app")).advertisingIdentifier(), after);
}

TEST_F(LinuxDeviceTest, DisabledIdentifierIsEmpty) {
    auto o = options("app");
    o.advertisingIdentifierEnabled = false;
    EXPECT_EQ(LinuxDevice(o).advertisingIdentifier(), "");
}

TEST_F(LinuxDeviceTest, ModelComesFromDmiWithALinuxFallbackAndVersionFromUname) {
    LinuxDevice device(options("app"));
    EXPECT_EQ(device.model(), "Linux");
    std::ofstream(directory.path() / "product_name") << "ThinkCentre M75q\n";
    EXPECT_EQ(device.model(), "ThinkCentre M75q");
    EXPECT_EQ(device.systemName(), "Linux");
    EXPECT_FALSE(device.systemVersion().empty());
    auto o = options("app");
    o.systemVersion = "9.0";
    EXPECT_EQ(LinuxDevice(o).systemVersion(), "9.0");
}

TEST(NameBasedIdentifierTest, IsDeterministic) {
    EXPECT_EQ(nameBasedIdentifier("a"), nameBasedIdentifier("a"));
    EXPECT_NE(nameBasedIdentifier("a"), nameBasedIdentifier("b"));
}

class LinuxApplicationTest : public ::testing::Test {
  protected:
    std::shared_ptr<AsioMainLoop> loop = std::make_shared<AsioMainLoop>();
    std::shared_ptr<LinuxApplication> app = std::make_shared<LinuxApplication>(loop);
    std::vector<ApplicationEvent> events;
    void SetUp() override {
        app->setEventHandler(
            [this](ApplicationEvent event, const nlohmann::json&) { events.push_back(event); });
    }
};

TEST_F(LinuxApplicationTest, LifeCycleCallsDeliverEventsInOrderAndSetTheState) {
    app->finishLaunching();
    EXPECT_EQ(app->applicationState(), ApplicationState::kActive);
    app->enterBackground();
    EXPECT_EQ(app->applicationState(), ApplicationState::kBackground);
    app->enterForeground();
    EXPECT_EQ(app->applicationState(), ApplicationState::kActive);
    app->terminate();
    EXPECT_EQ(events, (std::vector<ApplicationEvent>{
                          ApplicationEvent::kDidFinishLaunching, ApplicationEvent::kWillResignActive,
                          ApplicationEvent::kDidEnterBackground, ApplicationEvent::kWillEnterForeground,
                          ApplicationEvent::kDidBecomeActive, ApplicationEvent::kWillTerminate}));
}

TEST_F(LinuxApplicationTest, EventsFromAnotherThreadArriveOnTheLoop) {
    bool onLoop = false;
    app->setEventHandler([&](ApplicationEvent event, const nlohmann::json& options) {
        onLoop = loop->isMainThread();
        events.push_back(event);
        EXPECT_EQ(options["UIApplicationLaunchOptionsLocationKey"], true);
    });
    std::thread([&] { app->finishLaunching({{"UIApplicationLaunchOptionsLocationKey", true}}); }).join();
    EXPECT_TRUE(events.empty());
    ASSERT_TRUE(loop->runUntil([&] { return !events.empty(); }, 2s));
    EXPECT_TRUE(onLoop);
}

TEST_F(LinuxApplicationTest, BadgeIsKeptAndObserved) {
    std::vector<long> seen;
    app->setBadgeObserver([&](long badge) { seen.push_back(badge); });
    app->setApplicationIconBadgeNumber(3);
    app->setApplicationIconBadgeNumber(0);
    EXPECT_EQ(app->applicationIconBadgeNumber(), 0);
    EXPECT_EQ(seen, (std::vector<long>{3, 0}));
}

TEST_F(LinuxApplicationTest, OpenUrlStartsTheOpenerWithoutWaitingAndFailsWhenItIsMissing) {
    test::TempDir directory;
    const auto opener = directory.path() / "opener";
    const auto marker = directory.path() / "opened";
    std::ofstream(opener) << "#!/bin/sh\nsleep 1\nprintf '%s' \"$1\" > " << marker.string() << "\n";
    std::filesystem::permissions(opener, std::filesystem::perms::owner_all);
    LinuxApplicationOptions options;
    options.urlOpener = opener.string();
    auto withOpener = std::make_shared<LinuxApplication>(loop, options);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_TRUE(withOpener->openURL("https://example.com/offer?id=1&x='\"$(boom)\""));
    EXPECT_LT(std::chrono::steady_clock::now() - start, 900ms) << "the opener is not waited for";
    ASSERT_TRUE(test::waitUntil(
        [&] { return std::filesystem::exists(marker) && std::filesystem::file_size(marker) > 0; }, 10s));
    std::ifstream in(marker);
    std::string opened;
    std::getline(in, opened);
    EXPECT_EQ(opened, "https://example.com/offer?id=1&x='\"$(boom)\"")
        << "the URL reaches it as one argument";

    options.urlOpener = "tovrel-no-such-opener";
    EXPECT_FALSE(std::make_shared<LinuxApplication>(loop, options)->openURL("https://example.com"));
    EXPECT_EQ(app->openSettingsURLString(), "app-settings:");
}

TEST(LogSinkTest, LinesCarryAUtcTimestampTheIdentityAndThePid) {
    std::FILE* stream = std::tmpfile();
    ASSERT_NE(stream, nullptr);
    {
        LogOptions options;
        options.identity = "tovrel-host";
        options.stream = stream;
        StreamLogSink sink(options);
        sink.write("-[LocationManager startMonitoringLocation] [Line 42] startMonitoringLocation\n");
    }
    std::rewind(stream);
    char buffer[512] = {};
    ASSERT_NE(std::fgets(buffer, sizeof buffer, stream), nullptr);
    std::fclose(stream);
    const std::string text(buffer);
    const auto stampEnd = text.find(' ');
    ASSERT_NE(stampEnd, std::string::npos);
    EXPECT_TRUE(shaped(text.substr(0, stampEnd), "9999-99-99T99:99:99.999Z")) << text;
    const std::string pid = "[" + std::to_string(::getpid()) + "]";
    EXPECT_EQ(text.substr(stampEnd),
              " tovrel-host" + pid +
                  ": -[LocationManager startMonitoringLocation] [Line 42] startMonitoringLocation\n");
    EXPECT_EQ(formatLogTimestamp(1717243200.9996), "2024-06-01T12:00:01.000Z");
}

TEST(LogAlertPresenterTest, AlertsAreLoggedAndAnsweredByTheHost) {
    auto loop = std::make_shared<AsioMainLoop>();
    struct Lines final : platform::LogSink {
        void write(std::string_view line) override { lines.emplace_back(line); }
        std::vector<std::string> lines;
    };
    auto log = std::make_shared<Lines>();
    LogAlertPresenter alerts(loop, log);
    std::vector<int> answers;
    platform::AlertSpec alert;
    alert.title = "Message";
    alert.message = "20% off";
    alert.cancelButtonTitle = "Later";
    alert.otherButtonTitles = {"View", "Never"};
    alert.onDismiss = [&](int index) { answers.push_back(index); };
    const auto id = alerts.show(alert);
    ASSERT_EQ(log->lines.size(), 1u);
    EXPECT_EQ(log->lines[0], "Alert 1: [Message] 20% off | buttons: 0=Later, 1=View, 2=Never");
    ASSERT_EQ(alerts.pending().size(), 1u);
    std::thread([&] { alerts.answer(id, 1); }).join();
    ASSERT_TRUE(loop->runUntil([&] { return !answers.empty(); }, 2s));
    EXPECT_EQ(answers, std::vector<int>{1});
    EXPECT_TRUE(alerts.pending().empty());
    alerts.dismiss(id, 0, false);  // already answered: ignored
    EXPECT_EQ(answers.size(), 1u);
}

}  // namespace
}  // namespace tovrel::linuxbackend
