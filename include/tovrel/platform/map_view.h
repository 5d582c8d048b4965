#pragma once

#include <cmath>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tovrel/export.h"
#include "tovrel/platform/location.h"
#include "tovrel/platform/views.h"

namespace tovrel::platform {

/// A point of the flat world map (spherical Mercator, 2^28 points around the equator).
struct TOVREL_EXPORT MapPoint {
    double x = 0;
    double y = 0;
    friend bool operator==(const MapPoint&, const MapPoint&) = default;
};

/// A rectangle of map points. The null rectangle has infinite origin.
struct TOVREL_EXPORT MapRect {
    double x = 0;
    double y = 0;
    double width = 0;
    double height = 0;
    friend bool operator==(const MapRect&, const MapRect&) = default;

    static constexpr MapRect null() {
        return {std::numeric_limits<double>::infinity(), std::numeric_limits<double>::infinity(), 0, 0};
    }
    [[nodiscard]] bool isNull() const { return std::isinf(x) || std::isinf(y); }
};

inline constexpr double kMapWorldSize = 268435456.0;

/// The map point of a coordinate.
inline MapPoint mapPointForCoordinate(const Coordinate& coordinate) {
    constexpr double kPi = 3.14159265358979323846;
    const double s = std::sin(coordinate.latitude * kPi / 180.0);
    const double x = (coordinate.longitude + 180.0) / 360.0 * kMapWorldSize;
    const double y = (0.5 - std::log((1 + s) / (1 - s)) / (4 * kPi)) * kMapWorldSize;
    return {x, y};
}

struct TOVREL_EXPORT EdgeInsets {
    double top = 0;
    double left = 0;
    double bottom = 0;
    double right = 0;
    friend bool operator==(const EdgeInsets&, const EdgeInsets&) = default;
};

/// Degrees of latitude and longitude shown.
struct TOVREL_EXPORT CoordinateSpan {
    double latitudeDelta = 0;
    double longitudeDelta = 0;
    friend bool operator==(const CoordinateSpan&, const CoordinateSpan&) = default;
};

struct TOVREL_EXPORT CoordinateRegion {
    Coordinate center;
    CoordinateSpan span;
};

/// Something pinned to the map. Subclass it to carry more.
class TOVREL_EXPORT Annotation {
  public:
    virtual ~Annotation() = default;
    Coordinate coordinate;
    std::optional<std::string> title;
    std::optional<std::string> subtitle;
};

/// A plain pin with a coordinate, title and subtitle.
class PointAnnotation : public Annotation {};

/// The device's own position on the map; the map owns it.
class TOVREL_EXPORT UserLocation : public Annotation {
  public:
    std::optional<Location> location;  ///< nullopt until the first fix
    bool updating = false;
};

/// A shape laid over the map.
class TOVREL_EXPORT Overlay {
  public:
    virtual ~Overlay() = default;
    std::optional<std::string> title;
};

class TOVREL_EXPORT CircleOverlay : public Overlay {
  public:
    Coordinate center;
    double radius = 0;  ///< metres
};

class TOVREL_EXPORT PolylineOverlay : public Overlay {
  public:
    std::vector<Coordinate> points;
};

/// How an overlay is drawn; a plain view draws nothing.
struct TOVREL_EXPORT OverlayView {
    enum class Kind { kPlain, kCircle, kPolyline };
    Kind kind = Kind::kPlain;
    std::optional<Color> strokeColor;
    std::optional<Color> fillColor;
    double lineWidth = 0;
};

/// The view that draws one annotation, with its callout. It starts enabled, without a callout,
/// 32 × 39 points at the origin.
class TOVREL_EXPORT AnnotationView : public View {
  public:
    /// Main thread. `annotation` is never null.
    AnnotationView(std::shared_ptr<ViewRenderer> renderer, std::shared_ptr<Annotation> annotation,
                   std::string reuseIdentifier);
    /// Main thread. The annotation it draws (never null).
    [[nodiscard]] std::shared_ptr<Annotation> annotation() const { return annotation_; }
    /// Main thread.
    [[nodiscard]] std::string reuseIdentifier() const { return reuseIdentifier_; }
    /// Main thread. A resource name, or empty for the platform's pin.
    [[nodiscard]] std::string imageName() const { return imageName_; }
    /// Main thread.
    void setImageName(const std::string& name);
    /// Main thread.
    [[nodiscard]] bool isEnabled() const { return enabled_; }
    /// Main thread.
    void setEnabled(bool enabled) { enabled_ = enabled; }
    /// Main thread. Whether tapping the pin opens a callout with title, subtitle and accessories.
    [[nodiscard]] bool canShowCallout() const { return canShowCallout_; }
    /// Main thread.
    void setCanShowCallout(bool shows) { canShowCallout_ = shows; }
    /// Main thread.
    [[nodiscard]] std::shared_ptr<View> leftCalloutAccessoryView() const { return left_; }
    /// Main thread. A Button here is a control: tapping it reaches the map delegate.
    void setLeftCalloutAccessoryView(std::shared_ptr<View> view) { left_ = std::move(view); }
    /// Main thread.
    [[nodiscard]] std::shared_ptr<View> rightCalloutAccessoryView() const { return right_; }
    /// Main thread. A Button here is a control: tapping it reaches the map delegate.
    void setRightCalloutAccessoryView(std::shared_ptr<View> view) { right_ = std::move(view); }

