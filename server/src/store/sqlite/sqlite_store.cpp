#include "store/sqlite/sqlite_store.h"

#include <algorithm>
#include <set>

#include "store/admin_store.h"
#include "store/device_data.h"
#include "store/link_suppression.h"
#include "store/report.h"
#include "store/webhook_store.h"

namespace tovrel::server {

using tovrel::platform::Lock;

SqliteStore::SqliteStore(const std::string& path, const StoreOptions& options)
    : path_(path), options_(options), db_(path, options.busyTimeoutMs) {}

std::optional<SessionRow> SqliteStore::findSession(const std::string& keyHash) {
    Statement st = db_.prepare("SELECT device, created_at FROM sessions WHERE key_hash = ?");
    if (!st.with(keyHash).step()) {
        return std::nullopt;
    }
    return SessionRow{st.integer(0), st.real(1)};
}

bool SqliteStore::appEnabled(const std::string& appKey) {
    return db_.prepare("SELECT 1 FROM apps WHERE key = ? AND disabled = 0").with(appKey).step();
}

int64_t SqliteStore::startSession(const DeviceInfo& device, const std::string& keyHash, double now) {
    Transaction tx(db_);
    Statement upsert = db_.prepare(
        "INSERT INTO devices(device_id, device_type, device_model, app_key, first_seen, last_seen) "
        "VALUES(?, ?, ?, ?, ?, ?) ON CONFLICT(device_id) DO UPDATE SET device_type = excluded.device_type, "
        "device_model = excluded.device_model, app_key = excluded.app_key, last_seen = excluded.last_seen "
        "RETURNING id");
    upsert.with(device.deviceId, device.deviceType, device.deviceModel, device.appKey, now, now).step();
    const int64_t deviceRow = upsert.integer(0);
    upsert.run();
    db_.prepare("INSERT INTO sessions(key_hash, device, app_key, created_at) VALUES(?, ?, ?, ?)")
        .with(keyHash, deviceRow, device.appKey, now)
        .run();
    queueEvent(
        kSessionStartedType, [&] { return sessionStarted(device, deviceRow); }, now);
    tx.commit();
    return deviceRow;
}

std::vector<LinkRow> SqliteStore::liveLinks(int64_t device) {
    std::vector<LinkRow> links;
    Statement st = db_.prepare(
        "SELECT id, offer, place, campaign, suppressed FROM device_events WHERE device = ? AND cleared_at IS "
        "NULL");
    st.with(device);
    while (st.step()) {
        links.push_back(
            LinkRow{st.integer(0), st.integer(1), st.integer(2), st.integer(3), st.integer(4) != 0});
    }
    return links;
}

LinkRow SqliteStore::addLink(int64_t device, const NewLink& link, double now) {
    // Counted and inserted in one write transaction: nothing links between the counts and the insert.
    Transaction tx(db_);
    Statement live = db_.prepare(
        "SELECT id, suppressed, suppressed_by FROM device_events WHERE device = ? AND offer = ? AND place = "
        "? "
        "AND cleared_at IS NULL");
    if (live.with(device, link.offer, link.place).step()) {
        return LinkRow{live.integer(0), link.offer,           link.place,
                       link.campaign,   live.integer(1) != 0, suppressionFrom(live.text(2))};
    }
    const LinkVerdict verdict = linkSuppression(sqliteSource(db_), device, link, now);
    const Suppression reason = verdict.reason;
    const bool suppressed = reason != Suppression::none;
    db_.prepare(
           "INSERT INTO device_events(device, offer, place, campaign, suppressed, suppressed_by, "
           "control_group, "
           "created_at) VALUES(?, ?, ?, ?, ?, ?, ?, ?)")
        .with(device, link.offer, link.place, link.campaign, suppressed ? 1 : 0,
              std::string(suppressionName(reason)), verdict.control ? 1 : 0, now)
        .run();
    const int64_t id = db_.lastInsertId();
    const LinkRow row{id, link.offer, link.place, link.campaign, suppressed, reason};
    queueEvent(
        kVisitLinkedType, [&] { return visitLinked(device, row, link.campaignName); }, now);
    tx.commit();
    return row;
}

std::optional<int64_t> SqliteStore::liveLinkOwner(int64_t deviceEvent) {
    Statement st = db_.prepare("SELECT device FROM device_events WHERE id = ? AND cleared_at IS NULL");
    if (!st.with(deviceEvent).step()) {
        return std::nullopt;
    }
    return st.integer(0);
}

void SqliteStore::addLinkStatus(int64_t deviceEvent, const std::string& status, double now) {
    Transaction tx(db_);
    db_.prepare("INSERT INTO device_event_status(device_event, status, at) VALUES(?, ?, ?)")
        .with(deviceEvent, status, now)
        .run();
    enqueueStatusEvent(sqliteSource(db_), deviceEvent, status, now);
    tx.commit();
}

void SqliteStore::clearLinks(int64_t device, double now) {
    Transaction tx(db_);
    db_.prepare("UPDATE device_events SET cleared_at = ? WHERE device = ? AND cleared_at IS NULL")
        .with(now, device)
        .run();
    if (const int64_t cleared = db_.changes(); cleared > 0) {
        queueEvent(
            kLinksClearedType, [&] { return linksCleared(device, cleared); }, now);
    }
    tx.commit();
}

void SqliteStore::setTag(int64_t device, const std::string& group, const std::string& tag,
                         const std::string& value, double now) {
    Transaction tx(db_);
    db_.prepare(
           "INSERT INTO device_tags(device, group_tag, tag, value, updated_at) VALUES(?, ?, ?, ?, ?) "
           "ON CONFLICT(device, group_tag, tag) DO UPDATE SET value = excluded.value, updated_at = "
           "excluded.updated_at")
        .with(device, group, tag, value, now)
        .run();
    queueEvent(
        kDeviceTaggedType, [&] { return deviceTagged(device, group, tag, value); }, now);
    tx.commit();
}

void SqliteStore::deleteTag(int64_t device, const std::string& group, const std::string& tag) {
    db_.prepare("DELETE FROM device_tags WHERE device = ? AND group_tag = ? AND tag = ?")
        .with(device, group, tag)
        .run();
}

void SqliteStore::recordChanges(std::vector<std::pair<Kind, int64_t>> changes) {
    if (changes.size() > kMaxRecorded) {
        changes = {{Kind::all, 0}};
    }
    Lock lock(changesMutex_);
    const std::uint64_t version = ++version_;
    for (const auto& [kind, id] : changes) {
        changes_.push_back(Change{version, kind, id});
    }
    while (!changes_.empty() && changes_.front().version + kVersionsKept <= version) {
        forgotten_ = changes_.front().version;
        changes_.pop_front();
    }
}

template <typename Write>
ImportSummary SqliteStore::writeRecorded(const std::vector<CampaignDef>& campaigns, std::size_t offerCount,
                                         std::size_t placeCount, Write write) {
    if (campaigns.size() + offerCount + placeCount > kMaxRecorded) {
        const ImportSummary summary = write(nullptr);
        recordChanges({{Kind::all, 0}});
        return summary;
    }
    // Campaigns written as they are stored change nothing; the others' offers are all read again.
    std::vector<std::string> changed;
    Statement stored = db_.prepare(
        "SELECT start_date, end_date, start_time, end_time, per_device_cap, rules FROM campaigns WHERE name "
        "= "
        "?");
    for (const CampaignDef& c : campaigns) {
        CampaignDef was = c;
        bool same = false;
        if (stored.with(c.name).step()) {
            was.startDate = stored.text(0);
            was.endDate = stored.text(1);
            was.startTime = stored.isNull(2) ? std::nullopt : std::optional<double>(stored.real(2));
            was.endTime = stored.isNull(3) ? std::nullopt : std::optional<double>(stored.real(3));
            was.perDeviceCap = stored.isNull(4) ? std::nullopt : std::optional<int64_t>(stored.integer(4));
            was.rules = campaignRulesFrom(stored.text(5));
            same = was == c;
        }
        if (!same) {
            changed.push_back(c.name);
        }
    }
    std::vector<std::pair<Kind, int64_t>> changes;
    const ImportSummary summary = write(&changes);
    Statement id = db_.prepare("SELECT id FROM campaigns WHERE name = ?");
    for (const std::string& name : changed) {
        if (id.with(name).step()) {
            changes.emplace_back(Kind::campaign, id.integer(0));
        }
    }
    recordChanges(std::move(changes));
    return summary;
}

ImportSummary SqliteStore::writeCatalog(const CatalogData& data, double now) {
    return writeRecorded(data.campaigns, data.offers.size(), data.places.size(),
                         [&](std::vector<std::pair<Kind, int64_t>>* changes) {
                             for (std::size_t i = 0; changes != nullptr && i < data.offers.size(); ++i) {
                                 changes->emplace_back(Kind::offer, data.offers[i].id);
                             }
                             for (std::size_t i = 0; changes != nullptr && i < data.places.size(); ++i) {
                                 changes->emplace_back(Kind::place, data.places[i].id);
                             }
                             return tovrel::server::writeCatalog(db_, data, now);
                         });
}

ImportSummary SqliteStore::writePlaceCatalog(const PlaceCatalog& data, double now) {
    return writeRecorded(data.campaigns, data.offerCount(), data.placeCount(),
                         [&](std::vector<std::pair<Kind, int64_t>>* changes) {
                             for (std::size_t i = 0; changes != nullptr && i < data.offerCount(); ++i) {
                                 changes->emplace_back(Kind::offer, data.offer(i).id);
                             }
                             for (std::size_t i = 0; changes != nullptr && i < data.placeCount(); ++i) {
                                 changes->emplace_back(Kind::place, data.place(i).id);
                             }
                             return tovrel::server::writeCatalog(db_, data, now);
                         });
}

void SqliteStore::writeApp(const AppDef& app, double now) {
    tovrel::server::writeApp(db_, app, now);
}

bool SqliteStore::concurrentCatalogReads() const {
    // A private in-memory database has no second connection to read from.
    return !inMemory();
}

CatalogData SqliteStore::readCatalog() {
    // The version first: a write committed after it is read again with the changes of its own version.
    std::uint64_t version = 0;
    {
        Lock lock(changesMutex_);
        version = version_;
    }
    CatalogData data;
    if (inMemory()) {
        data = tovrel::server::readCatalog(db_);
    } else {
        Database reader(path_, options_.busyTimeoutMs);
        Transaction snapshot(reader, Transaction::Kind::read);
        data = tovrel::server::readCatalog(reader);
    }
    data.version = version;
    return data;
}

std::optional<CatalogChanges> SqliteStore::readCatalogChanges(std::uint64_t since, std::size_t limit) {
    CatalogChanges changes;
    std::vector<int64_t> campaigns;
    {
        Lock lock(changesMutex_);
        changes.version = version_;
        if (since == version_) {
            return changes;
        }
        if (since < forgotten_ || since > version_) {
            return std::nullopt;
        }
        std::set<int64_t> campaignIds, offerIds, placeIds;
        for (const Change& change : changes_) {
            if (change.version <= since) {
                continue;
            }
            switch (change.kind) {
                case Kind::campaign:
                    campaignIds.insert(change.id);
                    break;
                case Kind::offer:
                    offerIds.insert(change.id);
                    break;
                case Kind::place:
                    placeIds.insert(change.id);
                    break;
                case Kind::all:
                    return std::nullopt;
            }
        }
        if (campaignIds.size() + offerIds.size() + placeIds.size() > limit) {
            return std::nullopt;
        }
        campaigns.assign(campaignIds.begin(), campaignIds.end());
        changes.offerIds.assign(offerIds.begin(), offerIds.end());
        changes.placeIds.assign(placeIds.begin(), placeIds.end());
    }
    if (inMemory()) {
        return readChangedRows(db_, changes, campaigns, limit) ? std::optional(std::move(changes))
                                                               : std::nullopt;
    }
    Database reader(path_, options_.busyTimeoutMs);
    Transaction snapshot(reader, Transaction::Kind::read);
    return readChangedRows(reader, changes, campaigns, limit) ? std::optional(std::move(changes))
                                                              : std::nullopt;
}

Report SqliteStore::report() {
    return readReport(db_);
}

Funnel SqliteStore::funnel(bool byDay) {
    return readFunnel(db_, byDay);
}

std::optional<int64_t> SqliteStore::findDevice(const std::string& deviceId) {
    Statement st = db_.prepare("SELECT id FROM devices WHERE device_id = ?");
    return st.with(deviceId).step() ? std::optional<int64_t>(st.integer(0)) : std::nullopt;
}

std::optional<DeviceDayRows> SqliteStore::deviceDay(const std::string& deviceId, double from, double to) {
    Transaction snapshot(db_, Transaction::Kind::read);
    const std::optional<int64_t> device = findDevice(deviceId);
    return device ? std::optional(readDeviceDay(sqliteSource(db_), *device, from, to)) : std::nullopt;
}

void SqliteStore::setControlGroupKey(const std::string& key) {
    db_.prepare("UPDATE settings SET value = ? WHERE name = 'control_group_key'").with(key).run();
}

std::optional<HeldBackLink> SqliteStore::heldBack(int64_t deviceEvent) {
    Transaction snapshot(db_, Transaction::Kind::read);
    return readHeldBack(sqliteSource(db_), deviceEvent);
}

std::optional<nlohmann::json> SqliteStore::deviceRecord(const std::string& deviceId) {
    Transaction snapshot(db_, Transaction::Kind::read);
    const std::optional<int64_t> device = findDevice(deviceId);
    return device ? readDeviceRecord(sqliteSource(db_), *device) : std::nullopt;
}

std::optional<ErasedDevice> SqliteStore::eraseDevice(const std::string& deviceId) {
    Transaction tx(db_);
    const std::optional<int64_t> device = findDevice(deviceId);
    if (!device) {
        return std::nullopt;
    }
    const ErasedDevice erased = eraseDeviceRows(sqliteSource(db_), *device);
    tx.commit();
    return erased;
}

int64_t SqliteStore::pruneBatch(Retained kind, double before, int limit) {
    Transaction tx(db_);
    const int64_t removed = pruneRows(sqliteSource(db_), kind, before, limit);
    tx.commit();
    return removed;
}

std::optional<double> SqliteStore::oldestRow(Retained kind) {
    return oldestRowTime(sqliteSource(db_), kind);
}

bool SqliteStore::deviceExists(int64_t device) {
    return db_.prepare("SELECT 1 FROM devices WHERE id = ?").with(device).step();
}

bool SqliteStore::reachable() {
    try {
        if (inMemory()) {
            return true;
        }
        Database reader(path_, options_.busyTimeoutMs);
        return reader.prepare("SELECT count(*) FROM sqlite_master").step();
    } catch (const std::exception&) {
        return false;
    }
}

nlohmann::json SqliteStore::listApps() {
    return admin_store::listApps(db_);
}
std::string SqliteStore::addApp(std::string key, const std::string& name, double now, bool* added) {
    return admin_store::addApp(db_, std::move(key), name, now, added);
}
std::optional<std::string> SqliteStore::rotateApp(const std::string& key) {
    return admin_store::rotateApp(db_, key);
}
bool SqliteStore::removeApp(const std::string& key) {
    return admin_store::removeApp(db_, key);
}
bool SqliteStore::setAppDisabled(const std::string& key, bool disabled) {
    return admin_store::setAppDisabled(db_, key, disabled);
}
nlohmann::json SqliteStore::listCampaigns() {
    return admin_store::listCampaigns(db_);
}
std::optional<int64_t> SqliteStore::findCampaign(const std::string& nameOrId) {
    return admin_store::findCampaign(db_, nameOrId);
}
bool SqliteStore::setCampaignDisabled(int64_t id, bool disabled) {
    const bool changed = admin_store::setCampaignDisabled(db_, id, disabled);
    recordChanges({{Kind::campaign, id}});
    return changed;
}
bool SqliteStore::removeCampaign(int64_t id) {
    const bool removed = admin_store::removeCampaign(db_, id);
    recordChanges({{Kind::campaign, id}});
    return removed;
}
nlohmann::json SqliteStore::listOffers() {
    return admin_store::listOffers(db_);
}
bool SqliteStore::setOfferDisabled(int64_t id, bool disabled) {
    const bool changed = admin_store::setOfferDisabled(db_, id, disabled);
    recordChanges({{Kind::offer, id}});
    return changed;
}
bool SqliteStore::removeOffer(int64_t id) {
    // The places that link it lose the link.
    std::vector<std::pair<Kind, int64_t>> changes{{Kind::offer, id}};
    Statement linked = db_.prepare("SELECT place FROM place_offers WHERE offer = ?");
    linked.with(id);
    while (linked.step()) {
        changes.emplace_back(Kind::place, linked.integer(0));
    }
    const bool removed = admin_store::removeOffer(db_, id);
    recordChanges(std::move(changes));
    return removed;
}
nlohmann::json SqliteStore::listPlaces(int64_t after, int limit, const std::optional<PlaceArea>& area) {
    return admin_store::listPlaces(db_, after, limit, area);
}
bool SqliteStore::setPlaceDisabled(int64_t id, bool disabled) {
    const bool changed = admin_store::setPlaceDisabled(db_, id, disabled);
    recordChanges({{Kind::place, id}});
    return changed;
}
bool SqliteStore::removePlace(int64_t id) {
    const bool removed = admin_store::removePlace(db_, id);
    recordChanges({{Kind::place, id}});
    return removed;
}
nlohmann::json SqliteStore::campaignDefinitions() {
    return admin_store::campaignDefinitions(db_);
}

void SqliteStore::transact(const std::function<void(const SqlSource&)>& work) {
    Transaction tx(db_);
    work(sqliteSource(db_));
    tx.commit();
}

}  // namespace tovrel::server
