#pragma once

namespace tovrel::prefs {

/// The advertising identifier, stored once at first launch.
inline constexpr const char* kAdid = "adid";
/// The session key of the last successful session start.
inline constexpr const char* kSessionId = "sessionid";
/// The last position the location monitor received.
inline constexpr const char* kCurrentLocation = "currentLocation";
/// The device event identifier of the last delivered visit.
inline constexpr const char* kDeviceEventId = "deviceEventId";
/// The notification-frequency choice of the settings screen.
inline constexpr const char* kCheckedPath = "checkedPath";

}  // namespace tovrel::prefs
