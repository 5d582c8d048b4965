#pragma once

#include <optional>

#include <nlohmann/json.hpp>

#include "tovrel/platform/location.h"

namespace tovrel {

/// The stored form of a position under "currentLocation".
nlohmann::json archiveLocation(const platform::Location& location);
/// The position stored in `archived`; nullopt when nothing is stored or it is not a position.
std::optional<platform::Location> unarchiveLocation(const std::optional<nlohmann::json>& archived);

}  // namespace tovrel
