#pragma once

#include <memory>
#include <mutex>
#include <string>

#include "tovrel/export.h"
#include "tovrel/notification_center.h"
#include "tovrel/platform/platform.h"

namespace tovrel {

class AnalyticsManager;
class DataService;
class LaunchCheckers;
class SessionManager;

/// Where the component finds its service and content pages.
struct TOVREL_EXPORT Configuration {
    std::string serviceBaseURL;  ///< scheme and host, no trailing slash
    std::string contentBaseURL;  ///< base of the settings screen's content pages

    /// The values compiled into this build.
    static Configuration defaults();
};

/// One device's world: its platform ports, its configuration and the component's shared instances.
/// A host installs one as the default; tests and simulators make and discard their own. The launch
/// checkers are registered when the environment is made, so they see the launch notification.
///
/// Destroy an environment only after its main loop has stopped running.
class TOVREL_EXPORT Environment {
  public:
    explicit Environment(platform::Platform platform,
                         Configuration configuration = Configuration::defaults());
    ~Environment();
    Environment(const Environment&) = delete;
    Environment& operator=(const Environment&) = delete;

    [[nodiscard]] const platform::Platform& platform() const { return platform_; }
    [[nodiscard]] const Configuration& configuration() const { return configuration_; }
    NotificationCenter& notificationCenter() { return notificationCenter_; }
    LaunchCheckers& launchCheckers() { return *launchCheckers_; }

    /// The shared instances, made on first use (thread-safe).
    SessionManager& sessionManager();
    DataService& dataService();
    AnalyticsManager& analyticsManager();

    /// The environment that the class operations (sharedInstance, instance) resolve in: the innermost
    /// Scope on this thread, else the process default.
    static Environment& current();
    /// Installs `environment` as the process default (nullptr clears it).
    static void setDefault(Environment* environment);

    /// Makes an environment current on this thread for the scope's lifetime.
    class Scope {
      public:
        explicit Scope(Environment& environment);
        ~Scope();
        Scope(const Scope&) = delete;
        Scope& operator=(const Scope&) = delete;

      private:
        Environment* previous_;
    };

  private:
    void forwardApplicationEvents();

    platform::Platform platform_;
    Configuration configuration_;
    NotificationCenter notificationCenter_;
    std::unique_ptr<LaunchCheckers> launchCheckers_;
    std::once_flag sessionOnce_;
    std::unique_ptr<SessionManager> sessionManager_;
    std::mutex instancesMutex_;
    std::unique_ptr<DataService> dataService_;
    std::unique_ptr<AnalyticsManager> analyticsManager_;
};

}  // namespace tovrel
