#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "process_support.h"
#include "tovrel/linux/asio_main_loop.h"
#include "tovrel/linux/dbus_notifications.h"
#include "tovrel/linux/linux_application.h"
#include "tovrel/linux/system_clock.h"

namespace tovrel::linuxbackend {
namespace {

using namespace std::chrono_literals;

class RecordingLogSink final : public platform::LogSink {
  public:
    void write(std::string_view line) override {
        std::lock_guard lock(mutex);
        lines.emplace_back(line);
    }
    std::mutex mutex;
    std::vector<std::string> lines;
};

/// A private session bus (dbus-daemon) with a notification server that records Notify calls.
class DbusNotificationsTest : public ::testing::Test {
  protected:
    void SetUp() override {
        if (findExecutable("dbus-daemon").empty()) {
            GTEST_SKIP() << "dbus-daemon is not installed (Debian package dbus-daemon)";
        }
        if (test::runCommand("/usr/bin/python3 -c 'import dbus, gi' 2>/dev/null") != 0) {
            GTEST_SKIP() << "the test notification server needs python3-dbus and python3-gi";
        }
        bus_ = std::make_unique<test::ChildProcess>(
            std::vector<std::string>{"dbus-daemon", "--session", "--nofork", "--print-address=1"}, true);
        address_ = bus_->readLine(10s);
        ASSERT_FALSE(address_.empty()) << "dbus-daemon printed no address";
    }

    void startServer() {
        server_ = std::make_unique<test::ChildProcess>(
            std::vector<std::string>{"env", "DBUS_SESSION_BUS_ADDRESS=" + address_, "/usr/bin/python3",
                                     std::string(TOVREL_LINUX_TEST_DIR) + "/notification_service.py"},
            true, true);
        ASSERT_EQ(server_->readLine(10s), "ready");
    }

    std::shared_ptr<DbusNotifications> makeNotifications() {
        DbusNotificationsOptions options;
        options.busAddress = address_;
        options.applicationName = "Shop";
        options.desktopEntry = "com.example.shop";
        return std::make_shared<DbusNotifications>(loop, clock, log, options);
    }

    /// The next Notify call the server saw.
    nlohmann::json nextNotify() {
        const std::string line = server_->readLine(10s);
        return line.empty() ? nlohmann::json() : nlohmann::json::parse(line);
    }

    static platform::LocalNotification offer(const std::string& body) {
        platform::LocalNotification notification;
        notification.alertBody = body;
        notification.alertAction = "View";
        notification.soundName = platform::kDefaultSoundName;
        notification.userInfo = {{"deviceEventId", "4711"}, {"eventId", 12}};
        return notification;
    }