  private:
    std::shared_ptr<Annotation> annotation_;
    std::string reuseIdentifier_;
    std::string imageName_;
    bool enabled_ = true;
    bool canShowCallout_ = false;
    std::shared_ptr<View> left_;
    std::shared_ptr<View> right_;
};

class MapView;

/// Hears a map and supplies the views of its annotations and overlays. Called on the main thread.
class TOVREL_EXPORT MapViewDelegate {
  public:
    virtual ~MapViewDelegate() = default;
    /// Main thread. The user's position changed.
    virtual void mapViewDidUpdateUserLocation(MapView& /*mapView*/, const UserLocation& /*userLocation*/) {}
    /// Main thread. null: the platform draws its own view.
    virtual std::shared_ptr<AnnotationView> mapViewViewForAnnotation(
        MapView& /*mapView*/, const std::shared_ptr<Annotation>& /*annotation*/) {
        return nullptr;
    }
    /// Main thread. A control (button) of an annotation view's callout was tapped.
    virtual void mapViewAnnotationViewCalloutAccessoryControlTapped(MapView& /*mapView*/,
                                                                    AnnotationView& /*view*/,
                                                                    View& /*control*/) {}
    /// Main thread. How to draw `overlay`.
    virtual OverlayView mapViewViewForOverlay(MapView& /*mapView*/,
                                              const std::shared_ptr<Overlay>& /*overlay*/) {
        return {};
    }
};

/// The coordinate of a map point: the inverse of mapPointForCoordinate.
TOVREL_EXPORT Coordinate coordinateForMapPoint(const MapPoint& point);
/// Map points per metre at `latitude` (the Mercator scale grows towards the poles).
TOVREL_EXPORT double mapPointsPerMetreAtLatitude(double latitude);

/// What a map shows: a centre in map points and a scale in map points per screen point, on a view of
/// a given size. Everything a map reports and draws goes through here. A plain value: any thread.
class TOVREL_EXPORT MapCamera {
  public:
    /// The closest and the farthest the map zooms, in map points per screen point.
    static constexpr double kMinimumScale = 0.5;
    static constexpr double kMaximumScale = kMapWorldSize / 256.0;

    /// Any thread (as every member of this plain value). The size of the view that shows the map.
    void setViewSize(const Size& size) { viewSize_ = size; }
    /// Any thread.
    [[nodiscard]] const Size& viewSize() const { return viewSize_; }
    /// Any thread. The map point at the view's centre.
    [[nodiscard]] const MapPoint& center() const { return center_; }
    /// Any thread. Map points per screen point.
    [[nodiscard]] double scale() const { return scale_; }
    /// Any thread.
    void setCenter(const MapPoint& center) { center_ = center; }
    /// Any thread. Kept within the minimum and maximum scale.
    void setScale(double scale);

