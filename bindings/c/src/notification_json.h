#pragma once
// The in-process notifications' objects as JSON text, and opened local notifications read from it:
// the two directions in which the C interface carries them.
#include <any>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

#include "tovrel/platform/notifications.h"

namespace tovrel::capi {

/// The object a notification carries, as JSON: a JSON value as it stands, a local notification or a
/// place as an object of its fields, a reachability monitor as {"status": 0 to 2}, null for anything
/// else. Main thread (a reachability monitor is read).
nlohmann::json notificationObjectJson(const std::any& object);

/// `value` as JSON text; invalid UTF-8 in strings is replaced rather than refused. Any thread.
std::string jsonText(const nlohmann::json& value);

/// Reads an opened local notification from JSON text: an object whose members "alertBody",
/// "alertAction", "soundName" (text) and "userInfo" (an object) are each optional. Throws
/// std::invalid_argument saying what is wrong (not JSON, nested too deep, a member of another type).
/// Any thread.
platform::LocalNotification localNotificationFromJson(std::string_view text);

}  // namespace tovrel::capi
