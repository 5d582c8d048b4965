#include "fleet.h"

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <exception>
#include <iomanip>
#include <iostream>
#include <mutex>
#include <set>
#include <thread>

#include "in_process_service.h"

namespace tovrel::sim {
namespace {

using nlohmann::json;

/// Where the route was at `t`, between its positions.
std::pair<double, double> positionAt(const Route& route, double t) {
    const auto& points = route.points;
    if (points.empty()) {
        return {0, 0};
    }
    const auto after = std::lower_bound(points.begin(), points.end(), t,
                                        [](const RoutePoint& point, double time) { return point.t < time; });
    if (after == points.begin()) {
        return {after->latitude, after->longitude};
    }
    if (after == points.end()) {
        return {points.back().latitude, points.back().longitude};
    }
    const RoutePoint& before = *(after - 1);
    const double span = after->t - before.t;
    const double f = span > 0 ? (t - before.t) / span : 1;
    return {before.latitude + (after->latitude - before.latitude) * f,
            before.longitude + (after->longitude - before.longitude) * f};
}

long long millis(double seconds) {
    return std::llround(seconds * 1000);
}

std::string key(const OfferOutcome& o) {
    return o.eventId + "@" + o.placeId;
}

void keepSmallest(std::vector<TriggerPoint>& points) {
    if (points.size() <= FleetAggregate::kTriggerPoints) {
        return;
    }
    std::nth_element(points.begin(), points.begin() + FleetAggregate::kTriggerPoints, points.end(),
                     [](const TriggerPoint& a, const TriggerPoint& b) { return a.key < b.key; });
    points.resize(FleetAggregate::kTriggerPoints);
}

std::string formatted(double value, int precision) {
    std::ostringstream out;
    out.setf(std::ios::fixed);
    out.precision(precision);
    out << value;
    return out.str();
}

RouteKind kindOf(FleetRoutes source, std::uint64_t seed) {
    if (source == FleetRoutes::kWalks) {
        return RouteKind::kWalk;
    }
    if (source == FleetRoutes::kDrives) {
        return RouteKind::kDrive;
    }
    // Mixed: three walks in five.
    return mixSeed(seed ^ 0x5bd1e995ULL) % 5 < 3 ? RouteKind::kWalk : RouteKind::kDrive;
}

void checkFleetOptions(const FleetOptions& options) {
    if (options.source == FleetRoutes::kFolder && options.routes.empty()) {
        throw SimInputError("the fleet has no route");
    }
    if (options.source != FleetRoutes::kFolder && options.places.empty()) {
        throw SimInputError("the fleet has no place to make routes around");
    }
    if (options.days == 0) {
        throw SimInputError("a fleet runs for one day or more");
    }
}

/// The service every device talks to in process; none when the fleet talks to a service elsewhere.
std::unique_ptr<InProcessService> embeddedService(const FleetOptions& options) {
    if (options.device.serviceURL) {
        return nullptr;
    }
    try {
        return std::make_unique<InProcessService>(options.device.placesFile, options.device.contentDir,
                                                  options.device.startTime);
    } catch (const std::exception& error) {
        throw SimInputError(error.what());
    }
}

/// Runs one device's trips, a day each, until the days are over or its session never starts.
/// `generated` holds the routes made up for it, which the trips point at.
std::vector<Trip> runDevice(const FleetOptions& options, InProcessService* service, std::size_t device,
                            std::vector<Route>& generated) {
    const std::uint64_t deviceSeed = mixSeed(options.seed * 0x100000001b3ULL + device);
    const RouteKind kind = kindOf(options.source, deviceSeed);
    std::vector<Trip> trips;
    // Reserved up front: the trips point at the routes.
    generated.reserve(options.source == FleetRoutes::kFolder ? 0 : options.days);
    trips.reserve(options.days);
    SimOptions deviceOptions = options.device;
    deviceOptions.inProcess = service;
    deviceOptions.deviceSeed = deviceSeed;
    deviceOptions.keepEvents = false;
    deviceOptions.quiet = true;
    deviceOptions.progress = false;
    deviceOptions.stateDir.reset();
    CarriedState carried;
    deviceOptions.carried = &carried;
    for (std::size_t day = 0; day < options.days; ++day) {
        // Day 0 is the one-day fleet's trip, so that --days 1 changes nothing.
        const std::uint64_t daySeed = day == 0 ? deviceSeed : mixSeed(deviceSeed + day);
        const Route* route = nullptr;
        if (options.source == FleetRoutes::kFolder) {
            route = &options.routes[(device + day) % options.routes.size()];
        } else {
            generated.push_back(generateRoute(kind, options.places, daySeed,
                                              (kind == RouteKind::kWalk ? "walk-" : "drive-") +
                                                  std::to_string(device) +
                                                  (day == 0 ? "" : "-day" + std::to_string(day + 1))));
            route = &generated.back();
        }
        deviceOptions.route = route;
        deviceOptions.routeFile = route->name;
        deviceOptions.startTime = options.device.startTime + static_cast<double>(day) * 86'400;
        if (options.gpsNoise) {
            deviceOptions.gpsNoiseSeed = mixSeed(daySeed ^ 0x6a09e667f3bcc909ULL);
        }
        trips.push_back({route, runSimulation(deviceOptions, nullptr, nullptr)});
        if (trips.back().outcome.stop == RunStop::kSessionNeverStarted) {
            break;
        }
    }
    return trips;
}

/// What the fleet's worker threads share: devices are handed out in order, each worker sums into its
/// own aggregate, and the first failure stops them all.
class FleetWorkers {
  public:
    FleetWorkers(const FleetOptions& options, InProcessService* service, std::size_t jobs)
        : options_(options), service_(service), partial_(jobs) {}

