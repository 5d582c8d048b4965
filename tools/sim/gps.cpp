#include "gps.h"

#include <algorithm>
#include <cmath>

namespace tovrel::sim {
namespace {

constexpr double kCorrelationSeconds = 20;
constexpr double kMetresPerDegree = 111'320;
/// Typical reported horizontal accuracy per level, finest first: the receiver alone, the receiver
/// with Wi-Fi, Wi-Fi and cells, cells, coarse cells.
constexpr std::array<double, kAccuracyLevels> kReported = {5, 10, 65, 500, 1500};

}  // namespace

AccuracyLevel accuracyLevel(double desiredAccuracy) {
    if (desiredAccuracy <= 0) {
        return AccuracyLevel::kBest;
    }
    if (desiredAccuracy <= 10) {
        return AccuracyLevel::kTenMetres;
    }
    if (desiredAccuracy <= 100) {
        return AccuracyLevel::kHundredMetres;
    }
    if (desiredAccuracy <= 1000) {
        return AccuracyLevel::kKilometre;
    }
    return AccuracyLevel::kThreeKilometres;
}

std::string_view accuracyLevelName(AccuracyLevel level) {
    switch (level) {
        case AccuracyLevel::kBest:
            return "best";
        case AccuracyLevel::kTenMetres:
            return "ten-metres";
        case AccuracyLevel::kHundredMetres:
            return "hundred-metres";
        case AccuracyLevel::kKilometre:
            return "kilometre";
        case AccuracyLevel::kThreeKilometres:
            return "three-kilometres";
    }
    return "best";
}

double GpsOnTime::total() const {
    double sum = 0;
    for (const double s : seconds) {
        sum += s;
    }
    return sum;
}

GpsOnTime& GpsOnTime::operator+=(const GpsOnTime& other) {
    for (std::size_t i = 0; i < kAccuracyLevels; ++i) {
        seconds[i] += other.seconds[i];
    }
    significantOnlySeconds += other.significantOnlySeconds;
    return *this;
}

GpsMeter::GpsMeter(std::function<double()> clock) : clock_(std::move(clock)) {}

std::optional<AccuracyLevel> GpsMeter::currentLocked() const {
    std::optional<AccuracyLevel> finest;
    for (const auto& [id, manager] : managers_) {
        if (manager.updating) {
            const AccuracyLevel level = accuracyLevel(manager.accuracy);
            if (!finest || level < *finest) {
                finest = level;
            }
        }
    }
    return finest;
}

bool GpsMeter::significantLocked() const {
    for (const auto& [id, manager] : managers_) {
        if (manager.significant) {
            return true;
        }
    }
    return false;
}

void GpsMeter::accumulateLocked(double now) const {
    const double elapsed = std::max(0.0, now - since_);
    since_ = now;
    if (!started_) {
        return;
    }
    if (const auto level = currentLocked()) {
        totals_.seconds[static_cast<std::size_t>(*level)] += elapsed;
    } else if (significantLocked()) {
        totals_.significantOnlySeconds += elapsed;
    }
}

void GpsMeter::update(std::uintptr_t id, bool updating, double desiredAccuracy, bool significant) {
    const double now = clock_();
    std::lock_guard lock(mutex_);
    accumulateLocked(now);
    started_ = true;
    managers_[id] = Manager{updating, desiredAccuracy, significant};
}

void GpsMeter::release(std::uintptr_t id) {
    const double now = clock_();
    std::lock_guard lock(mutex_);
    accumulateLocked(now);
    managers_.erase(id);
}

std::optional<AccuracyLevel> GpsMeter::current() const {
    std::lock_guard lock(mutex_);
    return currentLocked();
}

bool GpsMeter::significant() const {
    std::lock_guard lock(mutex_);
    return significantLocked();
}

GpsOnTime GpsMeter::totals() const {
    const double now = clock_();
    std::lock_guard lock(mutex_);
    accumulateLocked(now);
    return totals_;
}

std::uint64_t mixSeed(std::uint64_t value) {
    value += 0x9e3779b97f4a7c15ULL;
    value = (value ^ (value >> 30)) * 0xbf58476d1ce4e5b9ULL;
    value = (value ^ (value >> 27)) * 0x94d049bb133111ebULL;
    return value ^ (value >> 31);
}

GpsNoise::GpsNoise(std::uint64_t seed) : state_(mixSeed(seed)) {
    north_ = normal();
    east_ = normal();
}

double GpsNoise::uniform() {
    state_ = mixSeed(state_);
    // 53 random bits in (0, 1].
    return (static_cast<double>(state_ >> 11) + 1.0) / 9007199254740992.0;
}

double GpsNoise::normal() {
    // Box-Muller, written out so that a seed gives the same fixes with any standard library.
    const double radius = std::sqrt(-2.0 * std::log(uniform()));
    return radius * std::cos(2.0 * M_PI * uniform());
}

double GpsNoise::reportedAccuracy(AccuracyLevel level) {
    return kReported[static_cast<std::size_t>(level)];
}

GpsNoise::Fix GpsNoise::apply(double t, double latitude, double longitude, AccuracyLevel level) {
    const double dt = last_ ? std::max(0.0, t - *last_) : 0.0;
    last_ = t;
    if (dt > 0) {
        const double keep = std::exp(-dt / kCorrelationSeconds);
        const double fresh = std::sqrt(1 - keep * keep);
        north_ = keep * north_ + fresh * normal();
        east_ = keep * east_ + fresh * normal();
    }
    const double reported = reportedAccuracy(level);
    // A circular normal error with this sigma per axis lies within `reported` 68 % of the time.
    const double sigma = reported / 1.515;
    Fix fix;
    fix.horizontalAccuracy = reported;
    fix.latitude = latitude + north_ * sigma / kMetresPerDegree;
    const double cosine = std::max(std::cos(latitude * M_PI / 180), 1e-6);
    fix.longitude = longitude + east_ * sigma / (kMetresPerDegree * cosine);
    fix.latitude = std::clamp(fix.latitude, -90.0, 90.0);
    if (fix.longitude > 180) {
        fix.longitude -= 360;
    } else if (fix.longitude < -180) {
        fix.longitude += 360;
    }
    return fix;
}

}  // namespace tovrel::sim
