#pragma once

#include <cstdint>
#include <exception>
#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <variant>
#include <vector>

#include "catalog/catalog_data.h"
#include "common/started_write.h"
#include "rules/link_decision.h"
#include "store/sql_source.h"
#include "tovrel_server/admin.h"

namespace tovrel::server {

/// The database cannot take the operation now (locked by another connection for longer than the busy
/// timeout, or not reachable). Nothing was written: callers answer 503 with Retry-After.
class DatabaseBusy : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

/// A stored session: its device's row and when it started.
struct SessionRow {
    int64_t device = 0;
    double createdAt = 0;
};

/// A device as a session start describes it.
struct DeviceInfo {
    std::string deviceId;
    std::string deviceType;
    std::string deviceModel;
    std::string appKey;
};

/// A device event (link) that has not been cleared.
struct LinkRow {
    int64_t id = 0;
    int64_t offer = 0;
    int64_t place = 0;
    int64_t campaign = 0;
    bool suppressed = false;
    Suppression reason = Suppression::none;  ///< why, when suppressed
};

/// A device event a link asks for. The service has asked the rules that need no counting (the
/// campaign's schedule); the store asks the others in the transaction that inserts the link, so
/// replicas linking one device count each other's links (linkSuppression()).
struct NewLink {
    int64_t offer = 0;
    int64_t place = 0;
    int64_t campaign = 0;
    std::optional<int64_t> perDeviceCap;
    std::string_view campaignName;         ///< keys the control group
    const CampaignRules* rules = nullptr;  ///< none: no rules
    bool outsideSchedule = false;
};

/// One session start of several asked for at once (Store::startSessions()).
struct SessionRequest {
    const DeviceInfo* device = nullptr;
    const std::string* keyHash = nullptr;
};

/// What became of one session start of several: the device's row, or what Store::startSession() would
/// have thrown.
using SessionResult = std::variant<int64_t, std::exception_ptr>;

/// One link of several asked for at once (Store::addLinks()).
struct LinkRequest {
    int64_t device = 0;
    const NewLink* link = nullptr;
};

/// What became of one link of several: the stored event, or what Store::addLink() would have thrown.
using LinkResult = std::variant<LinkRow, std::exception_ptr>;

/// A link that was held back, with what explains it: the device's app rules as stored, and the last
/// delivery before it (of its campaign, or of any campaign for the daily cap).
struct HeldBackLink {
    Suppression reason = Suppression::none;
    int64_t campaign = 0;
    double linkedAt = 0;
    std::string appRules;  ///< as stored ("" for none)
    std::optional<double> lastDelivery;
};

/// What a device sent and was linked to between two instants: its log messages (as received) and its
/// links made then, with their status history.
struct DeviceDayRows {
    std::vector<std::pair<double, std::string>> messages;  ///< received at, message text; by time
    nlohmann::json links = nlohmann::json::array();        ///< as in the device's record
};

/// What erasing a device removed, by kind of row.
struct ErasedDevice {
    int64_t device = 0;  ///< the device's row
    int64_t sessions = 0;
    int64_t links = 0;
    int64_t statuses = 0;
    int64_t tags = 0;
    int64_t logMessages = 0;
};

/// The kinds of rows kept for a number of days.
enum class Retained : std::uint8_t { logs, links, sessions, audit };

/// The kind's name in metrics and logs: "logs", "links", "sessions", "audit".
const char* retainedName(Retained kind);

/// The device's row is gone (erased, here or by another replica): its sessions are no longer valid.
class DeviceGone : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

/// A status for a device event that is not a live link of the device that sent it: nothing was written.
class NoLiveLink : public std::runtime_error {
  public:
    explicit NoLiveLink(int64_t deviceEvent)
        : std::runtime_error("no live device event " + std::to_string(deviceEvent)),
          deviceEvent_(deviceEvent) {}
    int64_t deviceEvent() const { return deviceEvent_; }

