#include "tovrel/map_manager.h"

#include <algorithm>
#include <atomic>
#include <cmath>

#include "foundation/format.h"
#include "foundation/stored_values.h"
#include "foundation/value.h"
#include "tovrel/data_service.h"
#include "tovrel/environment.h"
#include "tovrel/location_archive.h"
#include "tovrel/notification_names.h"
#include "tovrel/offer_full_view_controller.h"
#include "tovrel/place_record.h"
#include "tovrel/preferences_keys.h"

namespace tovrel {
namespace {

constexpr double kDegreesToRadians = 0.017453292519943295;
constexpr double kEarthRadiusKm = 6371.0;
constexpr double kMilesPerMetre = 0.000621371;
constexpr double kTrackingSpan = 0.001;
constexpr double kZoomPadding = 20;
constexpr platform::Color kCalloutBlue = platform::Color::rgb255(35, 177, 250);
constexpr const char* kPinImage = "TovrelSDKResources.bundle/pin1.png";
constexpr const char* kLinkedPinImage = "TovrelSDKResources.bundle/pin2.png";

/// The zoom-to-fit of the first user-location update: one guard for the whole process.
std::atomic<bool> gZoomedToFit{false};

std::optional<std::string> textOf(const nlohmann::json& value) {
    if (value.is_null()) {
        return std::nullopt;
    }
    return describe(value);
}

platform::MapRect unionRect(const platform::MapRect& a, const platform::MapRect& b) {
    const double minX = std::min(a.x, b.x);
    const double minY = std::min(a.y, b.y);
    const double maxX = std::max(a.x + a.width, b.x + b.width);
    const double maxY = std::max(a.y + a.height, b.y + b.height);
    return {minX, minY, maxX - minX, maxY - minY};
}

}  // namespace

std::shared_ptr<MapManager> MapManager::create(Environment& environment) {
    return std::make_shared<MapManager>(Token{}, environment);
}

MapManager::MapManager(Token, Environment& environment) : environment_(environment) {}

void MapManager::resetZoomOnceForTesting() {
    gZoomedToFit = false;
}

void MapManager::loadView() {
    auto& views = *environment_.platform().views;
    const platform::Rect screen = views.mainScreenBounds();
    view_ = views.makeView(screen);
    mapView_ = views.makeMapView(screen);
    mapView_->setShowsUserLocation(true);
    currentLocationButton_ =
        views.makeButton(platform::ButtonType::kSystem, {10, screen.height - 54, 80, 44});
    currentLocationButton_->setTitle("Locate");
    currentLocationButton_->setAction([weakSelf = weak_from_this()] {
        if (const auto self = weakSelf.lock()) {
            self->gotoCurrentLocation();
        }
    });
    refreshMapButton_ =
        views.makeButton(platform::ButtonType::kSystem, {screen.width - 90, screen.height - 54, 80, 44});
    refreshMapButton_->setTitle("Refresh");
    refreshMapButton_->setAction([weakSelf = weak_from_this()] {
        if (const auto self = weakSelf.lock()) {
            self->refreshMap();
        }
    });
    view_->addSubview(mapView_);
    view_->addSubview(currentLocationButton_);
    view_->addSubview(refreshMapButton_);
}

void MapManager::viewDidLoad() {
    auto& center = environment_.notificationCenter();
    const std::weak_ptr<MapManager> weakSelf = weak_from_this();
    center.addObserver(kTovrelInBounds, nullptr, [weakSelf](const Notification&) {
        if (const auto self = weakSelf.lock()) {
            self->plotLocations();
        }
    });
    auto loop = environment_.platform().mainLoop;
    center.addObserver(kTovrelRefreshUserLocation, nullptr,
                       [weakSelf, weakLoop = std::weak_ptr<platform::MainLoop>(loop)](const Notification&) {
                           const auto mainLoop = weakLoop.lock();
                           if (!mainLoop) {
                               return;
                           }
                           // The map is only touched on the main thread, whoever posted.
                           const auto recentre = [weakSelf] {
                               if (const auto self = weakSelf.lock()) {
                                   self->gotoCurrentLocation();
                               }
                           };
                           if (mainLoop->isMainThread()) {
                               recentre();
                           } else {
                               mainLoop->post(recentre);
                           }
                       });

    mapView_->setDelegate(weakSelf);
    plotLocations();

    loop->scheduleTimer(kRefreshInterval, true, [weakSelf] {
        const auto self = weakSelf.lock();
        if (!self) {
            return;
        }
        self->environment_.platform().background->detachNewThread([weakSelf] {
            if (const auto plotter = weakSelf.lock()) {
                plotter->plotLocations();
            }
        });
    });
    trackUser = false;
}

std::optional<std::string> MapManager::sessionKey() const {
    return storedSessionKey(*environment_.platform().preferences);
}

std::optional<platform::Location> MapManager::lastLocation() const {
    std::lock_guard lock(lastLocationMutex_);
    return lastLocation_;
}

void MapManager::plotLocations() {
    const auto location =
        unarchiveLocation(environment_.platform().preferences->objectForKey(prefs::kCurrentLocation));
    {
        std::lock_guard lock(lastLocationMutex_);
        lastLocation_ = location;
    }
    if (!location) {
        return;
    }
    environment_.dataService().getLocationsWithLocation(
        *location, sessionKey(),
        [weakSelf = weak_from_this()](const std::vector<PlaceRecord>& places, const ServiceError& error) {
            if (const auto self = weakSelf.lock()) {
                self->showPlaces(places, error.has_value());
            }
        });
}

void MapManager::showPlaces(const std::vector<PlaceRecord>& places, bool failed) {
    if (failed || !mapView_) {
        return;
    }
    mapView_->removeAnnotations(mapView_->annotations());
    mapView_->removeOverlays(mapView_->overlays());

    const auto last = lastLocation();
    const platform::Coordinate lastPosition = last ? last->coordinate : platform::Coordinate{};
    const nlohmann::json storedDeviceEventId =
        environment_.platform().preferences->objectForKey(prefs::kDeviceEventId).value_or(nlohmann::json());
    for (const PlaceRecord& place : places) {
        auto circle = std::make_shared<platform::CircleOverlay>();
        circle->center = {place.latitude, place.longitude};
        circle->radius = place.radius;
        circle->title = kTargetTitle;
        mapView_->addOverlay(circle);
        mapView_->addAnnotation(annotationFromPlaceRecord(place, lastPosition, storedDeviceEventId));
    }
}

std::shared_ptr<hAnnotation> MapManager::annotationFromPlaceRecord(
    const PlaceRecord& place, const platform::Coordinate& lastPosition,
    const nlohmann::json& storedDeviceEventId) {
    const float latitude = floatValue(place.centroidLat);
    const float longitude = floatValue(place.centroidLon);
    const double metres = calculateAreaInMetersBetweenCoord({latitude, longitude}, lastPosition);

    auto annotation = std::make_shared<hAnnotation>();
    annotation->eventId = place.eventId;
    annotation->deviceEventId = storedDeviceEventId;
    annotation->mediaType = place.mediaType;
    annotation->mediaURL = place.mediaUrl;
    annotation->campaignName = place.campaignName;
    annotation->miles = milesText(metres);
    annotation->annoType = kTargetTitle;
    annotation->linked = static_cast<long>(integerValue(place.isLinked));
    annotation->centroidLat = latitude;
    annotation->centroidLon = longitude;
    annotation->coordinate = {place.latitude, place.longitude};
    annotation->title = textOf(place.eventName);
    annotation->subtitle = textOf(place.alertText);
    return annotation;
}

// Not platform::haversineMetres: the map's form squares with pow and applies the radius as 6371.0,
// which rounds differently.
double MapManager::calculateAreaInMetersBetweenCoord(const platform::Coordinate& first,
                                                     const platform::Coordinate& second) {
    const double lat1 = first.latitude * kDegreesToRadians;
    const double lat2 = second.latitude * kDegreesToRadians;
    const double dLat = (second.latitude - first.latitude) * kDegreesToRadians;
    const double dLon = (second.longitude - first.longitude) * kDegreesToRadians;
    const double a =
        std::pow(std::sin(dLat / 2), 2) + std::cos(lat1) * std::cos(lat2) * std::pow(std::sin(dLon / 2), 2);
    const double c = 2 * std::atan2(std::sqrt(a), std::sqrt(1 - a));
    return c * kEarthRadiusKm * 1000.0;
}

std::string MapManager::milesText(double metres) {
    return strprintf("%0.1f mi", metres * kMilesPerMetre);
}

platform::MapRect MapManager::zoomRectForAnnotations(
    const std::vector<std::shared_ptr<platform::Annotation>>& annotations) {
    platform::MapRect zoom = platform::MapRect::null();
    for (const auto& annotation : annotations) {
        const platform::MapPoint point = platform::mapPointForCoordinate(annotation->coordinate);
        const platform::MapRect square{point.x, point.y, 0.1, 0.1};
        zoom = zoom.isNull() ? square : unionRect(zoom, square);
    }
    return zoom;
}

void MapManager::zoomToFitAnnotations() {
    mapView_->setVisibleMapRect(zoomRectForAnnotations(mapView_->annotations()),
                                {kZoomPadding, kZoomPadding, kZoomPadding, kZoomPadding}, true);
}

void MapManager::mapViewDidUpdateUserLocation(platform::MapView& /*mapView*/,
                                              const platform::UserLocation& /*userLocation*/) {
    if (trackUser) {
        gotoCurrentLocation();
    }
    if (!gZoomedToFit.exchange(true)) {
        zoomToFitAnnotations();
    }
}

void MapManager::gotoCurrentLocation() {
    trackUser = true;
    if (!mapView_) {
        return;
    }
    const platform::CoordinateRegion region{mapView_->userLocation()->coordinate,
                                            {kTrackingSpan, kTrackingSpan}};
    mapView_->setRegion(region, true);
}

void MapManager::refreshMap() {
    trackUser = false;
    if (mapView_) {
        zoomToFitAnnotations();
    }
}

std::shared_ptr<platform::AnnotationView> MapManager::mapViewViewForAnnotation(
    platform::MapView& mapView, const std::shared_ptr<platform::Annotation>& annotation) {
    const auto pin = std::dynamic_pointer_cast<hAnnotation>(annotation);
    if (!pin) {
        return nullptr;
    }
    auto& views = *environment_.platform().views;
    // Dequeued and then not used: a fresh view is made every time.
    mapView.dequeueReusableAnnotationViewWithIdentifier(kReuseIdentifier);
    auto view = views.makeAnnotationView(annotation, kReuseIdentifier);
    view->setEnabled(true);
    view->setCanShowCallout(true);

    const auto backing = views.makeView({0, 0, 250, 55});
    backing->setBackgroundColor(kCalloutBlue);

    auto label = views.makeLabel({0, 0, 45, 55});
    label->setBackgroundColor(kCalloutBlue);
    label->setTextColor(platform::Color::whiteColor());
    label->setNumberOfLines(2);
    label->setFont({"Arial", 11});
    label->setTextAlignment(platform::TextAlignment::kCenter);
    label->setText(strprintf("%s \n Miles", pin->miles ? pin->miles->c_str() : "(null)"));
    view->setLeftCalloutAccessoryView(label);

    auto button = views.makeButton(platform::ButtonType::kCustom, {205, 0, 45, 55});
    button->setTitle(">");
    button->setTitleColor(platform::Color::whiteColor());
    button->setBackgroundColor(kCalloutBlue);
    view->setRightCalloutAccessoryView(button);

    view->setImageName(pin->linked == 0 ? kPinImage : kLinkedPinImage);
    return view;
}

void MapManager::mapViewAnnotationViewCalloutAccessoryControlTapped(platform::MapView& mapView,
                                                                    platform::AnnotationView& view,
                                                                    platform::View& /*control*/) {
    const auto annotation = view.annotation();
    mapView.deselectAnnotation(annotation, true);
    const auto pin = std::dynamic_pointer_cast<hAnnotation>(annotation);
    if (!pin || pin->eventId.is_null() || pin->mediaType.is_null() || pin->mediaURL.is_null()) {
        return;
    }
    offerFullViewController =
        presentOfferFullView(environment_, {pin->eventId, pin->deviceEventId, pin->mediaType, pin->mediaURL});
    if (!pin->deviceEventId.is_null()) {
        environment_.dataService().sendDeviceUpdateWithDeviceEventId(pin->deviceEventId, "seen", sessionKey(),
                                                                     nullptr);
    }
}

platform::OverlayView MapManager::mapViewViewForOverlay(platform::MapView& /*mapView*/,
                                                        const std::shared_ptr<platform::Overlay>& overlay) {
    return overlay ? overlayViewFor(*overlay) : platform::OverlayView{};
}

platform::OverlayView MapManager::overlayViewFor(const platform::Overlay& overlay) {
    platform::OverlayView view;
    if (dynamic_cast<const platform::PolylineOverlay*>(&overlay) != nullptr) {
        view.kind = platform::OverlayView::Kind::kPolyline;
        view.strokeColor = overlay.title == "suppressedTarget" ? platform::Color::redColor()
                                                               : platform::Color::rgb255(3, 192, 60);
        view.lineWidth = 2.0;
    } else if (dynamic_cast<const platform::CircleOverlay*>(&overlay) != nullptr &&
               overlay.title == kTargetTitle) {
        view.kind = platform::OverlayView::Kind::kCircle;
        view.strokeColor = platform::Color::lightGray(0.2);
        view.fillColor = platform::Color::lightGray(0.1);
        view.lineWidth = 10.0;
    }
    return view;
}

void MapManager::showAlert(const std::string& message) {
    platform::AlertSpec alert;
    alert.title = "Message";
    alert.message = message;
    alert.cancelButtonTitle = "OK";
    environment_.platform().alerts->show(std::move(alert));
}

}  // namespace tovrel
