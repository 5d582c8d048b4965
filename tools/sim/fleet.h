#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <ostream>
#include <span>
#include <string>
#include <vector>

#include "expectations.h"
#include "fleet_routes.h"
#include "gps.h"
#include "simulation.h"

namespace tovrel::sim {

/// Where a fleet's devices walk or drive: routes in turn, or made up per device.
enum class FleetRoutes { kFolder, kWalks, kDrives, kMixed };

/// Everything a fleet run is told.
struct FleetOptions {
    SimOptions device;  ///< what each device is told (its route, seeds and service are set per device)
    std::size_t devices = 100;
    /// Each device makes a trip a day, starting at the same time of day, for this many days, keeping its
    /// identifier and stored preferences: caps per day and week count across the days. A walker stays a
    /// walker; each day's route is another (kFolder: the next route in turn).
    std::size_t days = 1;
    std::size_t jobs = 0;  ///< worker threads; 0: one per core
    FleetRoutes source = FleetRoutes::kMixed;
    std::vector<Route> routes;        ///< kFolder: device i drives routes[i % size]
    std::vector<PlaceCircle> places;  ///< what generated routes go around
    std::uint64_t seed = 1;
    bool gpsNoise = false;
    /// One JSON object a line per device as it ends (nullptr: none).
    std::ostream* deviceLines = nullptr;
    bool progress = false;  ///< a progress line on stderr
};

/// One offer at one place, over the fleet.
struct OfferTotals {
    std::string eventId;
    std::string placeId;
    std::string eventName;
    double latitude = 0;
    double longitude = 0;
    double radius = 0;
    long long devices = 0;  ///< devices the service named it to (on any day)
    // The counts below are device-days (trips): over several days a device may enter, and be
    // delivered the offer, once a day.
    long long entered = 0;
    long long linked = 0;
    long long delivered = 0;
    long long notifications = 0;
    long long alerts = 0;
    long long answered = 0;
    long long falseEntries = 0;
    long long linkRequests = 0;
    std::map<std::string, long long> why;  ///< device-days per reason word (OfferOutcome::why)
};

/// One day of a device: its route and what happened along it.
struct Trip {
    const Route* route = nullptr;
    SimOutcome outcome;
};

/// Where a device was (on its route) when an offer reached it.
struct TriggerPoint {
    std::uint64_t key = 0;  ///< which points are kept when there are too many: the smallest keys
    std::string eventId;
    double latitude = 0;
    double longitude = 0;
    bool falseEntry = false;
};

/// What a fleet did, folded device by device: memory does not grow with the devices (but for the
/// offers and endpoints there are, and at most kTriggerPoints points). A plain value: each worker
/// thread folds into its own, and they are merged at the end; every member on one thread at a time.
struct FleetAggregate {
    static constexpr std::size_t kTriggerPoints = 5000;
    static constexpr double kDelayBinSeconds = 15;
    static constexpr std::size_t kDelayBins = 60;  ///< 0 to 15 min; later delays go in the last

    // Sums of times are kept in whole milliseconds, so that they do not depend on the order of the
    // devices (a sum of doubles does, in its last bits).
    std::size_t devices = 0;
    std::size_t days = 1;  ///< each device's days (FleetOptions::days)
    long long simulatedMillis = 0;
    std::map<std::string, OfferTotals> offers;   ///< by "eventId@placeId"
    std::map<std::string, long long> requests;   ///< by endpoint path
    std::array<long long, kDelayBins> delays{};  ///< entry to delivery, seconds
    long long delayCount = 0;
    long long delayMillis = 0;
    std::array<long long, kAccuracyLevels> gpsOnMillis{};
    long long significantOnlyMillis = 0;
    std::vector<TriggerPoint> triggers;
    long long sessionsNeverStarted = 0;
    long long timeStalled = 0;
    std::optional<std::pair<std::size_t, std::string>> firstStop;  ///< device and message

    /// Folds in one device's trips, a day each, in order. The owner's thread.
    void add(std::size_t device, std::span<const Trip> trips);
    /// Folds in another aggregate (of other devices); the result does not depend on the order. The
    /// owner's thread.
    void merge(const FleetAggregate& other);

    [[nodiscard]] long long deliveries() const;
    [[nodiscard]] double deviceHours() const { return static_cast<double>(simulatedMillis) / 3'600'000; }
    [[nodiscard]] GpsOnTime gpsOn() const;
    /// The offers as expectations see them. Any thread.
    [[nodiscard]] std::vector<OfferTally> tallies() const;
    /// Everything but the trigger points, as one JSON object. Any thread.
    [[nodiscard]] nlohmann::json toJson() const;
    /// The terminal summary. Any thread.
    void printSummary(std::ostream& out) const;

  private:
    void addDay(const SimOutcome& outcome);
};

/// One line of the devices file: the device's route, counts, GPS-on time and outcomes of one day (a
/// "day" member from 0 when the fleet runs several). Pure.
nlohmann::json deviceJson(std::size_t device, const Route& route, const SimOutcome& outcome,
                          std::optional<std::size_t> day = std::nullopt);

/// Runs the fleet: devices spread over `jobs` threads, each device its own environment, virtual
/// backend and preferences, against one embedded service in process (or options.device.serviceURL).
/// The aggregate is the same for a seed whatever the number of threads. Stops starting devices once
/// one device's session never started (a wrong key or an unreachable service). Throws SimInputError.
/// Any thread (it starts and joins its workers).
FleetAggregate runFleet(const FleetOptions& options);

}  // namespace tovrel::sim