  private:
    int64_t deviceEvent_;
};

/// A box of latitude and longitude that listed places must lie in (their centres). west > east crosses
/// the antimeridian.
struct PlaceArea {
    double west = -180;
    double south = -90;
    double east = 180;
    double north = 90;
};

/// Told what other writers of a shared store changed, so that what a replica holds in memory follows.
/// Called on the change feed's own thread, one call at a time.
class ChangeListener {
  public:
    virtual ~ChangeListener() = default;
    /// The catalogue's version in the store now: after a notification, on the periodic check, and
    /// after reconnecting.
    virtual void catalogVersion(std::uint64_t version) = 0;
    /// Another writer linked or cleared device events of these devices.
    virtual void devicesChanged(const std::vector<int64_t>& devices) = 0;
    /// Notifications may have been missed (the feed's connection was lost): nothing mirrored of the
    /// devices can be trusted. catalogVersion() follows.
    virtual void resynchronise() = 0;
};

/// A running feed of changes; stops (and joins its thread) when destroyed.
class ChangeFeed {
  public:
    virtual ~ChangeFeed() = default;
};

/// Where a tovrel-server keeps everything durably: SQLite (one file) or PostgreSQL (shared by replicas).
/// The writes that webhook endpoints hear of (a session start, a new link, a link's status, a tag set,
/// links cleared) queue their event in their own transaction (enqueueEvent()).
/// Not thread-safe unless said: the Service calls it under its writers' lock. Every operation throws
/// DatabaseBusy when the database cannot take it now (nothing was written), std::runtime_error on
/// other failures.
class Store {
  public:
    virtual ~Store() = default;

    /// The store's kind, for logs: "sqlite" or "postgresql".
    virtual std::string kind() const = 0;

    /// The session with this key hash; nullopt when there is none.
    virtual std::optional<SessionRow> findSession(const std::string& keyHash) = 0;
    /// True when the app key is registered and not disabled.
    virtual bool appEnabled(const std::string& appKey) = 0;
    /// Records the device (inserted or updated by its identifier) and a session of it, all or nothing.
    /// Returns the device's row.
    virtual int64_t startSession(const DeviceInfo& device, const std::string& keyHash, double now) = 0;
    /// Several session starts asked for at about the same time, each as startSession() would record it.
    /// In one transaction where the store groups commits; one that fails there fails alone, its
    /// neighbours are recorded again one by one.
    virtual std::vector<SessionResult> startSessions(std::span<const SessionRequest> starts, double now);
    /// The device's device events that have not been cleared.
    virtual std::vector<LinkRow> liveLinks(int64_t device) = 0;
    /// Records a device event for (device, offer, place) unless a live one exists: the stored event
    /// either way, so that two replicas linking at the same instant return the same id, and the cap
    /// counted from what the database holds, whichever replica linked before. DeviceGone when the
    /// device was erased meanwhile.
    virtual LinkRow addLink(int64_t device, const NewLink& link, double now) = 0;
    /// Several links asked for at about the same time, each as addLink() would record it, in the order
    /// asked (two of one device: the second counts the first). In one transaction where the store groups
    /// commits; a link that fails there fails alone, its neighbours are recorded again one by one.
    virtual std::vector<LinkResult> addLinks(std::span<const LinkRequest> links, double now);
    /// The device of a live device event; nullopt when there is none or it was cleared.
    virtual std::optional<int64_t> liveLinkOwner(int64_t deviceEvent) = 0;
    /// Appends a status to a device event's history.
    virtual void addLinkStatus(int64_t deviceEvent, const std::string& status, double now) = 0;
    /// Starts addLinkStatus() in a commit shared with the writes around it, if `deviceEvent` is then a
    /// live link of `device`, and returns at once; `written` hears of it as the call would have returned
    /// or thrown, or NoLiveLink. False when this store commits each write alone, or `launch` was needed
    /// and refused: then nothing was started. Any thread.
    virtual bool startLinkStatus(int64_t /*device*/, int64_t /*deviceEvent*/, const std::string& /*status*/,
                                 double /*now*/, WriteDone /*written*/, Launch /*launch*/) {
        return false;
    }
    /// Clears every live device event of the device.
    virtual void clearLinks(int64_t device, double now) = 0;
    virtual void setTag(int64_t device, const std::string& group, const std::string& tag,
                        const std::string& value, double now) = 0;
    virtual void deleteTag(int64_t device, const std::string& group, const std::string& tag) = 0;
    /// Starts setTag() (with a value) or deleteTag() (without) in a commit shared with the writes around
    /// it, and returns at once; `written` hears of it as the call would have returned or thrown. False
    /// when this store commits each write alone, or `launch` was needed and refused: then nothing was
    /// started. Any thread.
    virtual bool startTagWrite(int64_t /*device*/, const std::string& /*group*/, const std::string& /*tag*/,
                               const std::optional<std::string>& /*value*/, double /*now*/,
                               WriteDone /*written*/, Launch /*launch*/) {
        return false;
    }
    /// The row of the device with this identifier; nullopt when unknown.
    virtual std::optional<int64_t> findDevice(const std::string& deviceId) = 0;
    /// Everything held about the device with this identifier, from one snapshot (the members are
    /// documented in docs/devices.md), its log messages aside (LogStore::ofDevice()); nullopt when
    /// unknown.
    virtual std::optional<nlohmann::json> deviceRecord(const std::string& deviceId) = 0;
    /// Removes every row about the device, all or nothing, its log messages aside (LogStore::erase());
    /// the funnel keeps counting its links and answers. Other replicas are told
    /// (ChangeListener::devicesChanged). nullopt when unknown.
    virtual std::optional<ErasedDevice> eraseDevice(const std::string& deviceId) = 0;
    /// The links the device made in [from, to), its messages left empty (LogStore::between()); nullopt
    /// when there is no such device.
    virtual std::optional<DeviceDayRows> deviceDay(const std::string& deviceId, double from, double to) = 0;
    /// Replaces the key of control-group membership (ServerOptions::controlGroupKey).
    virtual void setControlGroupKey(const std::string& key) = 0;
    /// The link with this id when it was held back, with what explains it; nullopt otherwise.
    virtual std::optional<HeldBackLink> heldBack(int64_t deviceEvent) = 0;
    /// False once the device's row is gone.
    virtual bool deviceExists(int64_t device) = 0;
    /// Removes at most `limit` rows of `kind` written before `before` (seconds since 1970), oldest
    /// first, in one transaction: cleared links with their status history (the funnel keeps their counts),
    /// sessions with the devices left with neither sessions nor links. Returns the rows of `kind` removed.
    /// Log messages are the log store's (LogStore::prune()).
    virtual int64_t pruneBatch(Retained kind, double before, int limit) = 0;
    /// When the oldest row of `kind` was written; nullopt when there is none.
    virtual std::optional<double> oldestRow(Retained kind) = 0;

