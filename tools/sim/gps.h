#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string_view>

namespace tovrel::sim {

/// The accuracy levels the component asks its location source for, finest first.
enum class AccuracyLevel { kBest, kTenMetres, kHundredMetres, kKilometre, kThreeKilometres };
inline constexpr std::size_t kAccuracyLevels = 5;

/// The level a desired accuracy (metres, or the platform's negative "best") falls in.
AccuracyLevel accuracyLevel(double desiredAccuracy);
/// "best", "ten-metres", "hundred-metres", "kilometre", "three-kilometres".
std::string_view accuracyLevelName(AccuracyLevel level);

/// Time spent per accuracy level with standard location updates running (the receiver on; with
/// several managers, the finest level counts), and with significant-change monitoring alone (cell
/// and Wi-Fi, no receiver).
struct GpsOnTime {
    std::array<double, kAccuracyLevels> seconds{};
    double significantOnlySeconds = 0;

    [[nodiscard]] double total() const;
    GpsOnTime& operator+=(const GpsOnTime& other);
};

/// Follows the component's location managers as it configures them and adds up GpsOnTime on the
/// run's clock. Thread-safe (settings may change on any thread).
class GpsMeter {
  public:
    explicit GpsMeter(std::function<double()> clock);

    /// Manager `id` now runs standard updates (or not) at `desiredAccuracy`, and significant-change
    /// monitoring (or not).
    void update(std::uintptr_t id, bool updating, double desiredAccuracy, bool significant);
    /// Manager `id` is gone.
    void release(std::uintptr_t id);
    /// The finest level a running manager asks for; nullopt when none runs standard updates.
    [[nodiscard]] std::optional<AccuracyLevel> current() const;
    /// Whether a manager monitors significant changes.
    [[nodiscard]] bool significant() const;
    /// The time so far, up to now.
    [[nodiscard]] GpsOnTime totals() const;

  private:
    struct Manager {
        bool updating = false;
        double accuracy = -1;
        bool significant = false;
    };
    void accumulateLocked(double now) const;
    [[nodiscard]] std::optional<AccuracyLevel> currentLocked() const;
    [[nodiscard]] bool significantLocked() const;

    std::function<double()> clock_;
    mutable std::mutex mutex_;
    std::map<std::uintptr_t, Manager> managers_;
    mutable GpsOnTime totals_;
    mutable double since_ = 0;
    bool started_ = false;
};

/// Seeded position error in keeping with an accuracy level: a fix's error follows a first-order
/// Gauss-Markov process on each axis (errors of fixes a few seconds apart are alike, as a
/// receiver's are), scaled to the level's typical error; the reported horizontal accuracy is the
/// level's, and the error lies within it about two times in three. The same seed and the same
/// calls give the same fixes. One thread at a time (the run's).
class GpsNoise {
  public:
    explicit GpsNoise(std::uint64_t seed);

    struct Fix {
        double latitude = 0;
        double longitude = 0;
        double horizontalAccuracy = 0;
    };
    /// The fix reported at time `t` (seconds) for a device truly at (latitude, longitude).
    Fix apply(double t, double latitude, double longitude, AccuracyLevel level);
    /// The reported horizontal accuracy of a level, in metres.
    static double reportedAccuracy(AccuracyLevel level);

  private:
    double uniform();
    double normal();

    std::uint64_t state_;
    std::optional<double> last_;
    double north_ = 0;  ///< unit-variance processes, scaled per level
    double east_ = 0;
};

/// A well-mixed 64-bit value of `value` (splitmix64), for seeds derived from a seed and an index.
std::uint64_t mixSeed(std::uint64_t value);

}  // namespace tovrel::sim
