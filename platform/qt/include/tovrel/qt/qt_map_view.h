#pragma once

#include <QCache>
#include <QDeadlineTimer>
#include <QHash>
#include <QImage>
#include <QPointF>
#include <QPointer>
#include <QSet>
#include <chrono>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "tovrel/export.h"
#include "tovrel/qt/qt_views.h"
#include "tovrel/viewtree/reuse_pool.h"

class QNetworkAccessManager;

namespace tovrel::qtbackend {

/// The coordinate of a map point: the inverse of platform::mapPointForCoordinate.
TOVREL_EXPORT platform::Coordinate coordinateForMapPoint(const platform::MapPoint& point);
/// Map points per metre at `latitude` (the Mercator scale grows towards the poles).
TOVREL_EXPORT double mapPointsPerMetreAtLatitude(double latitude);

/// What a map shows: a centre in map points and a scale in map points per screen point, on a view of
/// a given size. Everything the map draws and reports goes through here.
class TOVREL_EXPORT MapCamera {
  public:
    /// The closest and the farthest the map zooms, in map points per screen point.
    static constexpr double kMinimumScale = 0.5;
    static constexpr double kMaximumScale = platform::kMapWorldSize / 256.0;

    void setViewSize(const platform::Size& size) { viewSize_ = size; }
    [[nodiscard]] const platform::Size& viewSize() const { return viewSize_; }
    [[nodiscard]] const platform::MapPoint& center() const { return center_; }
    [[nodiscard]] double scale() const { return scale_; }
    void setCenter(const platform::MapPoint& center) { center_ = center; }
    void setScale(double scale);

    /// Shows `rect` whole inside the view less `padding`, centred in that area.
    void showMapRect(const platform::MapRect& rect, const platform::EdgeInsets& padding);
    /// Shows at least `region`'s span around its centre.
    void showRegion(const platform::CoordinateRegion& region);
    [[nodiscard]] platform::MapRect visibleMapRect() const;
    [[nodiscard]] platform::CoordinateRegion region() const;

    /// The view point (points from the view's top-left corner) of a map point, and back.
    [[nodiscard]] QPointF pointForMapPoint(const platform::MapPoint& point) const;
    [[nodiscard]] platform::MapPoint mapPointForPoint(const QPointF& point) const;
    [[nodiscard]] QPointF pointForCoordinate(const platform::Coordinate& coordinate) const;
    /// A distance on the ground at `latitude`, in view points.
    [[nodiscard]] double pointsForMetres(double metres, double latitude) const;
    /// The raster tile zoom level whose 256-pixel tiles best match the scale.
    [[nodiscard]] int tileZoom() const;

  private:
    platform::Size viewSize_;
    platform::MapPoint center_{platform::kMapWorldSize / 2, platform::kMapWorldSize / 2};
    double scale_ = kMaximumScale / 4;
};

class QtMapView;

/// The view of one pin: its image (a resource name, or the default red pin) with the tip at the
/// annotation's coordinate, and the callout's accessory views.
class TOVREL_EXPORT QtAnnotationView final : public platform::AnnotationView, public QtViewCore {
  public:
    QtAnnotationView(std::shared_ptr<QtViewContext> context, std::shared_ptr<platform::Annotation> annotation,
                     std::string reuseIdentifier);
    /// The image drawn (the resource's, else the default pin).
    [[nodiscard]] QImage shownImage() const;
    /// The map taps this view's pin through this.
    std::function<void()> onTap;

  protected:
    /// A new image: the view takes its size.
    void contentChanged() override;
};

/// A map drawn by the project with QPainter on Web Mercator: raster tiles from a URL template when
/// the system has one (else a plain background with a light grid), the overlays as their delegate
/// says, the pins as annotation views, the callout of the selected pin and the user's position
/// dot. Dragging pans, the wheel zooms. The delegate is asked for an annotation's view when the
/// annotation is added and for an overlay's view when the overlay is added; removed annotations'
/// views are set aside for reuse.
class TOVREL_EXPORT QtMapView final : public platform::MapView, public QtViewCore {
  public:
    /// How much decoded tile data a map keeps (48 MiB: about 190 tiles of 256 × 256).
    static constexpr int kTileCacheKiB = 48 * 1024;
    /// How long a tile that failed to load is left alone before it is asked for again.
    static constexpr std::chrono::seconds kTileRetryDelay{30};

    QtMapView(std::shared_ptr<QtViewContext> context, const platform::Rect& frame);
    ~QtMapView() override;
    QtMapView(const QtMapView&) = delete;
    QtMapView& operator=(const QtMapView&) = delete;

