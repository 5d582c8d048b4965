#pragma once

#include <ostream>
#include <string>

#include "fleet.h"

namespace tovrel::sim {

/// A self-contained HTML page of a fleet's aggregate: deliveries per offer, the trigger points on the
/// report's map of the places (`tiles` as the run report's --tiles), the entry-to-delivery delay as a
/// histogram, requests per endpoint per device-hour and the location-update time per accuracy level.
void writeFleetReport(const std::string& title, const FleetAggregate& fleet, double wallSeconds,
                      const std::string& tiles, std::ostream& out);

}  // namespace tovrel::sim
