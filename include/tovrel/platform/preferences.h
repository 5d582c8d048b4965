#pragma once

#include <nlohmann/json.hpp>
#include <optional>
#include <string_view>

#include "tovrel/export.h"

namespace tovrel::platform {

/// The application's persistent key-value store ("user defaults"). Values are JSON.
class TOVREL_EXPORT PreferencesStore {
  public:
    virtual ~PreferencesStore() = default;
    /// Any thread. The value stored under `key`, or nullopt.
    [[nodiscard]] virtual std::optional<nlohmann::json> objectForKey(std::string_view key) const = 0;
    /// Any thread. Stores `value` under `key`, replacing what was there.
    virtual void setObject(std::string_view key, const nlohmann::json& value) = 0;
    /// Any thread. Removes `key`; nothing happens when it is absent.
    virtual void removeObject(std::string_view key) = 0;
};

}  // namespace tovrel::platform
