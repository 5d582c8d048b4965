#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <string>

#include "tovrel/export.h"
#include "tovrel/platform/application.h"
#include "tovrel/platform/application_lifecycle.h"
#include "tovrel/platform/main_loop.h"

namespace tovrel::linuxbackend {

struct TOVREL_EXPORT LinuxApplicationOptions {
    std::string applicationId = "org.tovrel.host";
    /// The program that opens URLs, looked up in $PATH.
    std::string urlOpener = "xdg-open";
    platform::ApplicationState initialState = platform::ApplicationState::kActive;
};

/// The host application on Linux. There is no system application life cycle: the host reports its
/// state changes through the ApplicationLifecycle calls (finishLaunching(), becomeActive(), ...), and
/// each event reaches the event handler on the main loop (at once when called there, else posted). The badge
/// is a number the host may show.
class TOVREL_EXPORT LinuxApplication final : public platform::Application,
                                             public platform::ApplicationLifecycle,
                                             public std::enable_shared_from_this<LinuxApplication> {
  public:
    LinuxApplication(std::shared_ptr<platform::MainLoop> loop, LinuxApplicationOptions options = {});

    /// Any thread (the port says main; the host may ask from anywhere).
    [[nodiscard]] platform::ApplicationState applicationState() const override;
    /// Any thread.
    [[nodiscard]] long applicationIconBadgeNumber() const override;
    /// Any thread. Tells the badge observer, if any, on the calling thread.
    void setApplicationIconBadgeNumber(long number) override;
    /// Any thread. The application id.
    [[nodiscard]] std::string bundleIdentifier() const override;
    /// Any thread. Starts the URL opener with `url` and does not wait for it; false when the opener is
    /// not installed or could not be started.
    bool openURL(const std::string& url) override;
    /// Any thread. "app-settings:" (there is no system settings page to open).
    [[nodiscard]] std::string openSettingsURLString() const override;
    /// Any thread. Replaces the handler.
    void setEventHandler(platform::ApplicationEventHandler handler) override;

    /// Any thread. Called with every new badge number (for a host that draws it).
    void setBadgeObserver(std::function<void(long)> observer);

  private:
    [[nodiscard]] platform::ApplicationState lifecycleState() const override { return applicationState(); }
    void setLifecycleState(platform::ApplicationState state) override { setState(state); }
    void deliverLifecycleEvent(platform::ApplicationEvent event,
                               const nlohmann::json& launchOptions) override {
        deliverEvent(event, launchOptions);
    }
    void deliverEvent(platform::ApplicationEvent event, const nlohmann::json& launchOptions = nullptr);
    void setState(platform::ApplicationState state);

    std::shared_ptr<platform::MainLoop> loop_;
    LinuxApplicationOptions options_;
    mutable std::mutex mutex_;
    platform::ApplicationState state_;
    long badge_ = 0;
    platform::ApplicationEventHandler handler_;
    std::function<void(long)> badgeObserver_;
};

/// The absolute path of `program` found in $PATH (or `program` itself when it holds a '/' and is
/// executable), or "" when there is none. Any thread.
TOVREL_EXPORT std::string findExecutable(const std::string& program);

}  // namespace tovrel::linuxbackend
