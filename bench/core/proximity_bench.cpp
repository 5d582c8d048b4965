// One proximity check (LocationManager::checkForLocationTarget) against N place targets, beside two
// baselines over the same centres measured in the same run: a raw nearest-of-N haversine loop (the
// check must stay within 1.5 times it) and the best a search can do, a vectorised loop over unit
// vectors that keeps the largest dot product and computes one distance (the check must stay within
// 2 times it at 10,000 targets). The tables printed at the end give the ratios for each N.

#include <benchmark/benchmark.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <limits>
#include <map>
#include <memory>
#include <random>
#include <vector>

#include "delivery/offer_desk.h"
#include "stub_platform.h"
#include "targeting/proximity_policy.h"
#include "targeting/target_list.h"
#include "tovrel/environment.h"
#include "tovrel/location_manager.h"
#include "tovrel/platform/distance.h"

namespace tovrel::bench {
namespace {

constexpr platform::Coordinate kDevice{48.137154, 11.575400};
constexpr double kLimit = 1.5;
constexpr double kBestDotLimit = 2;

/// `n` target centres scattered over about 10 × 9 km around the device, none within 100 m of it, one
/// about 1 km north so the nearest is always well inside the refresh distance. Deterministic.
std::vector<platform::Coordinate> scatter(std::size_t n) {
    std::mt19937_64 random(n);
    std::uniform_real_distribution<double> dLat(-0.045, 0.045);
    std::uniform_real_distribution<double> dLon(-0.06, 0.06);
    std::vector<platform::Coordinate> centres;
    centres.reserve(n);
    while (centres.size() < n) {
        const platform::Coordinate c{kDevice.latitude + dLat(random), kDevice.longitude + dLon(random)};
        if (targeting::haversineMeters(c, kDevice) >= 100) {
            centres.push_back(c);
        }
    }
    centres[n / 2] = {kDevice.latitude + 0.009, kDevice.longitude + 0.0001};
    return centres;
}

/// A wired monitor (stub ports) whose target list holds the scattered centres, radius 20 m, so the
/// device is outside all of them: each check handles the nearest target, logs, and applies the ladder.
struct Monitor {
    explicit Monitor(std::size_t n)
        : stub(makeStubPlatform(kDevice.latitude, kDevice.longitude)),
          environment(stub.platform, Configuration{"http://bench.test", "http://bench.test"}),
          centres(scatter(n)) {
        nlohmann::json records = nlohmann::json::array();
        for (std::size_t i = 0; i < centres.size(); ++i) {
            records.push_back({{"centroidLat", centres[i].latitude},
                               {"centroidLon", centres[i].longitude},
                               {"centroidRadius", 20},
                               {"eventId", std::to_string(i)},
                               {"placeId", "p"},
                               {"eventTypeId", 3}});
        }
        stub.http->setPlacesAnswer(nlohmann::json{{"places", records}});
        lm = LocationManager::create(environment, delivery::OfferDesk::create(environment));
        lm->presentNotifications = true;
        lm->initLocation();
        stub.http->setPlacesAnswer(std::nullopt);
        if (lm->targets().size() != n) {
            std::fprintf(stderr, "expected %zu targets, have %zu\n", n, lm->targets().size());
            std::abort();
        }
    }

