#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "tovrel/export.h"
#include "tovrel/notification_center.h"
#include "tovrel/platform/location.h"
#include "tovrel/platform/main_loop.h"
#include "tovrel/platform/motion.h"
#include "tovrel/platform/notifications.h"
#include "tovrel/platform/platform.h"
#include "tovrel/platform/thread_check.h"

namespace tovrel {

class AnalyticsManager;
class DataService;
class Environment;
class LaunchCheckers;
class OfferSink;
struct PlaceRecord;
struct hRegion;

namespace targeting {
class CheckLog;
class SharedTargets;
struct NearestSet;
}  // namespace targeting

/// What the views layer needs to open the offer view for one offer record: the record's values as
/// they stand, and the view's tag (the integer value of the event identifier).
struct TOVREL_EXPORT OfferViewRequest {
    nlohmann::json eventId;
    nlohmann::json deviceEventId;
    nlohmann::json mediaType;
    nlohmann::json mediaURL;  ///< the record's "mediaUrl"
    long long tag = 0;
};

/// The location monitor: owns the platform location manager, the place targets, the diagnostic
/// buffers and the periodic timers, links visits and hands their offers to its offer sink, which
/// keeps and delivers them (the members under "offer delivery" forward to it). Made by the session
/// manager once a location-enabled session has started; always owned through a std::shared_ptr
/// (create()), since timers, service completions and background work keep it alive while they are
/// pending.
///
/// Threads: everything runs on the main loop unless a member says otherwise. getTargets() and
/// sendLogs() may also run on background threads, motion updates arrive on the background queue.
/// The targets, the checks' records for diagnostics and the offers each keep their own lock.
class TOVREL_EXPORT LocationManager : public platform::LocationManagerDelegate,
                                      public std::enable_shared_from_this<LocationManager> {
  public:
    /// Receives every request to open the offer view (the views layer installs one).
    using OfferViewOpener = std::function<void(const OfferViewRequest&)>;

    /// What a monitor works with. It holds each by reference: the main loop's timers own the monitor,
    /// so it owns none of them, and each outlives it.
    struct Collaborators {
        const platform::Platform& platform;
        NotificationCenter& notificationCenter;
        DataService& dataService;
        AnalyticsManager& analytics;
        LaunchCheckers& launches;
    };

    /// Any thread. A monitor on `environment`'s ports and shared instances that hands its offers to
    /// `offers`.
    static std::shared_ptr<LocationManager> create(Environment& environment,
                                                   std::shared_ptr<OfferSink> offers);
    /// Any thread.
    LocationManager(const Collaborators& collaborators, std::shared_ptr<OfferSink> offers);
    ~LocationManager() override;
    LocationManager(const LocationManager&) = delete;
    LocationManager& operator=(const LocationManager&) = delete;

    // --- lifecycle -------------------------------------------------------------------------------

    /// Main thread. One-time wiring: observers, monitoring, first refresh and upload, motion, and the
    /// three repeating timers (3600 s, 1800 s, 1800 s), which are never invalidated.
    void initLocation();
    /// Main thread. Checks session, services, region monitoring and authorisation (alerting on each
    /// failure), then makes a fresh platform location manager and forgets all targets and offers.
    void startMonitoringLocation();
    /// Main thread. Stops updates and drops the platform location manager.
    void stopMonitoringLocation();
    /// Main thread. Restarts standard updates and significant-change monitoring.
    void resumePausedLocationManager();
    /// Main thread. Starts motion activity updates, which retune accuracy from the background queue.
    void startCoreMotion();

    /// Main thread. Stores the newest fix and runs the proximity check when both coordinates moved.
    void locationManagerDidUpdateLocations(const std::vector<platform::Location>& locations) override;
    /// Main thread. Code 0 sets accuracyError; every error restarts monitoring.
    void locationManagerDidFailWithError(const platform::LocationError& error) override;
    /// Main thread. Schedules a resume after 1800 s.
    void locationManagerDidPauseLocationUpdates() override;
    /// Main thread. Only logs.
    void locationManagerDidResumeLocationUpdates() override;

    /// Main thread. Application-state observers.
    void applicationDidBecomeActive(const Notification& notification);
    void applicationEnterForeground(const Notification& notification);
    void applicationWillResignActive(const Notification& notification);
    void applicationEnterBackground(const Notification& notification);
    /// Main thread. Sends "session_stopped", then blocks the calling thread for 2 seconds.
    void applicationWillTeminate(const Notification& notification);

    // --- targets and proximity -------------------------------------------------------------------

    /// Any thread. Asks the service for the places near the stored position; the answer replaces the
    /// target list on the main thread. Does nothing without a stored position.
    void getTargets();
    /// Main thread. The proximity check for one position.
    void checkForLocationTarget(const platform::Location& location);
    /// Main thread. The distance from `location` to the nearest target centre, in metres (infinity
    /// when there are no targets).
    double getClosestBB(const platform::Location& location);
    /// Any thread. The haversine distance in metres between two coordinates (sphere of 6371 km).
    static double calculateDistanceInMetersBetweenCoord(const platform::Coordinate& first,
                                                        const platform::Coordinate& second);

    // --- diagnostics -----------------------------------------------------------------------------

    /// Any thread. Uploads the services, location, targeting and bounding-area messages and empties
    /// the two diagnostic buffers; does nothing without a stored position.
    void sendLogs();

    // --- offer delivery --------------------------------------------------------------------------

    /// Main thread. A local notification when the application is not active, else the event alert.
    void sendNotification(const std::string& body, int deviceEventId);
    /// Main thread. Releases a held message once the device has left its target.
    void tovrelNotificationQueued(const Notification& notification);
    /// Main thread. A delivered notification came back: opens and reports the matching offers.
    void didReceiveLocalNotification(const Notification& notification);
    /// Main thread. The launch handler: a launch from a notification or a location event.
    void applicationDidFinishLaunching(const Notification& notification);
    /// Main thread. Renumbers the scheduled notifications' badges 1, 2, 3... in the system's order.
    void renumberBadgesOfPendingNotifications();

    /// Main thread. The event alert: "Never"/"View"/"Later" with the offer view enabled, else "OK".
    void showEventAlert(const std::string& message, int deviceEventId);
    /// Main thread. The event alert's answer; `alertTag` is the alert's device event identifier.
    void alertViewDidDismissWithButtonIndex(long alertTag, int buttonIndex);
    /// Main thread. A message box titled "Message" with one "OK" button and no delegate.
    void showAlert(const std::string& message);
    /// Main thread. A message box without buttons, dismissed after two seconds (current environment).
    static void showToastMessage(const std::string& message);
    static void showToastMessage(Environment& environment, const std::string& message);

    /// Main thread. Opens the offer view for one offer record's first element: records the request
    /// and hands it to the installed opener.
    void openOfferView(const nlohmann::json& offerElement);
    /// Main thread. Installs the views layer's opener (empty: requests are only recorded).
    void setOfferViewOpener(OfferViewOpener opener);
    /// Main thread. The offer views requested last (at most kKeptOfferViewRequests), oldest first.
    [[nodiscard]] std::vector<OfferViewRequest> offerViewRequests() const;
    /// How many offer view requests offerViewRequests() keeps: a host that runs for months opens
    /// views without end, and observers only ever look at the latest ones.
    static constexpr std::size_t kKeptOfferViewRequests = 64;

    // --- state -----------------------------------------------------------------------------------

    /// Any thread. The platform location manager (null when monitoring is stopped).
    [[nodiscard]] std::shared_ptr<platform::LocationProvider> locationManager() const;
    /// Main thread.
    [[nodiscard]] std::shared_ptr<platform::MotionActivityManager> motionActivityManager() const;
    /// Any thread. A copy of the target list, in list order.
    [[nodiscard]] std::vector<std::shared_ptr<hRegion>> targets() const;
    /// Any thread. A copy of the pending offers (link answers' places arrays), oldest first.
    [[nodiscard]] std::vector<nlohmann::json> offers() const;
    /// Any thread. The targeting-check records waiting for upload, as they will be sent.
    [[nodiscard]] nlohmann::json logHistoryArray() const;
    /// Any thread. The nearby-target records waiting for upload, as they will be sent.
    [[nodiscard]] nlohmann::json logTargetsArray() const;
    /// Main thread.
    [[nodiscard]] bool accuracyError() const {
        TOVREL_ASSERT_MAIN_THREAD(mainLoop());
        return accuracyError_;
    }
    void setAccuracyError(bool value) {
        TOVREL_ASSERT_MAIN_THREAD(mainLoop());
        accuracyError_ = value;
    }
    [[nodiscard]] bool deviceHasExited() const {
        TOVREL_ASSERT_MAIN_THREAD(mainLoop());
        return deviceHasExited_;
    }
    void setDeviceHasExited(bool value) {
        TOVREL_ASSERT_MAIN_THREAD(mainLoop());
        deviceHasExited_ = value;
    }
    /// Main thread. The repeating timer of the latest message held until exit (null after release).
    [[nodiscard]] const std::shared_ptr<platform::Timer>& queueMessageTimer() const;
    /// Main thread. The last local notification presented.
    [[nodiscard]] const std::optional<platform::LocalNotification>& localNotification() const;

    /// Main thread. Copied from the session object at creation.
    bool presentNotifications = false;
    bool presentOfferView = false;

  private:
    struct LogSite {
        const char* prettyFunction;
        int line;
    };

    /// The main loop, which the "Main thread." members check against.
    [[nodiscard]] const platform::MainLoop& mainLoop() const;

    // lifecycle.cpp
    void observe(const char* name, void (LocationManager::*handler)(const Notification&));
    void startUpdates(const std::shared_ptr<platform::LocationProvider>& provider);
    void applyMotionActivity(const platform::MotionActivity& activity);
    [[nodiscard]] std::shared_ptr<platform::LocationProvider> providerOnMain() const {
        return locationManager_;
    }
    void setProvider(std::shared_ptr<platform::LocationProvider> provider);

    // target_refresh.cpp
    void replaceTargets(std::vector<PlaceRecord> places);

    // proximity.cpp
    struct Check;  ///< one proximity check's position, nearest distance and dwell timer
    void handleTarget(Check& check, const std::shared_ptr<hRegion>& target, double distance);
    void outsideTarget(Check& check, const std::shared_ptr<platform::LocationProvider>& provider);
    void insideTarget(Check& check, const std::shared_ptr<hRegion>& target,
                      const std::shared_ptr<platform::LocationProvider>& provider, double accuracy);
    void linkVisit(const std::shared_ptr<hRegion>& target, const std::string& message, LogSite site);
    void linkAnswer(const nlohmann::json& places, const nlohmann::json& deviceEventId,
                    const std::shared_ptr<hRegion>& target, const std::string& message, LogSite site);
    void acknowledged(const std::shared_ptr<hRegion>& target);

    const platform::Platform& platform_;
    NotificationCenter& center_;
    DataService& service_;
    AnalyticsManager& analytics_;
    LaunchCheckers& launches_;
    /// Written on the main thread under providerMutex_, read elsewhere under it.
    std::shared_ptr<platform::LocationProvider> locationManager_;
    mutable std::mutex providerMutex_;
    std::shared_ptr<platform::MotionActivityManager> motionActivityManager_;

    const std::unique_ptr<targeting::SharedTargets> targets_;
    const std::unique_ptr<targeting::CheckLog> checks_;

    std::unique_ptr<targeting::NearestSet> nearestScratch_;
    std::string logLineBuffer_;  ///< the check's log lines, built without allocating
    bool accuracyError_ = false;
    bool deviceHasExited_ = false;
    std::vector<ObserverToken> observers_;
    const std::shared_ptr<OfferSink> offers_;
};

}  // namespace tovrel
