#pragma once

#include <filesystem>
#include <map>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "outcomes.h"

namespace tovrel::sim {

/// A rule a run must meet, as QA writes it:
///   offer:ID=STATE         some place of offer ID is in STATE (for "not-" states: none is in the other)
///   offer:ID@PLACE=STATE   the offer at that place
///   place:ID=STATE         some offer at place ID
///   deliveries OP N        offers delivered in the run (OP: <=, >=, ==, <, >)
///   link-requests OP N     link requests sent in the run
/// STATE: delivered, not-delivered, linked, not-linked, entered, not-entered, notification, alert,
/// answered.
struct Expectation {
    std::string text;
    enum class Kind { kOffer, kPlace, kCount } kind = Kind::kOffer;
    std::string id;
    std::string place;  ///< offer rules with "@PLACE"
    std::string state;  ///< without a "not-" prefix
    bool negated = false;
    std::string counted;  ///< "deliveries" or "link-requests"
    std::string op;
    long long value = 0;
};

/// A rule that cannot be read; what() quotes it and says what is wrong.
class ExpectationError : public std::invalid_argument {
  public:
    using std::invalid_argument::invalid_argument;
};

/// Parses one rule. Throws ExpectationError. Pure.
Expectation parseExpectation(std::string_view text);

/// The rules of a file, one a line ('#' comments, blank lines ignored). Throws ExpectationError naming
/// the file and line, or that the file cannot be read.
std::vector<Expectation> readExpectationFile(const std::filesystem::path& file);

/// What the rules are checked against: per offer and place, how many devices reached each state (a
/// single run is one device: each count 0 or 1), and what happened, in words.
struct OfferTally {
    std::string eventId;
    std::string placeId;
    long long delivered = 0;
    long long linked = 0;
    long long entered = 0;
    long long notification = 0;
    long long alert = 0;
    long long answered = 0;  ///< answered with a status other than "ack"
    long long linkRequests = 0;
    std::string actual;                       ///< what happened, for a rule that failed
    long long suppressed = 0;                 ///< linked, and held back by the service
    std::map<std::string, long long> heldBy;  ///< the rule that held it back, where the service said
};

/// One run's outcome as a tally.
OfferTally tallyOf(const OfferOutcome& outcome);

struct ExpectationResult {
    std::string rule;
    bool met = false;
    std::string actual;  ///< what happened instead (the outcome's reason, or the count)
};

/// Checks each rule against a run's outcomes. Pure.
std::vector<ExpectationResult> checkExpectations(const std::vector<Expectation>& rules,
                                                 const std::vector<OfferOutcome>& outcomes);
/// Checks each rule against tallies (a fleet's): a state rule holds when some device reached the
/// state (a "not-" rule, when none did); counts are summed over devices. Pure.
std::vector<ExpectationResult> checkExpectations(const std::vector<Expectation>& rules,
                                                 const std::vector<OfferTally>& tallies);

}  // namespace tovrel::sim
