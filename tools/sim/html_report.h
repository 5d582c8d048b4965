#pragma once

#include <nlohmann/json.hpp>
#include <ostream>
#include <string>
#include <vector>

#include "route.h"

namespace tovrel::sim {

/// What one run produced, as the report needs it.
struct ReportInput {
    std::string title;
    Route route;
    std::vector<nlohmann::json> events;  ///< EventLog::events()
    double wallSeconds = 0;              ///< how long the run took
    std::size_t eventsNotKept = 0;       ///< later events, in the events file only
};

/// A self-contained HTML page (no network needed to view it): an SVG map of the route, the place
/// circles and pins, with markers where the device entered, linked, was notified and answered; plots
/// of the distance to the nearest place and of desired accuracy and distance filter over time; the
/// timeline; and a summary (offers delivered by type, answers, requests by endpoint).
void writeHtmlReport(const ReportInput& input, std::ostream& out);

/// Haversine distance in metres on a 6371 km sphere.
double distanceMetres(double lat1, double lon1, double lat2, double lon2);

}  // namespace tovrel::sim
