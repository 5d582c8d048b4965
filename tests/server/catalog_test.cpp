// A catalogue changed in place against one built from scratch with the same rows.
#include "catalog/catalog.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <random>
#include <set>

namespace tovrel::server {
namespace {

// What the store holds, disabled rows included; enabled() is what reading it gives.
struct Rows {
    std::map<int64_t, std::pair<CampaignDef, bool>> campaigns;  ///< by id, with "enabled"
    std::map<int64_t, std::pair<OfferDef, bool>> offers;
    std::map<int64_t, std::pair<PlaceDef, bool>> places;

    CatalogData enabled() const {
        CatalogData data;
        std::set<std::string> open;
        for (const auto& [id, c] : campaigns) {
            if (c.second) {
                data.campaigns.push_back(c.first);
                open.insert(c.first.name);
            }
        }
        for (const auto& [id, o] : offers) {
            if (o.second && open.contains(o.first.campaign)) {
                data.offers.push_back(o.first);
            }
        }
        for (const auto& [id, p] : places) {
            if (p.second) {
                data.places.push_back(p.first);
                std::sort(data.places.back().offers.begin(), data.places.back().offers.end());
            }
        }
        return data;
    }

    // The changes a store reports for these ids: the rows as they are now.
    CatalogChanges changes(std::set<int64_t> campaignIds, std::set<int64_t> offerIds,
                           const std::set<int64_t>& placeIds) const {
        CatalogChanges out;
        const CatalogData now = enabled();
        if (!campaignIds.empty()) {
            out.campaigns = now.campaigns;
            for (const auto& [id, o] : offers) {
                for (const int64_t c : campaignIds) {
                    if (campaigns.at(c).first.name == o.first.campaign) {
                        offerIds.insert(id);
                    }
                }
            }
        }
        out.offerIds.assign(offerIds.begin(), offerIds.end());
        out.placeIds.assign(placeIds.begin(), placeIds.end());
        for (const OfferDef& o : now.offers) {
            if (offerIds.contains(o.id)) {
                out.offers.push_back(o);
            }
        }
        for (const PlaceDef& p : now.places) {
            if (placeIds.contains(p.id)) {
                out.places.push_back(p);
            }
        }
        return out;
    }
};

// Everything a /v2/place answer shows: places nearest first, each with its active offers' records.
std::string answer(const Catalog& catalog, double lat, double lon, double radius, double now) {
    std::vector<SpatialIndex::Hit> hits;
    catalog.near(lat, lon, radius, hits);
    std::string out;
    for (const SpatialIndex::Hit& hit : hits) {
        const Catalog::Place& place = catalog.placeAt(hit.id);
        out += std::to_string(place.id) + "@" + std::to_string(hit.distance) + ":";
        for (const int64_t o : place.offers) {
            const Catalog::Offer* offer = catalog.findOffer(o);
            if (offer != nullptr && catalog.campaignOf(*offer).activeAt(now)) {
                catalog.appendRecord(out, place, *offer, "http://media", false);
                out += "}\n";
            }
        }
    }
    return out;
}

class RandomRows {
  public:
    explicit RandomRows(unsigned seed) : random_(seed) {}

    double uniform(double lo, double hi) { return std::uniform_real_distribution<double>(lo, hi)(random_); }
    int64_t pick(int64_t lo, int64_t hi) { return std::uniform_int_distribution<int64_t>(lo, hi)(random_); }

