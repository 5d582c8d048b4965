#pragma once

#include <cstddef>
#include <filesystem>
#include <string>
#include <vector>

#include "fleet.h"
#include "fleet_compare.h"

namespace tovrel::sim {

/// The same fleet over a draft catalogue and over the live one.
struct Preview {
    FleetAggregate draft;
    FleetAggregate live;
    std::vector<OfferChange> changes;
};

/// Runs `fleet` over the place file `draft`, then the same devices over `live`; routes made up go around
/// the places of both, so that either side meets what the other adds or takes away. Throws
/// SimInputError or RouteError for an unusable file. Caller's thread and the fleet's workers.
Preview runPreview(FleetOptions fleet, const std::filesystem::path& draft, const std::filesystem::path& live);

}  // namespace tovrel::sim