    StubPlatform stub;
    Environment environment;
    std::vector<platform::Coordinate> centres;
    std::shared_ptr<LocationManager> lm;
};

void BM_CheckForLocationTarget(benchmark::State& state) {
    Monitor monitor(static_cast<std::size_t>(state.range(0)));
    platform::Location fix;
    fix.coordinate = kDevice;
    int sinceUpload = 0;
    for (auto _ : state) {
        monitor.lm->checkForLocationTarget(fix);
        // The diagnostic buffers grow by one record per check; upload them now and then, untimed.
        if (++sinceUpload == 1 << 15) {
            state.PauseTiming();
            monitor.lm->sendLogs();
            sinceUpload = 0;
            state.ResumeTiming();
        }
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

void BM_RawNearestHaversine(benchmark::State& state) {
    const auto centres = scatter(static_cast<std::size_t>(state.range(0)));
    for (auto _ : state) {
        platform::Coordinate position = kDevice;
        benchmark::DoNotOptimize(position);
        double nearest = std::numeric_limits<double>::infinity();
        for (const auto& centre : centres) {
            const double d = targeting::haversineMeters(centre, position);
            nearest = d < nearest ? d : nearest;
        }
        benchmark::DoNotOptimize(nearest);
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

/// The floor of any nearest search over unit vectors: the largest dot product, in eight lanes the
/// compiler vectorises, then the distance it stands for.
void BM_VectorisedBestDot(benchmark::State& state) {
    const auto centres = scatter(static_cast<std::size_t>(state.range(0)));
    constexpr std::size_t kLanes = 8;
    const std::size_t padded = (centres.size() + kLanes - 1) / kLanes * kLanes;
    std::vector<double> xs(padded, 0), ys(padded, 0), zs(padded, -2);
    for (std::size_t i = 0; i < centres.size(); ++i) {
        const double lat = centres[i].latitude * platform::kDegreesToRadians;
        const double lon = centres[i].longitude * platform::kDegreesToRadians;
        xs[i] = std::cos(lat) * std::cos(lon);
        ys[i] = std::cos(lat) * std::sin(lon);
        zs[i] = std::sin(lat);
    }
    for (auto _ : state) {
        platform::Coordinate position = kDevice;
        benchmark::DoNotOptimize(position);
        const double lat = position.latitude * platform::kDegreesToRadians;
        const double lon = position.longitude * platform::kDegreesToRadians;
        const double vx = std::cos(lat) * std::cos(lon);
        const double vy = std::cos(lat) * std::sin(lon);
        const double vz = std::sin(lat);
        std::array<double, kLanes> best;
        best.fill(-3);
        for (std::size_t i = 0; i < padded; i += kLanes) {
            for (std::size_t k = 0; k < kLanes; ++k) {
                const double dot = xs[i + k] * vx + ys[i + k] * vy + zs[i + k] * vz;
                best[k] = std::max(best[k], dot);
            }
        }
        const double largest = *std::max_element(best.begin(), best.end());
        benchmark::DoNotOptimize(std::acos(std::clamp(largest, -1.0, 1.0)) * platform::kEarthRadiusKm * 1000);
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

/// The former way, for reference: every distance boxed in its own heap object, the boxes sorted, the
/// first one taken.
void BM_BoxedDistancesSorted(benchmark::State& state) {
    const auto centres = scatter(static_cast<std::size_t>(state.range(0)));
    for (auto _ : state) {
        platform::Coordinate position = kDevice;
        benchmark::DoNotOptimize(position);
        std::vector<std::unique_ptr<double>> boxed;
        for (const auto& centre : centres) {
            boxed.push_back(std::make_unique<double>(targeting::haversineMeters(centre, position)));
        }
        std::sort(boxed.begin(), boxed.end(),
                  [](const auto& a, const auto& b) { return a && b ? *a < *b : a.get() < b.get(); });
        const double* nearest = boxed.empty() ? nullptr : boxed.front().get();
        benchmark::DoNotOptimize(nearest);
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

/// The nearest-set selection alone (what the check spends on the list).
void BM_NearestSelection(benchmark::State& state) {
    const auto centres = scatter(static_cast<std::size_t>(state.range(0)));
    targeting::TargetList list;
    std::vector<std::shared_ptr<hRegion>> targets;
    for (const auto& centre : centres) {
        auto target = std::make_shared<hRegion>();
        target->center = centre;
        targets.push_back(target);
    }
    list.assign(targets);
    targeting::NearestSet set;
    for (auto _ : state) {
        platform::Coordinate position = kDevice;
        benchmark::DoNotOptimize(position);
        list.nearest(position, set);
        benchmark::DoNotOptimize(set.distance);
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

#define TOVREL_SIZES RangeMultiplier(10)->Range(10, 10000)
BENCHMARK(BM_RawNearestHaversine)->TOVREL_SIZES;
BENCHMARK(BM_VectorisedBestDot)->TOVREL_SIZES;
BENCHMARK(BM_CheckForLocationTarget)->TOVREL_SIZES;
BENCHMARK(BM_NearestSelection)->TOVREL_SIZES;
BENCHMARK(BM_BoxedDistancesSorted)->TOVREL_SIZES;

/// The console output, followed by the ratio of the check to the raw loop for each N.
class RatioReporter final : public benchmark::ConsoleReporter {
  public:
    void ReportRuns(const std::vector<Run>& runs) override {
        ConsoleReporter::ReportRuns(runs);
        for (const auto& run : runs) {
            const bool aggregate = run.run_type == Run::RT_Aggregate;
            if (run.error_occurred || (aggregate && run.aggregate_name != "median")) {
                continue;
            }
            auto& slot = times_[run.run_name.function_name][run.run_name.args];
            // A median, when repetitions produce one, wins over single runs.
            if (aggregate || !slot.fromMedian) {
                slot = {run.GetAdjustedCPUTime(), run.GetAdjustedRealTime(), aggregate};
            }
        }
    }

    void Finalize() override {
        ConsoleReporter::Finalize();
        table("the raw nearest-of-N haversine loop", "BM_RawNearestHaversine", kLimit, "");
        table("the vectorised best-dot-product loop", "BM_VectorisedBestDot", kBestDotLimit, "10000");
    }

  private:
    /// The check's CPU time per call against a baseline's for each N, and whether it keeps within
    /// `limit` (at every N, or only at `judgedAt` when one is named).
    void table(const char* what, const std::string& baseline, double limit, const std::string& judgedAt) {
        const auto& check = times_["BM_CheckForLocationTarget"];
        const auto& base = times_[baseline];
        auto& out = GetOutputStream();
        out << "\ncheckForLocationTarget against " << what << ", CPU time per call (limit " << limit << "x"
            << (judgedAt.empty() ? "" : " at N = " + judgedAt) << "; wall-clock ratio alongside):\n";
        char line[160];
        std::snprintf(line, sizeof line, "%8s %14s %14s %8s %8s\n", "N", "check", "baseline", "ratio",
                      "wall");
        out << line;
        for (const auto& [args, time] : check) {
            const auto it = base.find(args);
            if (it == base.end()) {
                continue;
            }
            const double ratio = time.cpu / it->second.cpu;
            const double wall = time.real / it->second.real;
            const bool judged = judgedAt.empty() || args == judgedAt;
            std::snprintf(line, sizeof line, "%8s %11.1f ns %11.1f ns %7.3fx %7.3fx  %s\n", args.c_str(),
                          time.cpu, it->second.cpu, ratio, wall,
                          !judged          ? ""
                          : ratio <= limit ? "ok"
                                           : "OVER THE LIMIT");
            out << line;
        }
        out.flush();
    }

    struct Time {
        double cpu = 0;
        double real = 0;
        bool fromMedian = false;
    };
    std::map<std::string, std::map<std::string, Time>> times_;
};

}  // namespace
}  // namespace tovrel::bench

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 1;
    }
    tovrel::bench::RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    return 0;
}