    PlaceDef place(int64_t id, int64_t offerCount) {
        PlaceDef p;
        p.id = id;
        // Coarse positions, so that places often share a point and their order falls to the id.
        p.lat = 48.1 + static_cast<double>(pick(0, 60)) * 0.001;
        p.lon = 11.5 + static_cast<double>(pick(0, 60)) * 0.001;
        p.radius = static_cast<double>(pick(10, 200));
        for (int n = static_cast<int>(pick(0, 3)); n > 0; --n) {
            p.offers.push_back(pick(1, offerCount + 5));  // now and then an offer that is not there
        }
        std::sort(p.offers.begin(), p.offers.end());
        p.offers.erase(std::unique(p.offers.begin(), p.offers.end()), p.offers.end());
        return p;
    }
    OfferDef offer(int64_t id, const std::string& campaign) {
        OfferDef o;
        o.id = id;
        o.campaign = campaign;
        o.eventName = "Offer " + std::to_string(id) + "." + std::to_string(pick(0, 9));
        o.alertText = "Alert";
        o.mediaType = "html";
        o.mediaUrl = pick(0, 1) != 0 ? "/media/" + std::to_string(id) : "https://example.org/m";
        o.dwellTime = static_cast<int>(pick(0, 5));
        return o;
    }
    CampaignDef campaign(int64_t id) {
        CampaignDef c;
        c.id = id;
        c.name = "Campaign " + std::to_string(id);
        c.startDate = "2026-01-0" + std::to_string(pick(1, 9));
        c.startTime = pick(0, 3) == 0 ? 2e9 : 1e9;  // now and then not started yet
        return c;
    }

