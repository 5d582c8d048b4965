#include "tovrel/virtual/virtual_platform.h"

#include "tovrel/virtual/virtual_location.h"
#include "tovrel/virtual/virtual_motion.h"
#include "tovrel/virtual/virtual_views.h"

namespace tovrel::virtualbackend {

VirtualPlatform::VirtualPlatform(double startTime)
    : scheduler(std::make_shared<VirtualScheduler>(startTime)),
      http(std::make_shared<RecordingHttpClient>(scheduler)),
      preferences(std::make_shared<InMemoryPreferences>()),
      device(std::make_shared<VirtualDevice>()),
      application(std::make_shared<VirtualApplication>()),
      notifications(std::make_shared<VirtualNotifications>()),
      reachability(std::make_shared<VirtualReachability>(scheduler)),
      alerts(std::make_shared<RecordingAlerts>()),
      log(std::make_shared<RecordingLog>()),
      location(std::make_shared<VirtualLocationServices>(scheduler, scheduler)),
      motion(std::make_shared<VirtualMotionServices>(scheduler)),
      views(std::make_shared<VirtualViewSystem>(scheduler, http)),
      ports_{.mainLoop = scheduler,
             .background = scheduler,
             .clock = scheduler,
             .http = http,
             .preferences = preferences,
             .device = device,
             .application = application,
             .notifications = notifications,
             .reachability = reachability,
             .alerts = alerts,
             .log = log,
             .location = location,
             .motion = motion,
             .views = views} {}

}  // namespace tovrel::virtualbackend
