#pragma once

#include <cstdint>
#include <filesystem>
#include <map>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

#include "app_state_timeline.h"
#include "event_log.h"
#include "gps.h"
#include "outcomes.h"
#include "route.h"
#include "run_guard.h"

namespace tovrel::sim {

class InProcessService;

enum class AlertAnswer { kNever, kView, kLater };

/// Everything one run is told.
/// 2026-06-01 09:00 UTC: runs start at a fixed instant so that they are reproducible.
constexpr double kDefaultStartTime = 1780304400.0;

/// Seconds since 1970 of "YYYY-MM-DDTHH:MM[:SS]" followed by "Z" or an offset "±HH:MM"; nullopt for
/// anything else. Pure.
std::optional<double> parseInstant(std::string_view text);

/// What a device keeps from one run to the next: its identifier and its stored preferences (the
/// component's session, delivered offers and settings among them).
struct CarriedState {
    std::string advertisingIdentifier;  ///< empty: not carried yet
    nlohmann::json preferences;         ///< null: none stored yet
};

struct SimOptions {
    /// The instant the route's time 0 is, in seconds since 1970 (`--start`).
    double startTime = kDefaultStartTime;
    std::filesystem::path routeFile;
    std::filesystem::path placesFile;       ///< for the embedded service
    std::filesystem::path contentDir;       ///< pages the embedded service serves
    std::optional<std::string> serviceURL;  ///< talk to this service instead of the embedded one
    /// Whole-request limit of every request over HTTP (to serviceURL or the embedded service).
    double httpTimeoutSeconds = 30;
    std::string sdkKey = "demo-key";
    bool presentNotifications = true;
    bool presentOfferView = true;
    std::vector<AppStateChange> appStates{{0, platform::ApplicationState::kBackground}};
    AlertAnswer answer = AlertAnswer::kView;
    bool tapNotifications = false;
    std::optional<std::filesystem::path> stateDir;
    /// Like stateDir, in memory: read at the start when it holds a device, written at the end. The
    /// caller's, on the run's thread while it runs.
    CarriedState* carried = nullptr;
    double lingerSeconds = 0;
    bool terminate = false;
    bool realtime = false;
    bool progress = false;  ///< draw a progress bar on stderr
    bool quiet = false;     ///< no timeline on stdout
    /// Failed session starts in a row after which the run ends (the component itself never stops trying).
    std::size_t sessionAttempts = 5;
    /// Simulate at most this many seconds of the route (and linger).
    std::optional<double> maxDuration;
    /// The route itself, when the caller has it (routeFile is then not read).
    const Route* route = nullptr;
    /// Answer every request in process through this service instead of an embedded one over HTTP.
    InProcessService* inProcess = nullptr;
    /// Derive the device's advertising identifier from this seed (else it is random).
    std::optional<std::uint64_t> deviceSeed;
    /// Keep the events in memory for the caller (a fleet keeps none: outcomes and counts only).
    bool keepEvents = true;
    /// Add seeded position error in keeping with the accuracy the component asks for.
    std::optional<std::uint64_t> gpsNoiseSeed;
};

/// What a run produced.
struct SimOutcome {
    std::vector<nlohmann::json> events;  ///< the first EventLog::kKeptEvents of them
    EventLog::Counts counts;             ///< every event, by type
    std::size_t eventsNotKept = 0;       ///< recorded (and streamed) but not in `events`
    Route route;
    double simulatedSeconds = 0;
    double wallSeconds = 0;
    RunStop stop = RunStop::kNone;  ///< why the run ended before its route did
    std::string stopMessage;
    std::vector<OfferOutcome> offers;  ///< what happened to each offer the service answered with
    /// Requests the component made, per endpoint ("GET pages" for every page).
    std::map<std::string, std::size_t> requestsByPath;
    GpsOnTime gpsOn;  ///< location updates on, per accuracy level
};

/// The GPS-on time as an event's fields: seconds per level, significant-change only, total.
nlohmann::json gpsOnJson(const GpsOnTime& gpsOn);

/// A failure of the run's inputs (route, places, state): reported with exit status 2.
class SimInputError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

/// Drives one device through a location-enabled session of the real component on the virtual
/// backend, along the route, and records everything observable. `timeline` receives a readable
/// line per notable event as it happens (may be null).
SimOutcome runSimulation(const SimOptions& options, std::ostream* timeline, std::ostream* eventStream);

}  // namespace tovrel::sim
