#pragma once

#include <nlohmann/json.hpp>
#include <optional>

#include "tovrel/export.h"
#include "tovrel/platform/location.h"

namespace tovrel {

/// The form of a position under "currentLocation" and in the "Location" member of the
/// "tovrelLocationNotification" object. Pure; any thread.
TOVREL_EXPORT nlohmann::json archiveLocation(const platform::Location& location);
/// The position stored in `archived`; nullopt when nothing is stored or it is not a position. Pure;
/// any thread.
TOVREL_EXPORT std::optional<platform::Location> unarchiveLocation(
    const std::optional<nlohmann::json>& archived);
/// The same for a value read in place (null: nothing stored).
TOVREL_EXPORT std::optional<platform::Location> unarchiveLocation(const nlohmann::json* archived);

}  // namespace tovrel
