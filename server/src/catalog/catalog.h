#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "catalog/catalog_data.h"
#include "catalog/spatial_index.h"

namespace tovrel::server {

/// The places, offers and campaigns in memory, with a spatial index and each record's JSON
/// prepared in advance. Immutable once built: shared between request threads without locks.
///
/// A catalogue made from another one and a few changes shares the other's places and offers (the
/// base) and holds the changed ones beside them (the overlay), with the base's changed or removed
/// ids hidden; it answers exactly as a catalogue built from scratch with the same rows.
class Catalog {
  public:
    struct Campaign {
        int64_t id = 0;
        std::optional<double> start;
        std::optional<double> end;
        std::optional<int64_t> perDeviceCap;
        std::string name;
        CampaignRules rules;
        bool activeAt(double now) const { return (!start || *start <= now) && (!end || now <= *end); }
        /// Between its dates and inside its schedule: its offers are answered.
        bool liveAt(double now) const {
            return activeAt(now) && (!rules.schedule || rules.schedule->contains(now));
        }
    };
    struct Offer {
        int64_t id = 0;
        int64_t campaign = 0;  ///< the campaign's id
        bool relativeMedia = false;
        std::string head;  ///< record members up to the first media address
        std::string mid;   ///< between the two media addresses
        std::string tail;  ///< after the second media address, up to "isLinked":
    };
    struct Place {
        int64_t id = 0;
        double lat = 0;
        double lon = 0;
        std::string head;             ///< "{" and the place's own members
        std::vector<int64_t> offers;  ///< ids of the linked offers, ascending; findOffer() tells which exist
        std::vector<uint32_t> offerAt;  ///< where each is in the offers the place was made with (offerOf())
    };
    /// An offer and its campaign (one that is never live when the campaign went).
    struct OfferRef {
        const Offer* offer = nullptr;
        const Campaign* campaign = nullptr;
    };

    Catalog();
    explicit Catalog(const CatalogData& data);
    /// `base` with `changes` applied, sharing what did not change. Any thread.
    Catalog(const Catalog& base, const CatalogChanges& changes);

    const Place* findPlace(int64_t id) const;
    /// The offer when it exists and its campaign is enabled.
    const Offer* findOffer(int64_t id) const;
    bool offeredAt(const Place& place, const Offer& offer) const;
    const Campaign& campaignOf(const Offer& offer) const;
    /// The place's i-th offer when it exists, with its campaign: by the positions the place keeps while
    /// no offer changed since the whole catalogue was read, else by id. Any thread.
    OfferRef offerOf(const Place& place, std::size_t i) const;
    /// The enabled campaign with this id, or nullptr.
    const Campaign* findCampaign(int64_t id) const;
    /// The place of a hit of near().
    const Place& placeAt(uint32_t index) const {
        return index < base_->list.size() ? base_->list[index] : changed_->list[index - base_->list.size()];
    }
    std::size_t placeCount() const;
    /// Places and offers held beside the shared base (changed, added or hidden ones).
    std::size_t overlaySize() const;

    /// Places whose centre lies within radius metres, nearest first, equal distances by place id (hit
    /// ids go to placeAt()).
    void near(double lat, double lon, double radius, std::vector<SpatialIndex::Hit>& out) const;

    /// Appends one place record, open at the end so that callers may add members before the closing
    /// brace. mediaBase goes before relative media addresses ("/media/..."); absolute ones stay as
    /// they are.
    void appendRecord(std::string& out, const Place& place, const Offer& offer, std::string_view mediaBase,
                      bool linked) const;

  private:
    struct Places {
        std::vector<Place> list;  ///< ascending id
        std::unordered_map<int64_t, uint32_t> byId;
        SpatialIndex index;
    };
    struct Offers {
        std::vector<Offer> list;
        std::unordered_map<int64_t, uint32_t> byId;
    };
    using Ids = std::unordered_set<int64_t>;

    void setCampaigns(const std::vector<CampaignDef>& defs);
    Offers makeOffers(const std::vector<OfferDef>& defs) const;
    static std::shared_ptr<const Places> makePlaces(std::vector<Place> places);
    Place makePlace(const PlaceDef& def) const;
    static const Offer* lookUp(const Offers& offers, int64_t id);
    /// Finds each offer's campaign (campaignAt_) after offers_ or campaigns_ changed.
    void placeCampaigns();
    static constexpr uint32_t kNowhere = UINT32_MAX;

    std::shared_ptr<const std::vector<CampaignDef>> campaignDefs_;
    std::vector<Campaign> campaigns_;  ///< ascending id
    std::shared_ptr<const Offers> offers_;
    /// Per offer of offers_: its campaign's position in campaigns_ (kNowhere: gone).
    std::shared_ptr<const std::vector<uint32_t>> campaignAt_;
    std::shared_ptr<const Offers> changedOffers_;
    std::shared_ptr<const Ids> hiddenOffers_;  ///< ids in offers_ that changed or went
    std::shared_ptr<const Places> base_;
    std::shared_ptr<const Places> changed_;
    std::shared_ptr<const Ids> hiddenPlaces_;  ///< ids in base_ that changed or went
};

}  // namespace tovrel::server
