#include "targeting/target_list.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
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
// Four dot products computed at once (the compiler's vector extension: AVX registers where the target
// has them, pairs of SSE2 ones otherwise), and a block of two such vectors judged at once.
constexpr std::size_t kLanes = 4;
using Lanes = double __attribute__((vector_size(kLanes * sizeof(double))));
constexpr std::size_t kBlock = 2 * kLanes;

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

/// The dot products of four unit vectors (components at x, y and z) with v, each summed in the same
/// order as a lone one. (Written to `out`: returning a vector wider than the target's registers would
/// depend on the calling convention.)
void dotProducts(const double* x, const double* y, const double* z, const UnitVector& v, Lanes& out) {
    Lanes xs;
    Lanes ys;
    Lanes zs;
    std::memcpy(&xs, x, sizeof xs);
    std::memcpy(&ys, y, sizeof ys);
    std::memcpy(&zs, z, sizeof zs);
    out = xs * v.x + ys * v.y + zs * v.z;
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
    const std::size_t index = items_.size();
    items_.push_back(target);
    centres_.push_back(centre);
    if (!rankable(centre)) {
        unranked_.push_back(index);
        return;
    }
    const UnitVector u = unitVector(centre);
    x_.push_back(u.x);
    y_.push_back(u.y);
    z_.push_back(u.z);
    ranked_.push_back(index);
}

void TargetList::assign(const std::vector<std::shared_ptr<hRegion>>& targets) {
    clear();
    items_.reserve(targets.size());
    centres_.reserve(targets.size());
    x_.reserve(targets.size());
    y_.reserve(targets.size());
    z_.reserve(targets.size());
    ranked_.reserve(targets.size());
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
    ranked_.clear();
    unranked_.clear();
}

void TargetList::eraseFront() {
    items_.erase(items_.begin());
    centres_.erase(centres_.begin());
    if (!unranked_.empty() && unranked_.front() == 0) {
        unranked_.erase(unranked_.begin());
    } else {
        x_.erase(x_.begin());
        y_.erase(y_.begin());
        z_.erase(z_.begin());
        ranked_.erase(ranked_.begin());
    }
    for (auto* indices : {&ranked_, &unranked_}) {
        for (std::size_t& index : *indices) {
            --index;
        }
    }
}

void TargetList::collect(std::size_t from, std::span<const double> dots, double& best,
                         std::vector<NearestHit>& hits) const {
    for (std::size_t k = 0; k < dots.size(); ++k) {
        const double dot = dots[k];
        if (dot >= best - kTieMargin) {
            best = dot > best ? dot : best;
            hits.push_back({ranked_[from + k], dot});
        } else if (!(dot >= kAntipodalLimit)) {
            hits.push_back({ranked_[from + k], dot});
        }
    }
}

void TargetList::nearest(const platform::Coordinate& position, NearestSet& out) const {
    if (!rankable(position)) {
        nearestByScan(centres_, position, out);
        return;
    }
    auto& hits = out.hits;
    hits.clear();
    if (items_.empty()) {
        out.distance = std::numeric_limits<double>::infinity();
        return;
    }
    const UnitVector v = unitVector(position);
    const double* xs = x_.data();
    const double* ys = y_.data();
    const double* zs = z_.data();
    const std::size_t n = ranked_.size();

    // One pass keeps every target within the margin of the best seen so far (ascending indices, with
    // its dot product for now) and every target near the antipode. A block's dot products and their
    // extremes are computed without a branch, so that the compiler vectorises them; only a block that
    // can hold a candidate is read target by target, and once the nearest was seen few blocks can.
    double best = -std::numeric_limits<double>::infinity();
    std::array<double, kBlock> dots{};
    std::size_t from = 0;
    for (; from + kBlock <= n; from += kBlock) {
        Lanes front;
        Lanes back;
        dotProducts(xs + from, ys + from, zs + from, v, front);
        dotProducts(xs + from + kLanes, ys + from + kLanes, zs + from + kLanes, v, back);
        const Lanes most = front > back ? front : back;
        const Lanes least = front < back ? front : back;
        if (std::max(std::max(most[0], most[1]), std::max(most[2], most[3])) >= best - kTieMargin ||
            std::min(std::min(least[0], least[1]), std::min(least[2], least[3])) < kAntipodalLimit) {
            std::memcpy(dots.data(), &front, sizeof front);
            std::memcpy(dots.data() + kLanes, &back, sizeof back);
            collect(from, dots, best, hits);
        }
    }
    for (std::size_t k = 0; from + k < n; ++k) {
        dots[k] = xs[from + k] * v.x + ys[from + k] * v.y + zs[from + k] * v.z;
    }
    collect(from, std::span<const double>(dots).first(n - from), best, hits);

    const double threshold = best - kTieMargin;
    std::size_t kept = 0;
    for (const auto& hit : hits) {
        const double dot = hit.distance;
        if (dot >= threshold || !(dot >= kAntipodalLimit)) {
            hits[kept++] = {hit.index, haversineMeters(centres_[hit.index], position)};
        }
    }
    hits.resize(kept);
    if (!unranked_.empty()) {
        for (const std::size_t index : unranked_) {
            hits.push_back({index, haversineMeters(centres_[index], position)});
        }
        std::inplace_merge(hits.begin(), hits.begin() + static_cast<std::ptrdiff_t>(kept), hits.end(),
                           [](const NearestHit& a, const NearestHit& b) { return a.index < b.index; });
    }
    keepNearest(out);
}

}  // namespace tovrel::targeting
