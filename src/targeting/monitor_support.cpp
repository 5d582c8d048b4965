#include "targeting/monitor_support.h"

#include <charconv>

#include "foundation/location_archive.h"
#include "foundation/value.h"
#include "tovrel/preferences_keys.h"

namespace tovrel::targeting {

std::string printed(const nlohmann::json& value) {
    if (value.is_string()) {
        return value.get<std::string>();
    }
    if (value.is_null()) {
        return "(null)";
    }
    if (value.is_structured()) {
        return value.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
    }
    return describe(value);
}

std::optional<std::string> storedSessionKey(const platform::PreferencesStore& prefs) {
    const auto value = prefs.objectForKey(prefs::kSessionId);
    if (!value || value->is_null()) {
        return std::nullopt;
    }
    return printed(*value);
}

std::string storedText(const platform::PreferencesStore& prefs, std::string_view key) {
    const auto value = prefs.objectForKey(key);
    if (!value || value->is_null()) {
        return {};
    }
    return printed(*value);
}

std::optional<platform::Location> storedLocation(const platform::PreferencesStore& prefs) {
    return unarchiveLocation(prefs.objectForKey(prefs::kCurrentLocation));
}

std::string& beginLogLine(std::string& buffer, std::string_view function, int line) {
    buffer.clear();
    buffer.append(function).append(" [Line ");
    char digits[16];
    const auto end = std::to_chars(digits, digits + sizeof digits, line).ptr;
    buffer.append(digits, end).append("] ");
    return buffer;
}

bool systemVersionAtLeast8(const platform::Device& device) {
    return floatValue(nlohmann::json(device.systemVersion())) >= 8.0F;
}

}  // namespace tovrel::targeting
