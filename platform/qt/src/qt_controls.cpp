#include <QFont>
#include <QPainterPath>
#include <QTimer>
#include <cmath>

#include "qt_view_context.h"
#include "tovrel/qt/qt_views.h"
#include "view_widget.h"

namespace tovrel::qtbackend {
namespace {

constexpr double kPi = 3.14159265358979323846;
const QColor kTint(0, 122, 255);

ViewWidget* widgetOf(QWidget* widget) {
    return static_cast<ViewWidget*>(widget);
}

Qt::Alignment alignmentOf(platform::TextAlignment alignment) {
    switch (alignment) {
        case platform::TextAlignment::kCenter:
            return Qt::AlignHCenter;
        case platform::TextAlignment::kRight:
            return Qt::AlignRight;
        default:
            return Qt::AlignLeft;
    }
}

}  // namespace

// ---- Spinner ----

QtActivityIndicator::QtActivityIndicator(std::shared_ptr<QtViewContext> context,
                                         platform::ActivityIndicatorStyle style)
    : ActivityIndicatorView(context, style == platform::ActivityIndicatorStyle::kWhiteLarge
                                         ? platform::Rect{0, 0, 37, 37}
                                         : platform::Rect{0, 0, 20, 20}),
      QtViewCore(std::move(context), new ViewWidget, *this),
      style_(style) {
    startHidden(true);
    auto* view = widgetOf(widget());
    auto* turn = new QTimer(view);
    turn->setInterval(80);
    auto counter = std::make_shared<int>(0);
    QObject::connect(turn, &QTimer::timeout, view, [view, counter] {
        *counter = (*counter + 1) % 12;
        view->setProperty("step", *counter);
        view->update();
    });
    view->setProperty("timer", QVariant::fromValue(static_cast<QObject*>(turn)));
    view->paint = [this, view](QPainter& painter) {
        const QColor base =
            style_ == platform::ActivityIndicatorStyle::kGray ? QColor(90, 90, 90) : Qt::white;
        const int step = view->property("step").toInt();
        const QPointF centre = QRectF(view->rect()).center();
        const double outer = std::min(view->width(), view->height()) / 2.0;
        for (int i = 0; i < 12; ++i) {
            QColor color = base;
            color.setAlphaF(static_cast<float>(0.15 + 0.85 * ((i - step + 12) % 12) / 11.0));
            const double angle = i * kPi / 6;
            const QPointF dir(std::sin(angle), -std::cos(angle));
            painter.setPen(QPen(color, std::max(2.0, outer / 4.5), Qt::SolidLine, Qt::RoundCap));
            painter.drawLine(centre + dir * outer * 0.5, centre + dir * outer * 0.9);
        }
    };
}

void QtActivityIndicator::setHidesWhenStopped(bool hides) {
    hidesWhenStopped_ = hides;
    if (!animating_) {
        setHidden(hides);
    }
}

void QtActivityIndicator::startAnimating() {
    animating_ = true;
    if (auto* timer = qobject_cast<QTimer*>(widget()->property("timer").value<QObject*>())) {
        timer->start();
    }
    setHidden(false);
}

void QtActivityIndicator::stopAnimating() {
    animating_ = false;
    if (auto* timer = qobject_cast<QTimer*>(widget()->property("timer").value<QObject*>())) {
        timer->stop();
    }
    if (hidesWhenStopped_) {
        setHidden(true);
    }
}

// ---- Button ----

QtButton::QtButton(std::shared_ptr<QtViewContext> context, platform::ButtonType type,
                   const platform::Rect& frame)
    : Button(context, frame), QtViewCore(std::move(context), new ViewWidget, *this), type_(type) {
    auto* view = widgetOf(widget());
    view->setCursor(Qt::PointingHandCursor);
    view->tap = [this] { tap(); };
    view->pressed = [view](bool down) {
        view->setProperty("down", down);
        view->update();
    };
    view->paint = [this, view](QPainter& painter) {
        const QRectF area = view->rect();
        const bool down = view->property("down").toBool();
        const QImage image = context_->image(imageName_);
        if (!image.isNull()) {
            const QSizeF size = image.size().scaled(area.size().toSize(), Qt::KeepAspectRatio);
            const QRectF target(area.center().x() - size.width() / 2, area.center().y() - size.height() / 2,
                                size.width(), size.height());
            painter.drawImage(target, image);
        }
        if (!title_.empty()) {
            QColor color = titleColor_ ? toQColor(*titleColor_) : kTint;
            if (down) {
                color.setAlphaF(0.4F);
            }
            QFont font = painter.font();
            font.setPixelSize(type_ == platform::ButtonType::kSystem ? 15 : 20);
            font.setBold(type_ == platform::ButtonType::kCustom);
            painter.setFont(font);
            painter.setPen(color);
            painter.drawText(area, Qt::AlignCenter | Qt::TextWordWrap, QString::fromStdString(title_));
        }
        if (down && showsTouch_) {
            painter.setPen(Qt::NoPen);
            painter.setBrush(QColor(255, 255, 255, 110));
            painter.drawEllipse(area.center(), area.width() / 2, area.height() / 2);
        }
    };
}

void QtButton::refresh() {
    widget()->update();
}

void QtButton::setTitle(const std::string& title) {
    title_ = title;
    refresh();
}

void QtButton::setTitleColor(const platform::Color& color) {
    titleColor_ = color;
    refresh();
}

void QtButton::setImageName(const std::string& name) {
    imageName_ = name;
    refresh();
}

bool QtButton::tap() {
    const auto action = action_;
    const auto hook = controlHook_;
    if (!action && !hook) {
        return false;
    }
    const auto keepAlive = shared_from_this();
    if (action) {
        action();
    }
    if (hook) {
        hook();
    }
    return true;
}

// ---- Label ----

QtLabel::QtLabel(std::shared_ptr<QtViewContext> context, const platform::Rect& frame)
    : Label(context, frame), QtViewCore(std::move(context), new ViewWidget, *this) {
    auto* view = widgetOf(widget());
    view->paint = [this, view](QPainter& painter) {
        QFont font(QString::fromStdString(font_.name));
        font.setPixelSize(std::max(1, static_cast<int>(std::lround(font_.size))));
        painter.setFont(font);
        painter.setPen(toQColor(textColor_));
        const int flags = static_cast<int>(alignmentOf(alignment_)) | Qt::AlignVCenter |
                          (lines_ == 1 ? Qt::TextSingleLine : Qt::TextWordWrap);
        painter.drawText(view->rect(), flags, QString::fromStdString(text_));
    };
}

void QtLabel::refresh() {
    widget()->update();
}

void QtLabel::setText(const std::string& text) {
    text_ = text;
    refresh();
}

void QtLabel::setNumberOfLines(int lines) {
    lines_ = lines;
    refresh();
}

void QtLabel::setFont(const platform::Font& font) {
    font_ = font;
    refresh();
}

void QtLabel::setTextColor(const platform::Color& color) {
    textColor_ = color;
    refresh();
}

void QtLabel::setTextAlignment(platform::TextAlignment alignment) {
    alignment_ = alignment;
    refresh();
}

// ---- Navigation bar ----

QtNavigationBar::QtNavigationBar(std::shared_ptr<QtViewContext> context, const platform::Rect& frame)
    : NavigationBar(context, frame), QtViewCore(std::move(context), new ViewWidget, *this) {
    auto* view = widgetOf(widget());
    view->paint = [this, view](QPainter& painter) {
        painter.fillRect(view->rect(), QColor(247, 247, 247));
        painter.setPen(QColor(178, 178, 178));
        painter.drawLine(0, view->height() - 1, view->width(), view->height() - 1);
        QFont font = painter.font();
        font.setPixelSize(17);
        font.setBold(true);
        painter.setFont(font);
        painter.setPen(Qt::black);
        painter.drawText(view->rect().adjusted(60, 0, -60, 0), Qt::AlignCenter,
                         QString::fromStdString(shownTitle()));
    };
}

std::string QtNavigationBar::shownTitle() const {
    const auto top = topItem();
    return top ? top->title : std::string();
}

void QtNavigationBar::setItems(std::vector<std::shared_ptr<platform::NavigationItem>> items,
                               bool /*animated*/) {
    items_ = std::move(items);
    layoutBar();
}

void QtNavigationBar::layoutBar() {
    std::shared_ptr<platform::View> left;
    if (const auto top = topItem(); top && top->leftBarButtonItem) {
        left = top->leftBarButtonItem->customView;
    }
    if (shownLeftView_ && shownLeftView_ != left) {
        if (auto* core = qtCore(shownLeftView_.get())) {
            core->lendWidgetTo(nullptr, {});
        }
    }
    shownLeftView_ = left;
    if (auto* core = left ? qtCore(left.get()) : nullptr) {
        // The bar shows its left item's view at its leading edge, centred in the bar's height.
        const auto size = left->frame();
        const int width = std::max(28, static_cast<int>(size.width));
        const int height = std::max(28, static_cast<int>(size.height));
        core->lendWidgetTo(widget(), QRect(8, (widget()->height() - height) / 2, width, height));
    }
    widget()->update();
}

// ---- Table cell ----

QtTableViewCell::QtTableViewCell(std::shared_ptr<QtViewContext> context, platform::TableViewCellStyle style,
                                 std::string reuseIdentifier)
    : TableViewCell(context, {0, 0, 320, 44}),
      QtViewCore(std::move(context), new ViewWidget, *this),
      style_(style),
      reuseIdentifier_(std::move(reuseIdentifier)) {
    auto* view = widgetOf(widget());
    view->paint = [this, view](QPainter& painter) {
        const QRect area = view->rect();
        if (view->property("selected").toBool()) {
            painter.fillRect(area, QColor(255, 255, 255, 40));
        }
        int x = 15 + static_cast<int>(indentation_) * 10;
        const QImage image = context_->image(imageName_);
        if (!image.isNull()) {
            const QRect target(x, (area.height() - 29) / 2, 29, 29);
            painter.drawImage(target, image);
            x = target.right() + 16;
        }
        int right = area.width() - 15;
        if (accessory_ == platform::TableViewCellAccessory::kDisclosureIndicator ||
            accessory_ == platform::TableViewCellAccessory::kDetailDisclosureButton) {
            QColor chevron(199, 199, 204);
            painter.setPen(QPen(chevron, 2.2, Qt::SolidLine, Qt::RoundCap, Qt::RoundJoin));
            const double cy = area.height() / 2.0;
            QPainterPath path;
            path.moveTo(right - 7, cy - 7);
            path.lineTo(right, cy);
            path.lineTo(right - 7, cy + 7);
            painter.drawPath(path);
            right -= 20;
        } else if (accessory_ == platform::TableViewCellAccessory::kCheckmark) {
            painter.setPen(QPen(kTint.lighter(130), 2.5, Qt::SolidLine, Qt::RoundCap, Qt::RoundJoin));
            const double cy = area.height() / 2.0;
            QPainterPath path;
            path.moveTo(right - 14, cy);
            path.lineTo(right - 9, cy + 5);
            path.lineTo(right, cy - 6);
            painter.drawPath(path);
            right -= 24;
        }
        QFont font = painter.font();
        font.setPixelSize(17);
        painter.setFont(font);
        painter.setPen(textColor_ ? toQColor(*textColor_) : Qt::black);
        painter.drawText(QRect(x, 0, std::max(0, right - x), area.height()), Qt::AlignVCenter | Qt::AlignLeft,
                         QString::fromStdString(text_));
        painter.setPen(QColor(255, 255, 255, 38));
        painter.drawLine(x, area.height() - 1, area.width(), area.height() - 1);
    };
}

void QtTableViewCell::refresh() {
    widget()->update();
}

void QtTableViewCell::setText(const std::string& text) {
    text_ = text;
    refresh();
}

void QtTableViewCell::setTextColor(const platform::Color& color) {
    textColor_ = color;
    refresh();
}

void QtTableViewCell::setImageName(const std::string& name) {
    imageName_ = name;
    refresh();
}

void QtTableViewCell::setAccessoryType(platform::TableViewCellAccessory accessory) {
    accessory_ = accessory;
    refresh();
}

void QtTableViewCell::setIndentationLevel(long level) {
    indentation_ = level;
    refresh();
}

void QtTableViewCell::setSelectedLook(bool selected) {
    widget()->setProperty("selected", selected);
    refresh();
}

}  // namespace tovrel::qtbackend
