#include "foundation/stored_values.h"

#include "foundation/value.h"
#include "tovrel/preferences_keys.h"

namespace tovrel {

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

}  // namespace tovrel
