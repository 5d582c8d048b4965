#pragma once

#include <memory>
#include <optional>
#include <string>

#include "tovrel/export.h"
#include "tovrel/notification_center.h"
#include "tovrel/reachability.h"

namespace tovrel {

class Environment;
class LocationManager;

/// Implemented by the host application; the component never calls it.
class TOVREL_EXPORT SessionManagerDelegate {
  public:
    virtual ~SessionManagerDelegate() = default;
    virtual std::string deviceId() = 0;
};

/// The component's entry point. The host takes the shared instance, sets the two presentation
/// switches and starts a session with its SDK key. Main thread only, except sharedInstance().
class TOVREL_EXPORT SessionManager : public SessionManagerDelegate {
  public:
    /// Registers for reachability changes, starts the host and Internet monitors and stores the
    /// advertising identifier under "adid" when nothing is stored there yet.
    explicit SessionManager(Environment& environment);
    ~SessionManager() override;
    SessionManager(const SessionManager&) = delete;
    SessionManager& operator=(const SessionManager&) = delete;

    /// The shared instance of the current environment, made once.
    static SessionManager& sharedInstance();

    /// Requests a session key. Returns the key stored when the call was made (the previous
    /// session's, or nullopt), since the request completes later.
    std::optional<std::string> startSession(const std::string& sdkKey);
    /// Requests a session key and, once it arrives, starts location monitoring and logs
    /// "session_started". A failed request is sent again at once, with no pause and no limit.
    std::optional<std::string> startSessionUsingLocation(const std::string& sdkKey);
    /// Stops the location monitor and drops it. The stored session key stays.
    void stopSession();

    /// The session key stored by the last successful start, read as every request to the service reads
    /// it (a stored number as its text); nullopt before any session started. Main thread.
    [[nodiscard]] std::optional<std::string> sessionKey() const;
    /// Re-evaluates the Internet monitor; switches the monitor's location updates off and on with it.
    bool checkNetworkStatus(const Notification* notification = nullptr);
    /// The live advertising identifier.
    std::string deviceId() override;

    /// A message box without buttons that goes away by itself after two seconds.
    static void showToastMessage(const std::string& message);
    /// A message box titled "Message" with one "OK" button.
    void showAlert(const std::string& message);

    [[nodiscard]] bool isReachable() const { return isReachable_; }
    [[nodiscard]] bool presentNotifications() const { return presentNotifications_; }
    void setPresentNotifications(bool value) { presentNotifications_ = value; }
    [[nodiscard]] bool presentOfferView() const { return presentOfferView_; }
    void setPresentOfferView(bool value) { presentOfferView_ = value; }
    [[nodiscard]] std::weak_ptr<SessionManagerDelegate> delegate() const { return delegate_; }
    void setDelegate(std::weak_ptr<SessionManagerDelegate> delegate) { delegate_ = std::move(delegate); }

    [[nodiscard]] const std::shared_ptr<LocationManager>& lm() const { return lm_; }
    [[nodiscard]] Reachability* hostReachability() const { return hostReachability_.get(); }
    [[nodiscard]] Reachability* internetReachability() const { return internetReachability_.get(); }

  private:
    std::optional<std::string> requestSession(const std::string& sdkKey, bool usingLocation);
    void sessionStarted(const nlohmann::json& response, bool usingLocation);
    void startLocationMonitoring();
    static void showToast(Environment& environment, const std::string& message);

    Environment& environment_;
    std::shared_ptr<LocationManager> lm_;
    std::unique_ptr<Reachability> hostReachability_;
    std::unique_ptr<Reachability> internetReachability_;
    ObserverToken reachabilityObserver_ = 0;
    bool isReachable_ = false;
    bool presentNotifications_ = false;
    bool presentOfferView_ = false;
    std::weak_ptr<SessionManagerDelegate> delegate_;
};

}  // namespace tovrel
