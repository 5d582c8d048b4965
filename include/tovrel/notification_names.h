#pragma once

namespace tovrel {

// Notifications the component posts or observes, with what each carries as its object.

/// A local notification came back to the application. Object: the platform::LocalNotification (or,
/// from the launch handler, the launch Notification itself); its user info may hold "deviceeventId".
inline constexpr const char* kTovrelNotificationReceived = "tovrelNotificationReceived";
/// A held message is waiting for the device to leave its place. Object: a Json {"body", "deviceeventid"}.
inline constexpr const char* kTovrelNotificationQueued = "tovrelNotificationQueued";
/// Places near the device may have changed. Object: a std::shared_ptr<hRegion>, or empty.
inline constexpr const char* kTovrelInBounds = "tovrelInBounds";
/// The map should recentre on the user. Object: empty.
inline constexpr const char* kTovrelRefreshUserLocation = "tovrelRefreshUserLocation";
/// A new position. Object: a Json {"Location": {"latitude", "longitude", ...}}.
inline constexpr const char* kTovrelLocationNotification = "tovrelLocationNotification";
/// The user chose to view an offer. Object: the offer record (a Json array) as kept in the offers list.
inline constexpr const char* kTovrelMessageViewed = "tovrelMessageViewed";
/// Reachability changed. Object and sender: the Reachability* whose flags changed.
inline constexpr const char* kReachabilityChangedNotification = "kNetworkReachabilityChangedNotification";

// Application life-cycle notifications, posted by the environment from the application port.
// Object: empty; userInfo: the launch options for did-finish-launching, else null.
inline constexpr const char* kApplicationDidFinishLaunchingNotification =
    "UIApplicationDidFinishLaunchingNotification";
inline constexpr const char* kApplicationDidBecomeActiveNotification =
    "UIApplicationDidBecomeActiveNotification";
inline constexpr const char* kApplicationWillResignActiveNotification =
    "UIApplicationWillResignActiveNotification";
inline constexpr const char* kApplicationDidEnterBackgroundNotification =
    "UIApplicationDidEnterBackgroundNotification";
inline constexpr const char* kApplicationWillEnterForegroundNotification =
    "UIApplicationWillEnterForegroundNotification";
inline constexpr const char* kApplicationWillTerminateNotification = "UIApplicationWillTerminateNotification";

// Launch option keys.
inline constexpr const char* kLaunchOptionsLocalNotificationKey =
    "UIApplicationLaunchOptionsLocalNotificationKey";
inline constexpr const char* kLaunchOptionsLocationKey = "UIApplicationLaunchOptionsLocationKey";

}  // namespace tovrel
