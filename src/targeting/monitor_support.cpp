#include "targeting/monitor_support.h"

#include <charconv>

#include "foundation/value.h"
#include "tovrel/location_archive.h"
#include "tovrel/preferences_keys.h"

namespace tovrel::targeting {

std::optional<platform::Location> storedLocation(const platform::PreferencesStore& prefs) {
    std::optional<platform::Location> location;
    prefs.readObject(prefs::kCurrentLocation,
                     [&location](const nlohmann::json* archived) { location = unarchiveLocation(archived); });
    return location;
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
