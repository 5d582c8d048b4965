#pragma once

#include <QMouseEvent>
#include <QPainter>
#include <QWheelEvent>
#include <functional>

#include "tovrel/qt/qt_views.h"

namespace tovrel::qtbackend {

/// The widget of most view kinds: the background, then whatever the view paints; taps (press and
/// release inside) and wheel turns go to the view. The view owns the widget and outlives it.
class ViewWidget final : public BackedWidget {
  public:
    using BackedWidget::BackedWidget;

    std::function<void(QPainter&)> paint;
    std::function<void()> tap;
    std::function<void(bool)> pressed;
    std::function<void(double)> wheel;

  protected:
    void paintContent(QPainter& painter) override {
        if (paint) {
            paint(painter);
        }
    }
    void mousePressEvent(QMouseEvent* event) override {
        if (!tap) {
            event->ignore();
            return;
        }
        down_ = true;
        if (pressed) {
            pressed(true);
        }
    }
    void mouseReleaseEvent(QMouseEvent* event) override {
        if (!down_) {
            event->ignore();
            return;
        }
        down_ = false;
        if (pressed) {
            pressed(false);
        }
        if (rect().contains(event->position().toPoint()) && tap) {
            // The tap may drop the last reference to the view: copy the handler first.
            const auto handler = tap;
            handler();
        }
    }
    void wheelEvent(QWheelEvent* event) override {
        if (!wheel) {
            event->ignore();
            return;
        }
        wheel(-event->angleDelta().y() / 4.0);
    }

  private:
    bool down_ = false;
};

}  // namespace tovrel::qtbackend
