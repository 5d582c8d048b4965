#pragma once

#include <QColor>
#include <QImage>
#include <QWidget>
#include <chrono>
#include <functional>
#include <string>

namespace tovrel::qttest {

/// Turns the Qt event loop until `done` holds or `timeout` passes; returns `done()`.
bool waitFor(const std::function<bool()>& done, std::chrono::milliseconds timeout);
/// Turns the Qt event loop for `duration`.
void pump(std::chrono::milliseconds duration);
/// Grabs `widget` and keeps the grab as <screenshot dir>/<name>.png; returns the grab.
QImage grabAndSave(QWidget& widget, const std::string& name);
/// True when the two colours differ by at most `tolerance` in every channel.
bool near(const QColor& a, const QColor& b, int tolerance);
/// How many pixels of `image` inside `area` are within `tolerance` of `color`.
int countNear(const QImage& image, const QRect& area, const QColor& color, int tolerance);

}  // namespace tovrel::qttest