    /// One worker's loop: runs devices until none is left or the fleet stops.
    void work(std::size_t worker) {
        for (;;) {
            const std::size_t device = next_++;
            if (device >= options_.devices || stop_) {
                return;
            }
            try {
                std::vector<Route> generated;
                const std::vector<Trip> trips = runDevice(options_, service_, device, generated);
                // A wrong key or an unreachable service would fail every other device alike.
                if (trips.back().outcome.stop == RunStop::kSessionNeverStarted) {
                    stop_ = true;
                }
                partial_[worker].add(device, trips);
                writeDevice(device, trips, ++done_);
            } catch (...) {
                std::lock_guard lock(outputMutex_);
                if (!failure_) {
                    failure_ = std::current_exception();
                }
                stop_ = true;
                return;
            }
        }
    }

    /// Once every worker has returned: the sum, or the first failure thrown again.
    FleetAggregate total() const {
        if (failure_) {
            std::rethrow_exception(failure_);
        }
        FleetAggregate total;
        total.days = options_.days;
        for (const FleetAggregate& part : partial_) {
            total.merge(part);
        }
        return total;
    }

  private:
    /// The device's lines and the progress line, when asked for.
    void writeDevice(std::size_t device, const std::vector<Trip>& trips, std::size_t finished) {
        if (options_.deviceLines == nullptr && !options_.progress) {
            return;
        }
        std::lock_guard lock(outputMutex_);
        for (std::size_t day = 0; options_.deviceLines != nullptr && day < trips.size(); ++day) {
            *options_.deviceLines << deviceJson(device, *trips[day].route, trips[day].outcome,
                                                options_.days > 1 ? std::optional(day) : std::nullopt)
                                         .dump(-1, ' ', false, json::error_handler_t::replace)
                                  << '\n';
        }
        if (options_.progress) {
            std::cerr << "\r" << finished << " / " << options_.devices << " devices" << std::flush;
        }
    }