    /// Writes campaigns, offers, places and apps (insert or replace by id or name), all or nothing.
    virtual ImportSummary writeCatalog(const CatalogData& data, double now) = 0;
    /// The same for a catalogue read as a stream; by default expanded to plain structures first.
    virtual ImportSummary writePlaceCatalog(const PlaceCatalog& data, double now) {
        return writeCatalog(data.expand(), now);
    }
    /// Adds an app key, or renames an existing one.
    virtual void writeApp(const AppDef& app, double now) = 0;
    /// True when readCatalog() may run on any thread at the same time as the other operations (it then
    /// reads one consistent snapshot without waiting for writers).
    virtual bool concurrentCatalogReads() const = 0;
    /// Threads that may run the store's operations at once (its connections): 1 unless the store is
    /// thread-safe. Writes that touch nothing held in memory then run without the writers' lock.
    virtual int concurrency() const { return 1; }
    /// Database threads worth running: concurrency(), or more where writes wait for a shared commit
    /// without holding a connection.
    virtual int databaseThreads() const { return concurrency(); }
    /// Every enabled campaign, offer and place (apps are not read), from one consistent snapshot.
    virtual CatalogData readCatalog() = 0;
    /// What changed in the catalogue after version `since` (of a readCatalog() or of an earlier call),
    /// with the changed rows as they are now; nullopt when the store cannot tell, or more than `limit`
    /// rows changed: read the whole catalogue instead. May run on any thread when
    /// concurrentCatalogReads().
    virtual std::optional<CatalogChanges> readCatalogChanges(std::uint64_t since, std::size_t limit) {
        (void)since;
        (void)limit;
        return std::nullopt;
    }
    /// Links and answers per offer (log messages are counted by LogStore::countsByEvent()).
    virtual Report report() = 0;
    /// The funnel per campaign and per offer, and by UTC day when byDay.
    virtual Funnel funnel(bool byDay) = 0;
    /// True when the database answers a read now. Any thread; waits at most the busy timeout.
    virtual bool reachable() = 0;
    /// Starts telling `listener` what other writers change, on a thread of the feed's own; nullptr
    /// when nobody else writes (an embedded store). `listener` outlives the feed. Any thread.
    virtual std::unique_ptr<ChangeFeed> watchChanges(ChangeListener& listener) {
        (void)listener;
        return nullptr;
    }

