#include "targeting/target_list.h"

#include <cmath>
#include <limits>

#include "targeting/proximity_policy.h"

namespace tovrel::targeting {
namespace {

// Two targets whose dot products differ by more than this are at least 1e-12 rad (6 µm) apart in
// distance, far beyond the rounding of the dot product (~5e-15) and of the haversine (~1e-15 rad),
// so the farther one can never compute as near as the nearer one. Closer calls are decided by the
// exact distances.
constexpr double kTieMargin = 1e-12;
// Within about 285 m of the position's antipode the haversine's 1 - a may round below zero and yield
// NaN, which the ranking cannot foresee; such targets are computed exactly.
constexpr double kAntipodalLimit = -1 + 1e-9;
// Beyond these the degree-to-radian rounding of single coordinates outgrows the margin above.
constexpr double kMaxRankedLatitude = 90;
constexpr double kMaxRankedLongitude = 540;

bool rankable(const platform::Coordinate& c) {
    return std::isfinite(c.latitude) && std::isfinite(c.longitude) &&
           std::abs(c.latitude) <= kMaxRankedLatitude && std::abs(c.longitude) <= kMaxRankedLongitude;
}

struct UnitVector {
    double x;
    double y;
    double z;
};

UnitVector unitVector(const platform::Coordinate& c) {
    const double lat = c.latitude * kDegreesToRadians;
    const double lon = c.longitude * kDegreesToRadians;
    const double cosLat = std::cos(lat);
    return {cosLat * std::cos(lon), cosLat * std::sin(lon), std::sin(lat)};
}

/// Sets the smallest distance and keeps the hits that are not farther than it.
void keepNearest(NearestSet& out) {
    double smallest = std::numeric_limits<double>::quiet_NaN();
    for (const auto& hit : out.hits) {
        if (!std::isnan(hit.distance) && (std::isnan(smallest) || hit.distance < smallest)) {
            smallest = hit.distance;
        }
    }
    out.distance = smallest;
    std::size_t kept = 0;
    for (const auto& hit : out.hits) {
        if (!(hit.distance > smallest)) {
            out.hits[kept++] = hit;
        }
    }
    out.hits.resize(kept);
}

}  // namespace

void nearestByScan(std::span<const platform::Coordinate> centres, const platform::Coordinate& position,
                   NearestSet& out) {
    out.hits.clear();
    if (centres.empty()) {
        out.distance = std::numeric_limits<double>::infinity();
        return;
    }
    for (std::size_t i = 0; i < centres.size(); ++i) {
        out.hits.push_back({i, haversineMeters(centres[i], position)});
    }
    keepNearest(out);
}

void TargetList::append(const std::shared_ptr<hRegion>& target) {
    const platform::Coordinate centre = target ? target->center : platform::Coordinate{};
    items_.push_back(target);
    centres_.push_back(centre);
    if (rankable(centre)) {
        const UnitVector u = unitVector(centre);
        x_.push_back(u.x);
        y_.push_back(u.y);
        z_.push_back(u.z);
    } else {
        const double nan = std::numeric_limits<double>::quiet_NaN();
        x_.push_back(nan);
        y_.push_back(nan);
        z_.push_back(nan);
    }
}

void TargetList::assign(const std::vector<std::shared_ptr<hRegion>>& targets) {
    clear();
    items_.reserve(targets.size());
    centres_.reserve(targets.size());
    x_.reserve(targets.size());
    y_.reserve(targets.size());
    z_.reserve(targets.size());
    for (const auto& target : targets) {
        append(target);
    }
}

void TargetList::clear() {
    items_.clear();
    centres_.clear();
    x_.clear();
    y_.clear();
    z_.clear();
}

void TargetList::eraseFront() {
    items_.erase(items_.begin());
    centres_.erase(centres_.begin());
    x_.erase(x_.begin());
    y_.erase(y_.begin());
    z_.erase(z_.begin());
}

void TargetList::nearest(const platform::Coordinate& position, NearestSet& out) const {
    if (!rankable(position)) {
        nearestByScan(centres_, position, out);
        return;
    }
    auto& hits = out.hits;
    hits.clear();
    const std::size_t n = items_.size();
    if (n == 0) {
        out.distance = std::numeric_limits<double>::infinity();
        return;
    }
    const UnitVector v = unitVector(position);
    const double* xs = x_.data();
    const double* ys = y_.data();
    const double* zs = z_.data();

    // One pass keeps every target that is within the margin of the best seen so far (ascending
    // indices, with its dot product for now), and every target the ranking cannot judge.
    double best = -std::numeric_limits<double>::infinity();
    for (std::size_t i = 0; i < n; ++i) {
        const double dot = xs[i] * v.x + ys[i] * v.y + zs[i] * v.z;
        if (dot >= best - kTieMargin) {
            best = dot > best ? dot : best;
            hits.push_back({i, dot});
        } else if (!(dot >= kAntipodalLimit)) {
            hits.push_back({i, dot});
        }
    }

    const double threshold = best - kTieMargin;
    std::size_t kept = 0;
    for (const auto& hit : hits) {
        const double dot = hit.distance;
        if (dot >= threshold || !(dot >= kAntipodalLimit)) {
            hits[kept++] = {hit.index, haversineMeters(centres_[hit.index], position)};
        }
    }
    hits.resize(kept);
    keepNearest(out);
}

}  // namespace tovrel::targeting
