#pragma once

#include <string>

#include "store/postgres/pg_change_feed.h"
#include "store/postgres/pg_connection.h"
#include "store/postgres/pg_group_commit.h"
#include "store/store.h"

namespace tovrel::server {

/// The shared store of several replicas: a PostgreSQL database (with PostGIS for the places' points).
/// Each operation takes a connection from a small pool; catalogue snapshots are read on a connection
/// of their own at the same time as writes.
class PgStore final : public Store {
  public:
    /// Connections held at most: the database threads' and one for catalogue snapshots and checks.
    static constexpr std::size_t kPoolSize = 8;
    /// Database threads that write at once: a commit waits for the disk, and several commits share one
    /// flush.
    static constexpr int kWriters = 6;
    /// Database threads with group commit: writes waiting for a shared commit hold no connection, and
    /// the more wait together, the fewer commits.
    static constexpr int kGroupedWriters = 64;

    /// Connects and brings the schema up to date (one replica at a time). Throws std::runtime_error.
    PgStore(const std::string& location, const StoreOptions& options);

    std::string kind() const override { return "postgresql"; }
    std::optional<SessionRow> findSession(const std::string& keyHash) override;
    bool appEnabled(const std::string& appKey) override;
    int64_t startSession(const DeviceInfo& device, const std::string& keyHash, double now) override;
    std::vector<SessionResult> startSessions(std::span<const SessionRequest> starts, double now) override;
    std::vector<LinkRow> liveLinks(int64_t device) override;
    LinkRow addLink(int64_t device, const NewLink& link, double now) override;
    std::vector<LinkResult> addLinks(std::span<const LinkRequest> links, double now) override;
    std::optional<int64_t> liveLinkOwner(int64_t deviceEvent) override;
    void addLinkStatus(int64_t deviceEvent, const std::string& status, double now) override;
    void clearLinks(int64_t device, double now) override;
    void setTag(int64_t device, const std::string& group, const std::string& tag, const std::string& value,
                double now) override;
    void deleteTag(int64_t device, const std::string& group, const std::string& tag) override;
    bool startLinkStatus(int64_t device, int64_t deviceEvent, const std::string& status, double now,
                         WriteDone written, Launch launch) override;
    bool startTagWrite(int64_t device, const std::string& group, const std::string& tag,
                       const std::optional<std::string>& value, double now, WriteDone written,
                       Launch launch) override;

    ImportSummary writeCatalog(const CatalogData& data, double now) override;
    ImportSummary writePlaceCatalog(const PlaceCatalog& data, double now) override;
    void writeApp(const AppDef& app, double now) override;
    bool concurrentCatalogReads() const override { return true; }
    int concurrency() const override { return kWriters; }
    int databaseThreads() const override { return group_ ? kGroupedWriters : kWriters; }
    CatalogData readCatalog() override;
    std::optional<CatalogChanges> readCatalogChanges(std::uint64_t since, std::size_t limit) override;
    Report report() override;
    Funnel funnel(bool byDay) override;
    std::optional<int64_t> findDevice(const std::string& deviceId) override;
    std::optional<nlohmann::json> deviceRecord(const std::string& deviceId) override;
    std::optional<ErasedDevice> eraseDevice(const std::string& deviceId) override;
    std::optional<HeldBackLink> heldBack(int64_t deviceEvent) override;
    void setControlGroupKey(const std::string& key) override;
    std::optional<DeviceDayRows> deviceDay(const std::string& deviceId, double from, double to) override;
    bool deviceExists(int64_t device) override;
    int64_t pruneBatch(Retained kind, double before, int limit) override;
    std::optional<double> oldestRow(Retained kind) override;
    bool reachable() override;
    std::unique_ptr<ChangeFeed> watchChanges(ChangeListener& listener) override;

    void transact(const std::function<void(const SqlSource&)>& work) override;
    nlohmann::json listApps() override;
    std::string addApp(std::string key, const std::string& name, double now, bool* added) override;
    std::optional<std::string> rotateApp(const std::string& key) override;
    bool removeApp(const std::string& key) override;
    bool setAppDisabled(const std::string& key, bool disabled) override;
    nlohmann::json listCampaigns() override;
    std::optional<int64_t> findCampaign(const std::string& nameOrId) override;
    bool setCampaignDisabled(int64_t id, bool disabled) override;
    bool removeCampaign(int64_t id) override;
    nlohmann::json listOffers() override;
    bool setOfferDisabled(int64_t id, bool disabled) override;
    bool removeOffer(int64_t id) override;
    nlohmann::json listPlaces(int64_t after, int limit, const std::optional<PlaceArea>& area) override;
    bool setPlaceDisabled(int64_t id, bool disabled) override;
    bool removePlace(int64_t id) override;
    nlohmann::json campaignDefinitions() override;

  private:
    /// The row of the device with this identifier.
    static std::optional<int64_t> findDevice(PgConnection& conn, const std::string& deviceId);
    /// Records `links` in the transaction the caller began on `conn` and commits, each as addLink()
    /// would: the devices' rows locked in ascending order. Throws DeviceGone for an erased device.
    std::vector<LinkRow> addLinksOn(PgConnection& conn, std::span<const LinkRequest> links, double now);
    /// Runs a write of one statement: in a commit shared with the writes around it (group_), or alone.
    void write(PgStatement statement);
    /// Tells the other replicas, when the transaction commits, that the device's links changed.
    void notifyDeviceChanged(PgConnection& conn, int64_t device);
    PgStatement deviceChanged(int64_t device) const;
    /// The statement of addLinkStatus(); with `device`, it writes only for a live link of that device
    /// and returns the status's row when it wrote.
    PgStatement linkStatusWrite(int64_t deviceEvent, const std::string& status, double now,
                                std::optional<int64_t> device) const;
    /// The statement of setTag() (with a value) or deleteTag() (without).
    PgStatement tagWrite(int64_t device, const std::string& group, const std::string& tag,
                         const std::optional<std::string>& value, double now) const;

    std::string location_;
    StoreOptions options_;
    PgPool pool_;
    std::optional<PgGroupCommit> group_;  ///< StoreOptions::groupCommit
    std::string origin_;  ///< names this replica in its notifications, so that it skips its own
};

/// The schema version this program writes into PostgreSQL.
int currentPgSchemaVersion();

/// Applies the migrations the database lacks while holding an advisory lock, so that replicas
/// starting together migrate one at a time. Throws when the database is newer than this program or
/// a migration fails (for example when PostGIS is not installed on the server).
void migratePg(PgConnection& conn);

}  // namespace tovrel::server
