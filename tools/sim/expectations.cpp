#include "expectations.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <fstream>

namespace tovrel::sim {

namespace {

constexpr std::array<std::string_view, 6> kStates = {"delivered",    "linked", "entered",
                                                     "notification", "alert",  "answered"};
constexpr std::array<std::string_view, 5> kOperators = {"<=", ">=", "==", "<", ">"};

std::string_view trim(std::string_view text) {
    const auto first = text.find_first_not_of(" \t\r");
    if (first == std::string_view::npos) {
        return {};
    }
    return text.substr(first, text.find_last_not_of(" \t\r") - first + 1);
}

[[noreturn]] void refuse(std::string_view rule, const std::string& what) {
    throw ExpectationError("expectation '" + std::string(rule) + "': " + what);
}

bool isId(std::string_view text) {
    return !text.empty() &&
           std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
}

constexpr std::array<std::string_view, 6> kHoldRules = {"schedule", "quiet-hours", "control",
                                                        "cap",      "frequency",   "fatigue"};

bool inState(const OfferTally& o, const std::string& state) {
    if (state == "suppressed") {
        return o.suppressed > 0;
    }
    if (state.starts_with("suppressed:")) {
        const auto found = o.heldBy.find(state.substr(11));
        return found != o.heldBy.end() && found->second > 0;
    }
    if (state == "delivered") {
        return o.delivered > 0;
    }
    if (state == "linked") {
        return o.linked > 0;
    }
    if (state == "entered") {
        return o.entered > 0;
    }
    if (state == "notification") {
        return o.notification > 0;
    }
    if (state == "alert") {
        return o.alert > 0;
    }
    return o.answered > 0;
}

bool compare(long long actual, const std::string& op, long long value) {
    if (op == "<=") {
        return actual <= value;
    }
    if (op == ">=") {
        return actual >= value;
    }
    if (op == "==") {
        return actual == value;
    }
    return op == "<" ? actual < value : actual > value;
}

}  // namespace

Expectation parseExpectation(std::string_view text) {
    const std::string_view rule = trim(text);
    Expectation e;
    e.text = std::string(rule);
    for (const std::string_view counted :
         {std::string_view("deliveries"), std::string_view("link-requests")}) {
        if (!rule.starts_with(counted)) {
            continue;
        }
        const std::string_view rest = trim(rule.substr(counted.size()));
        for (const std::string_view op : kOperators) {
            if (rest.starts_with(op)) {
                const std::string_view number = trim(rest.substr(op.size()));
                const auto [end, ec] = std::from_chars(number.data(), number.data() + number.size(), e.value);
                if (number.empty() || ec != std::errc() || end != number.data() + number.size() ||
                    e.value < 0) {
                    refuse(rule, "expected a whole number after " + std::string(op));
                }
                e.kind = Expectation::Kind::kCount;
                e.counted = std::string(counted);
                e.op = std::string(op);
                return e;
            }
        }
        refuse(rule, "expected <=, >=, ==, < or > after " + std::string(counted));
    }
    const auto colon = rule.find(':');
    const auto equals = rule.find('=');
    if (colon == std::string_view::npos || equals == std::string_view::npos || equals < colon) {
        refuse(rule, "expected offer:ID=STATE, place:ID=STATE, deliveries<=N or link-requests<=N");
    }
    const std::string_view subject = rule.substr(0, colon);
    std::string_view id = rule.substr(colon + 1, equals - colon - 1);
    std::string_view state = rule.substr(equals + 1);
    if (subject == "offer") {
        e.kind = Expectation::Kind::kOffer;
        if (const auto at = id.find('@'); at != std::string_view::npos) {
            e.place = std::string(id.substr(at + 1));
            id = id.substr(0, at);
            if (!isId(e.place)) {
                refuse(rule, "the place after '@' must be a placeId (digits)");
            }
        }
    } else if (subject == "place") {
        e.kind = Expectation::Kind::kPlace;
    } else {
        refuse(rule, "'" + std::string(subject) + "' is not offer or place");
    }
    if (!isId(id)) {
        refuse(rule, "the id must be digits");
    }
    e.id = std::string(id);
    if (state.starts_with("not-")) {
        e.negated = true;
        state.remove_prefix(4);
    }
    const bool held = state == "suppressed" ||
                      (state.starts_with("suppressed:") &&
                       std::find(kHoldRules.begin(), kHoldRules.end(), state.substr(11)) != kHoldRules.end());
    if (!held && std::find(kStates.begin(), kStates.end(), state) == kStates.end()) {
        refuse(rule,
               "the state must be delivered, linked, entered, notification, alert, answered, suppressed or "
               "suppressed:RULE (RULE: schedule, quiet-hours, control, cap, frequency or fatigue; each "
               "state may start with not-)");
    }
    e.state = std::string(state);
    return e;
}

std::vector<Expectation> readExpectationFile(const std::filesystem::path& file) {
    std::ifstream in(file);
    if (!in) {
        throw ExpectationError(file.string() + ": cannot be read");
    }
    std::vector<Expectation> rules;
    std::size_t lineNumber = 0;
    for (std::string line; std::getline(in, line);) {
        ++lineNumber;
        const std::string_view text = trim(line);
        if (text.empty() || text.front() == '#') {
            continue;
        }
        try {
            rules.push_back(parseExpectation(text));
        } catch (const ExpectationError& error) {
            throw ExpectationError(file.string() + ":" + std::to_string(lineNumber) + ": " + error.what());
        }
    }
    return rules;
}

OfferTally tallyOf(const OfferOutcome& o) {
    OfferTally tally;
    tally.eventId = o.eventId;
    tally.placeId = o.placeId;
    tally.delivered = o.delivered ? 1 : 0;
    tally.linked = o.linkedAt ? 1 : 0;
    tally.entered = o.enteredAt ? 1 : 0;
    tally.notification = o.deliveredAs == "notification" ? 1 : 0;
    tally.alert = o.deliveredAs == "alert" ? 1 : 0;
    tally.answered =
        std::any_of(o.answers.begin(), o.answers.end(), [](const std::string& code) { return code != "ack"; })
            ? 1
            : 0;
    tally.linkRequests = o.linkRequests;
    tally.actual = o.reason;
    tally.suppressed = o.linkedAt && o.suppressed ? 1 : 0;
    if (!o.heldBy.empty()) {
        tally.heldBy[o.heldBy] = 1;
    }
    return tally;
}

std::vector<ExpectationResult> checkExpectations(const std::vector<Expectation>& rules,
                                                 const std::vector<OfferOutcome>& outcomes) {
    std::vector<OfferTally> tallies;
    tallies.reserve(outcomes.size());
    for (const OfferOutcome& o : outcomes) {
        tallies.push_back(tallyOf(o));
    }
    return checkExpectations(rules, tallies);
}

std::vector<ExpectationResult> checkExpectations(const std::vector<Expectation>& rules,
                                                 const std::vector<OfferTally>& outcomes) {
    std::vector<ExpectationResult> results;
    for (const Expectation& rule : rules) {
        ExpectationResult result{rule.text, false, {}};
        if (rule.kind == Expectation::Kind::kCount) {
            long long actual = 0;
            for (const OfferTally& o : outcomes) {
                actual += rule.counted == "deliveries" ? o.delivered : o.linkRequests;
            }
            result.met = compare(actual, rule.op, rule.value);
            result.actual = rule.counted + " = " + std::to_string(actual);
            results.push_back(std::move(result));
            continue;
        }
        std::vector<const OfferTally*> subjects;
        for (const OfferTally& o : outcomes) {
            const bool matches = rule.kind == Expectation::Kind::kOffer
                                     ? o.eventId == rule.id && (rule.place.empty() || o.placeId == rule.place)
                                     : o.placeId == rule.id;
            if (matches) {
                subjects.push_back(&o);
            }
        }
        const bool any = std::any_of(subjects.begin(), subjects.end(),
                                     [&rule](const OfferTally* o) { return inState(*o, rule.state); });
        result.met = rule.negated ? !any : any;
        if (subjects.empty()) {
            result.actual = (rule.kind == Expectation::Kind::kOffer ? "offer " : "place ") + rule.id +
                            " was never in a service answer on this route";
        } else {
            for (const OfferTally* o : subjects) {
                result.actual += (result.actual.empty() ? "" : "; ") +
                                 ("offer " + o->eventId + " at place " + o->placeId + ": " + o->actual);
            }
        }
        results.push_back(std::move(result));
    }
    return results;
}

}  // namespace tovrel::sim