    std::shared_ptr<AsioMainLoop> loop = std::make_shared<AsioMainLoop>();
    std::shared_ptr<SystemClock> clock = std::make_shared<SystemClock>();
    std::shared_ptr<RecordingLogSink> log = std::make_shared<RecordingLogSink>();
    std::string address_;
    std::unique_ptr<test::ChildProcess> bus_;
    std::unique_ptr<test::ChildProcess> server_;
};

TEST_F(DbusNotificationsTest, SettingsSayWhetherANotificationServerIsThere) {
    auto notifications = makeNotifications();
    EXPECT_TRUE(notifications->connected());
    EXPECT_EQ(notifications->currentUserNotificationSettings(), 0);
    startServer();
    EXPECT_EQ(notifications->currentUserNotificationSettings(), 7);
    notifications->registerUserNotificationSettings(7);
    EXPECT_EQ(notifications->registeredTypes(), 7);
}

TEST_F(DbusNotificationsTest, PresentSendsNotifyWithTheDefaultActionAndSetsTheBadge) {
    startServer();
    auto notifications = makeNotifications();
    std::vector<long> badges;
    notifications->setBadgeHandler([&](long badge) { badges.push_back(badge); });
    auto notification = offer("20% off at the corner shop");
    notification.applicationIconBadgeNumber = 1;
    notifications->presentLocalNotificationNow(notification);
    const auto call = nextNotify();
    ASSERT_TRUE(call.is_object());
    EXPECT_EQ(call["app_name"], "Shop");
    EXPECT_EQ(call["summary"], "Shop");
    EXPECT_EQ(call["body"], "20% off at the corner shop");
    EXPECT_EQ(call["actions"], nlohmann::json({"default", "View"}));
    EXPECT_EQ(call["hints"]["sound-name"], "message-new-instant");
    EXPECT_EQ(call["hints"]["desktop-entry"], "com.example.shop");
    EXPECT_EQ(call["timeout"], -1);
    EXPECT_EQ(badges, std::vector<long>{1});

    auto silent = offer("no sound");
    silent.soundName.clear();
    silent.alertAction.clear();
    notifications->presentLocalNotificationNow(silent);
    const auto second = nextNotify();
    EXPECT_FALSE(second["hints"].contains("sound-name"));
    EXPECT_EQ(second["actions"], nlohmann::json({"default", "Open"}));
    EXPECT_EQ(badges.size(), 1u) << "a badge number of 0 leaves the badge alone";
}

TEST_F(DbusNotificationsTest, ActivatingTheDefaultActionHandsTheNotificationToTheHostOnTheLoop) {
    startServer();
    auto notifications = makeNotifications();
    std::vector<platform::LocalNotification> activated;
    bool offLoop = false;
    notifications->setActivationHandler([&](const platform::LocalNotification& notification) {
        offLoop = offLoop || !loop->isMainThread();
        activated.push_back(notification);
    });
    notifications->presentLocalNotificationNow(offer("first"));
    const int firstId = nextNotify()["id"];
    notifications->presentLocalNotificationNow(offer("second"));
    const int secondId = nextNotify()["id"];
    // The reply that maps the server's id to the notification arrives on the bus thread.
    loop->runFor(200ms);

    server_->writeLine("invoke " + std::to_string(firstId) + " some-other-action");
    server_->writeLine("close " + std::to_string(secondId));
    server_->writeLine("invoke " + std::to_string(secondId) + " default");
    server_->writeLine("invoke " + std::to_string(firstId) + " default");
    ASSERT_TRUE(loop->runUntil([&] { return !activated.empty(); }, 10s));
    loop->runFor(200ms);
    ASSERT_EQ(activated.size(), 1u) << "other actions and closed notifications are ignored";
    EXPECT_EQ(activated[0].alertBody, "first");
    EXPECT_EQ(activated[0].userInfo["deviceEventId"], "4711");
    EXPECT_FALSE(offLoop);
}

TEST_F(DbusNotificationsTest, ScheduledNotificationsFireFromTheLoopInDateOrder) {
    startServer();
    auto notifications = makeNotifications();
    auto later = offer("later");
    later.fireDate = clock->now() + 0.4;
    auto sooner = offer("sooner");
    sooner.fireDate = clock->now() + 0.2;
    auto past = offer("past");
    past.fireDate = clock->now() - 5;
    notifications->scheduleLocalNotification(later);
    notifications->scheduleLocalNotification(sooner);
    notifications->scheduleLocalNotification(past);
    EXPECT_EQ(nextNotify()["body"], "past") << "a fire date in the past presents at once";
    const auto scheduled = notifications->scheduledLocalNotifications();
    ASSERT_EQ(scheduled.size(), 2u);
    EXPECT_EQ(scheduled[0].alertBody, "sooner");
    EXPECT_EQ(scheduled[1].alertBody, "later");
    loop->runUntil([&] { return notifications->scheduledLocalNotifications().empty(); }, 10s);
    EXPECT_EQ(nextNotify()["body"], "sooner");
    EXPECT_EQ(nextNotify()["body"], "later");
}

TEST_F(DbusNotificationsTest, CancelledNotificationsNeverFire) {
    startServer();
    auto notifications = makeNotifications();
    auto soon = offer("cancelled");
    soon.fireDate = clock->now() + 0.1;
    notifications->scheduleLocalNotification(soon);
    notifications->cancelAllLocalNotifications();
    EXPECT_TRUE(notifications->scheduledLocalNotifications().empty());
    loop->runFor(300ms);
    notifications->presentLocalNotificationNow(offer("marker"));
    EXPECT_EQ(nextNotify()["body"], "marker");
}

TEST(DbusNotificationsWithoutBusTest, NotificationsGoToTheLogAndSettingsAreZero) {
    auto loop = std::make_shared<AsioMainLoop>();
    auto log = std::make_shared<RecordingLogSink>();
    DbusNotificationsOptions options;
    options.busAddress = "unix:path=/nonexistent/tovrel-bus";
    DbusNotifications notifications(loop, std::make_shared<SystemClock>(), log, options);
    EXPECT_FALSE(notifications.connected());
    EXPECT_EQ(notifications.currentUserNotificationSettings(), 0);
    platform::LocalNotification notification;
    notification.alertBody = "hello";
    notifications.presentLocalNotificationNow(notification);
    std::lock_guard lock(log->mutex);
    ASSERT_EQ(log->lines.size(), 2u);
    EXPECT_NE(log->lines[0].find("no session bus"), std::string::npos);
    EXPECT_EQ(log->lines[1], "Notification: hello");
}

}  // namespace
}  // namespace tovrel::linuxbackend
