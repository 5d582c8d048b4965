#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "route.h"
#include "tovrel/place_record.h"

namespace tovrel::sim {

/// What happened to one offer at one place during a run, read from the run's events: when the device
/// was inside the place, what the service was asked and answered, what the user was shown and how
/// they answered. `delivered` says whether the offer reached the user; `reason` says why in words.
struct OfferOutcome {
    std::string eventId;
    std::string placeId;
    std::string eventName;
    double radius = 0;
    double latitude = 0;  ///< the circle's centre
    double longitude = 0;
    int dwellMinutes = 0;
    std::optional<double> enteredAt;  ///< first position inside the circle (seconds since start)
    double secondsInside = 0;         ///< the longest stay inside, by positions
    double closestMetres = 0;         ///< closest approach to the centre
    int linkRequests = 0;             ///< POSTs to /v1/deviceevent/link for this offer and place
    std::optional<double> linkedAt;   ///< the first answered link
    std::optional<std::string> deviceEventId;
    bool suppressed = false;  ///< the service answered suppressMessage 1
    /// The rule that held it back, when the service says ("schedule", "quiet-hours", "control", "cap",
    /// "frequency", "fatigue").
    std::string heldBy;
    bool linkedBefore = false;  ///< the first answer already said isLinked 1 (an earlier run)
    std::string deliveredAs;    ///< "notification", "alert" or "" when not delivered
    std::optional<double> deliveredAt;
    std::vector<std::string> answers;  ///< status codes sent after delivery, in order ("ack", "seen", ...)
    bool delivered = false;
    /// Delivered while the route never entered the circle: position error put the device inside.
    bool falseEntry = false;
    std::string reason;  ///< one sentence: how it was delivered, or why not
    /// The reason as a word to count by: "delivered", "false-entry", "never-entered",
    /// "left-before-dwell", "not-linked", "link-unanswered", "suppressed", "notifications-off",
    /// "held", "linked-before".
    std::string why;
};

/// Why the service held a link back, when it can say (an embedded service can; one elsewhere cannot).
struct HeldBackInfo {
    std::string rule;
    std::string text;
    std::optional<double> lastDelivery;  ///< seconds since 1970
};

/// What the run was told that changes what can be delivered.
struct OutcomeContext {
    bool presentNotifications = true;
    /// Asks the service why the link with this deviceEventId was held back.
    std::function<std::optional<HeldBackInfo>(const std::string& deviceEventId)> heldBack;
};

/// Reads a run's events one at a time, as they happen, keeping only what the outcomes need (so that a
/// run need not keep its events). One thread at a time (the run's).
class OutcomeTracker {
  public:
    /// Any event of the run (the types it does not need are ignored).
    void add(const nlohmann::json& event);
    /// The same, for a response or request whose body is at hand (not copied into an event).
    void addResponse(double t, const std::string& path, const nlohmann::json& body);
    void addRequest(const std::string& path, const nlohmann::json& body);
    /// The same for the text of an answer the client has checked to be JSON, or of a request's body,
    /// read only as far as the outcomes need.
    void addResponseText(double t, const std::string& path, std::string_view body);
    void addRequestText(const std::string& path, std::string_view body);
    /// One outcome per (offer, place) the service answered with, in the order the service first named
    /// them. Entries are found on the route itself (every position, not only those the component was
    /// given).
    [[nodiscard]] std::vector<OfferOutcome> finish(const Route& route, const OutcomeContext& context);

  private:
    OfferOutcome* outcomeFor(const std::string& eventId, const std::string& placeId);
    void addDelivery(const std::string& type, double t, const std::string& deviceEventId);
    void addPlaces(const std::vector<PlaceRecord>& places);
    /// Adds the offers of a place answer's text that are new; false when the text is left to the full
    /// reader.
    bool addNewPlaces(std::string_view body);
    void addLinkAnswer(double t, const nlohmann::json& body);

    std::vector<OfferOutcome> outcomes_;
    std::map<std::string, std::size_t> index_;          // offer@place -> outcome
    std::map<std::string, std::size_t> byDeviceEvent_;  // device event id -> outcome
};

/// The outcomes of a run's events, as OutcomeTracker finds them. Pure.
std::vector<OfferOutcome> analyseOutcomes(const std::vector<nlohmann::json>& events, const Route& route,
                                          const OutcomeContext& context);

/// The outcome as an "outcome" event's fields.
nlohmann::json outcomeJson(const OfferOutcome& outcome);

}  // namespace tovrel::sim
