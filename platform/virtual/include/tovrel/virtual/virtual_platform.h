#pragma once

#include <memory>

#include "tovrel/export.h"
#include "tovrel/platform/platform.h"
#include "tovrel/virtual/recording_http_client.h"
#include "tovrel/virtual/virtual_location.h"
#include "tovrel/virtual/virtual_motion.h"
#include "tovrel/virtual/virtual_scheduler.h"
#include "tovrel/virtual/virtual_services.h"
#include "tovrel/virtual/virtual_views.h"

namespace tovrel::virtualbackend {

/// Every port of one simulated device, on one virtual clock. Keep the concrete parts to drive and
/// inspect them; hand platform() to an Environment.
struct TOVREL_EXPORT VirtualPlatform {
    explicit VirtualPlatform(double startTime = 1'750'000'000.0);

    /// Any thread. The ports, filled once by the constructor.
    [[nodiscard]] const platform::Platform& platform() const { return ports_; }

    std::shared_ptr<VirtualScheduler> scheduler;
    std::shared_ptr<RecordingHttpClient> http;
    std::shared_ptr<InMemoryPreferences> preferences;
    std::shared_ptr<VirtualDevice> device;
    std::shared_ptr<VirtualApplication> application;
    std::shared_ptr<VirtualNotifications> notifications;
    std::shared_ptr<VirtualReachability> reachability;
    std::shared_ptr<RecordingAlerts> alerts;
    std::shared_ptr<RecordingLog> log;
    std::shared_ptr<VirtualLocationServices> location;
    std::shared_ptr<VirtualMotionServices> motion;
    std::shared_ptr<VirtualViewSystem> views;

  private:
    platform::Platform ports_;
};

}  // namespace tovrel::virtualbackend