    void setDelegate(std::weak_ptr<platform::MapViewDelegate> delegate) override {
        delegate_ = std::move(delegate);
    }
    [[nodiscard]] std::vector<std::shared_ptr<platform::Annotation>> annotations() const override;
    void addAnnotation(std::shared_ptr<platform::Annotation> annotation) override;
    void removeAnnotations(const std::vector<std::shared_ptr<platform::Annotation>>& annotations) override;
    [[nodiscard]] std::vector<std::shared_ptr<platform::Overlay>> overlays() const override;
    void addOverlay(std::shared_ptr<platform::Overlay> overlay) override;
    void removeOverlays(const std::vector<std::shared_ptr<platform::Overlay>>& overlays) override;
    std::shared_ptr<platform::AnnotationView> dequeueReusableAnnotationViewWithIdentifier(
        const std::string& identifier) override;
    void deselectAnnotation(const std::shared_ptr<platform::Annotation>& annotation, bool animated) override;
    [[nodiscard]] std::shared_ptr<platform::UserLocation> userLocation() const override {
        return userLocation_;
    }
    [[nodiscard]] bool showsUserLocation() const override { return showsUserLocation_; }
    void setShowsUserLocation(bool shows) override;
    [[nodiscard]] platform::CoordinateRegion region() const override { return camera_.region(); }
    void setRegion(const platform::CoordinateRegion& region, bool animated) override;
    [[nodiscard]] platform::MapRect visibleMapRect() const override { return camera_.visibleMapRect(); }
    void setVisibleMapRect(const platform::MapRect& rect, const platform::EdgeInsets& padding,
                           bool animated) override;

    /// A new fix of the user's position: the dot moves and, while the map shows the user location,
    /// the delegate hears it.
    void deliverUserLocation(const platform::Location& location);
    /// The user taps the annotation's pin: it is selected and its callout opens (when it has one).
    void selectAnnotation(const std::shared_ptr<platform::Annotation>& annotation);
    /// The user taps the right (or left) callout accessory of `annotation`; false when it has no
    /// view or that accessory is not a control.
    bool tapCalloutAccessory(const std::shared_ptr<platform::Annotation>& annotation, bool right = true);
    [[nodiscard]] std::shared_ptr<platform::AnnotationView> viewForAnnotation(
        const std::shared_ptr<platform::Annotation>& annotation) const;
    [[nodiscard]] std::optional<platform::OverlayView> viewForOverlay(
        const std::shared_ptr<platform::Overlay>& overlay) const;
    [[nodiscard]] const std::vector<std::shared_ptr<platform::Annotation>>& selectedAnnotations() const {
        return selected_;
    }
    /// The callout's widget while one is open, else null.
    [[nodiscard]] QWidget* calloutWidget() const { return callout_; }
    [[nodiscard]] const MapCamera& camera() const { return camera_; }
    /// The view point of `coordinate`.
    [[nodiscard]] QPointF pointForCoordinate(const platform::Coordinate& coordinate) const {
        return camera_.pointForCoordinate(coordinate);
    }

    /// How many tile requests the map has sent.
    [[nodiscard]] int tileRequests() const { return tileRequests_; }

    class Widget;

  protected:
    void frameChanged() override;

  private:
    friend class Widget;
    struct Pinned {
        std::shared_ptr<platform::Annotation> annotation;
        std::shared_ptr<platform::AnnotationView> view;
    };
    struct Drawn {
        std::shared_ptr<platform::Overlay> overlay;
        platform::OverlayView view;
    };

    void paintMap(QPainter& painter);
    void paintTiles(QPainter& painter);
    void paintGrid(QPainter& painter);
    void layoutPins();
    void openCallout(const std::shared_ptr<platform::Annotation>& annotation);
    void closeCallout();
    void attachPinView(const std::shared_ptr<platform::AnnotationView>& view);
    void detachPinView(const std::shared_ptr<platform::AnnotationView>& view);
    void cameraChanged();

    std::weak_ptr<platform::MapViewDelegate> delegate_;
    std::vector<Pinned> pinned_;
    std::vector<Drawn> drawn_;
    viewtree::ReusePool<platform::AnnotationView> reusable_;
    std::shared_ptr<platform::UserLocation> userLocation_;
    bool showsUserLocation_ = false;
    std::vector<std::shared_ptr<platform::Annotation>> selected_;
    MapCamera camera_;
    QPointer<QWidget> callout_;
    std::shared_ptr<platform::Annotation> calloutAnnotation_;
    QNetworkAccessManager* network_ = nullptr;
    /// Decoded tiles, cost in KiB: a long pan keeps the last few dozen, not every tile it passed.
    QCache<QString, QImage> tiles_{kTileCacheKiB};
    QSet<QString> pendingTiles_;
    /// Tiles that failed, asked again only once their deadline has passed (not on every repaint).
    QHash<QString, QDeadlineTimer> failedTiles_;
    int tileRequests_ = 0;
};

}  // namespace tovrel::qtbackend
