#include "preview.h"

#include "fleet_routes.h"

namespace tovrel::sim {
Preview runPreview(FleetOptions fleet, const std::filesystem::path& draft,
                   const std::filesystem::path& live) {
    if (fleet.source != FleetRoutes::kFolder) {
        fleet.places = readPlaceCircles(draft);
        const auto livePlaces = readPlaceCircles(live);
        fleet.places.insert(fleet.places.end(), livePlaces.begin(), livePlaces.end());
    }
    Preview preview;
    fleet.device.placesFile = draft;
    preview.draft = runFleet(fleet);
    fleet.device.placesFile = live;
    fleet.deviceLines = nullptr;
    preview.live = runFleet(fleet);
    preview.changes = compareFleets(preview.draft, preview.live);
    return preview;
}

}  // namespace tovrel::sim
