#include "store/admin_store.h"

#include <stdexcept>

#include "common/session_keys.h"
#include "store/sqlite/database.h"

namespace tovrel::server::admin_store {

using nlohmann::json;

namespace {

json nullable(const Statement& st, int col) {
    return st.isNull(col) ? json(nullptr) : json(st.integer(col));
}

bool changedRows(Database& db, const char* sql, int64_t id, std::optional<int> flag) {
    Statement st = db.prepare(sql);
    if (flag) {
        st.with(*flag, id).run();
    } else {
        st.with(id).run();
    }
    return db.changes() > 0;
}

}  // namespace

json listApps(Database& db) {
    json apps = json::array();
    Statement st = db.prepare("SELECT key, name, created_at, disabled, rules FROM apps ORDER BY key");
    while (st.step()) {
        json app{{"key", st.text(0)},
                 {"name", st.text(1)},
                 {"createdAt", st.real(2)},
                 {"disabled", st.integer(3) != 0}};
        addStoredRules(app, st.text(4));
        apps.push_back(std::move(app));
    }
    return apps;
}

std::string addApp(Database& db, std::string key, const std::string& name, double now, bool* added) {
    if (key.empty()) {
        key = randomKey();
    }
    const bool existed = db.prepare("SELECT 1 FROM apps WHERE key = ?").with(key).step();
    db.prepare(
          "INSERT INTO apps(key, name, created_at) VALUES(?, ?, ?) ON CONFLICT(key) DO UPDATE SET name = "
          "excluded.name")
        .with(key, name, now)
        .run();
    if (added != nullptr) {
        *added = !existed;
    }
    return key;
}

std::optional<std::string> rotateApp(Database& db, const std::string& key) {
    const std::string fresh = randomKey();
    db.prepare("UPDATE apps SET key = ? WHERE key = ?").with(fresh, key).run();
    if (db.changes() == 0) {
        return std::nullopt;
    }
    return fresh;
}

bool removeApp(Database& db, const std::string& key) {
    db.prepare("DELETE FROM apps WHERE key = ?").with(key).run();
    return db.changes() > 0;
}

bool setAppDisabled(Database& db, const std::string& key, bool disabled) {
    db.prepare("UPDATE apps SET disabled = ? WHERE key = ?").with(disabled ? 1 : 0, key).run();
    return db.changes() > 0;
}

json listCampaigns(Database& db) {
    json campaigns = json::array();
    Statement st = db.prepare(
        "SELECT c.id, c.name, c.start_date, c.end_date, c.per_device_cap, c.disabled, "
        "(SELECT count(*) FROM offers o WHERE o.campaign = c.id), c.rules FROM campaigns c ORDER BY c.id");
    while (st.step()) {
        json c{{"id", st.integer(0)},
               {"name", st.text(1)},
               {"startDate", st.text(2)},
               {"endDate", st.text(3)},
               {"perDeviceCap", nullable(st, 4)},
               {"disabled", st.integer(5) != 0},
               {"offers", st.integer(6)}};
        addStoredRules(c, st.text(7));
        campaigns.push_back(std::move(c));
    }
    return campaigns;
}

std::optional<int64_t> findCampaign(Database& db, const std::string& nameOrId) {
    Statement byName = db.prepare("SELECT id FROM campaigns WHERE name = ?");
    if (byName.with(nameOrId).step()) {
        return byName.integer(0);
    }
    if (nameOrId.empty() || nameOrId.size() > 18 ||
        nameOrId.find_first_not_of("0123456789") != std::string::npos) {
        return std::nullopt;
    }
    Statement byId = db.prepare("SELECT id FROM campaigns WHERE id = ?");
    if (byId.with(static_cast<int64_t>(std::stoll(nameOrId))).step()) {
        return byId.integer(0);
    }
    return std::nullopt;
}

bool setCampaignDisabled(Database& db, int64_t id, bool disabled) {
    return changedRows(db, "UPDATE campaigns SET disabled = ? WHERE id = ?", id, disabled ? 1 : 0);
}

bool removeCampaign(Database& db, int64_t id) {
    if (db.prepare("SELECT 1 FROM offers WHERE campaign = ?").with(id).step()) {
        throw Conflict("campaign " + std::to_string(id) +
                       " still has offers: remove them or disable the campaign");
    }
    return changedRows(db, "DELETE FROM campaigns WHERE id = ?", id, std::nullopt);
}

json listOffers(Database& db) {
    json offers = json::array();
    Statement st = db.prepare(
        "SELECT o.id, c.name, o.event_name, o.media_type, o.media_url, o.dwell_time, o.event_type, "
        "o.disabled, coalesce(n.places, 0), o.alert_text, o.tags FROM offers o JOIN campaigns c ON c.id = "
        "o.campaign LEFT JOIN (SELECT offer, count(*) AS places FROM place_offers GROUP BY offer) n ON "
        "n.offer = o.id ORDER BY o.id");
    while (st.step()) {
        offers.push_back({{"eventId", st.integer(0)},
                          {"campaign", st.text(1)},
                          {"eventName", st.text(2)},
                          {"mediaType", st.text(3)},
                          {"mediaUrl", st.text(4)},
                          {"dwellTime", st.integer(5)},
                          {"eventTypeId", st.integer(6)},
                          {"disabled", st.integer(7) != 0},
                          {"places", st.integer(8)},
                          {"alertText", st.text(9)},
                          {"tags", st.text(10)}});
    }
    return offers;
}

bool setOfferDisabled(Database& db, int64_t id, bool disabled) {
    return changedRows(db, "UPDATE offers SET disabled = ? WHERE id = ?", id, disabled ? 1 : 0);
}

bool removeOffer(Database& db, int64_t id) {
    Transaction tx(db);
    db.prepare("DELETE FROM place_offers WHERE offer = ?").with(id).run();
    const bool removed = changedRows(db, "DELETE FROM offers WHERE id = ?", id, std::nullopt);
    tx.commit();
    return removed;
}

json listPlaces(Database& db, int64_t after, int limit, const std::optional<PlaceArea>& area) {
    json places = json::array();
    const PlaceArea box = area.value_or(PlaceArea{});
    Statement st = db.prepare(
        "SELECT id, name, lat, lon, radius, disabled FROM places WHERE id > ? AND lat BETWEEN ? AND ? AND "
        "(CASE WHEN ? <= ? THEN lon BETWEEN ? AND ? ELSE lon >= ? OR lon <= ? END) ORDER BY id LIMIT ?");
    Statement offers = db.prepare("SELECT offer FROM place_offers WHERE place = ? ORDER BY offer");
    st.with(after, box.south, box.north, box.west, box.east, box.west, box.east, box.west, box.east, limit);
    while (st.step()) {
        json ids = json::array();
        offers.with(st.integer(0));
        while (offers.step()) {
            ids.push_back(offers.integer(0));
        }
        places.push_back({{"placeId", st.integer(0)},
                          {"name", st.text(1)},
                          {"lat", st.real(2)},
                          {"lon", st.real(3)},
                          {"radius", st.real(4)},
                          {"offers", std::move(ids)},
                          {"disabled", st.integer(5) != 0}});
    }
    return places;
}

bool setPlaceDisabled(Database& db, int64_t id, bool disabled) {
    return changedRows(db, "UPDATE places SET disabled = ? WHERE id = ?", id, disabled ? 1 : 0);
}

bool removePlace(Database& db, int64_t id) {
    Transaction tx(db);
    db.prepare("DELETE FROM place_offers WHERE place = ?").with(id).run();
    const bool removed = changedRows(db, "DELETE FROM places WHERE id = ?", id, std::nullopt);
    tx.commit();
    return removed;
}

json campaignDefinitions(Database& db) {
    json campaigns = json::array();
    Statement st =
        db.prepare("SELECT name, start_date, end_date, per_device_cap, rules FROM campaigns ORDER BY id");
    while (st.step()) {
        json c{{"name", st.text(0)}};
        if (!st.text(1).empty()) {
            c["startDate"] = st.text(1);
        }
        if (!st.text(2).empty()) {
            c["endDate"] = st.text(2);
        }
        if (!st.isNull(3)) {
            c["perDeviceCap"] = st.integer(3);
        }
        addStoredRules(c, st.text(4));
        campaigns.push_back(std::move(c));
    }
    return campaigns;
}

}  // namespace tovrel::server::admin_store
