#pragma once

#include <functional>
#include <memory>

#include "tovrel/export.h"
#include "tovrel/linux/location_sources.h"
#include "tovrel/platform/clock.h"
#include "tovrel/platform/location.h"
#include "tovrel/platform/main_loop.h"

namespace tovrel::linuxbackend {

/// What the device's location settings answer; there is no system switch or prompt on Linux.
struct TOVREL_EXPORT LocationServicesOptions {
    bool servicesEnabled = true;
    bool regionMonitoringAvailable = true;
    platform::AuthorizationStatus authorization = platform::AuthorizationStatus::kAuthorizedAlways;
    /// See FixFilter: how long fixes less accurate than desired are held back.
    double poorFixGraceSeconds = 10;
    /// A manager that starts updates is handed the source's latest fix at once when it is this fresh.
    double cachedFixMaxAgeSeconds = 30;
};

/// The device's location services over one FixSource, started when the first location manager starts
/// updates and stopped with this object. Every manager filters the source's fixes in software by its
/// own settings (FixFilter) and hands them to its delegate on the main loop, one fix per call; source
/// errors reach the delegates of the managers whose updates run. Manager settings and starts may be
/// called from any thread. Thread-safe.
class TOVREL_EXPORT LinuxLocationServices final : public platform::LocationServices {
  public:
    /// `source` may be null: then no fix ever comes.
    LinuxLocationServices(std::shared_ptr<platform::MainLoop> loop, std::shared_ptr<platform::Clock> clock,
                          std::unique_ptr<FixSource> source, LocationServicesOptions options = {});
    /// Stops the source.
    ~LinuxLocationServices() override;
    LinuxLocationServices(const LinuxLocationServices&) = delete;
    LinuxLocationServices& operator=(const LinuxLocationServices&) = delete;

    /// Any thread. From the options.
    [[nodiscard]] bool locationServicesEnabled() const override;
    /// Any thread. From the options.
    [[nodiscard]] bool isMonitoringAvailableForCircularRegion() const override;
    /// Any thread. From the options.
    [[nodiscard]] platform::AuthorizationStatus authorizationStatus() const override;
    /// Any thread. A stopped manager: best accuracy, no distance filter.
    std::shared_ptr<platform::LocationProvider> createLocationManager() override;

    /// Any thread. `observer` sees every fix the source publishes, unfiltered, on the source's thread,
    /// for as long as the returned token lives. (Motion is derived from these.)
    [[nodiscard]] std::shared_ptr<void> observeRawFixes(std::function<void(const TrackPoint&)> observer);
    /// Any thread. Starts the source if no manager has yet.
    void startSource();
    /// Any thread. Fixes published by the source so far, and fixes handed to delegates so far.
    [[nodiscard]] std::size_t publishedCount() const;
    [[nodiscard]] std::size_t deliveredCount() const;

    struct Shared;

  private:
    std::shared_ptr<Shared> shared_;
};

}  // namespace tovrel::linuxbackend
