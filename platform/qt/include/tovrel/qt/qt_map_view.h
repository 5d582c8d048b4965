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
#include "tovrel/platform/map_view.h"
#include "tovrel/qt/qt_views.h"

class QNetworkAccessManager;

namespace tovrel::qtbackend {

class QtMapView;

/// The view of one pin: its image (a resource name, or the default red pin), drawn by the map with
/// the tip at the annotation's coordinate.
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
/// dot. Dragging pans, the wheel zooms, a tap on the map deselects. The model (platform::MapView)
/// holds what the map shows; this draws it. Main thread only.
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

    /// The renderer tells the map what changed in its model.
    void showChange(const platform::MapChange& change);
    /// The callout's widget while one is open, else null.
    [[nodiscard]] QWidget* calloutWidget() const { return callout_; }
    /// How many tile requests the map has sent.
    [[nodiscard]] int tileRequests() const { return tileRequests_; }

    class Widget;

  private:
    friend class Widget;

    void paintMap(QPainter& painter);
    void paintTiles(QPainter& painter);
    void paintGrid(QPainter& painter);
    /// Lends the pin views' widgets to the map (and takes back those of removed pins).
    void syncPins();
    void layoutPins();
    void openCallout();
    void closeCallout();

    std::vector<std::weak_ptr<platform::AnnotationView>> shownPins_;
    QPointer<QWidget> callout_;
    std::shared_ptr<platform::AnnotationView> calloutView_;
    QNetworkAccessManager* network_ = nullptr;
    /// Decoded tiles, cost in KiB: a long pan keeps the last few dozen, not every tile it passed.
    QCache<QString, QImage> tiles_{kTileCacheKiB};
    QSet<QString> pendingTiles_;
    /// Tiles that failed, asked again only once their deadline has passed (not on every repaint).
    QHash<QString, QDeadlineTimer> failedTiles_;
    int tileRequests_ = 0;
};

}  // namespace tovrel::qtbackend
