#pragma once

#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "route.h"

namespace tovrel::sim {

/// One offer at a place, as the map's popup and colours show it.
struct MapOffer {
    std::string eventId;
    std::string name;
    std::string campaign;
    int eventType = 0;
    int dwellMinutes = 0;
    std::string state;   ///< "delivered", "linked", "entered" or "missed" (never entered)
    std::string reason;  ///< the run's outcome sentence, when it has one
};

/// A circle the service named, with every offer it carries.
struct MapPlace {
    std::string placeId;
    std::string name;  ///< from the place file, when the report has it
    double latitude = 0;
    double longitude = 0;
    double radius = 0;
    std::vector<MapOffer> offers;
};

/// Where something happened: kind "entered", "linked", "delivered" or "answered".
struct MapMark {
    std::string kind;
    double t = 0;
    double latitude = 0;
    double longitude = 0;
    std::string detail;
};

struct MapInput {
    const Route* route = nullptr;
    std::vector<MapPlace> places;
    std::vector<MapMark> marks;
    /// Tile URL template ({z}/{x}/{y}, optional {s}); empty: no tiles, the plain background.
    std::string tileTemplate;
    std::string tileAttribution;  ///< HTML, written as given (the caller escapes anything from input)
};

/// The map section: with the embedded Leaflet, a zoomable map (tiles when the viewer is online, the
/// route, labelled place circles, the marks, a scale bar, the view fitted to where things happened);
/// without it, a plain SVG map and one line that says so. Everything from input is escaped.
void writeReportMap(std::ostream& out, const MapInput& input);

/// The default tiles: OpenStreetMap's, which the viewer's browser loads when online.
inline constexpr const char* kOpenStreetMapTiles = "https://tile.openstreetmap.org/{z}/{x}/{y}.png";

/// The attribution line (HTML) for a tile URL template: OpenStreetMap's for its tiles, else the host. Pure.
std::string tileAttribution(const std::string& tiles);

/// The style sheet the map needs in the page's head (Leaflet's own, when embedded).
void writeReportMapStyle(std::ostream& out);

/// The route position at `t` (seconds), interpolated between points; nullopt for an empty route. Pure.
std::optional<RoutePoint> routePositionAt(const Route& route, double t);

}  // namespace tovrel::sim
