#include "tovrel/qt/qt_map_view.h"

#include <QMouseEvent>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QPainter>
#include <QPainterPath>
#include <QWheelEvent>
#include <algorithm>
#include <cmath>

#include "qt_view_context.h"
#include "view_widget.h"

namespace tovrel::qtbackend {
namespace {

const QColor kLand(236, 233, 226);
const QColor kGridLine(214, 210, 200);
const QColor kUserBlue(0, 122, 255);
constexpr double kCalloutHeight = 55;
constexpr double kCalloutWidth = 250;
constexpr double kCalloutTail = 10;

/// The default pin, drawn when an annotation view has no image.
QImage defaultPin() {
    static const QImage pin = [] {
        QImage image(32, 39, QImage::Format_ARGB32_Premultiplied);
        image.fill(Qt::transparent);
        QPainter painter(&image);
        painter.setRenderHint(QPainter::Antialiasing);
        painter.setPen(QPen(QColor(60, 60, 60), 2));
        painter.drawLine(QPointF(16, 20), QPointF(16, 38));
        painter.setBrush(QColor(220, 40, 40));
        painter.setPen(QPen(QColor(130, 20, 20), 1.5));
        painter.drawEllipse(QPointF(16, 11), 9, 9);
        return image;
    }();
    return pin;
}

/// Takes a pin view's widget back from the map and forgets the map's tap handler.
void releasePin(platform::AnnotationView* view) {
    if (auto* pin = dynamic_cast<QtAnnotationView*>(view)) {
        pin->onTap = nullptr;
        pin->lendWidgetTo(nullptr, {});
    }
}

QPointF toQPointF(const platform::Point& point) {
    return {point.x, point.y};
}

}  // namespace

/// The map's own widget: paints through the map and turns drags, wheel turns and taps into camera
/// moves and deselection.
class QtMapView::Widget final : public BackedWidget {
  public:
    void setOwner(QtMapView* owner) { owner_ = owner; }

  protected:
    void paintContent(QPainter& painter) override {
        if (owner_ != nullptr) {
            owner_->paintMap(painter);
        }
    }
    void mousePressEvent(QMouseEvent* event) override {
        last_ = event->position();
        moved_ = false;
    }
    void mouseMoveEvent(QMouseEvent* event) override {
        if (owner_ == nullptr) {
            return;
        }
        const QPointF delta = event->position() - last_;
        last_ = event->position();
        if (std::abs(delta.x()) + std::abs(delta.y()) > 0) {
            moved_ = true;
            const auto& camera = owner_->camera();
            auto centre = camera.center();
            centre.x -= delta.x() * camera.scale();
            centre.y -= delta.y() * camera.scale();
            owner_->moveCamera(centre, camera.scale());
        }
    }
    void mouseReleaseEvent(QMouseEvent* /*event*/) override {
        if (owner_ != nullptr && !moved_) {
            const auto selected = owner_->selectedAnnotations();
            for (const auto& annotation : selected) {
                owner_->deselectAnnotation(annotation, true);
            }
        }
    }
    void wheelEvent(QWheelEvent* event) override {
        if (owner_ == nullptr) {
            return;
        }
        const double steps = event->angleDelta().y() / 120.0;
        const platform::Point at{event->position().x(), event->position().y()};
        platform::MapCamera camera = owner_->camera();
        const auto anchor = camera.mapPointForPoint(at);
        camera.setScale(camera.scale() * std::pow(0.8, steps));
        // The point under the cursor stays put.
        const auto moved = camera.mapPointForPoint(at);
        auto centre = camera.center();
        centre.x += anchor.x - moved.x;
        centre.y += anchor.y - moved.y;
        owner_->moveCamera(centre, camera.scale());
    }

