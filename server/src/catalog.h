#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "catalog_data.h"
#include "spatial_index.h"

namespace tovrel_server {

/// The places, offers and campaigns in memory, with a spatial index and each record's JSON
/// prepared in advance. Immutable once built: shared between request threads without locks.
class Catalog {
  public:
    struct Campaign {
        int64_t id = 0;
        std::optional<double> start;
        std::optional<double> end;
        std::optional<int64_t> perDeviceCap;
        bool activeAt(double now) const { return (!start || *start <= now) && (!end || now <= *end); }
    };
    struct Offer {
        int64_t id = 0;
        uint32_t campaign = 0;  ///< index into campaigns
        bool relativeMedia = false;
        std::string head;  ///< record members up to the first media address
        std::string mid;   ///< between the two media addresses
        std::string tail;  ///< after the second media address, up to "isLinked":
    };
    struct Place {
        int64_t id = 0;
        double lat = 0;
        double lon = 0;
        std::string head;              ///< "{" and the place's own members
        std::vector<uint32_t> offers;  ///< indices into offers, ascending eventId
    };

    Catalog() = default;
    explicit Catalog(const CatalogData& data);

    const Place* findPlace(int64_t id) const;
    const Offer* findOffer(int64_t id) const;
    bool offeredAt(const Place& place, const Offer& offer) const;
    const Campaign& campaignOf(const Offer& offer) const { return campaigns_[offer.campaign]; }
    const Place& placeAt(uint32_t index) const { return places_[index]; }
    const Offer& offerAt(uint32_t index) const { return offers_[index]; }
    std::size_t placeCount() const { return places_.size(); }

    /// Places whose centre lies within radius metres, nearest first (hit ids index placeAt()).
    void near(double lat, double lon, double radius, std::vector<SpatialIndex::Hit>& out) const {
        index_.within(lat, lon, radius, out);
    }

    /// Appends one place record, open at the end so that callers may add members before the closing
    /// brace. mediaBase goes before relative media addresses ("/media/..."); absolute ones stay as
    /// they are.
    void appendRecord(std::string& out, const Place& place, const Offer& offer, std::string_view mediaBase,
                      bool linked) const;

  private:
    std::vector<Campaign> campaigns_;
    std::vector<Offer> offers_;
    std::vector<Place> places_;
    std::unordered_map<int64_t, uint32_t> placeById_;
    std::unordered_map<int64_t, uint32_t> offerById_;
    SpatialIndex index_;
};

}  // namespace tovrel_server
