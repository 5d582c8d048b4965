#pragma once

#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <variant>

#include "tovrel/curl/curl_options.h"
#include "tovrel/export.h"
#include "tovrel/linux/asio_main_loop.h"
#include "tovrel/linux/dbus_notifications.h"
#include "tovrel/linux/linux_application.h"
#include "tovrel/linux/linux_device.h"
#include "tovrel/linux/linux_location_services.h"
#include "tovrel/linux/location_sources.h"
#include "tovrel/linux/log_alerts.h"
#include "tovrel/linux/speed_motion.h"
#include "tovrel/linux/sqlite_preferences.h"
#include "tovrel/linux/system_clock.h"
#include "tovrel/linux/thread_background_work.h"
#include "tovrel/platform/platform.h"

namespace tovrel::linuxbackend {

/// Everything a Linux host chooses.
struct TOVREL_EXPORT LinuxPlatformOptions {
    /// Names the application: preferences, identifier salt and the notification's desktop entry.
    std::string applicationId = "org.tovrel.host";
    /// The name notifications show.
    std::string applicationName = "Tovrel";
    /// Where the application's files live; empty: applicationDataDirectory(applicationId).
    std::filesystem::path dataDirectory{};
    curl::CurlOptions http{};
    SqlitePreferencesOptions preferences{};
    LogOptions log{};
    DbusNotificationsOptions notifications{};
    LinuxDeviceOptions device{};
    LocationServicesOptions locationServices{};
    /// The position source: none (no fix ever comes), gpsd, or a file replay.
    std::variant<std::monostate, GpsdOptions, ReplayOptions> locationSource{};
    SpeedMotionOptions motion{};
    std::size_t backgroundThreads = 2;
    /// Without rtnetlink (a sandbox that forbids it) reachability stays null and a line is logged;
    /// true makes the constructor throw instead.
    bool requireReachability = false;
};

/// Every port on real Linux parts. Keep the concrete parts to drive the loop and the application
/// life cycle; hand platform() to an Environment. Construct and destroy on the thread that will run
/// the loop; destroy only after the loop has stopped running.
struct TOVREL_EXPORT LinuxPlatform {
    /// On an asio loop of its own (`loop`). Throws std::runtime_error when the preferences cannot be
    /// opened or the replay file read.
    explicit LinuxPlatform(LinuxPlatformOptions options = {});
    /// On a main loop the host runs (a toolkit's event loop, say): every part posts to `hostLoop`, and
    /// `watcher` watches the netlink socket on that loop's thread. `loop` stays null. Throws as above.
    LinuxPlatform(LinuxPlatformOptions options, std::shared_ptr<platform::MainLoop> hostLoop,
                  std::shared_ptr<DescriptorWatcher> watcher);
    ~LinuxPlatform();
    LinuxPlatform(const LinuxPlatform&) = delete;
    LinuxPlatform& operator=(const LinuxPlatform&) = delete;

    /// Any thread. The ports, filled once by the constructor.
    [[nodiscard]] const platform::Platform& platform() const { return ports_; }

    std::shared_ptr<AsioMainLoop> loop;            ///< null on a host's loop
    std::shared_ptr<platform::MainLoop> mainLoop;  ///< the loop every part runs on
    std::shared_ptr<ThreadBackgroundWork> background;
    std::shared_ptr<SystemClock> clock;
    std::shared_ptr<StreamLogSink> log;
    std::shared_ptr<platform::HttpClient> http;
    std::shared_ptr<SqlitePreferences> preferences;
    std::shared_ptr<LinuxDevice> device;
    std::shared_ptr<LinuxApplication> application;
    std::shared_ptr<DbusNotifications> notifications;
    std::shared_ptr<platform::ReachabilitySource> reachability;  ///< null when rtnetlink is unavailable
    std::shared_ptr<LogAlertPresenter> alerts;
    std::shared_ptr<LinuxLocationServices> location;
    std::shared_ptr<SpeedMotionServices> motion;

  private:
    void build(LinuxPlatformOptions options, const std::shared_ptr<DescriptorWatcher>& watcher);

    platform::Platform ports_;
};

/// The libcurl client bound to a loop it keeps alive (the client is destroyed first).
TOVREL_EXPORT std::shared_ptr<platform::HttpClient> makeHttpClient(std::shared_ptr<platform::MainLoop> loop,
                                                                   curl::CurlOptions options = {});

}  // namespace tovrel::linuxbackend
