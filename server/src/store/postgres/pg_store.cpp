#include "store/postgres/pg_store.h"

#include <algorithm>
#include <cmath>
#include <ctime>
#include <map>
#include <numeric>
#include <optional>
#include <unordered_map>

#include "common/session_keys.h"
#include "store/admin_store.h"
#include "store/device_data.h"
#include "store/link_suppression.h"
#include "store/postgres/pg_bulk_load.h"
#include "store/report.h"
#include "store/webhook_store.h"

namespace tovrel::server {

using nlohmann::json;

namespace {

json nullableInteger(const PgResult& r, int row, int col) {
    return r.isNull(row, col) ? json(nullptr) : json(r.integer(row, col));
}

}  // namespace

PgStore::PgStore(const std::string& location, const StoreOptions& options)
    : location_(location),
      options_(options),
      pool_(location, options.busyTimeoutMs, kPoolSize),
      origin_(randomKey()) {
    if (options.groupCommit) {
        group_.emplace(pool_);
    }
    try {
        PgConnection conn(location, options.busyTimeoutMs);
        migratePg(conn);
    } catch (const std::exception& e) {
        // At start every failure is final, unreachable or not: the operator must see it.
        throw std::runtime_error("cannot use database " + displayLocation(location) + ": " + e.what());
    }
}

std::optional<SessionRow> PgStore::findSession(const std::string& keyHash) {
    auto conn = pool_.acquire();
    const PgResult r = conn->exec("SELECT device, created_at FROM sessions WHERE key_hash = $1", keyHash);
    if (r.rows() == 0) {
        return std::nullopt;
    }
    return SessionRow{r.integer(0, 0), r.real(0, 1)};
}

bool PgStore::appEnabled(const std::string& appKey) {
    auto conn = pool_.acquire();
    return conn->exec("SELECT 1 FROM apps WHERE key = $1 AND NOT disabled", appKey).rows() > 0;
}

namespace {

// The device's row, the session and its webhook rows in one statement: one round trip, atomic alone.
PgStatement sessionStart(const DeviceInfo& device, const std::string& keyHash, double now) {
    const OutboxEvent event = sessionStarted(device, 0);
    return statement(
        "WITH d AS (INSERT INTO devices(device_id, device_type, device_model, app_key, first_seen, "
        "last_seen) "
        "VALUES($1, $2, $3, $4, $5, $5) ON CONFLICT(device_id) DO UPDATE SET device_type = "
        "excluded.device_type, device_model = excluded.device_model, app_key = excluded.app_key, last_seen = "
        "excluded.last_seen RETURNING id), s AS (INSERT INTO sessions(key_hash, device, app_key, created_at) "
        "SELECT CAST($6 AS text), d.id, $4, $5 FROM d), w AS (INSERT INTO webhook_messages(message_id, "
        "endpoint, type, device, data, created_at, next_attempt) SELECT CAST($7 AS text), e.id, CAST($8 AS "
        "text), d.id, CAST($9 AS text), $5, $5 FROM d CROSS JOIN webhook_endpoints e WHERE " +
            takesType("e", "CAST($10 AS text)") + ") SELECT id FROM d",
        device.deviceId, device.deviceType, device.deviceModel, device.appKey, now, keyHash, newMessageId(),
        std::string(event.type), event.data.dump(), typePattern(event.type));
}

}  // namespace

int64_t PgStore::startSession(const DeviceInfo& device, const std::string& keyHash, double now) {
    auto conn = pool_.acquire();
    const PgStatement start = sessionStart(device, keyHash, now);
    return conn->execParams(start.sql, start.params).integer(0, 0);
}

std::vector<SessionResult> PgStore::startSessions(std::span<const SessionRequest> starts, double now) {
    if (!group_ || starts.size() < 2) {
        return Store::startSessions(starts, now);
    }
    std::vector<PgStatement> statements;
    statements.reserve(starts.size());
    for (const SessionRequest& request : starts) {
        statements.push_back(sessionStart(*request.device, *request.keyHash, now));
    }
    std::vector<PgResult> rows;
    try {
        auto conn = pool_.acquire();
        if (!conn->execTogether(statementPointers(statements), &rows) && rows.size() == starts.size()) {
            group_->countCommit(starts.size());
            std::vector<SessionResult> results;
            results.reserve(rows.size());
            for (const PgResult& r : rows) {
                results.emplace_back(r.integer(0, 0));
            }
            return results;
        }
    } catch (const DatabaseBusy&) {
        // Nothing of the batch was written: each start goes again alone and is answered as it alone is.
    }
    return Store::startSessions(starts, now);
}

std::vector<LinkRow> PgStore::liveLinks(int64_t device) {
    auto conn = pool_.acquire();
    const PgResult r = conn->exec(
        "SELECT id, offer, place, campaign, suppressed FROM device_events WHERE device = $1 AND cleared_at "
        "IS "
        "NULL",
        device);
    std::vector<LinkRow> links;
    for (int i = 0; i < r.rows(); ++i) {
        links.push_back(
            LinkRow{r.integer(i, 0), r.integer(i, 1), r.integer(i, 2), r.integer(i, 3), r.boolean(i, 4)});
    }
    return links;
}

std::optional<int64_t> PgStore::liveLinkOwner(int64_t deviceEvent) {
    auto conn = pool_.acquire();
    const PgResult r =
        conn->exec("SELECT device FROM device_events WHERE id = $1 AND cleared_at IS NULL", deviceEvent);
    if (r.rows() == 0) {
        return std::nullopt;
    }
    return r.integer(0, 0);
}

PgStatement PgStore::linkStatusWrite(int64_t deviceEvent, const std::string& status, double now,
                                     std::optional<int64_t> device) const {
    const std::string_view type = statusEventType(status);
    // With a device, the check that the link is its and live is part of the write: no read before it.
    // The device is the statement's last parameter.
    const std::string insert =
        device
            ? "INSERT INTO device_event_status(device_event, status, at) SELECT $1, $2, $3 WHERE EXISTS "
              "(SELECT 1 FROM device_events WHERE id = $1 AND device = " +
                  std::string(type.empty() ? "$4" : "$7") + " AND cleared_at IS NULL) RETURNING device_event"
            : "INSERT INTO device_event_status(device_event, status, at) VALUES($1, $2, $3) "
              "RETURNING device_event";
    // The status and its event in one statement: one round trip, atomic without a transaction.
    PgStatement out =
        type.empty()
            ? statement(insert, deviceEvent, status, now)
            : statement(
                  "WITH s AS (" + insert +
                      "), m AS (INSERT INTO webhook_messages(message_id, endpoint, type, device, data, "
                      "created_at, next_attempt) SELECT $4, w.id, $5, e.device, "
                      "json_build_object('deviceEventId', e.id, 'offerId', e.offer, 'placeId', e.place, "
                      "'campaignId', e.campaign, 'status', $2::text)::text, $3, $3 FROM s JOIN "
                      "device_events e ON e.id = s.device_event CROSS JOIN webhook_endpoints w WHERE " +
                      takesType("w", "$6") + ") SELECT device_event FROM s",
                  deviceEvent, status, now, newMessageId(), std::string(type), typePattern(type));
    if (device) {
        out.params.push_back(pgParam(*device));
    }
    return out;
}

void PgStore::addLinkStatus(int64_t deviceEvent, const std::string& status, double now) {
    write(linkStatusWrite(deviceEvent, status, now, std::nullopt));
}

bool PgStore::startLinkStatus(int64_t device, int64_t deviceEvent, const std::string& status, double now,
                              WriteDone written, Launch launch) {
    if (!group_) {
        return false;
    }
    PgWrite write{linkStatusWrite(deviceEvent, status, now, device),
                  std::make_exception_ptr(NoLiveLink(deviceEvent))};
    return group_->start(std::move(write), std::move(written), std::move(launch));
}

void PgStore::clearLinks(int64_t device, double now) {
    auto conn = pool_.acquire();
    PgTransaction tx(*conn);
    const int64_t cleared =
        conn->exec("UPDATE device_events SET cleared_at = $1 WHERE device = $2 AND cleared_at IS NULL", now,
                   device)
            .changes();
    if (cleared > 0) {
        enqueueEvent(pgSource(*conn), linksCleared(device, cleared), now);
        notifyDeviceChanged(*conn, device);
    }
    tx.commit();
}

void PgStore::write(PgStatement statement) {
    if (group_) {
        group_->execute(std::move(statement));
        return;
    }
    auto conn = pool_.acquire();
    conn->execParams(statement.sql, statement.params);
}

PgStatement PgStore::tagWrite(int64_t device, const std::string& group, const std::string& tag,
                              const std::optional<std::string>& value, double now) const {
    if (!value) {
        return statement("DELETE FROM device_tags WHERE device = $1 AND group_tag = $2 AND tag = $3", device,
                         group, tag);
    }
    const OutboxEvent event = deviceTagged(device, group, tag, *value);
    // The tag and its event in one statement, as a status.
    return statement(
        "WITH t AS (INSERT INTO device_tags(device, group_tag, tag, value, updated_at) VALUES($1, $2, $3, "
        "$4, "
        "$5) ON CONFLICT(device, group_tag, tag) DO UPDATE SET value = excluded.value, updated_at = "
        "excluded.updated_at RETURNING device) INSERT INTO webhook_messages(message_id, endpoint, type, "
        "device, "
        "data, created_at, next_attempt) SELECT $6, w.id, $7, t.device, $8, $5, $5 FROM t CROSS JOIN "
        "webhook_endpoints w WHERE " +
            takesType("w", "$9"),
        device, group, tag, *value, now, newMessageId(), std::string(event.type), event.data.dump(),
        typePattern(event.type));
}

void PgStore::setTag(int64_t device, const std::string& group, const std::string& tag,
                     const std::string& value, double now) {
    write(tagWrite(device, group, tag, value, now));
}

void PgStore::deleteTag(int64_t device, const std::string& group, const std::string& tag) {
    write(tagWrite(device, group, tag, std::nullopt, 0));
}

bool PgStore::startTagWrite(int64_t device, const std::string& group, const std::string& tag,
                            const std::optional<std::string>& value, double now, WriteDone written,
                            Launch launch) {
    return group_ && group_->start(PgWrite{tagWrite(device, group, tag, value, now), nullptr},
                                   std::move(written), std::move(launch));
}

namespace {

void upsertApp(PgConnection& conn, const AppDef& app, double now) {
    conn.exec(
        "INSERT INTO apps(key, name, created_at, rules) VALUES($1, $2, $3, $4) ON CONFLICT(key) DO UPDATE "
        "SET name = excluded.name, rules = excluded.rules",
        app.key, app.name, now, rulesText(app.rules));
}

}  // namespace

namespace {

// An import's rows go through COPY into tables of the transaction's own, then into the catalogue in one
// statement each: no statement per row or batch to parse, and each index and trigger met once.
// `offer(i)` and `place(i)` give rows by value or by reference: a catalogue read as a stream makes each
// when asked, so that none is held expanded.
// Into an empty catalogue (`direct`), straight into its tables: there is nothing to replace.
template <typename OfferAt>
void copyOffers(PgConnection& conn, std::size_t count, const OfferAt& offer,
                const std::map<std::string, int64_t>& campaigns, bool direct) {
    if (count == 0) {
        return;
    }
    if (!direct) {
        conn.exec(
            "CREATE TEMP TABLE tovrel_import_offers(id bigint, campaign bigint, event_name text, "
            "alert_text text, media_type text, media_url text, tags text, dwell_time integer, "
            "event_type integer) ON COMMIT DROP");
    }
    PgCopy copy(conn, direct
                          ? "COPY offers(id, campaign, event_name, alert_text, media_type, media_url, tags, "
                            "dwell_time, event_type) FROM STDIN"
                          : "COPY tovrel_import_offers FROM STDIN");
    for (std::size_t i = 0; i < count; ++i) {
        const auto& o = offer(i);
        copy.field(o.id).field(campaigns.at(o.campaign)).field(o.eventName).field(o.alertText);
        copy.field(o.mediaType).field(o.mediaUrl).field(o.tags).field(o.dwellTime).field(o.eventType);
        copy.endRow();
    }
    copy.finish();
    if (direct) {
        return;
    }
    conn.exec(
        "INSERT INTO offers(id, campaign, event_name, alert_text, media_type, media_url, tags, dwell_time, "
        "event_type) SELECT * FROM tovrel_import_offers ON CONFLICT(id) DO UPDATE SET campaign = "
        "excluded.campaign, event_name = excluded.event_name, alert_text = excluded.alert_text, media_type = "
        "excluded.media_type, media_url = excluded.media_url, tags = excluded.tags, dwell_time = "
        "excluded.dwell_time, event_type = excluded.event_type");
}

template <typename PlaceAt>
void copyPlaces(PgConnection& conn, std::size_t count, const PlaceAt& place, bool direct) {
    if (count == 0) {
        return;
    }
    if (!direct) {
        conn.exec(
            "CREATE TEMP TABLE tovrel_import_places(id bigint, name text, lat float8, lon float8, radius "
            "float8) ON COMMIT DROP; CREATE TEMP TABLE tovrel_import_place_offers(place bigint, offer "
            "bigint) "
            "ON COMMIT DROP");
    }
    PgCopy places(conn, direct ? "COPY places(id, name, lat, lon, radius) FROM STDIN"
                               : "COPY tovrel_import_places FROM STDIN");
    for (std::size_t i = 0; i < count; ++i) {
        const auto& p = place(i);
        places.field(p.id).field(p.name).field(p.lat).field(p.lon).field(p.radius);
        places.endRow();
    }
    places.finish();
    PgCopy links(conn, direct ? "COPY place_offers(place, offer) FROM STDIN"
                              : "COPY tovrel_import_place_offers FROM STDIN");
    for (std::size_t i = 0; i < count; ++i) {
        const auto& p = place(i);
        for (const int64_t o : p.offers) {
            links.field(p.id).field(o);
            links.endRow();
        }
    }
    links.finish();
    if (direct) {
        return;
    }
    conn.exec(
        "INSERT INTO places(id, name, lat, lon, radius) SELECT * FROM tovrel_import_places "
        "ON CONFLICT(id) DO UPDATE SET name = excluded.name, lat = excluded.lat, lon = excluded.lon, "
        "radius = excluded.radius; "
        "DELETE FROM place_offers WHERE place IN (SELECT id FROM tovrel_import_places); "
        "INSERT INTO place_offers(place, offer) SELECT * FROM tovrel_import_place_offers");
}

/// Apps and campaigns (few), then offers and places through COPY, in one transaction.
template <typename OfferAt, typename PlaceAt>
ImportSummary writeRows(PgConnection& conn, const std::vector<AppDef>& apps,
                        const std::vector<CampaignDef>& campaigns, std::size_t offerCount,
                        const OfferAt& offer, std::size_t placeCount, const PlaceAt& place, double now) {
    PgTransaction tx(conn);
    for (const AppDef& app : apps) {
        upsertApp(conn, app, now);
    }
    std::map<std::string, int64_t> ids;
    for (const CampaignDef& c : campaigns) {
        const PgResult r = conn.exec(
            "INSERT INTO campaigns(name, start_date, end_date, start_time, end_time, per_device_cap, rules) "
            "VALUES($1, $2, $3, $4, $5, $6, $7) ON CONFLICT(name) DO UPDATE SET start_date = "
            "excluded.start_date, "
            "end_date = excluded.end_date, start_time = excluded.start_time, end_time = excluded.end_time, "
            "per_device_cap = excluded.per_device_cap, rules = excluded.rules WHERE (campaigns.start_date, "
            "campaigns.end_date, campaigns.start_time, campaigns.end_time, campaigns.per_device_cap, "
            "campaigns.rules) IS DISTINCT FROM (excluded.start_date, excluded.end_date, excluded.start_time, "
            "excluded.end_time, excluded.per_device_cap, excluded.rules) RETURNING id",
            c.name, c.startDate, c.endDate, c.startTime, c.endTime, c.perDeviceCap, rulesText(c.rules));
        // A campaign written as it was is left alone: replicas would otherwise read all its offers again.
        ids[c.name] = r.rows() > 0
                          ? r.integer(0, 0)
                          : conn.exec("SELECT id FROM campaigns WHERE name = $1", c.name).integer(0, 0);
    }
    std::optional<PgBulkLoad> bulk =
        placeCount >= PgBulkLoad::kMinPlaces ? PgBulkLoad::begin(conn) : std::nullopt;
    copyOffers(conn, offerCount, offer, ids, bulk.has_value());
    copyPlaces(conn, placeCount, place, bulk.has_value());
    if (bulk) {
        bulk->finish();
    }
    tx.commit();
    return ImportSummary{static_cast<int>(apps.size()), static_cast<int>(campaigns.size()),
                         static_cast<int>(placeCount), static_cast<int>(offerCount)};
}

}  // namespace

ImportSummary PgStore::writeCatalog(const CatalogData& data, double now) {
    auto conn = pool_.acquire();
    return writeRows(
        *conn, data.apps, data.campaigns, data.offers.size(),
        [&](std::size_t i) -> const OfferDef& { return data.offers[i]; }, data.places.size(),
        [&](std::size_t i) -> const PlaceDef& { return data.places[i]; }, now);
}

ImportSummary PgStore::writePlaceCatalog(const PlaceCatalog& data, double now) {
    auto conn = pool_.acquire();
    return writeRows(
        *conn, data.apps, data.campaigns, data.offerCount(), [&](std::size_t i) { return data.offer(i); },
        data.placeCount(), [&](std::size_t i) { return data.place(i); }, now);
}

void PgStore::writeApp(const AppDef& app, double now) {
    auto conn = pool_.acquire();
    upsertApp(*conn, app, now);
}

namespace {

std::vector<CampaignDef> readCampaigns(PgConnection& conn) {
    std::vector<CampaignDef> out;
    const PgResult campaigns = conn.exec(
        "SELECT id, name, start_date, end_date, start_time, end_time, per_device_cap, rules FROM campaigns "
        "WHERE NOT disabled ORDER BY id");
    for (int i = 0; i < campaigns.rows(); ++i) {
        CampaignDef c;
        c.id = campaigns.integer(i, 0);
        c.name = campaigns.text(i, 1);
        c.startDate = campaigns.text(i, 2);
        c.endDate = campaigns.text(i, 3);
        if (!campaigns.isNull(i, 4)) {
            c.startTime = campaigns.real(i, 4);
        }
        if (!campaigns.isNull(i, 5)) {
            c.endTime = campaigns.real(i, 5);
        }
        if (!campaigns.isNull(i, 6)) {
            c.perDeviceCap = campaigns.integer(i, 6);
        }
        c.rules = campaignRulesFrom(campaigns.text(i, 7));
        out.push_back(std::move(c));
    }
    return out;
}

// The enabled offers (of enabled campaigns), all of them or those of `ids` (an array literal).
std::vector<OfferDef> readOffers(PgConnection& conn, const std::optional<std::string>& ids) {
    const std::string sql =
        "SELECT o.id, c.name, o.event_name, o.alert_text, o.media_type, o.media_url, o.tags, o.dwell_time, "
        "o.event_type FROM offers o JOIN campaigns c ON c.id = o.campaign WHERE NOT o.disabled AND NOT "
        "c.disabled" +
        std::string(ids ? " AND o.id = ANY($1::bigint[])" : "") + " ORDER BY o.id";
    const PgResult offers = ids ? conn.exec(sql, *ids) : conn.exec(sql);
    std::vector<OfferDef> out;
    out.reserve(static_cast<std::size_t>(offers.rows()));
    for (int i = 0; i < offers.rows(); ++i) {
        OfferDef o;
        o.id = offers.integer(i, 0);
        o.campaign = offers.text(i, 1);
        o.eventName = offers.text(i, 2);
        o.alertText = offers.text(i, 3);
        o.mediaType = offers.text(i, 4);
        o.mediaUrl = offers.text(i, 5);
        o.tags = offers.text(i, 6);
        o.dwellTime = static_cast<int>(offers.integer(i, 7));
        o.eventType = static_cast<int>(offers.integer(i, 8));
        out.push_back(std::move(o));
    }
    return out;
}

// The enabled places with their links, all of them or those of `ids` (an array literal).
std::vector<PlaceDef> readPlaces(PgConnection& conn, const std::optional<std::string>& ids) {
    const std::string filter = ids ? " AND id = ANY($1::bigint[])" : "";
    const std::string sql =
        "SELECT id, name, lat, lon, radius FROM places WHERE NOT disabled" + filter + " ORDER BY id";
    const PgResult places = ids ? conn.exec(sql, *ids) : conn.exec(sql);
    std::vector<PlaceDef> out;
    out.reserve(static_cast<std::size_t>(places.rows()));
    std::unordered_map<int64_t, std::size_t> index;
    for (int i = 0; i < places.rows(); ++i) {
        PlaceDef p;
        p.id = places.integer(i, 0);
        p.name = places.text(i, 1);
        p.lat = places.real(i, 2);
        p.lon = places.real(i, 3);
        p.radius = places.real(i, 4);
        index[p.id] = out.size();
        out.push_back(std::move(p));
    }
    const std::string links = std::string("SELECT place, offer FROM place_offers") +
                              (ids ? " WHERE place = ANY($1::bigint[])" : "") + " ORDER BY place, offer";
    const PgResult placeOffers = ids ? conn.exec(links, *ids) : conn.exec(links);
    for (int i = 0; i < placeOffers.rows(); ++i) {
        if (const auto it = index.find(placeOffers.integer(i, 0)); it != index.end()) {
            out[it->second].offers.push_back(placeOffers.integer(i, 1));
        }
    }
    return out;
}

std::uint64_t catalogVersion(PgConnection& conn) {
    return static_cast<std::uint64_t>(conn.exec("SELECT version FROM tovrel_catalog_state").integer(0, 0));
}

std::vector<int64_t> ids(const PgResult& result) {
    std::vector<int64_t> out;
    out.reserve(static_cast<std::size_t>(result.rows()));
    for (int i = 0; i < result.rows(); ++i) {
        out.push_back(result.integer(i, 0));
    }
    return out;
}

}  // namespace

CatalogData PgStore::readCatalog() {
    auto conn = pool_.acquire();
    PgTransaction snapshot(*conn, "BEGIN ISOLATION LEVEL REPEATABLE READ READ ONLY");
    CatalogData data;
    data.version = catalogVersion(*conn);
    data.campaigns = readCampaigns(*conn);
    data.offers = readOffers(*conn, std::nullopt);
    data.places = readPlaces(*conn, std::nullopt);
    snapshot.commit();
    return data;
}

std::optional<CatalogChanges> PgStore::readCatalogChanges(std::uint64_t since, std::size_t limit) {
    auto conn = pool_.acquire();
    PgTransaction snapshot(*conn, "BEGIN ISOLATION LEVEL REPEATABLE READ READ ONLY");
    CatalogChanges changes;
    changes.version = catalogVersion(*conn);
    if (changes.version == since) {
        return changes;
    }
    if (changes.version < since) {
        return std::nullopt;
    }
    // Every version the triggers made starts with its 'version' row; one missing was pruned, or bumped
    // by hand after changes the triggers did not see.
    const PgResult summary = conn->exec(
        "SELECT count(*) FILTER (WHERE kind = 'version'), count(*) FILTER (WHERE kind NOT IN ('version', "
        "'place', 'offer', 'campaign')), count(DISTINCT (kind, id)) FROM tovrel_catalog_changes WHERE "
        "version > $1 AND version <= $2",
        static_cast<int64_t>(since), static_cast<int64_t>(changes.version));
    if (static_cast<std::uint64_t>(summary.integer(0, 0)) != changes.version - since ||
        summary.integer(0, 1) != 0 || static_cast<std::size_t>(summary.integer(0, 2)) > limit) {
        return std::nullopt;
    }
    const auto changed = [&](const char* kind) {
        return ids(conn->exec(
            "SELECT DISTINCT id FROM tovrel_catalog_changes WHERE version > $1 AND version <= $2 AND kind = "
            "$3 ORDER BY id",
            static_cast<int64_t>(since), static_cast<int64_t>(changes.version), std::string(kind)));
    };
    const std::vector<int64_t> campaigns = changed("campaign");
    changes.offerIds = changed("offer");
    changes.placeIds = changed("place");
    if (!campaigns.empty()) {
        changes.campaigns = readCampaigns(*conn);
        const std::vector<int64_t> theirs = ids(
            conn->exec("SELECT id FROM offers WHERE campaign = ANY($1::bigint[])", numberArray(campaigns)));
        if (changes.offerIds.size() + theirs.size() > limit) {
            return std::nullopt;
        }
        changes.offerIds.insert(changes.offerIds.end(), theirs.begin(), theirs.end());
        std::sort(changes.offerIds.begin(), changes.offerIds.end());
        changes.offerIds.erase(std::unique(changes.offerIds.begin(), changes.offerIds.end()),
                               changes.offerIds.end());
    }
    if (!changes.offerIds.empty()) {
        changes.offers = readOffers(*conn, numberArray(changes.offerIds));
    }
    if (!changes.placeIds.empty()) {
        changes.places = readPlaces(*conn, numberArray(changes.placeIds));
    }
    snapshot.commit();
    return changes;
}

Funnel PgStore::funnel(bool byDay) {
    auto conn = pool_.acquire();
    PgTransaction snapshot(*conn, "BEGIN ISOLATION LEVEL REPEATABLE READ READ ONLY");
    Funnel funnel = readFunnel(pgSource(*conn), byDay);
    snapshot.commit();
    return funnel;
}

Report PgStore::report() {
    auto conn = pool_.acquire();
    PgTransaction snapshot(*conn, "BEGIN ISOLATION LEVEL REPEATABLE READ READ ONLY");
    Report report;
    for (const FunnelRow& o : readFunnel(pgSource(*conn), false).offers) {
        report.offers.push_back(OfferReport{o.eventId, o.eventName, o.campaignName, o.counts.links,
                                            o.counts.ack, o.counts.seen, o.counts.saved, o.counts.declined});
    }
    snapshot.commit();
    return report;
}

std::optional<int64_t> PgStore::findDevice(PgConnection& conn, const std::string& deviceId) {
    const PgResult row = conn.exec("SELECT id FROM devices WHERE device_id = $1", deviceId);
    return row.rows() > 0 ? std::optional<int64_t>(row.integer(0, 0)) : std::nullopt;
}

std::optional<int64_t> PgStore::findDevice(const std::string& deviceId) {
    auto conn = pool_.acquire();
    return findDevice(*conn, deviceId);
}

std::optional<DeviceDayRows> PgStore::deviceDay(const std::string& deviceId, double from, double to) {
    auto conn = pool_.acquire();
    PgTransaction snapshot(*conn, "BEGIN ISOLATION LEVEL REPEATABLE READ READ ONLY");
    const std::optional<int64_t> device = findDevice(*conn, deviceId);
    std::optional<DeviceDayRows> day =
        device ? std::optional(readDeviceDay(pgSource(*conn), *device, from, to)) : std::nullopt;
    snapshot.commit();
    return day;
}

void PgStore::setControlGroupKey(const std::string& key) {
    auto conn = pool_.acquire();
    conn->exec("UPDATE settings SET value = $1 WHERE name = 'control_group_key'", key);
}

std::optional<HeldBackLink> PgStore::heldBack(int64_t deviceEvent) {
    auto conn = pool_.acquire();
    PgTransaction snapshot(*conn, "BEGIN ISOLATION LEVEL REPEATABLE READ READ ONLY");
    std::optional<HeldBackLink> held = readHeldBack(pgSource(*conn), deviceEvent);
    snapshot.commit();
    return held;
}

std::optional<nlohmann::json> PgStore::deviceRecord(const std::string& deviceId) {
    auto conn = pool_.acquire();
    PgTransaction snapshot(*conn, "BEGIN ISOLATION LEVEL REPEATABLE READ READ ONLY");
    const std::optional<int64_t> device = findDevice(*conn, deviceId);
    std::optional<nlohmann::json> record = device ? readDeviceRecord(pgSource(*conn), *device) : std::nullopt;
    snapshot.commit();
    return record;
}

std::optional<ErasedDevice> PgStore::eraseDevice(const std::string& deviceId) {
    auto conn = pool_.acquire();
    PgTransaction tx(*conn);
    const std::optional<int64_t> device = findDevice(*conn, deviceId);
    if (!device) {
        return std::nullopt;
    }
    // Taken first, as a link takes it: a link racing the erasure waits, then finds no device.
    conn->exec("SELECT 1 FROM devices WHERE id = $1 FOR UPDATE", *device);
    const ErasedDevice erased = eraseDeviceRows(pgSource(*conn), *device);
    notifyDeviceChanged(*conn, *device);
    tx.commit();
    return erased;
}

int64_t PgStore::pruneBatch(Retained kind, double before, int limit) {
    auto conn = pool_.acquire();
    PgTransaction tx(*conn);
    const int64_t removed = pruneRows(pgSource(*conn), kind, before, limit);
    tx.commit();
    return removed;
}

std::optional<double> PgStore::oldestRow(Retained kind) {
    auto conn = pool_.acquire();
    return oldestRowTime(pgSource(*conn), kind);
}

bool PgStore::deviceExists(int64_t device) {
    auto conn = pool_.acquire();
    return conn->exec("SELECT 1 FROM devices WHERE id = $1", device).rows() > 0;
}

std::unique_ptr<ChangeFeed> PgStore::watchChanges(ChangeListener& listener) {
    return std::make_unique<PgChangeFeed>(location_, options_, origin_, listener);
}

bool PgStore::reachable() {
    return pool_.reachable();
}

json PgStore::listApps() {
    auto conn = pool_.acquire();
    const PgResult r =
        conn->exec("SELECT key, name, created_at, disabled, rules FROM apps ORDER BY key COLLATE \"C\"");
    json apps = json::array();
    for (int i = 0; i < r.rows(); ++i) {
        json app{{"key", r.text(i, 0)},
                 {"name", r.text(i, 1)},
                 {"createdAt", r.real(i, 2)},
                 {"disabled", r.boolean(i, 3)}};
        addStoredRules(app, r.text(i, 4));
        apps.push_back(std::move(app));
    }
    return apps;
}

std::string PgStore::addApp(std::string key, const std::string& name, double now, bool* added) {
    if (key.empty()) {
        key = randomKey();
    }
    auto conn = pool_.acquire();
    // xmax is 0 for a row this statement inserted, not for one it updated.
    const PgResult r = conn->exec(
        "INSERT INTO apps(key, name, created_at) VALUES($1, $2, $3) ON CONFLICT(key) DO UPDATE SET name = "
        "excluded.name RETURNING xmax = 0",
        key, name, now);
    if (added != nullptr) {
        *added = r.boolean(0, 0);
    }
    return key;
}

std::optional<std::string> PgStore::rotateApp(const std::string& key) {
    const std::string fresh = randomKey();
    auto conn = pool_.acquire();
    if (conn->exec("UPDATE apps SET key = $1 WHERE key = $2", fresh, key).changes() == 0) {
        return std::nullopt;
    }
    return fresh;
}

bool PgStore::removeApp(const std::string& key) {
    auto conn = pool_.acquire();
    return conn->exec("DELETE FROM apps WHERE key = $1", key).changes() > 0;
}

bool PgStore::setAppDisabled(const std::string& key, bool disabled) {
    auto conn = pool_.acquire();
    return conn->exec("UPDATE apps SET disabled = $1 WHERE key = $2", disabled, key).changes() > 0;
}

json PgStore::listCampaigns() {
    auto conn = pool_.acquire();
    const PgResult r = conn->exec(
        "SELECT c.id, c.name, c.start_date, c.end_date, c.per_device_cap, c.disabled, "
        "(SELECT count(*) FROM offers o WHERE o.campaign = c.id), c.rules FROM campaigns c ORDER BY c.id");
    json campaigns = json::array();
    for (int i = 0; i < r.rows(); ++i) {
        json c{{"id", r.integer(i, 0)},
               {"name", r.text(i, 1)},
               {"startDate", r.text(i, 2)},
               {"endDate", r.text(i, 3)},
               {"perDeviceCap", nullableInteger(r, i, 4)},
               {"disabled", r.boolean(i, 5)},
               {"offers", r.integer(i, 6)}};
        addStoredRules(c, r.text(i, 7));
        campaigns.push_back(std::move(c));
    }
    return campaigns;
}

std::optional<int64_t> PgStore::findCampaign(const std::string& nameOrId) {
    auto conn = pool_.acquire();
    const PgResult byName = conn->exec("SELECT id FROM campaigns WHERE name = $1", nameOrId);
    if (byName.rows() > 0) {
        return byName.integer(0, 0);
    }
    if (nameOrId.empty() || nameOrId.size() > 18 ||
        nameOrId.find_first_not_of("0123456789") != std::string::npos) {
        return std::nullopt;
    }
    const PgResult byId = conn->exec("SELECT id FROM campaigns WHERE id = $1", nameOrId);
    if (byId.rows() > 0) {
        return byId.integer(0, 0);
    }
    return std::nullopt;
}

bool PgStore::setCampaignDisabled(int64_t id, bool disabled) {
    auto conn = pool_.acquire();
    return conn->exec("UPDATE campaigns SET disabled = $1 WHERE id = $2", disabled, id).changes() > 0;
}

bool PgStore::removeCampaign(int64_t id) {
    auto conn = pool_.acquire();
    if (conn->exec("SELECT 1 FROM offers WHERE campaign = $1 LIMIT 1", id).rows() > 0) {
        throw admin_store::Conflict("campaign " + std::to_string(id) +
                                    " still has offers: remove them or disable the campaign");
    }
    try {
        return conn->exec("DELETE FROM campaigns WHERE id = $1", id).changes() > 0;
    } catch (const PgError& e) {
        // An offer of it was added by another replica in between.
        if (e.sqlState() == "23503") {
            throw admin_store::Conflict("campaign " + std::to_string(id) +
                                        " still has offers: remove them or disable the campaign");
        }
        throw;
    }
}

json PgStore::listOffers() {
    auto conn = pool_.acquire();
    const PgResult r = conn->exec(
        "SELECT o.id, c.name, o.event_name, o.media_type, o.media_url, o.dwell_time, o.event_type, "
        "o.disabled, coalesce(n.places, 0), o.alert_text, o.tags FROM offers o JOIN campaigns c ON c.id = "
        "o.campaign LEFT JOIN (SELECT offer, count(*) AS places FROM place_offers GROUP BY offer) n ON "
        "n.offer = o.id ORDER BY o.id");
    json offers = json::array();
    for (int i = 0; i < r.rows(); ++i) {
        offers.push_back({{"eventId", r.integer(i, 0)},
                          {"campaign", r.text(i, 1)},
                          {"eventName", r.text(i, 2)},
                          {"mediaType", r.text(i, 3)},
                          {"mediaUrl", r.text(i, 4)},
                          {"dwellTime", r.integer(i, 5)},
                          {"eventTypeId", r.integer(i, 6)},
                          {"disabled", r.boolean(i, 7)},
                          {"places", r.integer(i, 8)},
                          {"alertText", r.text(i, 9)},
                          {"tags", r.text(i, 10)}});
    }
    return offers;
}

bool PgStore::setOfferDisabled(int64_t id, bool disabled) {
    auto conn = pool_.acquire();
    return conn->exec("UPDATE offers SET disabled = $1 WHERE id = $2", disabled, id).changes() > 0;
}

bool PgStore::removeOffer(int64_t id) {
    auto conn = pool_.acquire();
    PgTransaction tx(*conn);
    conn->exec("DELETE FROM place_offers WHERE offer = $1", id);
    const bool removed = conn->exec("DELETE FROM offers WHERE id = $1", id).changes() > 0;
    tx.commit();
    return removed;
}

json PgStore::listPlaces(int64_t after, int limit, const std::optional<PlaceArea>& area) {
    const PlaceArea box = area.value_or(PlaceArea{});
    auto conn = pool_.acquire();
    const PgResult r = conn->exec(
        "SELECT p.id, p.name, p.lat, p.lon, p.radius, p.disabled, (SELECT coalesce(string_agg(o.offer::text, "
        "',' "
        "ORDER BY o.offer), '') FROM place_offers o WHERE o.place = p.id) FROM places p WHERE p.id > $1 "
        "AND p.lat BETWEEN $3::float8 AND $4::float8 AND (CASE WHEN $5::float8 <= $6::float8 THEN p.lon "
        "BETWEEN "
        "$5::float8 AND $6::float8 ELSE p.lon >= $5::float8 OR p.lon <= $6::float8 END) ORDER BY p.id LIMIT "
        "$2",
        after, limit, box.south, box.north, box.west, box.east);
    json places = json::array();
    for (int i = 0; i < r.rows(); ++i) {
        json ids = json::array();
        const std::string list = r.text(i, 6);
        for (std::size_t from = 0; from < list.size();) {
            const std::size_t comma = std::min(list.find(',', from), list.size());
            ids.push_back(std::stoll(list.substr(from, comma - from)));
            from = comma + 1;
        }
        places.push_back({{"placeId", r.integer(i, 0)},
                          {"name", r.text(i, 1)},
                          {"lat", r.real(i, 2)},
                          {"lon", r.real(i, 3)},
                          {"radius", r.real(i, 4)},
                          {"offers", std::move(ids)},
                          {"disabled", r.boolean(i, 5)}});
    }
    return places;
}

bool PgStore::setPlaceDisabled(int64_t id, bool disabled) {
    auto conn = pool_.acquire();
    return conn->exec("UPDATE places SET disabled = $1 WHERE id = $2", disabled, id).changes() > 0;
}

bool PgStore::removePlace(int64_t id) {
    auto conn = pool_.acquire();
    PgTransaction tx(*conn);
    conn->exec("DELETE FROM place_offers WHERE place = $1", id);
    const bool removed = conn->exec("DELETE FROM places WHERE id = $1", id).changes() > 0;
    tx.commit();
    return removed;
}

json PgStore::campaignDefinitions() {
    auto conn = pool_.acquire();
    const PgResult r =
        conn->exec("SELECT name, start_date, end_date, per_device_cap, rules FROM campaigns ORDER BY id");
    json campaigns = json::array();
    for (int i = 0; i < r.rows(); ++i) {
        json c{{"name", r.text(i, 0)}};
        if (!r.text(i, 1).empty()) {
            c["startDate"] = r.text(i, 1);
        }
        if (!r.text(i, 2).empty()) {
            c["endDate"] = r.text(i, 2);
        }
        if (!r.isNull(i, 3)) {
            c["perDeviceCap"] = r.integer(i, 3);
        }
        addStoredRules(c, r.text(i, 4));
        campaigns.push_back(std::move(c));
    }
    return campaigns;
}

void PgStore::transact(const std::function<void(const SqlSource&)>& work) {
    auto conn = pool_.acquire();
    PgTransaction tx(*conn);
    work(pgSource(*conn));
    tx.commit();
}

}  // namespace tovrel::server
