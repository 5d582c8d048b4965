#pragma once

#include <memory>

#include "tovrel/export.h"
#include "tovrel/linux/linux_platform.h"
#include "tovrel/platform/platform.h"
#include "tovrel/qt/qt_alerts.h"
#include "tovrel/qt/qt_main_loop.h"
#include "tovrel/qt/qt_views.h"

namespace tovrel::qtbackend {

struct TOVREL_EXPORT QtPlatformOptions {
    /// The Linux parts: HTTP, preferences, positions, reachability, notifications.
    linuxbackend::LinuxPlatformOptions linuxParts{};
    QtViewSystem::Options views{};
};

/// Every port for a desktop host with screens: Qt's event loop is the main loop, the views and the
/// alerts are Qt's, and the rest are the Linux parts running on that loop (libcurl, SQLite, gpsd or
/// a replay, rtnetlink, D-Bus notifications). Construct and destroy on the QApplication's thread,
/// after the QApplication; destroy before it.
struct TOVREL_EXPORT QtPlatform {
    /// Throws as LinuxPlatform does.
    explicit QtPlatform(QtPlatformOptions options = {});
    ~QtPlatform();
    QtPlatform(const QtPlatform&) = delete;
    QtPlatform& operator=(const QtPlatform&) = delete;

    /// Any thread. The Linux platform's ports with the Qt loop, views and alerts, filled once.
    [[nodiscard]] const platform::Platform& platform() const { return ports_; }

    std::shared_ptr<QtMainLoop> loop;
    std::unique_ptr<linuxbackend::LinuxPlatform> linuxParts;
    std::shared_ptr<QtViewSystem> views;
    std::shared_ptr<QtAlertPresenter> alerts;

  private:
    platform::Platform ports_;
};

}  // namespace tovrel::qtbackend
