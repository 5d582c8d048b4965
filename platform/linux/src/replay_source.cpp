#include <cmath>
#include <stdexcept>

#include "source_thread.h"
#include "tovrel/linux/fix_filter.h"
#include "tovrel/linux/location_sources.h"

namespace tovrel::linuxbackend {
namespace {

/// Fills in speed and course that a point lacks from its neighbour, by the recorded times.
void deriveMotion(std::vector<TrackPoint>& points) {
    constexpr double kRadians = 0.017453292519943295;
    for (std::size_t i = 0; i < points.size(); ++i) {
        const std::size_t from = i == 0 ? 0 : i - 1;
        const std::size_t to = i == 0 ? std::min<std::size_t>(1, points.size() - 1) : i;
        if (from == to || !points[from].timed || !points[to].timed) {
            continue;
        }
        const auto& a = points[from].fix;
        const auto& b = points[to].fix;
        const double seconds = b.timestamp - a.timestamp;
        if (!(seconds > 0)) {
            continue;
        }
        auto& fix = points[i].fix;
        if (fix.speed < 0) {
            fix.speed = metresBetween(a.coordinate, b.coordinate) / seconds;
        }
        if (fix.course < 0 && (a.coordinate.latitude != b.coordinate.latitude ||
                               a.coordinate.longitude != b.coordinate.longitude)) {
            const double lat1 = a.coordinate.latitude * kRadians;
            const double lat2 = b.coordinate.latitude * kRadians;
            const double dLon = (b.coordinate.longitude - a.coordinate.longitude) * kRadians;
            const double y = std::sin(dLon) * std::cos(lat2);
            const double x =
                std::cos(lat1) * std::sin(lat2) - std::sin(lat1) * std::cos(lat2) * std::cos(dLon);
            fix.course = std::fmod(std::atan2(y, x) / kRadians + 360.0, 360.0);
        }
    }
}

class ReplaySource final : public FixSource {
  public:
    ReplaySource(std::vector<TrackPoint> points, ReplayOptions options,
                 std::shared_ptr<platform::Clock> clock)
        : points_(std::move(points)), options_(std::move(options)), clock_(std::move(clock)) {
        if (points_.empty()) {
            throw std::runtime_error("a replay needs at least one point");
        }
        if (!(options_.speed > 0)) {
            options_.speed = 1;
        }
        deriveMotion(points_);
    }
    ~ReplaySource() override { ReplaySource::stop(); }
    ReplaySource(const ReplaySource&) = delete;
    ReplaySource& operator=(const ReplaySource&) = delete;

    void start(std::weak_ptr<FixSink> sink) override {
        thread_.start([this, sink = std::move(sink)] { run(sink); });
    }
    void stop() override { thread_.stop(); }
    [[nodiscard]] std::string describe() const override {
        return "replay of " +
               (options_.file.empty() ? std::string("a generated track") : options_.file.string());
    }

  private:
    void run(const std::weak_ptr<FixSink>& sink) {
        do {
            for (std::size_t i = 0; i < points_.size(); ++i) {
                if (i > 0) {
                    const auto& previous = points_[i - 1];
                    const auto& point = points_[i];
                    double gap = options_.untimedIntervalSeconds;
                    if (previous.timed && point.timed) {
                        gap = std::max(0.0, point.fix.timestamp - previous.fix.timestamp);
                    }
                    if (!thread_.waitFor(std::chrono::duration<double>(gap / options_.speed))) {
                        return;
                    }
                } else if (thread_.stopping()) {
                    return;
                }
                TrackPoint out = points_[i];
                out.fix.timestamp = clock_ ? clock_->now() : 0;
                const auto live = sink.lock();
                if (!live) {
                    return;
                }
                live->publishFix(out);
            }
        } while (options_.loop && thread_.waitFor(std::chrono::duration<double>(
                                      options_.untimedIntervalSeconds / options_.speed)));
    }

    std::vector<TrackPoint> points_;
    ReplayOptions options_;
    std::shared_ptr<platform::Clock> clock_;
    SourceThread thread_;
};

}  // namespace

std::unique_ptr<FixSource> makeReplaySource(ReplayOptions options, std::shared_ptr<platform::Clock> clock) {
    auto points = loadTrack(options.file);
    return std::make_unique<ReplaySource>(std::move(points), std::move(options), std::move(clock));
}

std::unique_ptr<FixSource> makeReplaySource(std::vector<TrackPoint> points, ReplayOptions options,
                                            std::shared_ptr<platform::Clock> clock) {
    return std::make_unique<ReplaySource>(std::move(points), std::move(options), std::move(clock));
}

}  // namespace tovrel::linuxbackend
