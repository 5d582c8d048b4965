#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace tovrel::server {

/// An immutable grid of points for "everything within r metres of here" queries.
///
/// Points are bucketed into cells of a fixed size in degrees and stored sorted by cell, so one
/// row of cells is one contiguous slice. A query walks the rows that the search cap touches and
/// filters by chord length on the unit sphere; points within a hair of the threshold are decided by
/// haversineMetres() itself, so the result equals a brute-force haversine scan exactly.
/// Immutable after construction: any number of threads may query at once.
class SpatialIndex {
  public:
    struct Entry {
        double lat;  ///< degrees, -90..90
        double lon;  ///< degrees, -180..180
        uint32_t id;
    };
    struct Hit {
        uint32_t id;
        double distance;  ///< metres
    };

    SpatialIndex();
    explicit SpatialIndex(const std::vector<Entry>& entries, double cellDegrees = 0.02);

    /// Replaces out with every entry within radius metres of (lat, lon), nearest first (equal
    /// distances by id). A negative or non-finite radius or position finds nothing.
    void within(double lat, double lon, double radius, std::vector<Hit>& out) const;

    std::size_t size() const { return points_.size(); }

  private:
    struct Point {
        double x, y, z;
        double lat, lon;
        uint32_t id;
    };

    int rowOf(double lat) const;
    int colOf(double lon) const;
    int64_t key(int row, int col) const { return static_cast<int64_t>(row) * cols_ + col; }
    void scanSlice(int row, int col0, int col1, const double q[3], double lat, double lon, double radius,
                   double c2, std::vector<Hit>& out) const;

    double cell_;
    int rows_;
    int cols_;
    std::vector<int64_t> keys_;  ///< cell key of points_[i], ascending
    std::vector<Point> points_;
};

}  // namespace tovrel::server
