#include "tovrel/linux/dbus_notifications.h"

#include <sdbus-c++/sdbus-c++.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <deque>
#include <map>
#include <mutex>

#include "tovrel/platform/thread_check.h"

namespace tovrel::linuxbackend {
namespace {

constexpr const char* kService = "org.freedesktop.Notifications";
constexpr const char* kPath = "/org/freedesktop/Notifications";
constexpr const char* kInterface = "org.freedesktop.Notifications";
constexpr const char* kDefaultAction = "default";
constexpr std::size_t kRememberedNotifications = 256;
constexpr auto kBusQueryTimeout = std::chrono::seconds(1);

/// A sound-theme name for the platform's "default" sound.
constexpr const char* kDefaultSoundTheme = "message-new-instant";

/// For an address of the form "unix:path=<socket>[,guid=...]": whether a bus listens there. Other
/// forms are left to sd-bus (true). Checked first because sd-bus 1.2's failed connection to an explicit
/// address leaks its bus object.
bool unixBusListening(const std::string& address) {
    constexpr std::string_view kPrefix = "unix:path=";
    if (address.rfind(kPrefix, 0) != 0 || address.find(';') != std::string::npos) {
        return true;
    }
    std::string path = address.substr(kPrefix.size());
    path = path.substr(0, path.find(','));
    sockaddr_un socketAddress{};
    if (path.empty() || path.size() >= sizeof socketAddress.sun_path) {
        return false;
    }
    socketAddress.sun_family = AF_UNIX;
    std::memcpy(socketAddress.sun_path, path.data(), path.size());
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return false;
    }
    const bool listening =
        ::connect(fd, reinterpret_cast<const sockaddr*>(&socketAddress), sizeof socketAddress) == 0;
    ::close(fd);
    return listening;
}

}  // namespace

class DbusNotifications::Impl : public std::enable_shared_from_this<DbusNotifications::Impl> {
  public:
    Impl(std::shared_ptr<platform::MainLoop> loop, std::shared_ptr<platform::Clock> clock,
         std::shared_ptr<platform::LogSink> log, DbusNotificationsOptions options)
        : loop_(std::move(loop)),
          clock_(std::move(clock)),
          log_(std::move(log)),
          options_(std::move(options)) {}

    [[nodiscard]] const platform::MainLoop& loop() const { return *loop_; }

    void connect() {
        if (!options_.busAddress.empty() && !unixBusListening(options_.busAddress)) {
            log("Notifications: no session bus at " + options_.busAddress + "; notifications go to the log");
            return;
        }
        try {
            connection_ = options_.busAddress.empty()
                              ? sdbus::createSessionBusConnection()
                              : sdbus::createSessionBusConnectionWithAddress(options_.busAddress);
            notifications_ = sdbus::createProxy(*connection_, kService, kPath);
            bus_ = sdbus::createProxy(*connection_, "org.freedesktop.DBus", "/org/freedesktop/DBus");
            const std::weak_ptr<Impl> weak = weak_from_this();
            notifications_->uponSignal("ActionInvoked")
                .onInterface(kInterface)
                .call([weak](std::uint32_t id, const std::string& actionKey) {
                    if (const auto self = weak.lock()) {
                        self->actionInvoked(id, actionKey);
                    }
                });
            notifications_->uponSignal("NotificationClosed")
                .onInterface(kInterface)
                .call([weak](std::uint32_t id, std::uint32_t /*reason*/) {
                    if (const auto self = weak.lock()) {
                        self->closed(id);
                    }
                });
            notifications_->finishRegistration();
            connection_->enterEventLoopAsync();
        } catch (const sdbus::Error& error) {
            bus_.reset();
            notifications_.reset();
            connection_.reset();
            log("Notifications: no session bus (" + error.getMessage() + "); notifications go to the log");
        }
    }

    void disconnect() {
        if (connection_) {
            connection_->leaveEventLoop();
        }
        bus_.reset();
        notifications_.reset();
        connection_.reset();
    }

