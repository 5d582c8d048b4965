#include <algorithm>
#include <cmath>

#include "tovrel/platform/map_view.h"

namespace tovrel::platform {
namespace {

constexpr double kPi = 3.14159265358979323846;
constexpr double kEquatorMetres = 40075016.68557849;

}  // namespace

Coordinate coordinateForMapPoint(const MapPoint& point) {
    const double longitude = point.x / kMapWorldSize * 360.0 - 180.0;
    const double n = kPi * (1.0 - 2.0 * point.y / kMapWorldSize);
    const double latitude = std::atan(std::sinh(n)) * 180.0 / kPi;
    return {latitude, longitude};
}

double mapPointsPerMetreAtLatitude(double latitude) {
    return kMapWorldSize / (kEquatorMetres * std::cos(latitude * kPi / 180.0));
}

void MapCamera::setScale(double scale) {
    scale_ = std::clamp(scale, kMinimumScale, kMaximumScale);
}

void MapCamera::showMapRect(const MapRect& rect, const EdgeInsets& padding) {
    if (rect.isNull()) {
        return;
    }
    const double width = std::max(1.0, viewSize_.width - padding.left - padding.right);
    const double height = std::max(1.0, viewSize_.height - padding.top - padding.bottom);
    setScale(std::max(rect.width / width, rect.height / height));
    // The rectangle's centre goes to the centre of the padded area.
    const double areaCentreX = padding.left + width / 2;
    const double areaCentreY = padding.top + height / 2;
    center_ = {rect.x + rect.width / 2 + (viewSize_.width / 2 - areaCentreX) * scale_,
               rect.y + rect.height / 2 + (viewSize_.height / 2 - areaCentreY) * scale_};
}

void MapCamera::showRegion(const CoordinateRegion& region) {
    const auto& c = region.center;
    const auto& s = region.span;
    const MapPoint topLeft = mapPointForCoordinate(
        {std::min(85.0, c.latitude + s.latitudeDelta / 2), c.longitude - s.longitudeDelta / 2});
    const MapPoint bottomRight = mapPointForCoordinate(
        {std::max(-85.0, c.latitude - s.latitudeDelta / 2), c.longitude + s.longitudeDelta / 2});
    const double width = std::abs(bottomRight.x - topLeft.x);
    const double height = std::abs(bottomRight.y - topLeft.y);
    setScale(std::max(width / std::max(1.0, viewSize_.width), height / std::max(1.0, viewSize_.height)));
    center_ = mapPointForCoordinate(c);
}

MapRect MapCamera::visibleMapRect() const {
    const double width = viewSize_.width * scale_;
    const double height = viewSize_.height * scale_;
    return {center_.x - width / 2, center_.y - height / 2, width, height};
}

CoordinateRegion MapCamera::region() const {
    const auto rect = visibleMapRect();
    const auto topLeft = coordinateForMapPoint({rect.x, rect.y});
    const auto bottomRight = coordinateForMapPoint({rect.x + rect.width, rect.y + rect.height});
    return {coordinateForMapPoint(center_),
            {topLeft.latitude - bottomRight.latitude, bottomRight.longitude - topLeft.longitude}};
}

Point MapCamera::pointForMapPoint(const MapPoint& point) const {
    return {(point.x - center_.x) / scale_ + viewSize_.width / 2,
            (point.y - center_.y) / scale_ + viewSize_.height / 2};
}

MapPoint MapCamera::mapPointForPoint(const Point& point) const {
    return {center_.x + (point.x - viewSize_.width / 2) * scale_,
            center_.y + (point.y - viewSize_.height / 2) * scale_};
}

Point MapCamera::pointForCoordinate(const Coordinate& coordinate) const {
    return pointForMapPoint(mapPointForCoordinate(coordinate));
}

double MapCamera::pointsForMetres(double metres, double latitude) const {
    return metres * mapPointsPerMetreAtLatitude(latitude) / scale_;
}

int MapCamera::tileZoom() const {
    const double zoom = std::log2(kMapWorldSize / (256.0 * scale_));
    return std::clamp(static_cast<int>(std::lround(zoom)), 0, 19);
}

}  // namespace tovrel::platform