    /// Any thread. Shows `rect` whole inside the view less `padding`, centred in that area.
    void showMapRect(const MapRect& rect, const EdgeInsets& padding);
    /// Any thread. Shows at least `region`'s span around its centre.
    void showRegion(const CoordinateRegion& region);
    /// Any thread. The area shown, in map points.
    [[nodiscard]] MapRect visibleMapRect() const;
    /// Any thread. The area shown, in degrees.
    [[nodiscard]] CoordinateRegion region() const;

    /// Any thread. The view point (points from the view's top-left corner) of a map point.
    [[nodiscard]] Point pointForMapPoint(const MapPoint& point) const;
    /// Any thread. The map point under a view point.
    [[nodiscard]] MapPoint mapPointForPoint(const Point& point) const;
    /// Any thread. The view point of a coordinate.
    [[nodiscard]] Point pointForCoordinate(const Coordinate& coordinate) const;
    /// Any thread. A distance on the ground at `latitude`, in view points.
    [[nodiscard]] double pointsForMetres(double metres, double latitude) const;
    /// Any thread. The raster tile zoom level whose 256-pixel tiles best match the scale.
    [[nodiscard]] int tileZoom() const;

  private:
    Size viewSize_;
    MapPoint center_{kMapWorldSize / 2, kMapWorldSize / 2};
    double scale_ = kMaximumScale / 4;
};

/// What changed on a map, as its renderer hears it.
struct TOVREL_EXPORT MapChange {
    enum class Kind {
        kPins,          ///< annotations (and their views) came or went
        kOverlays,      ///< overlays came or went
        kCamera,        ///< the area shown moved: `region`, or `rect` with `padding`, or a pan or zoom
        kCallout,       ///< a callout opened or closed (MapView::calloutAnnotation says which)
        kUserLocation,  ///< the user's position moved, or its dot was shown or hidden
        kDeselected,    ///< `annotation` was deselected
    };
    Kind kind = Kind::kPins;
    bool animated = false;
    std::shared_ptr<Annotation> annotation;
    std::optional<CoordinateRegion> region;
    std::optional<MapRect> rect;
    EdgeInsets padding;
};

/// A map with annotations, overlays and the user's position. The map asks its delegate for an
/// annotation's view when the annotation is added (the platform's pin when it gives none) and for
/// an overlay's view when the overlay is added; the removed annotations' views that have a reuse
/// identifier are set aside for reuse. Selecting an annotation whose view can show a callout opens
/// the callout; its Button accessories then reach the delegate when tapped.
class TOVREL_EXPORT MapView : public View {
  public:
    /// Main thread. An empty map at `frame`, shown by `renderer`.
    MapView(std::shared_ptr<ViewRenderer> renderer, const Rect& frame);
    ~MapView() override;
    MapView(const MapView&) = delete;
    MapView& operator=(const MapView&) = delete;