    void present(const platform::LocalNotification& notification) {
        if (notification.applicationIconBadgeNumber != 0) {
            std::function<void(long)> badge;
            {
                std::lock_guard lock(mutex_);
                badge = badgeHandler_;
            }
            if (badge) {
                badge(notification.applicationIconBadgeNumber);
            }
        }
        if (!notifications_) {
            log("Notification: " + notification.alertBody);
            return;
        }
        const std::string actionTitle =
            notification.alertAction.empty() ? options_.defaultActionTitle : notification.alertAction;
        std::vector<std::string> actions = {kDefaultAction, actionTitle};
        std::map<std::string, sdbus::Variant> hints;
        if (!notification.soundName.empty()) {
            hints.emplace("sound-name", sdbus::Variant(notification.soundName == platform::kDefaultSoundName
                                                           ? std::string(kDefaultSoundTheme)
                                                           : notification.soundName));
        }
        if (!options_.desktopEntry.empty()) {
            hints.emplace("desktop-entry", sdbus::Variant(options_.desktopEntry));
        }
        const std::weak_ptr<Impl> weak = weak_from_this();
        try {
            notifications_->callMethodAsync("Notify")
                .onInterface(kInterface)
                .withArguments(options_.applicationName, std::uint32_t{0}, std::string(),
                               options_.applicationName, notification.alertBody, actions, hints,
                               std::int32_t{options_.expireTimeoutMilliseconds})
                .uponReplyInvoke([weak, notification](const sdbus::Error* error, std::uint32_t id) {
                    if (const auto self = weak.lock()) {
                        self->shown(notification, error, id);
                    }
                });
        } catch (const sdbus::Error& error) {
            log("Notification could not be sent: " + error.getMessage());
        }
    }

    [[nodiscard]] std::optional<int> settings() const {
        if (!bus_) {
            return 0;
        }
        try {
            bool owned = false;
            bus_->callMethod("NameHasOwner")
                .onInterface("org.freedesktop.DBus")
                .withTimeout(kBusQueryTimeout)
                .withArguments(std::string(kService))
                .storeResultsTo(owned);
            return owned ? platform::kNotificationTypeBadge | platform::kNotificationTypeSound |
                               platform::kNotificationTypeAlert
                         : 0;
        } catch (const sdbus::Error&) {
            return 0;
        }
    }

    void schedule(const platform::LocalNotification& notification) {
        const double now = clock_->now();
        if (!notification.fireDate || *notification.fireDate <= now) {
            present(notification);
            return;
        }
        const std::uint64_t sequence = nextSequence_++;
        const std::weak_ptr<Impl> weak = weak_from_this();
        auto timer = loop_->scheduleTimer(*notification.fireDate - now, false, [weak, sequence] {
            if (const auto self = weak.lock()) {
                self->fire(sequence);
            }
        });
        scheduled_.push_back(Scheduled{sequence, notification, std::move(timer)});
        std::stable_sort(scheduled_.begin(), scheduled_.end(), [](const Scheduled& a, const Scheduled& b) {
            return *a.notification.fireDate < *b.notification.fireDate;
        });
    }

    [[nodiscard]] std::vector<platform::LocalNotification> scheduled() const {
        std::vector<platform::LocalNotification> out;
        out.reserve(scheduled_.size());
        for (const auto& entry : scheduled_) {
            out.push_back(entry.notification);
        }
        return out;
    }

    void cancelAll() {
        for (auto& entry : scheduled_) {
            entry.timer->invalidate();
        }
        scheduled_.clear();
    }

    void setActivationHandler(std::function<void(const platform::LocalNotification&)> handler) {
        std::lock_guard lock(mutex_);
        activationHandler_ = std::move(handler);
    }
    void setBadgeHandler(std::function<void(long)> handler) {
        std::lock_guard lock(mutex_);
        badgeHandler_ = std::move(handler);
    }
    [[nodiscard]] bool connected() const { return connection_ != nullptr; }

    std::optional<int> registered;

  private:
    struct Scheduled {
        std::uint64_t sequence;
        platform::LocalNotification notification;
        std::shared_ptr<platform::Timer> timer;
    };

    void fire(std::uint64_t sequence) {
        const auto it =
            std::find_if(scheduled_.begin(), scheduled_.end(),
                         [sequence](const Scheduled& entry) { return entry.sequence == sequence; });
        if (it == scheduled_.end()) {
            return;
        }
        const platform::LocalNotification notification = it->notification;
        scheduled_.erase(it);
        present(notification);
    }

