#pragma once

#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>

#include "tovrel/platform/preferences.h"

namespace tovrel {

/// How an arbitrary value prints through "%@", without ever throwing on text that is not UTF-8.
std::string printed(const nlohmann::json& value);

/// The session key stored under "sessionid": its text, or the printed value of a value that is not
/// text; nullopt when nothing (or null) is stored. Every caller of the service reads the key this way.
std::optional<std::string> storedSessionKey(const platform::PreferencesStore& prefs);

/// The text stored under `key` ("" when nothing is stored; the printed value of a non-text value).
std::string storedText(const platform::PreferencesStore& prefs, std::string_view key);

}  // namespace tovrel
