#pragma once

#include <ostream>
#include <string>

#include "fleet.h"

namespace tovrel::sim {

/// A self-contained HTML page of a fleet's aggregate: deliveries per offer, the trigger points on a
/// plain SVG map of the places, the entry-to-delivery delay as a histogram, requests per endpoint per
/// device-hour and the location-update time per accuracy level.
void writeFleetReport(const std::string& title, const FleetAggregate& fleet, double wallSeconds,
                      std::ostream& out);

}  // namespace tovrel::sim
