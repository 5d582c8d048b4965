#pragma once

#include <functional>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "tovrel/export.h"

namespace tovrel::platform {

enum class ApplicationState { kActive = 0, kInactive = 1, kBackground = 2 };

/// Life-cycle events of the host application, as the platform reports them.
enum class ApplicationEvent {
    kDidFinishLaunching,  ///< carries the launch options (a JSON object, or null for a plain launch)
    kDidBecomeActive,
    kWillResignActive,
    kDidEnterBackground,
    kWillEnterForeground,
    kWillTerminate,
};

using ApplicationEventHandler =
    std::function<void(ApplicationEvent event, const nlohmann::json& launchOptions)>;

/// The host application as the platform sees it.
class TOVREL_EXPORT Application {
  public:
    virtual ~Application() = default;
    /// Main thread. The application's current state.
    [[nodiscard]] virtual ApplicationState applicationState() const = 0;
    /// Main thread. The number on the application's icon.
    [[nodiscard]] virtual long applicationIconBadgeNumber() const = 0;
    /// Main thread. Sets the number on the application's icon (0 hides it).
    virtual void setApplicationIconBadgeNumber(long number) = 0;
    /// Any thread. The main bundle identifier, for example "com.example.shop".
    [[nodiscard]] virtual std::string bundleIdentifier() const = 0;
    /// Main thread. Asks the system to open `url`; false when nothing can open it.
    virtual bool openURL(const std::string& url) = 0;
    /// Any thread. The address that opens this application's page of the system settings.
    [[nodiscard]] virtual std::string openSettingsURLString() const = 0;
    /// Main thread. `handler` receives every later life-cycle event on the main thread; a new handler
    /// replaces the previous one.
    virtual void setEventHandler(ApplicationEventHandler handler) = 0;
};

}  // namespace tovrel::platform