    /// Runs `work` in one write transaction on one of the store's connections: committed when it returns,
    /// rolled back when it throws. For what the store says nothing of itself (the webhooks' tables, see
    /// webhook_store.h). Caller's thread.
    virtual void transact(const std::function<void(const SqlSource&)>& work) = 0;

    /// The admin API's lists and changes (see admin_store.h for the members of each list).
    virtual nlohmann::json listApps() = 0;
    virtual std::string addApp(std::string key, const std::string& name, double now, bool* added) = 0;
    virtual std::optional<std::string> rotateApp(const std::string& key) = 0;
    virtual bool removeApp(const std::string& key) = 0;
    virtual bool setAppDisabled(const std::string& key, bool disabled) = 0;
    virtual nlohmann::json listCampaigns() = 0;
    virtual std::optional<int64_t> findCampaign(const std::string& nameOrId) = 0;
    virtual bool setCampaignDisabled(int64_t id, bool disabled) = 0;
    /// Throws admin_store::Conflict when offers still belong to the campaign.
    virtual bool removeCampaign(int64_t id) = 0;
    virtual nlohmann::json listOffers() = 0;
    virtual bool setOfferDisabled(int64_t id, bool disabled) = 0;
    virtual bool removeOffer(int64_t id) = 0;
    /// Places with an id above `after`, by id, at most `limit`; only those in `area` when given.
    virtual nlohmann::json listPlaces(int64_t after, int limit, const std::optional<PlaceArea>& area) = 0;
    virtual bool setPlaceDisabled(int64_t id, bool disabled) = 0;
    virtual bool removePlace(int64_t id) = 0;
    virtual nlohmann::json campaignDefinitions() = 0;
};

/// How a store waits and connects.
struct StoreOptions {
    /// Milliseconds a statement waits for another connection's lock before DatabaseBusy.
    int busyTimeoutMs = 5000;
    /// Days of log messages kept by a log store (today and the days before it, in UTC); older days are
    /// dropped when the first message of a new day arrives. 0 keeps every message.
    int logRetentionDays = 0;
    /// Seconds between checks of the catalogue's version by a change feed, in case a notification
    /// was missed.
    double changeCheckSeconds = 5;
    /// Writes of one statement that arrive together share a commit (PostgreSQL).
    bool groupCommit = true;
};

// Inline, so that Store keeps no key function: its type information goes with every object that uses it
// (the fuzz targets link a few of the server's files, not the stores).
inline std::vector<SessionResult> Store::startSessions(std::span<const SessionRequest> starts, double now) {
    std::vector<SessionResult> results;
    results.reserve(starts.size());
    for (const SessionRequest& request : starts) {
        try {
            results.emplace_back(startSession(*request.device, *request.keyHash, now));
        } catch (...) {
            results.emplace_back(std::current_exception());
        }
    }
    return results;
}

inline std::vector<LinkResult> Store::addLinks(std::span<const LinkRequest> links, double now) {
    std::vector<LinkResult> results;
    results.reserve(links.size());
    for (const LinkRequest& request : links) {
        try {
            results.emplace_back(addLink(request.device, *request.link, now));
        } catch (...) {
            results.emplace_back(std::current_exception());
        }
    }
    return results;
}

/// True when `location` names a PostgreSQL database (a postgresql:// or postgres:// address).
bool isPostgresLocation(const std::string& location);

/// The day (in UTC, days since 1970) of a time in seconds since 1970.
int64_t utcDayNumber(double seconds);

/// Opens the store at `location` (an SQLite file, ":memory:", or a postgresql:// address) and brings
/// its schema up to date. Throws std::runtime_error.
std::unique_ptr<Store> openStore(const std::string& location, const StoreOptions& options = {});

/// `location` without a password, for messages and logs.
std::string displayLocation(const std::string& location);

}  // namespace tovrel::server
