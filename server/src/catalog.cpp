#include "catalog.h"

#include <algorithm>
#include <map>
#include <nlohmann/json.hpp>

namespace tovrel_server {
namespace {

using nlohmann::json;

std::string member(const char* name, const json& value) {
    return "\"" + std::string(name) + "\":" + value.dump();
}

// The JSON text of a string without its surrounding quotes.
std::string escaped(const std::string& s) {
    const std::string quoted = json(s).dump();
    return quoted.substr(1, quoted.size() - 2);
}

}  // namespace

Catalog::Catalog(const CatalogData& data) {
    std::map<std::string, uint32_t> campaignByName;
    for (const CampaignDef& c : data.campaigns) {
        campaignByName[c.name] = static_cast<uint32_t>(campaigns_.size());
        campaigns_.push_back(Campaign{c.id, c.startTime, c.endTime, c.perDeviceCap});
    }
    for (const OfferDef& o : data.offers) {
        const auto campaign = campaignByName.find(o.campaign);
        if (campaign == campaignByName.end()) {
            continue;
        }
        const CampaignDef& c = data.campaigns[campaign->second];
        Offer offer;
        offer.id = o.id;
        offer.campaign = campaign->second;
        offer.relativeMedia = !o.mediaUrl.empty() && o.mediaUrl.front() == '/';
        offer.head = member("eventId", std::to_string(o.id)) + "," + member("eventName", o.eventName) + "," +
                     member("alertText", o.alertText) + "," + member("mediaType", o.mediaType) +
                     ",\"mediaURL\":\"";
        offer.mid = escaped(o.mediaUrl) + "\",\"mediaUrl\":\"";
        offer.tail = escaped(o.mediaUrl) + "\"," + member("campaignName", c.name) + "," +
                     member("tags", o.tags) + "," + member("startDate", c.startDate) + "," +
                     member("endDate", c.endDate) + "," + member("dwellTime", o.dwellTime) + "," +
                     member("eventTypeId", o.eventType) + ",\"isLinked\":";
        offerById_[o.id] = static_cast<uint32_t>(offers_.size());
        offers_.push_back(std::move(offer));
    }
    std::vector<SpatialIndex::Entry> entries;
    entries.reserve(data.places.size());
    for (const PlaceDef& p : data.places) {
        Place place;
        place.id = p.id;
        place.lat = p.lat;
        place.lon = p.lon;
        place.head = "{" + member("centroidLat", p.lat) + "," + member("centroidLon", p.lon) + "," +
                     member("centroidRadius", p.radius) + "," + member("placeId", std::to_string(p.id)) + ",";
        for (int64_t o : p.offers) {
            if (const auto it = offerById_.find(o); it != offerById_.end()) {
                place.offers.push_back(it->second);
            }
        }
        std::sort(place.offers.begin(), place.offers.end(),
                  [this](uint32_t a, uint32_t b) { return offers_[a].id < offers_[b].id; });
        const auto index = static_cast<uint32_t>(places_.size());
        placeById_[p.id] = index;
        entries.push_back({p.lat, p.lon, index});
        places_.push_back(std::move(place));
    }
    index_ = SpatialIndex(entries);
}

const Catalog::Place* Catalog::findPlace(int64_t id) const {
    const auto it = placeById_.find(id);
    return it == placeById_.end() ? nullptr : &places_[it->second];
}

const Catalog::Offer* Catalog::findOffer(int64_t id) const {
    const auto it = offerById_.find(id);
    return it == offerById_.end() ? nullptr : &offers_[it->second];
}

bool Catalog::offeredAt(const Place& place, const Offer& offer) const {
    const auto index = static_cast<uint32_t>(&offer - offers_.data());
    return std::find(place.offers.begin(), place.offers.end(), index) != place.offers.end();
}

void Catalog::appendRecord(std::string& out, const Place& place, const Offer& offer,
                           std::string_view mediaBase, bool linked) const {
    const std::string_view base = offer.relativeMedia ? mediaBase : std::string_view();
    out += place.head;
    out += offer.head;
    out += base;
    out += offer.mid;
    out += base;
    out += offer.tail;
    out += linked ? '1' : '0';
}

}  // namespace tovrel_server
