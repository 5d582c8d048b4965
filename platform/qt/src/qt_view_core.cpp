#include <QGraphicsOpacityEffect>
#include <QPainter>
#include <QVariantAnimation>
#include <algorithm>
#include <cmath>

#include "qt_view_context.h"
#include "tovrel/qt/qt_map_view.h"
#include "tovrel/qt/qt_views.h"

namespace tovrel::qtbackend {

namespace {

int px(double points) {
    return static_cast<int>(std::lround(points));
}

}  // namespace

QColor toQColor(const platform::Color& color) {
    return QColor::fromRgbF(static_cast<float>(color.red), static_cast<float>(color.green),
                            static_cast<float>(color.blue), static_cast<float>(color.alpha));
}

// ---- QtViewContext ----

bool QtViewContext::isKeyWindow(const platform::View& view) const {
    return system != nullptr && system->isKeyWindow(view);
}

bool QtViewContext::isPresented(const platform::View& view) const {
    return system != nullptr && system->isPresented(view);
}

void QtViewContext::postLater(platform::Task task) const {
    if (auto mainLoop = loop.lock()) {
        mainLoop->post(std::move(task));
    }
}

void QtViewContext::viewChanged(platform::View& view, platform::ViewProperty property) {
    if (auto* core = qtCore(&view)) {
        core->modelChanged(property);
    }
}

void QtViewContext::subviewAdded(platform::View& parent, platform::View& child, bool moved) {
    auto* parentCore = qtCore(&parent);
    auto* childCore = qtCore(&child);
    if (parentCore != nullptr && childCore != nullptr) {
        parentCore->didAddSubview(*childCore, moved);
    }
}

void QtViewContext::viewDetached(platform::View& view) {
    if (auto* core = qtCore(&view)) {
        core->didLeaveSuperview();
    }
}

void QtViewContext::animationAdded(platform::View& view, const platform::BasicAnimation& animation) {
    if (auto* core = qtCore(&view)) {
        core->showAnimation(animation);
    }
}

void QtViewContext::mapChanged(platform::MapView& map, const platform::MapChange& change) {
    if (auto* shown = dynamic_cast<QtMapView*>(&map)) {
        shown->showChange(change);
    }
}

std::shared_ptr<platform::AnnotationView> QtViewContext::makePlatformPin(
    std::shared_ptr<platform::Annotation> annotation) {
    return std::make_shared<QtAnnotationView>(shared_from_this(), std::move(annotation), "");
}

QImage QtViewContext::image(const std::string& name) const {
    if (name.empty()) {
        return {};
    }
    const auto cached = images.find(name);
    if (cached != images.end()) {
        return cached->second;
    }
    const auto path = resourceRoot / name;
    QImage loaded(QString::fromStdString(path.string()));
    images[name] = loaded;
    return loaded;
}

// ---- BackedWidget ----

BackedWidget::BackedWidget(QWidget* parent) : QWidget(parent) {
    setAttribute(Qt::WA_NoSystemBackground);
}

void BackedWidget::setBackground(const std::optional<platform::Color>& color) {
    background_ = color ? std::optional(toQColor(*color)) : std::nullopt;
    update();
}

void BackedWidget::paintEvent(QPaintEvent* /*event*/) {
    QPainter painter(this);
    if (background_ && background_->alpha() > 0) {
        painter.fillRect(rect(), *background_);
    }
    painter.setRenderHint(QPainter::Antialiasing);
    painter.setRenderHint(QPainter::SmoothPixmapTransform);
    paintContent(painter);
}

void BackedWidget::paintContent(QPainter& /*painter*/) {}

// ---- QtViewCore ----

QtViewCore* qtCore(const platform::View* view) {
    return dynamic_cast<QtViewCore*>(const_cast<platform::View*>(view));
}

QtViewCore::QtViewCore(std::shared_ptr<QtViewContext> context, QWidget* widget, platform::View& view)
    : context_(std::move(context)), widget_(widget), view_(view), shownAlpha_(view.alpha()) {
    widget_->hide();
    applyGeometry();
}

QtViewCore::~QtViewCore() {
    // Subviews may outlive this view: their widgets leave this one before it goes.
    for (const auto& subview : view_.subviews()) {
        if (auto* core = qtCore(subview.get()); core != nullptr && core->widget_) {
            core->widget_->hide();
            core->widget_->setParent(nullptr);
        }
    }
    if (bounce_) {
        bounce_->stop();
        delete bounce_;
    }
    if (fade_) {
        fade_->stop();
        delete fade_;
    }
    delete widget_;
}

void QtViewCore::modelChanged(platform::ViewProperty property) {
    using platform::ViewProperty;
    switch (property) {
        case ViewProperty::kFrame:
            applyGeometry();
            frameChanged();
            break;
        case ViewProperty::kTransform:
            applyGeometry();
            break;
        case ViewProperty::kHidden:
            applyVisibility();
            break;
        case ViewProperty::kAlpha:
            fadeTo(view_.alpha());
            break;
        case ViewProperty::kZPosition:
            if (const auto parent = view_.superview()) {
                if (auto* core = qtCore(parent.get())) {
                    core->restack();
                }
            } else if (isWindow_ || presented_) {
                context_->windowChanged();
            }
            break;
        case ViewProperty::kContent:
            contentChanged();
            break;
        case ViewProperty::kBackgroundColor:
            if (auto* backed = qobject_cast<BackedWidget*>(widget_)) {
                backed->setBackground(view_.backgroundColor());
            }
            break;
    }
}

void QtViewCore::contentChanged() {
    if (widget_) {
        widget_->update();
    }
}

void QtViewCore::applyGeometry() {
    if (!widget_ || lentTo_) {
        return;
    }
    const platform::Rect frame = view_.frame();
    if (isWindow_) {
        widget_->setFixedSize(px(frame.width), px(frame.height));
        return;
    }
    const platform::Transform transform = view_.transform();
    widget_->setGeometry(px(frame.x + transform.tx), px(frame.y + transform.ty + bounceOffset_),
                         std::max(0, px(frame.width)), std::max(0, px(frame.height)));
}

void QtViewCore::applyVisibility() {
    if (!widget_ || isWindow_) {
        return;
    }
    // A widget without a parent would become a window of its own: it stays hidden.
    widget_->setVisible(!view_.isHidden() && widget_->parentWidget() != nullptr);
}

void QtViewCore::applyOpacity(double opacity) {
    if (!widget_) {
        return;
    }
    if (opacity >= 0.999) {
        widget_->setGraphicsEffect(nullptr);
        return;
    }
    auto* effect = qobject_cast<QGraphicsOpacityEffect*>(widget_->graphicsEffect());
    if (effect == nullptr) {
        effect = new QGraphicsOpacityEffect(widget_);
        widget_->setGraphicsEffect(effect);
    }
    effect->setOpacity(std::clamp(opacity, 0.0, 1.0));
}

void QtViewCore::fadeTo(double alpha) {
    const double previous = shownAlpha_;
    shownAlpha_ = alpha;
    if (context_->openAnimations.empty() || context_->openAnimations.back().duration <= 0) {
        if (fade_) {
            fade_->stop();
        }
        applyOpacity(alpha);
        return;
    }
    const auto& animation = context_->openAnimations.back();
    if (!fade_) {
        fade_ = new QVariantAnimation();
        QObject::connect(fade_, &QVariantAnimation::valueChanged, widget_,
                         [this](const QVariant& value) { applyOpacity(value.toDouble()); });
    }
    fade_->stop();
    fade_->setStartValue(previous);
    fade_->setEndValue(alpha);
    fade_->setDuration(static_cast<int>(animation.duration * 1000));
    fade_->setEasingCurve(animation.curve == platform::AnimationCurve::kLinear ? QEasingCurve::Linear
                                                                               : QEasingCurve::InOutQuad);
    fade_->start();
}

void QtViewCore::restack() {
    if (isWindow_) {
        context_->windowChanged();
        return;
    }
    std::vector<std::pair<float, QWidget*>> order;
    for (const auto& subview : view_.subviews()) {
        if (auto* core = qtCore(subview.get()); core != nullptr && core->widget_ && !core->lentTo_) {
            order.emplace_back(subview->zPosition(), core->widget_);
        }
    }
    std::stable_sort(order.begin(), order.end(),
                     [](const auto& a, const auto& b) { return a.first < b.first; });
    for (const auto& entry : order) {
        entry.second->raise();
    }
}

void QtViewCore::lendWidgetTo(QWidget* host, const QRect& geometry) {
    if (!widget_) {
        return;
    }
    if (host != nullptr) {
        lentTo_ = host;
        widget_->setParent(host);
        widget_->setGeometry(geometry);
        widget_->setVisible(!view_.isHidden());
        widget_->raise();
        return;
    }
    lentTo_ = nullptr;
    const auto parent = view_.superview();
    auto* parentCore = parent ? qtCore(parent.get()) : nullptr;
    widget_->setParent(parentCore != nullptr ? parentCore->contentWidget() : nullptr);
    applyGeometry();
    applyVisibility();
    if (parentCore != nullptr) {
        parentCore->restack();
    }
}

void QtViewCore::didAddSubview(QtViewCore& child, bool moved) {
    if (moved && child.widget_ && !child.lentTo_) {
        child.widget_->setParent(contentWidget());
        child.applyGeometry();
        child.applyVisibility();
    }
    restack();
}

void QtViewCore::didLeaveSuperview() {
    if (widget_ && !lentTo_) {
        widget_->hide();
        widget_->setParent(nullptr);
    }
}

void QtViewCore::showAnimation(const platform::BasicAnimation& animation) {
    if (animation.keyPath != "position.y" || animation.duration <= 0) {
        return;
    }
    // The layer's y moves by the animated amount (additive) and back, as many times as it repeats.
    const int legs =
        std::max(1, static_cast<int>(std::ceil(animation.repeatCount))) * (animation.autoreverses ? 2 : 1);
    if (!bounce_) {
        bounce_ = new QVariantAnimation();
        QObject::connect(bounce_, &QVariantAnimation::valueChanged, widget_, [this](const QVariant& value) {
            bounceOffset_ = value.toDouble();
            applyGeometry();
        });
        QObject::connect(bounce_, &QVariantAnimation::finished, widget_, [this] {
            bounceOffset_ = bounceRest_;
            applyGeometry();
        });
    }
    bounce_->stop();
    bounce_->setDuration(static_cast<int>(animation.duration * 1000 * legs));
    bounce_->setStartValue(animation.fromValue);
    for (int leg = 1; leg < legs; ++leg) {
        const bool out = animation.autoreverses ? leg % 2 == 1 : true;
        bounce_->setKeyValueAt(static_cast<double>(leg) / legs,
                               out ? animation.toValue : animation.fromValue);
    }
    const double last = animation.autoreverses ? animation.fromValue : animation.toValue;
    const bool keepsEnd = animation.fillMode == platform::FillMode::kForwards ||
                          animation.fillMode == platform::FillMode::kBoth;
    bounce_->setEndValue(last);
    bounceRest_ = keepsEnd ? last : 0.0;
    bounce_->start();
}

// ---- QtView ----

QtView::QtView(std::shared_ptr<QtViewContext> context, const platform::Rect& frame)
    : View(context, frame), QtViewCore(std::move(context), new BackedWidget, *this) {}

}  // namespace tovrel::qtbackend
