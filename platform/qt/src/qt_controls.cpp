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
    : ActivityIndicatorView(context, style), QtViewCore(std::move(context), new ViewWidget, *this) {
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
            this->style() == platform::ActivityIndicatorStyle::kGray ? QColor(90, 90, 90) : Qt::white;
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

void QtActivityIndicator::contentChanged() {
    if (auto* timer = qobject_cast<QTimer*>(widget()->property("timer").value<QObject*>())) {
        if (isAnimating()) {
            timer->start();
        } else {
            timer->stop();
        }
    }
}

// ---- Button ----

QtButton::QtButton(std::shared_ptr<QtViewContext> context, platform::ButtonType type,
                   const platform::Rect& frame)
    : Button(context, type, frame), QtViewCore(std::move(context), new ViewWidget, *this) {
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
        const QImage image = context_->image(imageName());
        if (!image.isNull()) {
            const QSizeF size = image.size().scaled(area.size().toSize(), Qt::KeepAspectRatio);
            const QRectF target(area.center().x() - size.width() / 2, area.center().y() - size.height() / 2,
                                size.width(), size.height());
            painter.drawImage(target, image);
        }
        if (const std::string title = this->title(); !title.empty()) {
            const auto titleColor = this->titleColor();
            QColor color = titleColor ? toQColor(*titleColor) : kTint;
            if (down) {
                color.setAlphaF(0.4F);
            }
            QFont font = painter.font();
            font.setPixelSize(buttonType() == platform::ButtonType::kSystem ? 15 : 20);
            font.setBold(buttonType() == platform::ButtonType::kCustom);
            painter.setFont(font);
            painter.setPen(color);
            painter.drawText(area, Qt::AlignCenter | Qt::TextWordWrap, QString::fromStdString(title));
        }
        if (down && showsTouchWhenHighlighted()) {
            painter.setPen(Qt::NoPen);
            painter.setBrush(QColor(255, 255, 255, 110));
            painter.drawEllipse(area.center(), area.width() / 2, area.height() / 2);
        }
    };
}

// ---- Label ----

QtLabel::QtLabel(std::shared_ptr<QtViewContext> context, const platform::Rect& frame)
    : Label(context, frame), QtViewCore(std::move(context), new ViewWidget, *this) {
    auto* view = widgetOf(widget());
    view->paint = [this, view](QPainter& painter) {
        const platform::Font shown = font();
        QFont font(QString::fromStdString(shown.name));
        font.setPixelSize(std::max(1, static_cast<int>(std::lround(shown.size))));
        painter.setFont(font);
        painter.setPen(toQColor(textColor()));
        const int flags = static_cast<int>(alignmentOf(textAlignment())) | Qt::AlignVCenter |
                          (numberOfLines() == 1 ? Qt::TextSingleLine : Qt::TextWordWrap);
        painter.drawText(view->rect(), flags, QString::fromStdString(text()));
    };
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
    : TableViewCell(context, style, std::move(reuseIdentifier)),
      QtViewCore(std::move(context), new ViewWidget, *this) {
    auto* view = widgetOf(widget());
    view->paint = [this, view](QPainter& painter) {
        const QRect area = view->rect();
        if (view->property("selected").toBool()) {
            painter.fillRect(area, QColor(255, 255, 255, 40));
        }
        int x = 15 + static_cast<int>(indentationLevel()) * 10;
        const QImage image = context_->image(imageName());
        if (!image.isNull()) {
            const QRect target(x, (area.height() - 29) / 2, 29, 29);
            painter.drawImage(target, image);
            x = target.right() + 16;
        }
        int right = area.width() - 15;
        const auto accessory = accessoryType();
        if (accessory == platform::TableViewCellAccessory::kDisclosureIndicator ||
            accessory == platform::TableViewCellAccessory::kDetailDisclosureButton) {
            QColor chevron(199, 199, 204);
            painter.setPen(QPen(chevron, 2.2, Qt::SolidLine, Qt::RoundCap, Qt::RoundJoin));
            const double cy = area.height() / 2.0;
            QPainterPath path;
            path.moveTo(right - 7, cy - 7);
            path.lineTo(right, cy);
            path.lineTo(right - 7, cy + 7);
            painter.drawPath(path);
            right -= 20;
        } else if (accessory == platform::TableViewCellAccessory::kCheckmark) {
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
        const auto textColor = this->textColor();
        painter.setPen(textColor ? toQColor(*textColor) : Qt::black);
        painter.drawText(QRect(x, 0, std::max(0, right - x), area.height()), Qt::AlignVCenter | Qt::AlignLeft,
                         QString::fromStdString(text()));
        painter.setPen(QColor(255, 255, 255, 38));
        painter.drawLine(x, area.height() - 1, area.width(), area.height() - 1);
    };
}

void QtTableViewCell::setSelectedLook(bool selected) {
    widget()->setProperty("selected", selected);
    widget()->update();
}

}  // namespace tovrel::qtbackend
