#pragma once

#include <filesystem>
#include <nlohmann/json.hpp>
#include <ostream>
#include <string>
#include <vector>

#include "report_map.h"
#include "route.h"

namespace tovrel::sim {

/// The standard OpenStreetMap tile URL template.

/// What one run produced, as the report needs it.
struct ReportInput {
    std::string title;
    Route route;
    std::vector<nlohmann::json> events;  ///< EventLog::events()
    double wallSeconds = 0;              ///< how long the run took
    std::size_t eventsNotKept = 0;       ///< later events, in the events file only
    /// Map tiles the viewer's browser loads ({z}/{x}/{y}, optional {s}); "off" or empty for none.
    std::string tiles = kOpenStreetMapTiles;
    /// The embedded service's place file, for the places' names (the service's answers carry only
    /// offers); empty when the run talked to another service.
    std::filesystem::path placesFile;
};

/// A self-contained HTML page (no network needed to view it): the outcome of every offer; a summary
/// (offers delivered by type, answers, requests by endpoint); a map of the route and the labelled
/// place circles with points where the device entered, linked, was notified and answered (Leaflet,
/// embedded at build time, over `tiles` when the viewer is online; a plain SVG map in a build without
/// it); plots with time and distance ticks of the distance to the nearest place and of desired accuracy
/// and distance filter; the timeline, filterable by kind and offer, bodies collapsed. Text from the
/// run (names, bodies) is escaped. Any thread.
void writeHtmlReport(const ReportInput& input, std::ostream& out);

/// Haversine distance in metres on a 6371 km sphere.
double distanceMetres(double lat1, double lon1, double lat2, double lon2);

}  // namespace tovrel::sim
