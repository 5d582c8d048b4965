#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <nlohmann/json_fwd.hpp>
#include <shared_mutex>
#include <string>
#include <string_view>
#include <unordered_map>

#include "catalog.h"
#include "database.h"
#include "tovrel_server/server.h"

namespace tovrel_server {

/// An endpoint's answer: HTTP status and JSON body.
struct ApiReply {
    unsigned status = 200;
    std::string body;
};

/// The JSON endpoints, independent of HTTP. Thread-safe: request threads call handle() at once.
///
/// SQLite holds everything durably through one connection used under dbMutex_ (writes are
/// serialised). Hot reads never touch SQLite: the catalogue snapshot, the session keys and each
/// device's live links are mirrored in memory under stateMutex_, which writers update while they
/// still hold dbMutex_ so that memory and database never disagree.
class Service {
  public:
    /// The widest search /v2/place accepts, in metres (the component asks for 8047).
    static constexpr double kMaxDistanceThreshold = 50'000;
    /// The most records one /v2/place answer carries: the nearest ones.
    static constexpr std::size_t kMaxPlaceRecords = 1'000;
    /// The largest /v1/log body accepted; a diagnostics message is a few hundred bytes.
    static constexpr std::size_t kMaxLogBody = 256 * 1024;

    Service(const std::string& dbPath, Clock clock);

    /// True when path names a JSON endpoint (answered by handle(), POST only).
    static bool isEndpoint(std::string_view path);

    /// Answers one request. mediaBase is put before relative media addresses. Never throws.
    ApiReply handle(std::string_view path, std::string_view body, std::string_view mediaBase);

    ImportSummary importGeoJson(const std::string& path);
    void addApp(const std::string& key, const std::string& name);
    void reloadPlaces();
    Report report();

  private:
    struct LinkInfo {
        int64_t id = 0;
        bool suppressed = false;
    };
    struct DeviceLinks {
        std::unordered_map<uint64_t, LinkInfo> byPair;     ///< key: offer id << 32 | place id
        std::unordered_map<int64_t, int64_t> perCampaign;  ///< live links per campaign id
    };
    struct StringHash {
        using is_transparent = void;
        std::size_t operator()(std::string_view s) const { return std::hash<std::string_view>{}(s); }
    };

    std::string session(const nlohmann::json& req);
    std::string places(const nlohmann::json& req, std::string_view mediaBase);
    std::string link(const nlohmann::json& req, std::string_view mediaBase);
    std::string update(const nlohmann::json& req);
    std::string clear(const nlohmann::json& req);
    std::string tagUpdate(const nlohmann::json& req);
    std::string tagDelete(const nlohmann::json& req);
    std::string log(const nlohmann::json& req);

    /// The device of the request's "sessionKey"; ApiError 401 when unknown. Loads the device's links.
    int64_t authenticate(const nlohmann::json& req);
    /// Requires dbMutex_ held.
    void loadDeviceLocked(int64_t device);
    std::shared_ptr<const Catalog> catalog();
    void rebuildCatalogLocked();

    Clock clock_;
    std::mutex dbMutex_;
    Database db_;
    std::shared_mutex stateMutex_;
    std::shared_ptr<const Catalog> catalog_;
    std::unordered_map<std::string, int64_t, StringHash, std::equal_to<>> sessions_;
    std::unordered_map<int64_t, DeviceLinks> devices_;
};

}  // namespace tovrel_server
