#pragma once

#include <nlohmann/json.hpp>

#include "tovrel/export.h"
#include "tovrel/platform/application.h"

namespace tovrel::platform {

/// The order in which an application reports its life cycle, written once for every backend: each
/// step sets the state, then delivers its events through the backend's own delivery (which decides
/// the thread the handler hears them on). Moving to the background resigns first only when the
/// application is active; coming back passes through inactive to active.
class TOVREL_EXPORT ApplicationLifecycle {
  public:
    /// Any thread. The launch event, with `launchOptions` (null for a plain launch).
    void finishLaunching(const nlohmann::json& launchOptions = nullptr) {
        deliverLifecycleEvent(ApplicationEvent::kDidFinishLaunching, launchOptions);
    }
    /// Any thread. State active; did-become-active.
    void becomeActive() {
        setLifecycleState(ApplicationState::kActive);
        deliverLifecycleEvent(ApplicationEvent::kDidBecomeActive, nullptr);
    }
    /// Any thread. State inactive; will-resign-active.
    void resignActive() {
        setLifecycleState(ApplicationState::kInactive);
        deliverLifecycleEvent(ApplicationEvent::kWillResignActive, nullptr);
    }
    /// Any thread. resignActive() when active, then state background and did-enter-background.
    void enterBackground() {
        if (lifecycleState() == ApplicationState::kActive) {
            resignActive();
        }
        setLifecycleState(ApplicationState::kBackground);
        deliverLifecycleEvent(ApplicationEvent::kDidEnterBackground, nullptr);
    }
    /// Any thread. State inactive and will-enter-foreground, then becomeActive().
    void enterForeground() {
        setLifecycleState(ApplicationState::kInactive);
        deliverLifecycleEvent(ApplicationEvent::kWillEnterForeground, nullptr);
        becomeActive();
    }
    /// Any thread. Will-terminate.
    void terminate() { deliverLifecycleEvent(ApplicationEvent::kWillTerminate, nullptr); }

  protected:
    ApplicationLifecycle() = default;
    ApplicationLifecycle(const ApplicationLifecycle&) = default;
    ApplicationLifecycle& operator=(const ApplicationLifecycle&) = default;
    virtual ~ApplicationLifecycle() = default;

    /// Any thread. The application's state now.
    [[nodiscard]] virtual ApplicationState lifecycleState() const = 0;
    /// Any thread. Sets the state without any event.
    virtual void setLifecycleState(ApplicationState state) = 0;
    /// Any thread. Hands `event` to the application's event handler.
    virtual void deliverLifecycleEvent(ApplicationEvent event, const nlohmann::json& launchOptions) = 0;
};

}  // namespace tovrel::platform
