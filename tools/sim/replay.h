#pragma once

#include <filesystem>
#include <nlohmann/json.hpp>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

#include "day_record.h"
#include "fleet_routes.h"
#include "outcomes.h"
#include "route.h"

namespace tovrel::sim {

/// How the replay and the service agree on one offer at one place.
struct ReplayFinding {
    std::string eventId;
    std::string placeId;
    std::string eventName;
    bool replayLinked = false;
    bool recorded = false;     ///< the service stored a link
    std::string replayReason;  ///< what the replay found, in words (empty when the replay never met it)
    std::vector<std::string> uncertain;  ///< why the reconstruction near the place is not to be trusted
    [[nodiscard]] bool agrees() const { return replayLinked == recorded; }
};

/// What makes a replay uncertain.
struct ReplayLimits {
    /// Seconds between two positions beyond which the track between them is a guess.
    double gapSeconds = 600;
};

/// One finding per offer the replay met or the service recorded a link of, the disagreements first.
/// `places` gives the circles of offers the replay never met (by placeId). Pure.
std::vector<ReplayFinding> compareReplay(const DayRecord& day, const std::vector<OfferOutcome>& replay,
                                         const std::vector<PlaceCircle>& places, const ReplayLimits& limits);

/// The findings for a terminal: a line per offer and one per reason of doubt. Pure.
void printFindings(const DayRecord& day, const std::vector<ReplayFinding>& findings, std::ostream& out);
/// The same as JSON: {"deviceId", "date", "positions", "findings": [...]}. Pure.
nlohmann::json findingsJson(const DayRecord& day, const std::vector<ReplayFinding>& findings);

/// GET devices/ID/day?date=DATE through adminGet: the day's JSON. Caller's thread.
std::string fetchDay(const std::string& adminUrl, const std::string& token, const std::string& deviceId,
                     const std::string& date);
/// The bbox (west,south,east,north) of the catalogue a replay of `day` needs: its track and 10 km
/// around it. Pure.
std::string catalogueArea(const DayRecord& day);

/// What `tovrel-sim replay` is told.
struct ReplayOptions {
    std::string dayFile;  ///< a saved day; else fetched with the four below
    std::string adminUrl;
    std::string token;
    std::string deviceId;
    std::string date;
    /// The catalogue replayed against; empty: the service's catalogue around the track, fetched from
    /// `adminUrl` (GET /admin/v1/catalogue).
    std::filesystem::path placesFile;
    std::filesystem::path contentDir;
    std::string reportFile;  ///< an HTML report of the replayed run, when set
    std::string tiles;
    bool asJson = false;
    ReplayLimits limits;
};

/// Replays the day: the real component along its track in virtual time against an embedded service with
/// the place file (or the service's catalogue), then the findings on `out`. Returns 0 when the replay agrees
/// with the service on every offer, 1 when they disagree on one or more. Throws RouteError for an unusable
/// day, SimInputError for unusable places, std::runtime_error when the day cannot be fetched. Caller's
/// thread.
int replayDay(const ReplayOptions& options, std::ostream& out);

}  // namespace tovrel::sim
