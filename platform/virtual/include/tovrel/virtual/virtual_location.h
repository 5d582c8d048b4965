#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tovrel/export.h"
#include "tovrel/platform/clock.h"
#include "tovrel/platform/distance_filter.h"
#include "tovrel/platform/location.h"
#include "tovrel/platform/main_loop.h"

namespace tovrel::virtualbackend {

/// What one location manager made by VirtualLocationServices has been told, as a test reads it.
/// The defaults are the platform's: best accuracy, no distance filter (-1), activity "other", pausing
/// allowed.
struct TOVREL_EXPORT LocationProviderRecord {
    std::uint64_t id = 0;  ///< 1, 2, ... in creation order
    double desiredAccuracy = platform::accuracy::kBest;
    double distanceFilter = -1;
    platform::ActivityType activityType = platform::ActivityType::kOther;
    bool pausesLocationUpdatesAutomatically = true;
    bool hasDelegate = false;
    bool updatingLocation = false;
    bool monitoringSignificantChanges = false;
    bool paused = false;    ///< standard updates paused by the source
    bool released = false;  ///< the component dropped its last reference
    /// The operations called on it, in order: "setDelegate", "startUpdatingLocation",
    /// "stopUpdatingLocation", "startMonitoringSignificantLocationChanges",
    /// "stopMonitoringSignificantLocationChanges", "requestAlwaysAuthorization",
    /// "requestWhenInUseAuthorization" (settings changes are not listed).
    std::vector<std::string> calls;
    /// Every (desired accuracy, distance filter) pair it has had, oldest first, starting with the
    /// defaults; a new entry is added by each setter call.
    std::vector<std::pair<double, double>> settingsHistory;
    /// Fixes handed to its delegate, oldest first.
    std::vector<platform::Location> delivered;
};

/// The device's location services on the virtual backend: switches the test sets, and a scripted
/// position that each location manager filters in software as the platform does. A fix reaches a
/// manager's delegate (on the main loop, one fix per call) only when the manager runs standard
/// updates and the fix lies at least its distance filter from the last fix it delivered, or when it
/// runs significant-change monitoring alone (or its standard updates are paused) and the fix lies at
/// least 500 m from that last fix. Starting updates delivers the current position at once.
///
/// Settings may be changed from any thread; the scripting and inspection calls are thread-safe.
class TOVREL_EXPORT VirtualLocationServices final : public platform::LocationServices {
  public:
    /// Distance a significant-change-only manager needs before it reports a move.
    static constexpr double kSignificantChangeMeters = platform::kSignificantChangeMeters;

    /// `clock` stamps fixes that carry no timestamp; both are held weakly (the loop usually owns the
    /// component, which owns the managers made here).
    explicit VirtualLocationServices(const std::shared_ptr<platform::MainLoop>& loop,
                                     const std::shared_ptr<platform::Clock>& clock = nullptr);
    ~VirtualLocationServices() override;
    VirtualLocationServices(const VirtualLocationServices&) = delete;
    VirtualLocationServices& operator=(const VirtualLocationServices&) = delete;

    [[nodiscard]] bool locationServicesEnabled() const override;
    [[nodiscard]] bool isMonitoringAvailableForCircularRegion() const override;
    [[nodiscard]] platform::AuthorizationStatus authorizationStatus() const override;
    std::shared_ptr<platform::LocationProvider> createLocationManager() override;

    /// Any thread. Default: enabled, monitoring available, authorised always.
    void setLocationServicesEnabled(bool enabled);
    void setMonitoringAvailable(bool available);
    void setAuthorizationStatus(platform::AuthorizationStatus status);

    /// Any thread. The device is now at `fix` (a zero timestamp is replaced by the clock's time).
    void moveTo(platform::Location fix);
    void moveTo(double latitude, double longitude);
    [[nodiscard]] std::optional<platform::Location> position() const;
    /// Any thread. Reports `error` to the delegate of every started manager, on the main loop.
    void failWithError(platform::LocationError error);
    /// Any thread. The source pauses the standard updates of every updating manager (its delegate
    /// hears didPause); resumeUpdates() undoes it (didResume). Starting updates again also resumes.
    void pauseUpdates();
    void resumeUpdates();

    /// Every manager made so far, in creation order (released ones included).
    [[nodiscard]] std::vector<LocationProviderRecord> providers() const;
    /// The most recently made manager.
    [[nodiscard]] std::optional<LocationProviderRecord> latestProvider() const;
    /// Managers not yet released.
    [[nodiscard]] std::size_t liveProviderCount() const;
    /// Fixes delivered to any delegate so far.
    [[nodiscard]] std::size_t deliveredCount() const;

    struct Shared;

  private:
    std::shared_ptr<Shared> shared_;
};

}  // namespace tovrel::virtualbackend