  private:
    QtMapView* owner_ = nullptr;
    QPointF last_;
    bool moved_ = false;
};

// ---- Annotation view ----

QtAnnotationView::QtAnnotationView(std::shared_ptr<QtViewContext> context,
                                   std::shared_ptr<platform::Annotation> annotation,
                                   std::string reuseIdentifier)
    : AnnotationView(context, std::move(annotation), std::move(reuseIdentifier)),
      QtViewCore(std::move(context), new ViewWidget, *this) {
    auto* view = static_cast<ViewWidget*>(widget());
    view->setCursor(Qt::PointingHandCursor);
    view->paint = [this, view](QPainter& painter) { painter.drawImage(QRectF(view->rect()), shownImage()); };
    view->tap = [this] {
        const auto handler = onTap;
        if (handler && isEnabled()) {
            handler();
        }
    };
}

void QtAnnotationView::contentChanged() {
    const QImage image = shownImage();
    const auto f = frame();
    setFrame({f.x, f.y, static_cast<double>(image.width()), static_cast<double>(image.height())});
    widget()->update();
}

QImage QtAnnotationView::shownImage() const {
    const QImage image = context_->image(imageName());
    return image.isNull() ? defaultPin() : image;
}

// ---- Map ----

QtMapView::QtMapView(std::shared_ptr<QtViewContext> context, const platform::Rect& frame)
    : MapView(context, frame), QtViewCore(std::move(context), new Widget, *this) {
    static_cast<Widget*>(widget())->setOwner(this);
    if (!context_->tileURLTemplate.empty()) {
        network_ = new QNetworkAccessManager(widget());
    }
}

QtMapView::~QtMapView() {
    closeCallout();
    for (const auto& weak : shownPins_) {
        releasePin(weak.lock().get());
    }
    if (widget() != nullptr) {
        static_cast<Widget*>(widget())->setOwner(nullptr);
    }
}

void QtMapView::showChange(const platform::MapChange& change) {
    using Kind = platform::MapChange::Kind;
    switch (change.kind) {
        case Kind::kPins:
            syncPins();
            break;
        case Kind::kCallout:
            closeCallout();
            if (calloutAnnotation()) {
                openCallout();
            }
            break;
        case Kind::kCamera:
            layoutPins();
            break;
        case Kind::kOverlays:
        case Kind::kUserLocation:
        case Kind::kDeselected:
            break;
    }
    widget()->update();
}

void QtMapView::syncPins() {
    const auto views = annotationViews();
    for (const auto& weak : shownPins_) {
        const auto view = weak.lock();
        if (view && std::find(views.begin(), views.end(), view) == views.end()) {
            releasePin(view.get());
        }
    }
    shownPins_.clear();
    for (const auto& view : views) {
        shownPins_.push_back(view);
        auto* pin = dynamic_cast<QtAnnotationView*>(view.get());
        if (pin == nullptr || pin->isLent()) {
            continue;
        }
        pin->lendWidgetTo(widget(), pin->widget()->geometry());
        pin->onTap = [this, weak = std::weak_ptr<platform::Annotation>(pin->annotation())] {
            if (const auto annotation = weak.lock()) {
                selectAnnotation(annotation);
            }
        };
    }
    layoutPins();
}

void QtMapView::layoutPins() {
    const auto& view = camera();
    for (const auto& weak : shownPins_) {
        const auto shown = weak.lock();
        auto* pin = dynamic_cast<QtAnnotationView*>(shown.get());
        if (pin == nullptr || !pin->widget()) {
            continue;
        }
        // The image's bottom centre (the pin's tip) stands on the coordinate.
        const auto at = view.pointForCoordinate(pin->annotation()->coordinate);
        const QImage image = pin->shownImage();
        pin->widget()->setGeometry(static_cast<int>(std::lround(at.x - image.width() / 2.0)),
                                   static_cast<int>(std::lround(at.y - image.height())), image.width(),
                                   image.height());
        pin->widget()->setVisible(!pin->isHidden());
    }
    if (callout_ && calloutView_) {
        auto* pin = dynamic_cast<QtAnnotationView*>(calloutView_.get());
        const double pinHeight = pin != nullptr ? pin->shownImage().height() : 39;
        const auto at = view.pointForCoordinate(calloutView_->annotation()->coordinate);
        callout_->move(static_cast<int>(std::lround(at.x - kCalloutWidth / 2)),
                       static_cast<int>(std::lround(at.y - pinHeight - kCalloutHeight - kCalloutTail - 2)));
        callout_->raise();
    }
}

void QtMapView::openCallout() {
    const auto annotation = calloutAnnotation();
    const auto view = viewForAnnotation(annotation);
    if (!view) {
        return;
    }
    auto* bubble = new ViewWidget(widget());
    bubble->resize(static_cast<int>(kCalloutWidth), static_cast<int>(kCalloutHeight + kCalloutTail));
    const QString title = QString::fromStdString(annotation->title.value_or(""));
    const QString subtitle = QString::fromStdString(annotation->subtitle.value_or(""));
    const bool hasLeft = view->leftCalloutAccessoryView() != nullptr;
    const bool hasRight = view->rightCalloutAccessoryView() != nullptr;
    bubble->paint = [bubble, title, subtitle, hasLeft, hasRight](QPainter& painter) {
        QPainterPath path;
        const QRectF body(0.5, 0.5, bubble->width() - 1.0, kCalloutHeight);
        path.addRoundedRect(body, 8, 8);
        QPainterPath tail;
        const double mid = bubble->width() / 2.0;
        tail.moveTo(mid - kCalloutTail, kCalloutHeight);
        tail.lineTo(mid, kCalloutHeight + kCalloutTail);
        tail.lineTo(mid + kCalloutTail, kCalloutHeight);
        tail.closeSubpath();
        painter.setPen(QPen(QColor(0, 0, 0, 60), 1));
        painter.setBrush(Qt::white);
        painter.drawPath(path.united(tail));
        const double left = hasLeft ? 53 : 10;
        const double right = hasRight ? bubble->width() - 53 : bubble->width() - 10;
        QFont font = painter.font();
        font.setPixelSize(15);
        font.setBold(true);
        painter.setFont(font);
        painter.setPen(Qt::black);
        const QRectF textArea(left, 6, right - left, kCalloutHeight - 12);
        painter.drawText(
            textArea.adjusted(0, 0, 0, -textArea.height() / 2), Qt::AlignLeft | Qt::AlignBottom,
            painter.fontMetrics().elidedText(title, Qt::ElideRight, static_cast<int>(textArea.width())));
        font.setBold(false);
        font.setPixelSize(12);
        painter.setFont(font);
        painter.setPen(QColor(90, 90, 90));
        painter.drawText(
            textArea.adjusted(0, textArea.height() / 2 + 1, 0, 0), Qt::AlignLeft | Qt::AlignTop,
            painter.fontMetrics().elidedText(subtitle, Qt::ElideRight, static_cast<int>(textArea.width())));
    };
    callout_ = bubble;
    calloutView_ = view;
    const auto lend = [bubble](const std::shared_ptr<platform::View>& accessory, bool right) {
        if (auto* core = accessory ? qtCore(accessory.get()) : nullptr) {
            const int x = right ? bubble->width() - 45 : 0;
            core->lendWidgetTo(bubble, QRect(x, 0, 45, static_cast<int>(kCalloutHeight)));
        }
    };
    lend(view->leftCalloutAccessoryView(), false);
    lend(view->rightCalloutAccessoryView(), true);
    bubble->show();
    layoutPins();
}

void QtMapView::closeCallout() {
    if (calloutView_) {
        for (const auto& accessory :
             {calloutView_->leftCalloutAccessoryView(), calloutView_->rightCalloutAccessoryView()}) {
            if (auto* core = accessory ? qtCore(accessory.get()) : nullptr) {
                core->lendWidgetTo(nullptr, {});
            }
        }
    }
    calloutView_.reset();
    if (callout_) {
        callout_->hide();
        callout_->deleteLater();
        callout_ = nullptr;
    }
}

void QtMapView::paintGrid(QPainter& painter) {
    painter.fillRect(widget()->rect(), kLand);
    // Grid lines every power-of-two of map points that lands 64 to 128 points apart on screen.
    double step = 1;
    while (step / camera().scale() < 64) {
        step *= 2;
    }
    const auto rect = camera().visibleMapRect();
    painter.setPen(QPen(kGridLine, 1));
    for (double x = std::floor(rect.x / step) * step; x <= rect.x + rect.width; x += step) {
        const double sx = camera().pointForMapPoint({x, 0}).x;
        painter.drawLine(QPointF(sx, 0), QPointF(sx, widget()->height()));
    }
    for (double y = std::floor(rect.y / step) * step; y <= rect.y + rect.height; y += step) {
        const double sy = camera().pointForMapPoint({0, y}).y;
        painter.drawLine(QPointF(0, sy), QPointF(widget()->width(), sy));
    }
}

void QtMapView::paintTiles(QPainter& painter) {
    paintGrid(painter);
    const int zoom = camera().tileZoom();
    const double tileSize = platform::kMapWorldSize / std::pow(2.0, zoom);
    const auto rect = camera().visibleMapRect();
    const int count = 1 << zoom;
    const int x0 = std::max(0, static_cast<int>(std::floor(rect.x / tileSize)));
    const int y0 = std::max(0, static_cast<int>(std::floor(rect.y / tileSize)));
    const int x1 = std::min(count - 1, static_cast<int>(std::floor((rect.x + rect.width) / tileSize)));
    const int y1 = std::min(count - 1, static_cast<int>(std::floor((rect.y + rect.height) / tileSize)));
    for (int ty = y0; ty <= y1; ++ty) {
        for (int tx = x0; tx <= x1; ++tx) {
            QString url = QString::fromStdString(context_->tileURLTemplate);
            url.replace("{z}", QString::number(zoom))
                .replace("{x}", QString::number(tx))
                .replace("{y}", QString::number(ty));
            const QPointF topLeft = toQPointF(camera().pointForMapPoint({tx * tileSize, ty * tileSize}));
            const QPointF bottomRight =
                toQPointF(camera().pointForMapPoint({(tx + 1) * tileSize, (ty + 1) * tileSize}));
            if (const QImage* tile = tiles_.object(url)) {
                painter.drawImage(QRectF(topLeft, bottomRight), *tile);
                continue;
            }
            if (pendingTiles_.contains(url) || network_ == nullptr) {
                continue;
            }
            if (const auto failed = failedTiles_.constFind(url); failed != failedTiles_.cend()) {
                if (!failed->hasExpired()) {
                    continue;
                }
                failedTiles_.erase(failed);
            }
            pendingTiles_.insert(url);
            ++tileRequests_;
            QNetworkRequest request{QUrl(url)};
            request.setHeader(QNetworkRequest::UserAgentHeader, "tovrel-qt");
            auto* reply = network_->get(request);
            QObject::connect(reply, &QNetworkReply::finished, widget(), [this, reply, url] {
                reply->deleteLater();
                pendingTiles_.remove(url);
                auto image = std::make_unique<QImage>();
                if (reply->error() != QNetworkReply::NoError || !image->loadFromData(reply->readAll())) {
                    failedTiles_.insert(url, QDeadlineTimer(kTileRetryDelay));
                    return;
                }
                const auto cost = static_cast<int>(std::max<qsizetype>(1, image->sizeInBytes() / 1024));
                tiles_.insert(url, image.release(), cost);
                widget()->update();
            });
        }
    }
}

void QtMapView::paintMap(QPainter& painter) {
    if (context_->tileURLTemplate.empty()) {
        paintGrid(painter);
    } else {
        paintTiles(painter);
    }
    for (const auto& overlay : overlays()) {
        const auto style = viewForOverlay(overlay).value_or(platform::OverlayView{});
        if (style.kind == platform::OverlayView::Kind::kCircle) {
            const auto* circle = dynamic_cast<const platform::CircleOverlay*>(overlay.get());
            if (circle == nullptr) {
                continue;
            }
            const QPointF centre = toQPointF(camera().pointForCoordinate(circle->center));
            const double radius = camera().pointsForMetres(circle->radius, circle->center.latitude);
            painter.setBrush(style.fillColor ? QBrush(toQColor(*style.fillColor)) : Qt::NoBrush);
            painter.setPen(style.strokeColor && style.lineWidth > 0
                               ? QPen(toQColor(*style.strokeColor), style.lineWidth)
                               : Qt::NoPen);
            painter.drawEllipse(centre, radius, radius);
        } else if (style.kind == platform::OverlayView::Kind::kPolyline) {
            const auto* line = dynamic_cast<const platform::PolylineOverlay*>(overlay.get());
            if (line == nullptr || line->points.size() < 2) {
                continue;
            }
            QPainterPath path;
            path.moveTo(toQPointF(camera().pointForCoordinate(line->points.front())));
            for (std::size_t i = 1; i < line->points.size(); ++i) {
                path.lineTo(toQPointF(camera().pointForCoordinate(line->points[i])));
            }
            painter.setBrush(Qt::NoBrush);
            painter.setPen(QPen(style.strokeColor ? toQColor(*style.strokeColor) : Qt::black, style.lineWidth,
                                Qt::SolidLine, Qt::RoundCap, Qt::RoundJoin));
            painter.drawPath(path);
        }
    }
    const auto user = userLocation();
    if (showsUserLocation() && user->location) {
        const QPointF at = toQPointF(camera().pointForCoordinate(user->coordinate));
        const double accuracy = camera().pointsForMetres(std::max(0.0, user->location->horizontalAccuracy),
                                                         user->coordinate.latitude);
        if (accuracy > 12) {
            QColor halo = kUserBlue;
            halo.setAlphaF(0.12F);
            painter.setPen(Qt::NoPen);
            painter.setBrush(halo);
            painter.drawEllipse(at, accuracy, accuracy);
        }
        painter.setPen(QPen(Qt::white, 3));
        painter.setBrush(kUserBlue);
        painter.drawEllipse(at, 8, 8);
    }
}

}  // namespace tovrel::qtbackend