    /// Main thread. Not owned.
    void setDelegate(std::weak_ptr<MapViewDelegate> delegate) { delegate_ = std::move(delegate); }
    /// Main thread. The annotations on the map, the user location included while it is shown and
    /// known.
    [[nodiscard]] std::vector<std::shared_ptr<Annotation>> annotations() const;
    /// Main thread. Adding an annotation that is already on the map does nothing.
    void addAnnotation(std::shared_ptr<Annotation> annotation);
    /// Main thread. The user location is never removed.
    void removeAnnotations(const std::vector<std::shared_ptr<Annotation>>& annotations);
    /// Main thread.
    [[nodiscard]] std::vector<std::shared_ptr<Overlay>> overlays() const;
    /// Main thread.
    void addOverlay(std::shared_ptr<Overlay> overlay);
    /// Main thread.
    void removeOverlays(const std::vector<std::shared_ptr<Overlay>>& overlays);
    /// Main thread. An annotation view set aside under `identifier`, or null.
    std::shared_ptr<AnnotationView> dequeueReusableAnnotationViewWithIdentifier(
        const std::string& identifier);
    /// Main thread. Closes the annotation's callout.
    void deselectAnnotation(const std::shared_ptr<Annotation>& annotation, bool animated);
    /// Main thread. The user's position (its location stays empty until the first fix).
    [[nodiscard]] std::shared_ptr<UserLocation> userLocation() const { return userLocation_; }
    /// Main thread.
    [[nodiscard]] bool showsUserLocation() const { return showsUserLocation_; }
    /// Main thread. Showing the user location starts the position updates that reach the delegate.
    void setShowsUserLocation(bool shows);
    /// Main thread. The area shown.
    [[nodiscard]] CoordinateRegion region() const { return camera_.region(); }
    /// Main thread.
    void setRegion(const CoordinateRegion& region, bool animated);
    /// Main thread. The area shown, in map points.
    [[nodiscard]] MapRect visibleMapRect() const { return camera_.visibleMapRect(); }
    /// Main thread. Shows `rect` with `padding` points around it.
    void setVisibleMapRect(const MapRect& rect, const EdgeInsets& padding, bool animated);

    /// Main thread. A new fix of the user's position: the user location moves and, while the map
    /// shows it, the delegate hears it. The platform's location source calls it.
    void deliverUserLocation(const Location& location);
    /// Main thread. The user taps the annotation's pin: the others are deselected, it is selected
    /// and its callout opens when its view can show one.
    void selectAnnotation(const std::shared_ptr<Annotation>& annotation);
    /// Main thread. The user taps the right (or left) callout accessory of `annotation`: the pin is
    /// selected and the accessory tapped. False when the annotation has no view, its view shows no
    /// callout, or that accessory is not a Button.
    bool tapCalloutAccessory(const std::shared_ptr<Annotation>& annotation, bool right = true);
    /// Main thread. The user pans or zooms: the camera shows `center` at `scale`.
    void moveCamera(const MapPoint& center, double scale);

    /// Main thread. The view of `annotation` (the delegate's, else the platform's pin); null when
    /// it is not on the map.
    [[nodiscard]] std::shared_ptr<AnnotationView> viewForAnnotation(
        const std::shared_ptr<Annotation>& annotation) const;
    /// Main thread. The view the delegate gave for `overlay`.
    [[nodiscard]] std::optional<OverlayView> viewForOverlay(const std::shared_ptr<Overlay>& overlay) const;
    /// Main thread. The views of the annotations on the map, in order of adding.
    [[nodiscard]] std::vector<std::shared_ptr<AnnotationView>> annotationViews() const;
    /// Main thread.
    [[nodiscard]] const std::vector<std::shared_ptr<Annotation>>& selectedAnnotations() const {
        return selected_;
    }
    /// Main thread. The annotation whose callout is open, or null.
    [[nodiscard]] std::shared_ptr<Annotation> calloutAnnotation() const { return callout_; }
    /// Main thread.
    [[nodiscard]] const MapCamera& camera() const { return camera_; }

  protected:
    void didChangeFrame() override;

  private:
    struct Pinned {
        std::shared_ptr<Annotation> annotation;
        std::shared_ptr<AnnotationView> view;
    };
    struct Drawn {
        std::shared_ptr<Overlay> overlay;
        OverlayView view;
    };

    void tell(MapChange::Kind kind, bool animated = false, std::shared_ptr<Annotation> annotation = nullptr);
    void openCallout(const std::shared_ptr<Annotation>& annotation);
    void closeCallout();

    std::weak_ptr<MapViewDelegate> delegate_;
    std::vector<Pinned> pinned_;
    std::vector<Drawn> drawn_;
    ReusePool<AnnotationView> reusable_;
    std::shared_ptr<UserLocation> userLocation_;
    bool showsUserLocation_ = false;
    std::vector<std::shared_ptr<Annotation>> selected_;
    std::shared_ptr<Annotation> callout_;
    MapCamera camera_;
};

}  // namespace tovrel::platform
