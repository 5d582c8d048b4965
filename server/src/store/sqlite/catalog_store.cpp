#include <algorithm>
#include <map>

#include "catalog/catalog_data.h"
#include "store/sqlite/database.h"

namespace tovrel::server {

void writeApp(Database& db, const AppDef& app, double now) {
    db.prepare(
          "INSERT INTO apps(key, name, created_at, rules) VALUES(?, ?, ?, ?) "
          "ON CONFLICT(key) DO UPDATE SET name = excluded.name, rules = excluded.rules")
        .with(app.key, app.name, now, rulesText(app.rules))
        .run();
}

namespace {

// Writes offerCount offers and placeCount places, each produced by its function, with apps and
// campaigns, in one transaction with prepared statements.
template <typename OfferAt, typename PlaceAt>
ImportSummary writeRows(Database& db, const std::vector<AppDef>& apps,
                        const std::vector<CampaignDef>& campaigns, std::size_t offerCount, OfferAt offerAt,
                        std::size_t placeCount, PlaceAt placeAt, double now) {
    Transaction tx(db);
    for (const AppDef& app : apps) {
        writeApp(db, app, now);
    }

    Statement campaign = db.prepare(
        "INSERT INTO campaigns(name, start_date, end_date, start_time, end_time, per_device_cap, rules) "
        "VALUES(?, ?, ?, ?, ?, ?, ?) ON CONFLICT(name) DO UPDATE SET start_date = excluded.start_date, "
        "end_date = excluded.end_date, start_time = excluded.start_time, end_time = excluded.end_time, "
        "per_device_cap = excluded.per_device_cap, rules = excluded.rules");
    Statement campaignId = db.prepare("SELECT id FROM campaigns WHERE name = ?");
    std::map<std::string, int64_t, std::less<>> ids;
    for (const CampaignDef& c : campaigns) {
        campaign
            .with(c.name, c.startDate, c.endDate, c.startTime, c.endTime, c.perDeviceCap, rulesText(c.rules))
            .run();
        campaignId.with(c.name).step();
        ids[c.name] = campaignId.integer(0);
    }

    Statement offer = db.prepare(
        "INSERT INTO offers(id, campaign, event_name, alert_text, media_type, media_url, tags, dwell_time, "
        "event_type) VALUES(?, ?, ?, ?, ?, ?, ?, ?, ?) ON CONFLICT(id) DO UPDATE SET campaign = "
        "excluded.campaign, "
        "event_name = excluded.event_name, alert_text = excluded.alert_text, media_type = "
        "excluded.media_type, "
        "media_url = excluded.media_url, tags = excluded.tags, dwell_time = excluded.dwell_time, "
        "event_type = excluded.event_type");
    for (std::size_t i = 0; i < offerCount; ++i) {
        const OfferDef& o = offerAt(i);
        offer
            .with(o.id, ids.at(o.campaign), o.eventName, o.alertText, o.mediaType, o.mediaUrl, o.tags,
                  o.dwellTime, o.eventType)
            .run();
    }

    Statement place = db.prepare(
        "INSERT INTO places(id, name, lat, lon, radius) VALUES(?, ?, ?, ?, ?) ON CONFLICT(id) DO UPDATE SET "
        "name = excluded.name, lat = excluded.lat, lon = excluded.lon, radius = excluded.radius");
    Statement unlink = db.prepare("DELETE FROM place_offers WHERE place = ?");
    Statement link = db.prepare("INSERT INTO place_offers(place, offer) VALUES(?, ?)");
    for (std::size_t i = 0; i < placeCount; ++i) {
        const PlaceDef& p = placeAt(i);
        place.with(p.id, p.name, p.lat, p.lon, p.radius).run();
        unlink.with(p.id).run();
        for (int64_t o : p.offers) {
            link.with(p.id, o).run();
        }
    }
    tx.commit();
    return ImportSummary{static_cast<int>(apps.size()), static_cast<int>(campaigns.size()),
                         static_cast<int>(placeCount), static_cast<int>(offerCount)};
}

}  // namespace

ImportSummary writeCatalog(Database& db, const CatalogData& data, double now) {
    return writeRows(
        db, data.apps, data.campaigns, data.offers.size(),
        [&](std::size_t i) -> const OfferDef& { return data.offers[i]; }, data.places.size(),
        [&](std::size_t i) -> const PlaceDef& { return data.places[i]; }, now);
}

ImportSummary writeCatalog(Database& db, const PlaceCatalog& data, double now) {
    return writeRows(
        db, data.apps, data.campaigns, data.offerCount(), [&](std::size_t i) { return data.offer(i); },
        data.placeCount(), [&](std::size_t i) { return data.place(i); }, now);
}

namespace {

std::vector<CampaignDef> readCampaigns(Database& db) {
    std::vector<CampaignDef> out;
    Statement campaigns = db.prepare(
        "SELECT id, name, start_date, end_date, start_time, end_time, per_device_cap, rules FROM campaigns "
        "WHERE disabled = 0 ORDER BY id");
    while (campaigns.step()) {
        CampaignDef c;
        c.id = campaigns.integer(0);
        c.name = campaigns.text(1);
        c.startDate = campaigns.text(2);
        c.endDate = campaigns.text(3);
        if (!campaigns.isNull(4)) {
            c.startTime = campaigns.real(4);
        }
        if (!campaigns.isNull(5)) {
            c.endTime = campaigns.real(5);
        }
        if (!campaigns.isNull(6)) {
            c.perDeviceCap = campaigns.integer(6);
        }
        c.rules = campaignRulesFrom(campaigns.text(7));
        out.push_back(std::move(c));
    }
    return out;
}

constexpr const char* kEnabledOffers =
    "SELECT o.id, c.name, o.event_name, o.alert_text, o.media_type, o.media_url, o.tags, o.dwell_time, "
    "o.event_type FROM offers o JOIN campaigns c ON c.id = o.campaign WHERE o.disabled = 0 AND c.disabled = "
    "0";

OfferDef offerRow(Statement& offers) {
    OfferDef o;
    o.id = offers.integer(0);
    o.campaign = offers.text(1);
    o.eventName = offers.text(2);
    o.alertText = offers.text(3);
    o.mediaType = offers.text(4);
    o.mediaUrl = offers.text(5);
    o.tags = offers.text(6);
    o.dwellTime = static_cast<int>(offers.integer(7));
    o.eventType = static_cast<int>(offers.integer(8));
    return o;
}

constexpr const char* kEnabledPlaces = "SELECT id, name, lat, lon, radius FROM places WHERE disabled = 0";

PlaceDef placeRow(Statement& places) {
    PlaceDef p;
    p.id = places.integer(0);
    p.name = places.text(1);
    p.lat = places.real(2);
    p.lon = places.real(3);
    p.radius = places.real(4);
    return p;
}

}  // namespace

CatalogData readCatalog(Database& db) {
    CatalogData data;
    data.campaigns = readCampaigns(db);
    Statement offers = db.prepare(std::string(kEnabledOffers) + " ORDER BY o.id");
    while (offers.step()) {
        data.offers.push_back(offerRow(offers));
    }
    Statement places = db.prepare(std::string(kEnabledPlaces) + " ORDER BY id");
    Statement placeOffers = db.prepare("SELECT place, offer FROM place_offers ORDER BY place, offer");
    std::map<int64_t, std::size_t> index;
    while (places.step()) {
        index[places.integer(0)] = data.places.size();
        data.places.push_back(placeRow(places));
    }
    while (placeOffers.step()) {
        if (const auto it = index.find(placeOffers.integer(0)); it != index.end()) {
            data.places[it->second].offers.push_back(placeOffers.integer(1));
        }
    }
    return data;
}

bool readChangedRows(Database& db, CatalogChanges& changes, const std::vector<int64_t>& campaignIds,
                     std::size_t limit) {
    if (!campaignIds.empty()) {
        changes.campaigns = readCampaigns(db);
        Statement theirs = db.prepare("SELECT id FROM offers WHERE campaign = ?");
        for (const int64_t id : campaignIds) {
            theirs.with(id);
            while (theirs.step()) {
                changes.offerIds.push_back(theirs.integer(0));
            }
        }
        std::sort(changes.offerIds.begin(), changes.offerIds.end());
        changes.offerIds.erase(std::unique(changes.offerIds.begin(), changes.offerIds.end()),
                               changes.offerIds.end());
        if (changes.offerIds.size() + changes.placeIds.size() > limit) {
            return false;
        }
    }
    Statement offer = db.prepare(std::string(kEnabledOffers) + " AND o.id = ?");
    for (const int64_t id : changes.offerIds) {
        if (offer.with(id).step()) {
            changes.offers.push_back(offerRow(offer));
        }
    }
    Statement place = db.prepare(std::string(kEnabledPlaces) + " AND id = ?");
    Statement links = db.prepare("SELECT offer FROM place_offers WHERE place = ? ORDER BY offer");
    for (const int64_t id : changes.placeIds) {
        if (!place.with(id).step()) {
            continue;
        }
        PlaceDef p = placeRow(place);
        links.with(id);
        while (links.step()) {
            p.offers.push_back(links.integer(0));
        }
        changes.places.push_back(std::move(p));
    }
    return true;
}

}  // namespace tovrel::server
