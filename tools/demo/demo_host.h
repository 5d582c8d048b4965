#pragma once

#include <filesystem>
#include <functional>
#include <memory>
#include <string>

#include "tovrel/environment.h"
#include "tovrel/map_manager.h"
#include "tovrel/qt/qt_platform.h"
#include "tovrel/settings_controller.h"

namespace tovrel::demo {

/// The demo's screens: the place map as the window's root screen, a settings button that presents
/// the settings menu under a bar with a "Done" button, and the user's dot moved by every position the
/// component reports. Main thread only.
class DemoHost {
  public:
    DemoHost(Environment& environment, qtbackend::QtPlatform& backend);
    ~DemoHost();
    DemoHost(const DemoHost&) = delete;
    DemoHost& operator=(const DemoHost&) = delete;

    /// Puts the map on the window and shows the window.
    void show();
    /// Presents the settings menu; closeSettings() dismisses it.
    void openSettings();
    void closeSettings();
    /// Opens the callout of the place nearest the last position and taps its ">" button: the offer
    /// view opens as a user's tap would open it. False when the map shows no place yet.
    bool openNearestOffer();

    [[nodiscard]] const std::shared_ptr<MapManager>& mapManager() const { return map_; }
    /// The number of places on the map.
    [[nodiscard]] std::size_t placeCount() const;
    /// Whether an offer view is on the window and has finished loading.
    [[nodiscard]] bool offerShown() const;
    /// Whether the map has had a position.
    [[nodiscard]] bool hasUserPosition() const;

  private:
    Environment& environment_;
    qtbackend::QtPlatform& backend_;
    std::shared_ptr<MapManager> map_;
    std::shared_ptr<SettingsController> settings_;
    std::shared_ptr<platform::NavigationBar> settingsBar_;
    std::shared_ptr<platform::Button> settingsButton_;
    std::uint64_t locationObserver_ = 0;
};

/// Grabs the window into DIR/<name>.png; false when it cannot be written.
bool saveScreenshot(qtbackend::QtPlatform& backend, const std::filesystem::path& directory,
                    const std::string& name);

}  // namespace tovrel::demo
