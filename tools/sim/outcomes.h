#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "route.h"

namespace tovrel::sim {

/// What happened to one offer at one place during a run, read from the run's events: when the device
/// was inside the place, what the service was asked and answered, what the user was shown and how
/// they answered. `delivered` says whether the offer reached the user; `reason` says why in words.
struct OfferOutcome {
    std::string eventId;
    std::string placeId;
    std::string eventName;
    double radius = 0;
    int dwellMinutes = 0;
    std::optional<double> enteredAt;  ///< first position inside the circle (seconds since start)
    double secondsInside = 0;         ///< the longest stay inside, by positions
    double closestMetres = 0;         ///< closest approach to the centre
    int linkRequests = 0;             ///< POSTs to /v1/deviceevent/link for this offer and place
    std::optional<double> linkedAt;   ///< the first answered link
    std::optional<std::string> deviceEventId;
    bool suppressed = false;    ///< the service answered suppressMessage 1
    bool linkedBefore = false;  ///< the first answer already said isLinked 1 (an earlier run)
    std::string deliveredAs;    ///< "notification", "alert" or "" when not delivered
    std::optional<double> deliveredAt;
    std::vector<std::string> answers;  ///< status codes sent after delivery, in order ("ack", "seen", ...)
    bool delivered = false;
    std::string reason;  ///< one sentence: how it was delivered, or why not
};

/// What the run was told that changes what can be delivered.
struct OutcomeContext {
    bool presentNotifications = true;
};

/// One outcome per (offer, place) the service answered with, in the order the service first named
/// them. Entries are found on the route itself (every position, not only those the component was
/// given). Pure.
std::vector<OfferOutcome> analyseOutcomes(const std::vector<nlohmann::json>& events, const Route& route,
                                          const OutcomeContext& context);

/// The outcome as an "outcome" event's fields.
nlohmann::json outcomeJson(const OfferOutcome& outcome);

}  // namespace tovrel::sim
