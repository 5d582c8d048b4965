#pragma once

#include <cstdint>
#include <deque>
#include <string>
#include <string_view>
#include <vector>

#include "store/report.h"
#include "store/sqlite/database.h"
#include "store/store.h"
#include "store/webhook_store.h"
#include "tovrel/platform/thread_annotations.h"

namespace tovrel::server {

/// The embedded store: one SQLite file (WAL), or a private in-memory database. Catalogue rebuilds read
/// a snapshot through a connection of their own, so they never wait for writers.
///
/// Its one writer is this process, so the catalogue's version and what changed in each one are kept in
/// memory: written by the catalogue's writes once committed, read by readCatalogChanges() on any
/// thread.
class SqliteStore final : public Store {
  public:
    /// Opens or creates the file and brings its schema up to date. Throws std::runtime_error.
    SqliteStore(const std::string& path, const StoreOptions& options);

    std::string kind() const override { return "sqlite"; }
    std::optional<SessionRow> findSession(const std::string& keyHash) override;
    bool appEnabled(const std::string& appKey) override;
    int64_t startSession(const DeviceInfo& device, const std::string& keyHash, double now) override;
    std::vector<LinkRow> liveLinks(int64_t device) override;
    LinkRow addLink(int64_t device, const NewLink& link, double now) override;
    std::optional<int64_t> liveLinkOwner(int64_t deviceEvent) override;
    void addLinkStatus(int64_t deviceEvent, const std::string& status, double now) override;
    void clearLinks(int64_t device, double now) override;
    void setTag(int64_t device, const std::string& group, const std::string& tag, const std::string& value,
                double now) override;
    void deleteTag(int64_t device, const std::string& group, const std::string& tag) override;

    ImportSummary writeCatalog(const CatalogData& data, double now) override;
    ImportSummary writePlaceCatalog(const PlaceCatalog& data, double now) override;
    void writeApp(const AppDef& app, double now) override;
    bool concurrentCatalogReads() const override;
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
    bool inMemory() const { return path_.empty() || path_ == ":memory:"; }

    /// Queues the event `make()` builds when an endpoint takes `type`, in the caller's transaction: most
    /// services have none, and asking costs less than building a message nobody receives.
    template <class Make>
    void queueEvent(std::string_view type, Make make, double now) {
        const SqlSource source = sqliteSource(db_);
        if (anyEndpointTakes(source, type)) {
            enqueueEvent(source, make(), now);
        }
    }

    enum class Kind : std::uint8_t { campaign, offer, place, all };
    struct Change {
        std::uint64_t version;
        Kind kind;
        int64_t id;
    };
    /// Starts the next version with these changes; more than kMaxRecorded ids record Kind::all.
    void recordChanges(std::vector<std::pair<Kind, int64_t>> changes);
    /// The catalogue write's changes: every place, offer and campaign it names (campaigns only when
    /// they differ from what is stored, read before the write).
    template <typename Write>
    ImportSummary writeRecorded(const std::vector<CampaignDef>& campaigns, std::size_t offerCount,
                                std::size_t placeCount, Write write);

    static constexpr std::size_t kMaxRecorded = 10'000;
    static constexpr std::uint64_t kVersionsKept = 1'000;

    std::string path_;
    StoreOptions options_;
    Database db_;
    tovrel::platform::Mutex changesMutex_;
    std::uint64_t version_ TOVREL_GUARDED_BY(changesMutex_) = 1;
    std::deque<Change> changes_ TOVREL_GUARDED_BY(changesMutex_);  ///< of the versions after forgotten_
    std::uint64_t forgotten_ TOVREL_GUARDED_BY(changesMutex_) = 1;
};

}  // namespace tovrel::server