  private:
    std::mt19937_64 random_;
};

TEST(Catalog, ChangesAppliedInPlaceAnswerAsARebuildWould) {
    constexpr double kNow = 1.5e9;
    for (const unsigned seed : {1U, 2U, 3U}) {
        SCOPED_TRACE(seed);
        RandomRows random(seed);
        Rows rows;
        constexpr int64_t kCampaigns = 4;
        constexpr int64_t kOffers = 40;
        for (int64_t c = 1; c <= kCampaigns; ++c) {
            rows.campaigns[c] = {random.campaign(c), true};
        }
        for (int64_t o = 1; o <= kOffers; ++o) {
            rows.offers[o] = {random.offer(o, "Campaign " + std::to_string(random.pick(1, kCampaigns))),
                              true};
        }
        for (int64_t p = 1; p <= 800; ++p) {
            rows.places[p] = {random.place(p, kOffers), true};
        }
        auto catalog = std::make_shared<const Catalog>(rows.enabled());
        for (int step = 0; step < 120; ++step) {
            std::set<int64_t> campaigns, offers, places;
            for (int n = static_cast<int>(random.pick(1, 6)); n > 0; --n) {
                const int64_t place = random.pick(1, 900);
                switch (random.pick(0, 9)) {
                    case 0:  // a campaign disabled, enabled or moved in time
                        if (const int64_t c = random.pick(1, kCampaigns); random.pick(0, 1) != 0) {
                            rows.campaigns[c].second = !rows.campaigns[c].second;
                            campaigns.insert(c);
                        } else {
                            rows.campaigns[c].first = random.campaign(c);
                            campaigns.insert(c);
                        }
                        break;
                    case 1:  // an offer disabled, enabled, changed or removed (with its links)
                        if (const int64_t o = random.pick(1, kOffers + 5); rows.offers.contains(o)) {
                            if (random.pick(0, 3) == 0) {
                                rows.offers.erase(o);
                                for (auto& [id, p] : rows.places) {
                                    if (std::erase(p.first.offers, o) > 0) {
                                        places.insert(id);
                                    }
                                }
                            } else if (random.pick(0, 1) != 0) {
                                rows.offers[o].second = !rows.offers[o].second;
                            } else {
                                rows.offers[o].first = random.offer(o, rows.offers[o].first.campaign);
                            }
                            offers.insert(o);
                        } else {
                            rows.offers[o] = {random.offer(o, "Campaign 1"), true};
                            offers.insert(o);
                        }
                        break;
                    case 2:
                    case 3:  // a place removed
                        rows.places.erase(place);
                        places.insert(place);
                        break;
                    case 4:  // a place disabled or enabled
                        if (rows.places.contains(place)) {
                            rows.places[place].second = !rows.places[place].second;
                            places.insert(place);
                        }
                        break;
                    default:  // a place added, moved or linked anew
                        rows.places[place] = {random.place(place, kOffers), true};
                        places.insert(place);
                        break;
                }
            }
            catalog = std::make_shared<const Catalog>(*catalog, rows.changes(campaigns, offers, places));
            if (step % 10 != 9) {
                continue;
            }
            const Catalog rebuilt(rows.enabled());
            ASSERT_EQ(catalog->placeCount(), rebuilt.placeCount());
            for (int q = 0; q < 20; ++q) {
                const double lat = random.uniform(48.09, 48.17);
                const double lon = random.uniform(11.49, 11.57);
                const double radius = random.uniform(0, 3000);
                ASSERT_EQ(answer(*catalog, lat, lon, radius, kNow), answer(rebuilt, lat, lon, radius, kNow))
                    << step << " " << lat << " " << lon << " " << radius;
            }
            // Where places share a point, the order falls to their ids on both sides.
            ASSERT_EQ(answer(*catalog, 48.1, 11.5, 0, kNow), answer(rebuilt, 48.1, 11.5, 0, kNow));
            for (int64_t id = 0; id <= kOffers + 6; ++id) {
                const Catalog::Offer* o = catalog->findOffer(id);
                const Catalog::Offer* r = rebuilt.findOffer(id);
                ASSERT_EQ(o == nullptr, r == nullptr) << id;
                if (o != nullptr) {
                    EXPECT_EQ(o->head + o->tail, r->head + r->tail);
                    EXPECT_EQ(catalog->campaignOf(*o).start, rebuilt.campaignOf(*r).start);
                }
            }
            for (int64_t id = 0; id <= 901; ++id) {
                const Catalog::Place* p = catalog->findPlace(id);
                const Catalog::Place* r = rebuilt.findPlace(id);
                ASSERT_EQ(p == nullptr, r == nullptr) << id;
                if (p != nullptr) {
                    EXPECT_EQ(p->head, r->head);
                    EXPECT_EQ(p->offers, r->offers);
                }
            }
        }
        // Nothing but the changes is copied: the rest stays shared, however many steps were applied.
        EXPECT_LE(catalog->overlaySize(), 4 * 900U);
    }
}

TEST(Catalog, AnEmptyChangeSetSharesEverythingAndAnEmptyCatalogueFindsNothing) {
    CatalogData data;
    data.campaigns.push_back(CampaignDef{7, "C", "", "", std::nullopt, std::nullopt, 2, {}});
    data.offers.push_back(OfferDef{3, "C", "E", "A", "html", "/m", "", 0, 3});
    data.places.push_back(PlaceDef{5, "P", 48.1, 11.5, 30, {3, 4}});
    const Catalog base(data);
    const Catalog same(base, CatalogChanges{});
    EXPECT_EQ(same.overlaySize(), 0U);
    ASSERT_NE(same.findPlace(5), nullptr);
    ASSERT_NE(same.findOffer(3), nullptr);
    EXPECT_EQ(same.findOffer(4), nullptr);
    EXPECT_TRUE(same.offeredAt(*same.findPlace(5), *same.findOffer(3)));
    EXPECT_EQ(same.campaignOf(*same.findOffer(3)).perDeviceCap, 2);

    CatalogChanges gone;
    gone.placeIds = {5, 6};
    const Catalog without(same, gone);
    EXPECT_EQ(without.placeCount(), 0U);
    EXPECT_EQ(without.findPlace(5), nullptr);
    std::vector<SpatialIndex::Hit> hits;
    without.near(48.1, 11.5, 1000, hits);
    EXPECT_TRUE(hits.empty());
    Catalog().near(48.1, 11.5, 1000, hits);
    EXPECT_TRUE(hits.empty());
    EXPECT_EQ(Catalog().findPlace(5), nullptr);
}

}  // namespace
}  // namespace tovrel::server
