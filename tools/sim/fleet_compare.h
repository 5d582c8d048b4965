#pragma once

#include <nlohmann/json.hpp>
#include <ostream>
#include <string>
#include <vector>

#include "fleet.h"

namespace tovrel::sim {

/// One offer at one place in two runs of the same fleet: the draft catalogue and the live one.
struct OfferChange {
    std::string eventId;
    std::string placeId;
    std::string eventName;
    long long draft = 0;  ///< deliveries
    long long live = 0;
    long long namedDraft = 0;  ///< devices the service named the offer to (0: left out of its answers)
    long long namedLive = 0;
    /// Device-days per outcome word (OfferTotals::why) whose count changed: draft minus live, by word.
    std::map<std::string, long long> reasons;
};

/// Every offer either run named, by "eventId@placeId", with its deliveries on each side and the
/// outcomes that changed. Pure.
std::vector<OfferChange> compareFleets(const FleetAggregate& draft, const FleetAggregate& live);

/// The comparison as a table for a terminal: per offer, deliveries live and draft, their difference,
/// and the reasons for non-delivery that changed; the offers that did not change are left out. Pure.
void printComparison(const std::vector<OfferChange>& changes, const FleetAggregate& draft,
                     const FleetAggregate& live, std::ostream& out);

/// The same as JSON: {"devices", "days", "deliveries": {"draft", "live"}, "offers": [...]}, every offer
/// listed.
nlohmann::json comparisonJson(const std::vector<OfferChange>& changes, const FleetAggregate& draft,
                              const FleetAggregate& live);

}  // namespace tovrel::sim
