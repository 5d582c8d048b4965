#pragma once

#include <string>

#include "database.h"
#include "store.h"

namespace tovrel_server {

/// The embedded store: one SQLite file (WAL), or a private in-memory database. Catalogue rebuilds read
/// a snapshot through a connection of their own, so they never wait for writers.
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
    void addLog(const std::string& deviceId, const std::string& eventName, const std::string& message,
                double now) override;

    ImportSummary writeCatalog(const CatalogData& data, double now) override;
    ImportSummary writePlaceCatalog(const PlaceCatalog& data, double now) override;
    void writeApp(const AppDef& app, double now) override;
    bool concurrentCatalogReads() const override;
    CatalogData readCatalog() override;
    Report report() override;
    Funnel funnel(bool byDay) override;
    bool reachable() override;

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
    nlohmann::json listPlaces(int64_t after, int limit) override;
    bool setPlaceDisabled(int64_t id, bool disabled) override;
    bool removePlace(int64_t id) override;
    nlohmann::json campaignDefinitions() override;

  private:
    bool inMemory() const { return path_.empty() || path_ == ":memory:"; }

    std::string path_;
    StoreOptions options_;
    int64_t logDay_ = -1;  ///< the day of the last log message, for the retention
    Database db_;
};

}  // namespace tovrel_server
