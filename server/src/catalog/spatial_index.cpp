#include "catalog/spatial_index.h"

#include <algorithm>
#include <cmath>
#include <numbers>
#include <numeric>

#include "catalog/geo.h"

namespace tovrel::server {
namespace {

constexpr double kRad = std::numbers::pi / 180.0;
constexpr double kDeg = 180.0 / std::numbers::pi;
// Widening of the search box, in degrees, so that rounding never drops a cell.
constexpr double kBoxSlack = 1e-7;
// Chord comparisons this close to the threshold (relative, absolute) are left to the haversine.
constexpr double kRelBand = 1e-6;
constexpr double kAbsBand = 1e-22;

void unitVector(double lat, double lon, double v[3]) {
    const double la = lat * kRad;
    const double lo = lon * kRad;
    v[0] = std::cos(la) * std::cos(lo);
    v[1] = std::cos(la) * std::sin(lo);
    v[2] = std::sin(la);
}

}  // namespace

SpatialIndex::SpatialIndex() : SpatialIndex(std::vector<Entry>{}) {}

SpatialIndex::SpatialIndex(const std::vector<Entry>& entries, double cellDegrees)
    : cell_(cellDegrees > 0 ? cellDegrees : 0.02),
      rows_(static_cast<int>(std::ceil(180.0 / cell_)) + 1),
      cols_(static_cast<int>(std::ceil(360.0 / cell_)) + 1) {
    std::vector<int64_t> entryKeys(entries.size());
    for (std::size_t i = 0; i < entries.size(); ++i) {
        entryKeys[i] = key(rowOf(entries[i].lat), colOf(entries[i].lon));
    }
    std::vector<std::size_t> order(entries.size());
    std::iota(order.begin(), order.end(), std::size_t{0});
    std::sort(order.begin(), order.end(), [&](std::size_t a, std::size_t b) {
        return entryKeys[a] != entryKeys[b] ? entryKeys[a] < entryKeys[b] : entries[a].id < entries[b].id;
    });
    keys_.reserve(entries.size());
    points_.reserve(entries.size());
    for (std::size_t i : order) {
        const Entry& e = entries[i];
        Point p{};
        double v[3];
        unitVector(e.lat, e.lon, v);
        p.x = v[0];
        p.y = v[1];
        p.z = v[2];
        p.lat = e.lat;
        p.lon = e.lon;
        p.id = e.id;
        keys_.push_back(entryKeys[i]);
        points_.push_back(p);
    }
}

int SpatialIndex::rowOf(double lat) const {
    const double r = std::floor((lat + 90.0) / cell_);
    return static_cast<int>(std::clamp(r, 0.0, static_cast<double>(rows_ - 1)));
}

int SpatialIndex::colOf(double lon) const {
    const double c = std::floor((lon + 180.0) / cell_);
    return static_cast<int>(std::clamp(c, 0.0, static_cast<double>(cols_ - 1)));
}

void SpatialIndex::scanSlice(int row, int col0, int col1, const double q[3], double lat, double lon,
                             double radius, double c2, std::vector<Hit>& out) const {
    const auto first = std::lower_bound(keys_.begin(), keys_.end(), key(row, col0));
    const auto last = std::upper_bound(first, keys_.end(), key(row, col1));
    const double inner = c2 * (1 - kRelBand) - kAbsBand;
    const double outer = c2 * (1 + kRelBand) + kAbsBand;
    for (auto i = static_cast<std::size_t>(first - keys_.begin()),
              n = static_cast<std::size_t>(last - keys_.begin());
         i < n; ++i) {
        const Point& p = points_[i];
        const double dx = p.x - q[0];
        const double dy = p.y - q[1];
        const double dz = p.z - q[2];
        const double d2 = dx * dx + dy * dy + dz * dz;
        if (d2 > outer) {
            continue;
        }
        if (d2 >= inner) {
            const double exact = haversineMetres(lat, lon, p.lat, p.lon);
            if (exact <= radius) {
                out.push_back({p.id, exact});
            }
            continue;
        }
        out.push_back({p.id, 2 * kEarthRadiusMetres * std::asin(std::min(1.0, std::sqrt(d2) / 2))});
    }
}

void SpatialIndex::within(double lat, double lon, double radius, std::vector<Hit>& out) const {
    out.clear();
    if (points_.empty() || !std::isfinite(lat) || !std::isfinite(lon) || !std::isfinite(radius) ||
        radius < 0) {
        return;
    }
    const double angle = std::min(radius / kEarthRadiusMetres, std::numbers::pi);
    const double chord = angle >= std::numbers::pi ? 2.0 : 2 * std::sin(angle / 2);
    const double c2 = chord * chord;
    const double latLo = lat - angle * kDeg - kBoxSlack;
    const double latHi = lat + angle * kDeg + kBoxSlack;
    bool allLon = latHi >= 90.0 || latLo <= -90.0;
    double halfWidth = 180.0;
    if (!allLon) {
        const double s = std::sin(angle) / std::cos(lat * kRad);
        if (s >= 1.0) {
            allLon = true;
        } else {
            halfWidth = std::asin(s) * kDeg + kBoxSlack;
            allLon = halfWidth >= 180.0;
        }
    }

    int ranges[2][2];
    int rangeCount = 1;
    if (allLon) {
        ranges[0][0] = 0;
        ranges[0][1] = cols_ - 1;
    } else if (lon - halfWidth < -180.0) {
        ranges[0][0] = colOf(lon - halfWidth + 360.0);
        ranges[0][1] = cols_ - 1;
        ranges[1][0] = 0;
        ranges[1][1] = colOf(lon + halfWidth);
        rangeCount = 2;
    } else if (lon + halfWidth > 180.0) {
        ranges[0][0] = colOf(lon - halfWidth);
        ranges[0][1] = cols_ - 1;
        ranges[1][0] = 0;
        ranges[1][1] = colOf(lon + halfWidth - 360.0);
        rangeCount = 2;
    } else {
        ranges[0][0] = colOf(lon - halfWidth);
        ranges[0][1] = colOf(lon + halfWidth);
    }

    double q[3];
    unitVector(lat, lon, q);
    const int rowLo = rowOf(std::max(latLo, -90.0));
    const int rowHi = rowOf(std::min(latHi, 90.0));
    for (int row = rowLo; row <= rowHi; ++row) {
        for (int r = 0; r < rangeCount; ++r) {
            scanSlice(row, ranges[r][0], ranges[r][1], q, lat, lon, radius, c2, out);
        }
    }
    std::sort(out.begin(), out.end(), [](const Hit& a, const Hit& b) {
        return a.distance != b.distance ? a.distance < b.distance : a.id < b.id;
    });
}

}  // namespace tovrel::server
