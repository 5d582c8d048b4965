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
            auto centre = owner_->camera_.center();
            centre.x -= delta.x() * owner_->camera_.scale();
            centre.y -= delta.y() * owner_->camera_.scale();
            owner_->camera_.setCenter(centre);
            owner_->cameraChanged();
        }
    }
    void mouseReleaseEvent(QMouseEvent* /*event*/) override {
        if (owner_ != nullptr && !moved_) {
            const auto selected = owner_->selected_;
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
        const QPointF at = event->position();
        const auto anchor = owner_->camera_.mapPointForPoint(at);
        owner_->camera_.setScale(owner_->camera_.scale() * std::pow(0.8, steps));
        // The point under the cursor stays put.
        const auto moved = owner_->camera_.mapPointForPoint(at);
        auto centre = owner_->camera_.center();
        centre.x += anchor.x - moved.x;
        centre.y += anchor.y - moved.y;
        owner_->camera_.setCenter(centre);
        owner_->cameraChanged();
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
    : MapView(context, frame),
      QtViewCore(std::move(context), new Widget, *this),
      userLocation_(std::make_shared<platform::UserLocation>()) {
    static_cast<Widget*>(widget())->setOwner(this);
    userLocation_->coordinate = {-180, -180};
    camera_.setViewSize({frame.width, frame.height});
    if (!context_->tileURLTemplate.empty()) {
        network_ = new QNetworkAccessManager(widget());
    }
}

QtMapView::~QtMapView() {
    closeCallout();
    if (widget() != nullptr) {
        static_cast<Widget*>(widget())->setOwner(nullptr);
    }
}

void QtMapView::frameChanged() {
    camera_.setViewSize({frame().width, frame().height});
    cameraChanged();
}

void QtMapView::cameraChanged() {
    layoutPins();
    widget()->update();
}

std::vector<std::shared_ptr<platform::Annotation>> QtMapView::annotations() const {
    std::vector<std::shared_ptr<platform::Annotation>> all;
    if (showsUserLocation_ && userLocation_->location) {
        all.push_back(userLocation_);
    }
    for (const auto& pinned : pinned_) {
        all.push_back(pinned.annotation);
    }
    return all;
}

void QtMapView::attachPinView(const std::shared_ptr<platform::AnnotationView>& view) {
    auto* pin = dynamic_cast<QtAnnotationView*>(view.get());
    if (pin == nullptr) {
        return;
    }
    pin->lendWidgetTo(widget(), pin->widget()->geometry());
    pin->onTap = [this, weak = std::weak_ptr<platform::Annotation>(pin->annotation())] {
        if (const auto annotation = weak.lock()) {
            selectAnnotation(annotation);
        }
    };
}

void QtMapView::detachPinView(const std::shared_ptr<platform::AnnotationView>& view) {
    if (auto* pin = dynamic_cast<QtAnnotationView*>(view.get())) {
        pin->onTap = nullptr;
        pin->lendWidgetTo(nullptr, {});
    }
}

void QtMapView::addAnnotation(std::shared_ptr<platform::Annotation> annotation) {
    const auto same = [&annotation](const Pinned& p) { return p.annotation == annotation; };
    if (!annotation || std::any_of(pinned_.begin(), pinned_.end(), same)) {
        return;
    }
    pinned_.push_back({annotation, nullptr});
    std::shared_ptr<platform::AnnotationView> view;
    if (auto delegate = delegate_.lock()) {
        view = delegate->mapViewViewForAnnotation(*this, annotation);
    }
    if (!view) {
        // The platform's own pin.
        view = std::make_shared<QtAnnotationView>(context_, annotation, "");
    }
    const auto it = std::find_if(pinned_.begin(), pinned_.end(), same);
    if (it != pinned_.end()) {
        it->view = view;
        attachPinView(view);
        layoutPins();
    }
}

void QtMapView::removeAnnotations(const std::vector<std::shared_ptr<platform::Annotation>>& annotations) {
    for (const auto& annotation : annotations) {
        const auto it = std::find_if(pinned_.begin(), pinned_.end(),
                                     [&annotation](const Pinned& p) { return p.annotation == annotation; });
        if (it == pinned_.end()) {
            continue;
        }
        if (calloutAnnotation_ == annotation) {
            closeCallout();
        }
        if (it->view) {
            detachPinView(it->view);
            if (!it->view->reuseIdentifier().empty()) {
                reusable_.put(it->view->reuseIdentifier(), it->view);
            }
        }
        pinned_.erase(it);
        selected_.erase(std::remove(selected_.begin(), selected_.end(), annotation), selected_.end());
    }
    widget()->update();
}

std::vector<std::shared_ptr<platform::Overlay>> QtMapView::overlays() const {
    std::vector<std::shared_ptr<platform::Overlay>> all;
    for (const auto& drawn : drawn_) {
        all.push_back(drawn.overlay);
    }
    return all;
}

void QtMapView::addOverlay(std::shared_ptr<platform::Overlay> overlay) {
    if (!overlay) {
        return;
    }
    platform::OverlayView view;
    if (auto delegate = delegate_.lock()) {
        view = delegate->mapViewViewForOverlay(*this, overlay);
    }
    drawn_.push_back({std::move(overlay), view});
    widget()->update();
}

void QtMapView::removeOverlays(const std::vector<std::shared_ptr<platform::Overlay>>& overlays) {
    for (const auto& overlay : overlays) {
        drawn_.erase(std::remove_if(drawn_.begin(), drawn_.end(),
                                    [&overlay](const Drawn& d) { return d.overlay == overlay; }),
                     drawn_.end());
    }
    widget()->update();
}

std::shared_ptr<platform::AnnotationView> QtMapView::dequeueReusableAnnotationViewWithIdentifier(
    const std::string& identifier) {
    return reusable_.take(identifier);
}

void QtMapView::deselectAnnotation(const std::shared_ptr<platform::Annotation>& annotation,
                                   bool /*animated*/) {
    selected_.erase(std::remove(selected_.begin(), selected_.end(), annotation), selected_.end());
    if (calloutAnnotation_ == annotation) {
        closeCallout();
    }
}

void QtMapView::setShowsUserLocation(bool shows) {
    showsUserLocation_ = shows;
    widget()->update();
}

void QtMapView::setRegion(const platform::CoordinateRegion& region, bool /*animated*/) {
    camera_.showRegion(region);
    cameraChanged();
}

void QtMapView::setVisibleMapRect(const platform::MapRect& rect, const platform::EdgeInsets& padding,
                                  bool /*animated*/) {
    camera_.showMapRect(rect, padding);
    cameraChanged();
}

void QtMapView::deliverUserLocation(const platform::Location& location) {
    userLocation_->location = location;
    userLocation_->coordinate = location.coordinate;
    userLocation_->updating = true;
    widget()->update();
    if (!showsUserLocation_) {
        return;
    }
    const auto keepAlive = shared_from_this();
    if (auto delegate = delegate_.lock()) {
        delegate->mapViewDidUpdateUserLocation(*this, *userLocation_);
    }
}

void QtMapView::selectAnnotation(const std::shared_ptr<platform::Annotation>& annotation) {
    for (const auto& other : std::vector(selected_)) {
        if (other != annotation) {
            deselectAnnotation(other, false);
        }
    }
    if (std::find(selected_.begin(), selected_.end(), annotation) == selected_.end()) {
        selected_.push_back(annotation);
    }
    openCallout(annotation);
}

bool QtMapView::tapCalloutAccessory(const std::shared_ptr<platform::Annotation>& annotation, bool right) {
    const auto view = viewForAnnotation(annotation);
    if (!view) {
        return false;
    }
    const auto control = std::dynamic_pointer_cast<QtButton>(right ? view->rightCalloutAccessoryView()
                                                                   : view->leftCalloutAccessoryView());
    if (!control) {
        return false;
    }
    selectAnnotation(annotation);
    return control->tap();
}

std::shared_ptr<platform::AnnotationView> QtMapView::viewForAnnotation(
    const std::shared_ptr<platform::Annotation>& annotation) const {
    const auto it = std::find_if(pinned_.begin(), pinned_.end(),
                                 [&annotation](const Pinned& p) { return p.annotation == annotation; });
    return it == pinned_.end() ? nullptr : it->view;
}

std::optional<platform::OverlayView> QtMapView::viewForOverlay(
    const std::shared_ptr<platform::Overlay>& overlay) const {
    const auto it = std::find_if(drawn_.begin(), drawn_.end(),
                                 [&overlay](const Drawn& d) { return d.overlay == overlay; });
    return it == drawn_.end() ? std::nullopt : std::optional(it->view);
}

void QtMapView::layoutPins() {
    for (const auto& pinned : pinned_) {
        auto* pin = dynamic_cast<QtAnnotationView*>(pinned.view.get());
        if (pin == nullptr || !pin->widget()) {
            continue;
        }
        // The image's bottom centre (the pin's tip) stands on the coordinate.
        const QPointF at = camera_.pointForCoordinate(pinned.annotation->coordinate);
        const QImage image = pin->shownImage();
        pin->widget()->setGeometry(static_cast<int>(std::lround(at.x() - image.width() / 2.0)),
                                   static_cast<int>(std::lround(at.y() - image.height())), image.width(),
                                   image.height());
        pin->widget()->setVisible(!pin->isHidden());
    }
    if (callout_ && calloutAnnotation_) {
        const auto view = viewForAnnotation(calloutAnnotation_);
        const double pinHeight =
            view ? static_cast<QtAnnotationView*>(view.get())->shownImage().height() : 39;
        const QPointF at = camera_.pointForCoordinate(calloutAnnotation_->coordinate);
        callout_->move(static_cast<int>(std::lround(at.x() - kCalloutWidth / 2)),
                       static_cast<int>(std::lround(at.y() - pinHeight - kCalloutHeight - kCalloutTail - 2)));
        callout_->raise();
    }
}

void QtMapView::openCallout(const std::shared_ptr<platform::Annotation>& annotation) {
    closeCallout();
    const auto view = viewForAnnotation(annotation);
    if (!view || !view->canShowCallout()) {
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
    calloutAnnotation_ = annotation;
    const auto lend = [bubble](const std::shared_ptr<platform::View>& accessory, bool right) {
        if (auto* core = accessory ? qtCore(accessory.get()) : nullptr) {
            const int x = right ? bubble->width() - 45 : 0;
            core->lendWidgetTo(bubble, QRect(x, 0, 45, static_cast<int>(kCalloutHeight)));
        }
    };
    lend(view->leftCalloutAccessoryView(), false);
    lend(view->rightCalloutAccessoryView(), true);
    for (const auto& accessory : {view->leftCalloutAccessoryView(), view->rightCalloutAccessoryView()}) {
        if (auto button = std::dynamic_pointer_cast<QtButton>(accessory)) {
            // A control in the callout reaches the map's delegate.
            button->setControlHook([this, weakView = std::weak_ptr<platform::AnnotationView>(view),
                                    weakControl = std::weak_ptr<QtButton>(button)] {
                const auto pinView = weakView.lock();
                const auto control = weakControl.lock();
                const auto delegate = delegate_.lock();
                if (pinView && control && delegate) {
                    const auto keepAlive = shared_from_this();
                    delegate->mapViewAnnotationViewCalloutAccessoryControlTapped(*this, *pinView, *control);
                }
            });
        }
    }
    bubble->show();
    layoutPins();
}

void QtMapView::closeCallout() {
    if (calloutAnnotation_) {
        if (const auto view = viewForAnnotation(calloutAnnotation_)) {
            for (const auto& accessory :
                 {view->leftCalloutAccessoryView(), view->rightCalloutAccessoryView()}) {
                if (auto* core = accessory ? qtCore(accessory.get()) : nullptr) {
                    core->lendWidgetTo(nullptr, {});
                }
                if (auto button = std::dynamic_pointer_cast<QtButton>(accessory)) {
                    button->setControlHook(nullptr);
                }
            }
        }
    }
    calloutAnnotation_.reset();
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
    while (step / camera_.scale() < 64) {
        step *= 2;
    }
    const auto rect = camera_.visibleMapRect();
    painter.setPen(QPen(kGridLine, 1));
    for (double x = std::floor(rect.x / step) * step; x <= rect.x + rect.width; x += step) {
        const double sx = camera_.pointForMapPoint({x, 0}).x();
        painter.drawLine(QPointF(sx, 0), QPointF(sx, widget()->height()));
    }
    for (double y = std::floor(rect.y / step) * step; y <= rect.y + rect.height; y += step) {
        const double sy = camera_.pointForMapPoint({0, y}).y();
        painter.drawLine(QPointF(0, sy), QPointF(widget()->width(), sy));
    }
}

void QtMapView::paintTiles(QPainter& painter) {
    paintGrid(painter);
    const int zoom = camera_.tileZoom();
    const double tileSize = platform::kMapWorldSize / std::pow(2.0, zoom);
    const auto rect = camera_.visibleMapRect();
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
            const QPointF topLeft = camera_.pointForMapPoint({tx * tileSize, ty * tileSize});
            const QPointF bottomRight = camera_.pointForMapPoint({(tx + 1) * tileSize, (ty + 1) * tileSize});
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
    for (const auto& drawn : drawn_) {
        const auto& style = drawn.view;
        if (style.kind == platform::OverlayView::Kind::kCircle) {
            const auto* circle = dynamic_cast<const platform::CircleOverlay*>(drawn.overlay.get());
            if (circle == nullptr) {
                continue;
            }
            const QPointF centre = camera_.pointForCoordinate(circle->center);
            const double radius = camera_.pointsForMetres(circle->radius, circle->center.latitude);
            painter.setBrush(style.fillColor ? QBrush(toQColor(*style.fillColor)) : Qt::NoBrush);
            painter.setPen(style.strokeColor && style.lineWidth > 0
                               ? QPen(toQColor(*style.strokeColor), style.lineWidth)
                               : Qt::NoPen);
            painter.drawEllipse(centre, radius, radius);
        } else if (style.kind == platform::OverlayView::Kind::kPolyline) {
            const auto* line = dynamic_cast<const platform::PolylineOverlay*>(drawn.overlay.get());
            if (line == nullptr || line->points.size() < 2) {
                continue;
            }
            QPainterPath path;
            path.moveTo(camera_.pointForCoordinate(line->points.front()));
            for (std::size_t i = 1; i < line->points.size(); ++i) {
                path.lineTo(camera_.pointForCoordinate(line->points[i]));
            }
            painter.setBrush(Qt::NoBrush);
            painter.setPen(QPen(style.strokeColor ? toQColor(*style.strokeColor) : Qt::black, style.lineWidth,
                                Qt::SolidLine, Qt::RoundCap, Qt::RoundJoin));
            painter.drawPath(path);
        }
    }
    if (showsUserLocation_ && userLocation_->location) {
        const QPointF at = camera_.pointForCoordinate(userLocation_->coordinate);
        const double accuracy = camera_.pointsForMetres(
            std::max(0.0, userLocation_->location->horizontalAccuracy), userLocation_->coordinate.latitude);
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
