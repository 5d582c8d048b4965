#pragma once

#include <cstddef>
#include <memory>
#include <span>
#include <vector>

#include "tovrel/platform/location.h"
#include "tovrel/region.h"

namespace tovrel::targeting {

/// One target at the nearest distance: its index in the list and its exact distance in metres.
struct NearestHit {
    std::size_t index;
    double distance;
    bool operator==(const NearestHit&) const = default;
};

/// The targets that a proximity check handles for one position.
struct NearestSet {
    /// The smallest distance over the list; distances that are not numbers count only when all are.
    double distance = 0;
    /// Every index whose distance is not greater than `distance`, ascending. Ties are all here.
    std::vector<NearestHit> hits;
};

/// The reference selection: the exact distance of every centre, in list order.
void nearestByScan(std::span<const platform::Coordinate> centres, const platform::Coordinate& position,
                   NearestSet& out);

/// The place targets in list order, with what a fast nearest search needs precomputed when the list
/// changes: the unit vector of every centre. Ranking by the dot product with the position's unit
/// vector orders targets as the haversine distance does; the exact distance is then computed only
/// for targets whose dot product ties with the best within rounding (and for centres that the
/// ranking cannot judge), so the result is exactly nearestByScan's. A target's centre is read when
/// it enters the list.
class TargetList {
  public:
    void assign(const std::vector<std::shared_ptr<hRegion>>& targets);
    void clear();
    /// Removes the first target (the list must not be empty).
    void eraseFront();

    [[nodiscard]] std::size_t size() const { return items_.size(); }
    [[nodiscard]] bool empty() const { return items_.empty(); }
    [[nodiscard]] const std::shared_ptr<hRegion>& operator[](std::size_t index) const {
        return items_[index];
    }
    [[nodiscard]] const std::vector<std::shared_ptr<hRegion>>& items() const { return items_; }
    [[nodiscard]] const std::vector<platform::Coordinate>& centres() const { return centres_; }

    /// The nearest targets to `position` (an empty list gives an infinite distance and no hits).
    void nearest(const platform::Coordinate& position, NearestSet& out) const;

  private:
    void append(const std::shared_ptr<hRegion>& target);
    /// Keeps as candidates the ranked targets `from` to `from + dots.size()` whose dot product is within
    /// the margin of the best so far (raising it) or near the position's antipode.
    void collect(std::size_t from, std::span<const double> dots, double& best,
                 std::vector<NearestHit>& hits) const;

    std::vector<std::shared_ptr<hRegion>> items_;
    std::vector<platform::Coordinate> centres_;
    // The unit vectors of the centres the ranking judges, one component per array, and each one's
    // index in the list; the indices of the others. Both ascending.
    std::vector<double> x_;
    std::vector<double> y_;
    std::vector<double> z_;
    std::vector<std::size_t> ranked_;
    std::vector<std::size_t> unranked_;
};

}  // namespace tovrel::targeting
