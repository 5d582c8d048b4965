#include "catalog/catalog.h"

#include <algorithm>
#include <limits>
#include <map>
#include <nlohmann/json.hpp>

#include "tovrel/protocol.h"

namespace tovrel::server {
namespace {

using nlohmann::json;

namespace field = protocol::place;

/// `"name":`, the start of one member.
std::string key(const char* name) {
    return "\"" + std::string(name) + "\":";
}

std::string member(const char* name, const json& value) {
    return key(name) + value.dump();
}

// The JSON text of a string without its surrounding quotes.
std::string escaped(const std::string& s) {
    const std::string quoted = json(s).dump();
    return quoted.substr(1, quoted.size() - 2);
}

}  // namespace

Catalog::Catalog()
    : campaignDefs_(std::make_shared<const std::vector<CampaignDef>>()),
      offers_(std::make_shared<const Offers>()),
      campaignAt_(std::make_shared<const std::vector<uint32_t>>()),
      changedOffers_(offers_),
      hiddenOffers_(std::make_shared<const Ids>()),
      base_(makePlaces({})),
      changed_(base_),
      hiddenPlaces_(hiddenOffers_) {}

Catalog::Catalog(const CatalogData& data) : Catalog() {
    setCampaigns(data.campaigns);
    offers_ = std::make_shared<const Offers>(makeOffers(data.offers));
    placeCampaigns();
    std::vector<Place> places;
    places.reserve(data.places.size());
    for (const PlaceDef& p : data.places) {
        places.push_back(makePlace(p));
    }
    base_ = makePlaces(std::move(places));
}

Catalog::Catalog(const Catalog& base, const CatalogChanges& changes) : Catalog(base) {
    if (changes.campaigns) {
        setCampaigns(*changes.campaigns);
        placeCampaigns();
    }
    if (!changes.offerIds.empty()) {
        const Ids changedIds(changes.offerIds.begin(), changes.offerIds.end());
        Offers overlay = makeOffers(changes.offers);
        for (const Offer& o : changedOffers_->list) {
            if (!changedIds.contains(o.id)) {
                overlay.byId[o.id] = static_cast<uint32_t>(overlay.list.size());
                overlay.list.push_back(o);
            }
        }
        auto hidden = std::make_shared<Ids>(*hiddenOffers_);
        for (const int64_t id : changes.offerIds) {
            if (offers_->byId.contains(id)) {
                hidden->insert(id);
            }
        }
        changedOffers_ = std::make_shared<const Offers>(std::move(overlay));
        hiddenOffers_ = std::move(hidden);
    }
    if (!changes.placeIds.empty()) {
        const Ids changedIds(changes.placeIds.begin(), changes.placeIds.end());
        std::vector<Place> overlay;
        overlay.reserve(changed_->list.size() + changes.places.size());
        for (const Place& p : changed_->list) {
            if (!changedIds.contains(p.id)) {
                overlay.push_back(p);
            }
        }
        for (const PlaceDef& p : changes.places) {
            overlay.push_back(makePlace(p));
        }
        auto hidden = std::make_shared<Ids>(*hiddenPlaces_);
        for (const int64_t id : changes.placeIds) {
            if (base_->byId.contains(id)) {
                hidden->insert(id);
            }
        }
        changed_ = makePlaces(std::move(overlay));
        hiddenPlaces_ = std::move(hidden);
    }
}

void Catalog::setCampaigns(const std::vector<CampaignDef>& defs) {
    campaignDefs_ = std::make_shared<const std::vector<CampaignDef>>(defs);
    campaigns_.clear();
    for (const CampaignDef& c : defs) {
        campaigns_.push_back(Campaign{c.id, c.startTime, c.endTime, c.perDeviceCap, c.name, c.rules});
    }
    std::sort(campaigns_.begin(), campaigns_.end(),
              [](const Campaign& a, const Campaign& b) { return a.id < b.id; });
}

Catalog::Offers Catalog::makeOffers(const std::vector<OfferDef>& defs) const {
    std::map<std::string, const CampaignDef*, std::less<>> campaignByName;
    for (const CampaignDef& c : *campaignDefs_) {
        campaignByName[c.name] = &c;
    }
    Offers offers;
    for (const OfferDef& o : defs) {
        const auto campaign = campaignByName.find(o.campaign);
        if (campaign == campaignByName.end()) {
            continue;
        }
        const CampaignDef& c = *campaign->second;
        Offer offer;
        offer.id = o.id;
        offer.campaign = c.id;
        offer.relativeMedia = !o.mediaUrl.empty() && o.mediaUrl.front() == '/';
        offer.head = member(field::kEventId, std::to_string(o.id)) + "," +
                     member(field::kEventName, o.eventName) + "," + member(field::kAlertText, o.alertText) +
                     "," + member(field::kMediaType, o.mediaType) + "," + key(field::kMediaURL) + "\"";
        offer.mid = escaped(o.mediaUrl) + "\"," + key(field::kMediaUrl) + "\"";
        offer.tail = escaped(o.mediaUrl) + "\"," + member(field::kCampaignName, c.name) + "," +
                     member(field::kTags, o.tags) + "," + member(field::kStartDate, c.startDate) + "," +
                     member(field::kEndDate, c.endDate) + "," + member(field::kDwellTime, o.dwellTime) + "," +
                     member(field::kEventTypeId, o.eventType) + "," + key(field::kIsLinked);
        offers.byId[o.id] = static_cast<uint32_t>(offers.list.size());
        offers.list.push_back(std::move(offer));
    }
    return offers;
}

Catalog::Place Catalog::makePlace(const PlaceDef& p) const {
    Place place;
    place.id = p.id;
    place.lat = p.lat;
    place.lon = p.lon;
    place.head = "{" + member(field::kLatitude, p.lat) + "," + member(field::kLongitude, p.lon) + "," +
                 member(field::kRadius, p.radius) + "," + member(field::kPlaceId, std::to_string(p.id)) + ",";
    place.offers = p.offers;
    std::sort(place.offers.begin(), place.offers.end());
    place.offers.erase(std::unique(place.offers.begin(), place.offers.end()), place.offers.end());
    place.offerAt.reserve(place.offers.size());
    for (const int64_t id : place.offers) {
        const auto it = offers_->byId.find(id);
        place.offerAt.push_back(it == offers_->byId.end() ? kNowhere : it->second);
    }
    return place;
}

std::shared_ptr<const Catalog::Places> Catalog::makePlaces(std::vector<Place> places) {
    // Equal distances come by index: in id order, as the store reads them, so that an overlay's hits
    // merge with the base's in the same order.
    const auto byId = [](const Place& a, const Place& b) { return a.id < b.id; };
    if (!std::is_sorted(places.begin(), places.end(), byId)) {
        std::stable_sort(places.begin(), places.end(), byId);
    }
    auto out = std::make_shared<Places>();
    std::vector<SpatialIndex::Entry> entries;
    entries.reserve(places.size());
    out->byId.reserve(places.size());
    for (std::size_t i = 0; i < places.size(); ++i) {
        const auto index = static_cast<uint32_t>(i);
        out->byId[places[i].id] = index;
        entries.push_back({places[i].lat, places[i].lon, index});
    }
    out->index = SpatialIndex(entries);
    out->list = std::move(places);
    return out;
}

const Catalog::Offer* Catalog::lookUp(const Offers& offers, int64_t id) {
    const auto it = offers.byId.find(id);
    return it == offers.byId.end() ? nullptr : &offers.list[it->second];
}

const Catalog::Place* Catalog::findPlace(int64_t id) const {
    if (!changed_->list.empty()) {
        if (const auto it = changed_->byId.find(id); it != changed_->byId.end()) {
            return &changed_->list[it->second];
        }
        if (hiddenPlaces_->contains(id)) {
            return nullptr;
        }
    }
    const auto it = base_->byId.find(id);
    if (it == base_->byId.end() || (!hiddenPlaces_->empty() && hiddenPlaces_->contains(id))) {
        return nullptr;
    }
    return &base_->list[it->second];
}

const Catalog::Offer* Catalog::findOffer(int64_t id) const {
    if (!changedOffers_->list.empty()) {
        if (const Offer* o = lookUp(*changedOffers_, id)) {
            return o;
        }
    }
    if (!hiddenOffers_->empty() && hiddenOffers_->contains(id)) {
        return nullptr;
    }
    return lookUp(*offers_, id);
}

bool Catalog::offeredAt(const Place& place, const Offer& offer) const {
    return std::binary_search(place.offers.begin(), place.offers.end(), offer.id);
}

namespace {

// Never active: for an offer whose campaign went while the offer stayed, which the store prevents.
const Catalog::Campaign& goneCampaign() {
    static const Catalog::Campaign kGone{
        0, std::numeric_limits<double>::infinity(), std::nullopt, std::nullopt, "", {}};
    return kGone;
}

}  // namespace

const Catalog::Campaign& Catalog::campaignOf(const Offer& offer) const {
    const auto it = std::lower_bound(campaigns_.begin(), campaigns_.end(), offer.campaign,
                                     [](const Campaign& c, int64_t id) { return c.id < id; });
    return it != campaigns_.end() && it->id == offer.campaign ? *it : goneCampaign();
}

void Catalog::placeCampaigns() {
    auto at = std::make_shared<std::vector<uint32_t>>();
    at->reserve(offers_->list.size());
    for (const Offer& offer : offers_->list) {
        const Campaign& campaign = campaignOf(offer);
        at->push_back(&campaign == &goneCampaign() ? kNowhere
                                                   : static_cast<uint32_t>(&campaign - campaigns_.data()));
    }
    campaignAt_ = std::move(at);
}

Catalog::OfferRef Catalog::offerOf(const Place& place, std::size_t i) const {
    if (changedOffers_->list.empty() && hiddenOffers_->empty()) {
        const uint32_t at = place.offerAt[i];
        if (at == kNowhere) {
            return {};
        }
        const uint32_t campaign = (*campaignAt_)[at];
        return {&offers_->list[at], campaign == kNowhere ? &goneCampaign() : &campaigns_[campaign]};
    }
    const Offer* offer = findOffer(place.offers[i]);
    return {offer, offer != nullptr ? &campaignOf(*offer) : nullptr};
}

const Catalog::Campaign* Catalog::findCampaign(int64_t id) const {
    const auto it = std::lower_bound(campaigns_.begin(), campaigns_.end(), id,
                                     [](const Campaign& c, int64_t wanted) { return c.id < wanted; });
    return it != campaigns_.end() && it->id == id ? &*it : nullptr;
}

std::size_t Catalog::placeCount() const {
    return base_->list.size() - hiddenPlaces_->size() + changed_->list.size();
}

std::size_t Catalog::overlaySize() const {
    return changed_->list.size() + hiddenPlaces_->size() + changedOffers_->list.size() +
           hiddenOffers_->size();
}

void Catalog::near(double lat, double lon, double radius, std::vector<SpatialIndex::Hit>& out) const {
    base_->index.within(lat, lon, radius, out);
    if (!hiddenPlaces_->empty()) {
        std::erase_if(
            out, [&](const SpatialIndex::Hit& h) { return hiddenPlaces_->contains(base_->list[h.id].id); });
    }
    if (changed_->list.empty()) {
        return;
    }
    thread_local std::vector<SpatialIndex::Hit> overlay;
    changed_->index.within(lat, lon, radius, overlay);
    const auto offset = static_cast<uint32_t>(base_->list.size());
    const auto middle = static_cast<std::ptrdiff_t>(out.size());
    for (SpatialIndex::Hit h : overlay) {
        out.push_back({h.id + offset, h.distance});
    }
    std::inplace_merge(out.begin(), out.begin() + middle, out.end(),
                       [this](const SpatialIndex::Hit& a, const SpatialIndex::Hit& b) {
                           return a.distance != b.distance ? a.distance < b.distance
                                                           : placeAt(a.id).id < placeAt(b.id).id;
                       });
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

}  // namespace tovrel::server
