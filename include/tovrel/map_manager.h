#pragma once

#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "tovrel/export.h"
#include "tovrel/platform/location.h"
#include "tovrel/platform/map_view.h"
#include "tovrel/view_controller.h"

namespace tovrel {

class Environment;
class OfferFullViewController;
struct PlaceRecord;

/// A place pin on the map. The offer fields hold the place record's values as they stand (null for
/// nothing); title is the record's "eventName", subtitle its "alertText".
class TOVREL_EXPORT hAnnotation : public platform::PointAnnotation {
  public:
    nlohmann::json eventId;
    nlohmann::json deviceEventId;  ///< the stored "deviceEventId": the same for every pin
    nlohmann::json alertText;
    nlohmann::json eventName;
    nlohmann::json mediaType;
    nlohmann::json mediaURL;  ///< from the record's "mediaUrl"
    nlohmann::json placeId;
    nlohmann::json campaignName;
    nlohmann::json tags;
    nlohmann::json centroidRadius;
    nlohmann::json startDate;
    nlohmann::json endDate;
    std::optional<std::string> miles;  ///< "%0.1f mi"
    std::optional<std::string> annoType;
    std::optional<std::string> annoMiles;
    long linked = 0;
    float centroidLat = 0;
    float centroidLon = 0;
};

/// The place map: one circle and one pin per place near the last stored position, with the
/// distance in miles in each pin's callout and a ">" button that opens the place's offer. The host
/// presents view(). Main thread only, except plotLocations().
class TOVREL_EXPORT MapManager final : public ViewController,
                                       public platform::MapViewDelegate,
                                       public std::enable_shared_from_this<MapManager> {
    struct Token {
        explicit Token() = default;
    };

  public:
    static constexpr const char* kTargetTitle = "Target";
    static constexpr const char* kReuseIdentifier = "Location";
    static constexpr double kRefreshInterval = 1800;

    static std::shared_ptr<MapManager> create(Environment& environment);
    MapManager(Token, Environment& environment);
    MapManager(const MapManager&) = delete;
    MapManager& operator=(const MapManager&) = delete;

    /// Observes "tovrelInBounds" and "tovrelRefreshUserLocation" for good, plots the places now and
    /// every 30 minutes (on a background thread), and stops following the user; runs once the root
    /// view (the map and its two buttons) is made on first use of view(). Main thread.
    void viewDidLoad() override;
    /// Fetches the places near the stored position and, on success, replaces every pin and circle.
    /// Nothing is fetched without a stored position. Any thread: only the reply touches the map.
    void plotLocations();
    /// Follows the user: centres on the user's position at a 0.001-degree span, now and on each update.
    void gotoCurrentLocation();
    /// Stops following the user and zooms to fit the pins. Fetches nothing.
    void refreshMap();
    /// A message box titled "Message" with one "OK" button.
    void showAlert(const std::string& message);

    void mapViewDidUpdateUserLocation(platform::MapView& mapView,
                                      const platform::UserLocation& userLocation) override;
    std::shared_ptr<platform::AnnotationView> mapViewViewForAnnotation(
        platform::MapView& mapView, const std::shared_ptr<platform::Annotation>& annotation) override;
    void mapViewAnnotationViewCalloutAccessoryControlTapped(platform::MapView& mapView,
                                                            platform::AnnotationView& view,
                                                            platform::View& control) override;
    platform::OverlayView mapViewViewForOverlay(platform::MapView& mapView,
                                                const std::shared_ptr<platform::Overlay>& overlay) override;

    /// The great-circle distance in metres (haversine, earth radius 6371 km). Named for an area,
    /// returns a distance.
    static double calculateAreaInMetersBetweenCoord(const platform::Coordinate& first,
                                                    const platform::Coordinate& second);
    /// "%0.1f mi" of `metres` in miles (× 0.000621371).
    static std::string milesText(double metres);
    /// The pin for one place record: its distance from `lastPosition` is taken from the record's
    /// single-precision position, while the pin stands at the double-precision one.
    static std::shared_ptr<hAnnotation> annotationFromPlaceRecord(const PlaceRecord& place,
                                                                  const platform::Coordinate& lastPosition,
                                                                  const nlohmann::json& storedDeviceEventId);
    /// The union of 0.1-point squares at each annotation's map point; the null rectangle for none.
    static platform::MapRect zoomRectForAnnotations(
        const std::vector<std::shared_ptr<platform::Annotation>>& annotations);
    /// How an overlay is drawn: "Target" circles in light grey, polylines in green (red when titled
    /// "suppressedTarget"), anything else plain.
    static platform::OverlayView overlayViewFor(const platform::Overlay& overlay);
    /// The zoom-to-fit on the first user-location update happens once per process; this lets a
    /// test run it again.
    static void resetZoomOnceForTesting();

    bool trackUser = false;
    /// The offer view opened from a callout; replaced by the next one.
    std::shared_ptr<OfferFullViewController> offerFullViewController;

    [[nodiscard]] const std::shared_ptr<platform::MapView>& mapView() const { return mapView_; }
    [[nodiscard]] const std::shared_ptr<platform::Button>& currentLocationButton() const {
        return currentLocationButton_;
    }
    [[nodiscard]] const std::shared_ptr<platform::Button>& refreshMapButton() const {
        return refreshMapButton_;
    }
    /// The position plotLocations last read from preferences.
    [[nodiscard]] std::optional<platform::Location> lastLocation() const;

  private:
    void loadView() override;
    void showPlaces(const std::vector<PlaceRecord>& places, bool failed);
    void zoomToFitAnnotations();
    [[nodiscard]] std::optional<std::string> sessionKey() const;

    Environment& environment_;
    std::shared_ptr<platform::MapView> mapView_;
    std::shared_ptr<platform::Button> currentLocationButton_;
    std::shared_ptr<platform::Button> refreshMapButton_;
    mutable std::mutex lastLocationMutex_;
    std::optional<platform::Location> lastLocation_;
};

}  // namespace tovrel
