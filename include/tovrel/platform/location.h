#pragma once

#include <memory>
#include <string>
#include <vector>

#include "tovrel/export.h"

namespace tovrel::platform {

struct TOVREL_EXPORT Coordinate {
    double latitude = 0;   ///< degrees
    double longitude = 0;  ///< degrees
};

/// One position fix.
struct TOVREL_EXPORT Location {
    Coordinate coordinate;
    double altitude = 0;            ///< metres
    double horizontalAccuracy = 0;  ///< metres; negative when the fix is invalid
    double verticalAccuracy = -1;   ///< metres
    double speed = -1;              ///< metres per second; negative when unknown
    double course = -1;             ///< degrees; negative when unknown
    double timestamp = 0;           ///< seconds since 1970
};

/// Desired-accuracy levels, in metres (best is the platform's -1).
namespace accuracy {
inline constexpr double kBest = -1;
inline constexpr double kNearestTenMeters = 10;
inline constexpr double kHundredMeters = 100;
inline constexpr double kKilometer = 1000;
inline constexpr double kThreeKilometers = 3000;
}  // namespace accuracy

enum class ActivityType { kOther = 1, kAutomotiveNavigation = 2, kFitness = 3, kOtherNavigation = 4 };

enum class AuthorizationStatus {
    kNotDetermined = 0,
    kRestricted = 1,
    kDenied = 2,
    kAuthorizedAlways = 3,
    kAuthorizedWhenInUse = 4,
};

struct TOVREL_EXPORT LocationError {
    int code = 0;  ///< 0: the location is currently unknown; 1: denied; others platform-defined
    std::string description;
};

/// Receives what a location manager reports.
class TOVREL_EXPORT LocationManagerDelegate {
  public:
    virtual ~LocationManagerDelegate() = default;
    /// Main thread. New fixes, oldest first.
    virtual void locationManagerDidUpdateLocations(const std::vector<Location>& locations) = 0;
    /// Main thread. The source failed; updates may resume later by themselves.
    virtual void locationManagerDidFailWithError(const LocationError& error) = 0;
    /// Main thread. The source paused its updates on its own.
    virtual void locationManagerDidPauseLocationUpdates() = 0;
    /// Main thread. The source resumed paused updates.
    virtual void locationManagerDidResumeLocationUpdates() = 0;
};

/// The platform location manager: one source of fixes with its settings. Fixes are delivered only
/// after the device has moved at least the distance filter from the last delivered fix;
/// significant-change monitoring delivers moves of about 500 m.
class TOVREL_EXPORT LocationProvider {
  public:
    virtual ~LocationProvider() = default;
    /// Any thread. Metres, or accuracy::kBest.
    virtual void setDesiredAccuracy(double metres) = 0;
    /// Any thread.
    [[nodiscard]] virtual double desiredAccuracy() const = 0;
    /// Any thread. Metres.
    virtual void setDistanceFilter(double metres) = 0;
    /// Any thread.
    [[nodiscard]] virtual double distanceFilter() const = 0;
    /// Main thread.
    virtual void setActivityType(ActivityType type) = 0;
    /// Main thread.
    virtual void setPausesLocationUpdatesAutomatically(bool pauses) = 0;
    /// Main thread. The delegate is not owned; it must outlive the updates or be reset first.
    virtual void setDelegate(std::weak_ptr<LocationManagerDelegate> delegate) = 0;
    /// Main thread.
    virtual void startUpdatingLocation() = 0;
    /// Main thread.
    virtual void stopUpdatingLocation() = 0;
    /// Main thread.
    virtual void startMonitoringSignificantLocationChanges() = 0;
    /// Main thread.
    virtual void stopMonitoringSignificantLocationChanges() = 0;
    /// Main thread.
    virtual void requestAlwaysAuthorization() = 0;
    /// Main thread.
    virtual void requestWhenInUseAuthorization() = 0;
};

/// The device's location services.
class TOVREL_EXPORT LocationServices {
  public:
    virtual ~LocationServices() = default;
    /// Any thread. Whether location services are switched on for the device.
    [[nodiscard]] virtual bool locationServicesEnabled() const = 0;
    /// Any thread. Whether circular regions can be monitored.
    [[nodiscard]] virtual bool isMonitoringAvailableForCircularRegion() const = 0;
    /// Any thread. This application's authorisation.
    [[nodiscard]] virtual AuthorizationStatus authorizationStatus() const = 0;
    /// Main thread. A new location manager, stopped, with the platform's default settings.
    virtual std::shared_ptr<LocationProvider> createLocationManager() = 0;
};

}  // namespace tovrel::platform
