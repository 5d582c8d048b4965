#pragma once

#include <functional>
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
    /// Any thread. Calls `read` once with the value stored under `key` (null when there is none), for a
    /// caller that only reads it; `read` must not call back into the store. A store that keeps values
    /// as they are passes its own, uncopied (the component reads one this way for every fix); this
    /// default copies it through objectForKey().
    virtual void readObject(std::string_view key,
                            const std::function<void(const nlohmann::json*)>& read) const {
        const std::optional<nlohmann::json> value = objectForKey(key);
        read(value ? &*value : nullptr);
    }
    /// Any thread. Stores `value` under `key`, replacing what was there.
    virtual void setObject(std::string_view key, const nlohmann::json& value) = 0;
    /// Any thread. Removes `key`; nothing happens when it is absent.
    virtual void removeObject(std::string_view key) = 0;
};

}  // namespace tovrel::platform