    /// Event-loop thread.
    void shown(const platform::LocalNotification& notification, const sdbus::Error* error, std::uint32_t id) {
        if (error != nullptr) {
            log("Notification was refused: " + error->getMessage());
            return;
        }
        std::lock_guard lock(mutex_);
        shownIds_.push_back(id);
        active_[id] = notification;
        while (shownIds_.size() > kRememberedNotifications) {
            active_.erase(shownIds_.front());
            shownIds_.pop_front();
        }
    }

    /// Event-loop thread.
    void actionInvoked(std::uint32_t id, const std::string& actionKey) {
        if (actionKey != kDefaultAction) {
            return;
        }
        platform::LocalNotification notification;
        {
            std::lock_guard lock(mutex_);
            const auto it = active_.find(id);
            if (it == active_.end()) {
                return;
            }
            notification = it->second;
        }
        const std::weak_ptr<Impl> weak = weak_from_this();
        loop_->post([weak, notification] {
            const auto self = weak.lock();
            if (!self) {
                return;
            }
            std::function<void(const platform::LocalNotification&)> handler;
            {
                std::lock_guard lock(self->mutex_);
                handler = self->activationHandler_;
            }
            if (handler) {
                handler(notification);
            }
        });
    }

    /// Event-loop thread.
    void closed(std::uint32_t id) {
        std::lock_guard lock(mutex_);
        active_.erase(id);
    }

    void log(const std::string& line) const {
        if (log_) {
            log_->write(line);
        }
    }

    std::shared_ptr<platform::MainLoop> loop_;
    std::shared_ptr<platform::Clock> clock_;
    std::shared_ptr<platform::LogSink> log_;
    DbusNotificationsOptions options_;
    std::unique_ptr<sdbus::IConnection> connection_;
    std::unique_ptr<sdbus::IProxy> notifications_;
    std::unique_ptr<sdbus::IProxy> bus_;
    mutable std::mutex mutex_;
    std::map<std::uint32_t, platform::LocalNotification> active_;
    std::deque<std::uint32_t> shownIds_;
    std::function<void(const platform::LocalNotification&)> activationHandler_;
    std::function<void(long)> badgeHandler_;
    std::vector<Scheduled> scheduled_;
    std::uint64_t nextSequence_ = 0;
};

DbusNotifications::DbusNotifications(std::shared_ptr<platform::MainLoop> loop,
                                     std::shared_ptr<platform::Clock> clock,
                                     std::shared_ptr<platform::LogSink> log, DbusNotificationsOptions options)
    : impl_(std::make_shared<Impl>(std::move(loop), std::move(clock), std::move(log), std::move(options))) {
    impl_->connect();
}

DbusNotifications::~DbusNotifications() {
    TOVREL_ASSERT_MAIN_THREAD(impl_->loop());
    impl_->cancelAll();
    impl_->disconnect();
}

void DbusNotifications::presentLocalNotificationNow(const platform::LocalNotification& notification) {
    TOVREL_ASSERT_MAIN_THREAD(impl_->loop());
    impl_->present(notification);
}

void DbusNotifications::scheduleLocalNotification(const platform::LocalNotification& notification) {
    TOVREL_ASSERT_MAIN_THREAD(impl_->loop());
    impl_->schedule(notification);
}

std::vector<platform::LocalNotification> DbusNotifications::scheduledLocalNotifications() const {
    TOVREL_ASSERT_MAIN_THREAD(impl_->loop());
    return impl_->scheduled();
}

void DbusNotifications::cancelAllLocalNotifications() {
    TOVREL_ASSERT_MAIN_THREAD(impl_->loop());
    impl_->cancelAll();
}

void DbusNotifications::registerUserNotificationSettings(int typeMask) {
    TOVREL_ASSERT_MAIN_THREAD(impl_->loop());
    impl_->registered = typeMask;
}

std::optional<int> DbusNotifications::currentUserNotificationSettings() const {
    return impl_->settings();
}

void DbusNotifications::setActivationHandler(
    std::function<void(const platform::LocalNotification&)> handler) {
    impl_->setActivationHandler(std::move(handler));
}

void DbusNotifications::setBadgeHandler(std::function<void(long)> handler) {
    impl_->setBadgeHandler(std::move(handler));
}

bool DbusNotifications::connected() const {
    return impl_->connected();
}

std::optional<int> DbusNotifications::registeredTypes() const {
    TOVREL_ASSERT_MAIN_THREAD(impl_->loop());
    return impl_->registered;
}

}  // namespace tovrel::linuxbackend
