#include "fleet_compare.h"

#include <set>

namespace tovrel::sim {
namespace {

std::string signedCount(long long n) {
    return (n > 0 ? "+" : "") + std::to_string(n);
}

}  // namespace

std::vector<OfferChange> compareFleets(const FleetAggregate& draft, const FleetAggregate& live) {
    std::set<std::string> keys;
    for (const auto* side : {&draft, &live}) {
        for (const auto& [key, totals] : side->offers) {
            keys.insert(key);
        }
    }
    std::vector<OfferChange> out;
    for (const std::string& key : keys) {
        const auto d = draft.offers.find(key);
        const auto l = live.offers.find(key);
        const OfferTotals& any = d != draft.offers.end() ? d->second : l->second;
        OfferChange change{any.eventId, any.placeId, any.eventName, 0, 0, 0, 0, {}};
        if (d != draft.offers.end()) {
            change.draft = d->second.delivered;
            change.namedDraft = d->second.devices;
            for (const auto& [why, count] : d->second.why) {
                change.reasons[why] += count;
            }
        }
        if (l != live.offers.end()) {
            change.live = l->second.delivered;
            change.namedLive = l->second.devices;
            for (const auto& [why, count] : l->second.why) {
                change.reasons[why] -= count;
            }
        }
        std::erase_if(change.reasons, [](const auto& entry) { return entry.second == 0; });
        out.push_back(std::move(change));
    }
    return out;
}

void printComparison(const std::vector<OfferChange>& changes, const FleetAggregate& draft,
                     const FleetAggregate& live, std::ostream& out) {
    out << draft.devices << " devices"
        << (draft.days > 1 ? " over " + std::to_string(draft.days) + " days" : "")
        << ", the same on both sides: " << live.deliveries() << " deliveries live, " << draft.deliveries()
        << " with the draft (" << signedCount(draft.deliveries() - live.deliveries()) << ")\n";
    std::size_t unchanged = 0;
    for (const OfferChange& c : changes) {
        if (c.draft == c.live && c.reasons.empty() && c.namedDraft == c.namedLive) {
            ++unchanged;
            continue;
        }
        out << "  offer " << c.eventId << " \"" << c.eventName << "\" at place " << c.placeId << ": live "
            << c.live << ", draft " << c.draft << " (" << signedCount(c.draft - c.live) << ")";
        if (c.namedDraft != c.namedLive) {
            // A schedule, the dates or a removal leave an offer out of place answers: nobody watches it.
            out << "; named to " << c.namedLive << " devices live, " << c.namedDraft << " with the draft";
        }
        std::string reasons;
        for (const auto& [why, count] : c.reasons) {
            if (why != "delivered") {
                reasons += (reasons.empty() ? "" : ", ") + why + " " + signedCount(count);
            }
        }
        if (!reasons.empty()) {
            out << "; " << reasons;
        }
        out << '\n';
    }
    out << "  " << unchanged << " offers unchanged\n";
}

nlohmann::json comparisonJson(const std::vector<OfferChange>& changes, const FleetAggregate& draft,
                              const FleetAggregate& live) {
    nlohmann::json offers = nlohmann::json::array();
    for (const OfferChange& c : changes) {
        offers.push_back({{"eventId", c.eventId},
                          {"placeId", c.placeId},
                          {"eventName", c.eventName},
                          {"live", c.live},
                          {"draft", c.draft},
                          {"change", c.draft - c.live},
                          {"namedLive", c.namedLive},
                          {"namedDraft", c.namedDraft},
                          {"reasons", c.reasons}});
    }
    return {{"devices", draft.devices},
            {"days", draft.days},
            {"deliveries", {{"draft", draft.deliveries()}, {"live", live.deliveries()}}},
            {"offers", std::move(offers)}};
}

}  // namespace tovrel::sim