    const FleetOptions& options_;
    InProcessService* service_;
    std::vector<FleetAggregate> partial_;
    std::atomic<std::size_t> next_{0};
    std::atomic<std::size_t> done_{0};
    std::atomic<bool> stop_{false};
    std::mutex outputMutex_;
    std::exception_ptr failure_;
};

}  // namespace

void FleetAggregate::add(std::size_t device, std::span<const Trip> trips) {
    ++devices;
    std::set<std::string> named;
    std::uint64_t index = 0;
    for (const auto& [route, outcome] : trips) {
        addDay(outcome);
        for (const OfferOutcome& o : outcome.offers) {
            OfferTotals& totals = offers[key(o)];
            if (named.insert(key(o)).second) {
                ++totals.devices;
            }
            if (o.delivered && o.deliveredAt) {
                const auto [latitude, longitude] = positionAt(*route, *o.deliveredAt);
                triggers.push_back(
                    {mixSeed(device * 1'000'003ULL + index++), o.eventId, latitude, longitude, o.falseEntry});
            }
        }
        if (outcome.stop != RunStop::kNone && (!firstStop || device < firstStop->first)) {
            firstStop = {device, outcome.stopMessage};
        }
    }
    keepSmallest(triggers);
}

void FleetAggregate::addDay(const SimOutcome& outcome) {
    simulatedMillis += millis(outcome.simulatedSeconds);
    for (const auto& [path, count] : outcome.requestsByPath) {
        requests[path] += static_cast<long long>(count);
    }
    for (std::size_t i = 0; i < kAccuracyLevels; ++i) {
        gpsOnMillis[i] += millis(outcome.gpsOn.seconds[i]);
    }
    significantOnlyMillis += millis(outcome.gpsOn.significantOnlySeconds);
    if (outcome.stop != RunStop::kNone) {
        ++(outcome.stop == RunStop::kSessionNeverStarted ? sessionsNeverStarted : timeStalled);
    }
    for (const OfferOutcome& o : outcome.offers) {
        OfferTotals& totals = offers[key(o)];
        if (totals.eventId.empty()) {
            totals.eventId = o.eventId;
            totals.placeId = o.placeId;
            totals.eventName = o.eventName;
            totals.latitude = o.latitude;
            totals.longitude = o.longitude;
            totals.radius = o.radius;
        }
        totals.entered += o.enteredAt ? 1 : 0;
        totals.linked += o.linkedAt ? 1 : 0;
        totals.delivered += o.delivered ? 1 : 0;
        totals.notifications += o.deliveredAs == "notification" ? 1 : 0;
        totals.alerts += o.deliveredAs == "alert" ? 1 : 0;
        totals.answered += std::any_of(o.answers.begin(), o.answers.end(),
                                       [](const std::string& code) { return code != "ack"; })
                               ? 1
                               : 0;
        totals.falseEntries += o.falseEntry ? 1 : 0;
        totals.linkRequests += o.linkRequests;
        ++totals.why[o.heldBy.empty() ? o.why : o.why + ":" + o.heldBy];
        if (o.delivered && o.deliveredAt && o.enteredAt) {
            const double delay = std::max(0.0, *o.deliveredAt - *o.enteredAt);
            const auto bin = std::min(kDelayBins - 1, static_cast<std::size_t>(delay / kDelayBinSeconds));
            ++delays[bin];
            ++delayCount;
            delayMillis += millis(delay);
        }
    }
}

void FleetAggregate::merge(const FleetAggregate& other) {
    devices += other.devices;
    days = std::max(days, other.days);
    simulatedMillis += other.simulatedMillis;
    for (const auto& [name, totals] : other.offers) {
        OfferTotals& mine = offers[name];
        if (mine.eventId.empty()) {
            mine = totals;
            continue;
        }
        mine.devices += totals.devices;
        mine.entered += totals.entered;
        mine.linked += totals.linked;
        mine.delivered += totals.delivered;
        mine.notifications += totals.notifications;
        mine.alerts += totals.alerts;
        mine.answered += totals.answered;
        mine.falseEntries += totals.falseEntries;
        mine.linkRequests += totals.linkRequests;
        for (const auto& [why, count] : totals.why) {
            mine.why[why] += count;
        }
    }
    for (const auto& [path, count] : other.requests) {
        requests[path] += count;
    }
    for (std::size_t i = 0; i < kDelayBins; ++i) {
        delays[i] += other.delays[i];
    }
    delayCount += other.delayCount;
    delayMillis += other.delayMillis;
    for (std::size_t i = 0; i < kAccuracyLevels; ++i) {
        gpsOnMillis[i] += other.gpsOnMillis[i];
    }
    significantOnlyMillis += other.significantOnlyMillis;
    triggers.insert(triggers.end(), other.triggers.begin(), other.triggers.end());
    keepSmallest(triggers);
    std::sort(triggers.begin(), triggers.end(),
              [](const TriggerPoint& a, const TriggerPoint& b) { return a.key < b.key; });
    sessionsNeverStarted += other.sessionsNeverStarted;
    timeStalled += other.timeStalled;
    if (other.firstStop && (!firstStop || other.firstStop->first < firstStop->first)) {
        firstStop = other.firstStop;
    }
}

GpsOnTime FleetAggregate::gpsOn() const {
    GpsOnTime time;
    for (std::size_t i = 0; i < kAccuracyLevels; ++i) {
        time.seconds[i] = static_cast<double>(gpsOnMillis[i]) / 1000;
    }
    time.significantOnlySeconds = static_cast<double>(significantOnlyMillis) / 1000;
    return time;
}

long long FleetAggregate::deliveries() const {
    long long sum = 0;
    for (const auto& [name, totals] : offers) {
        sum += totals.delivered;
    }
    return sum;
}

std::vector<OfferTally> FleetAggregate::tallies() const {
    std::vector<OfferTally> out;
    out.reserve(offers.size());
    for (const auto& [name, t] : offers) {
        OfferTally tally{t.eventId, t.placeId,  t.delivered,    t.linked, t.entered, t.notifications,
                         t.alerts,  t.answered, t.linkRequests, {},       0,         {}};
        for (const auto& [why, count] : t.why) {
            if (why.starts_with("suppressed")) {
                tally.suppressed += count;
            }
            if (why.starts_with("suppressed:")) {
                tally.heldBy[why.substr(11)] += count;
            }
        }
        tally.actual = "delivered to " + std::to_string(t.delivered) + " of " + std::to_string(t.devices) +
                       " devices it was named to";
        std::string reasons;
        for (const auto& [why, count] : t.why) {
            if (why != "delivered") {
                reasons += (reasons.empty() ? "" : ", ") + why + " " + std::to_string(count);
            }
        }
        if (!reasons.empty()) {
            tally.actual += " (not delivered: " + reasons + ")";
        }
        out.push_back(std::move(tally));
    }
    return out;
}

json FleetAggregate::toJson() const {
    json offerList = json::array();
    for (const auto& [name, t] : offers) {
        offerList.push_back({{"eventId", t.eventId},
                             {"placeId", t.placeId},
                             {"eventName", t.eventName},
                             {"devices", t.devices},
                             {"entered", t.entered},
                             {"linked", t.linked},
                             {"delivered", t.delivered},
                             {"notifications", t.notifications},
                             {"alerts", t.alerts},
                             {"answered", t.answered},
                             {"falseEntries", t.falseEntries},
                             {"linkRequests", t.linkRequests},
                             {"why", t.why}});
    }
    const double hours = deviceHours();
    json perHour = json::object();
    for (const auto& [path, count] : requests) {
        perHour[path] = hours > 0 ? std::round(static_cast<double>(count) / hours * 100) / 100 : 0.0;
    }
    json delayBins = json::array();
    for (const long long count : delays) {
        delayBins.push_back(count);
    }
    return {{"devices", devices},
            {"days", days},
            {"deviceHours", std::round(hours * 1000) / 1000},
            {"deliveries", deliveries()},
            {"offers", offerList},
            {"requests", requests},
            {"requestsPerDeviceHour", perHour},
            {"delayBinSeconds", kDelayBinSeconds},
            {"entryToDelivery", delayBins},
            {"gpsOn", gpsOnJson(gpsOn())},
            {"sessionsNeverStarted", sessionsNeverStarted},
            {"timeStalled", timeStalled}};
}

void FleetAggregate::printSummary(std::ostream& out) const {
    const double hours = deviceHours();
    out << devices << " devices" << (days > 1 ? " over " + std::to_string(days) + " days" : "") << ", "
        << formatted(hours, 1) << " device-hours: " << deliveries() << " deliveries\n";
    out << "offers (delivered / entered / devices named to):\n";
    for (const auto& [name, t] : offers) {
        if (t.entered == 0 && t.delivered == 0) {
            continue;
        }
        out << "  offer " << t.eventId << " \"" << t.eventName << "\" at place " << t.placeId << ": "
            << t.delivered << " / " << t.entered << " / " << t.devices;
        if (t.falseEntries > 0) {
            out << ", " << t.falseEntries << " false entries";
        }
        out << '\n';
    }
    if (delayCount > 0) {
        std::size_t median = 0;
        long long seen = 0;
        while (median < kDelayBins && (seen += delays[median]) * 2 < delayCount) {
            ++median;
        }
        out << "entry to delivery: mean "
            << formatted(static_cast<double>(delayMillis) / 1000 / static_cast<double>(delayCount), 0)
            << " s, median " << static_cast<long>(median * kDelayBinSeconds) << "–"
            << static_cast<long>((median + 1) * kDelayBinSeconds) << " s (" << delayCount << " deliveries)\n";
    }
    out << "requests per device-hour:";
    for (const auto& [path, count] : requests) {
        out << ' ' << path << ' ' << formatted(hours > 0 ? static_cast<double>(count) / hours : 0, 1);
    }
    out << '\n';
    const GpsOnTime gps = gpsOn();
    out << "location updates on, per device-hour:";
    for (std::size_t i = 0; i < kAccuracyLevels; ++i) {
        if (gps.seconds[i] > 0) {
            out << ' ' << accuracyLevelName(static_cast<AccuracyLevel>(i)) << ' '
                << formatted(hours > 0 ? gps.seconds[i] / 60 / hours : 0, 1) << " min";
        }
    }
    if (gps.significantOnlySeconds > 0) {
        out << ", significant changes only " << formatted(gps.significantOnlySeconds / 60 / hours, 1)
            << " min";
    }
    out << '\n';
}

json deviceJson(std::size_t device, const Route& route, const SimOutcome& outcome,
                std::optional<std::size_t> day) {
    json offers = json::array();
    long long delivered = 0;
    for (const OfferOutcome& o : outcome.offers) {
        offers.push_back(outcomeJson(o));
        delivered += o.delivered ? 1 : 0;
    }
    json line{{"type", "device"},
              {"device", device},
              {"route", route.name},
              {"simulatedSeconds", outcome.simulatedSeconds},
              {"deliveries", delivered},
              {"requests", outcome.requestsByPath},
              {"gpsOn", gpsOnJson(outcome.gpsOn)},
              {"outcomes", offers}};
    if (day) {
        line["day"] = *day;
    }
    if (outcome.stop != RunStop::kNone) {
        line["stop"] = outcome.stop == RunStop::kSessionNeverStarted ? "session" : "stalled";
        line["message"] = outcome.stopMessage;
    }
    return line;
}

FleetAggregate runFleet(const FleetOptions& options) {
    checkFleetOptions(options);
    const std::unique_ptr<InProcessService> service = embeddedService(options);
    std::size_t jobs = options.jobs > 0 ? options.jobs : std::max(1U, std::thread::hardware_concurrency());
    jobs = std::min(jobs, std::max<std::size_t>(options.devices, 1));

    FleetWorkers workers(options, service.get(), jobs);
    std::vector<std::thread> threads;
    threads.reserve(jobs - 1);
    for (std::size_t worker = 1; worker < jobs; ++worker) {
        threads.emplace_back([&workers, worker] { workers.work(worker); });
    }
    workers.work(0);
    for (auto& thread : threads) {
        thread.join();
    }
    if (options.progress) {
        std::cerr << '\r' << std::string(40, ' ') << '\r' << std::flush;
    }
    return workers.total();
}

}  // namespace tovrel::sim
