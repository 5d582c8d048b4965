#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <exception>
#include <functional>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <type_traits>
#include <unordered_map>
#include <variant>

#include "api/place_query.h"
#include "catalog/catalog.h"
#include "common/rate_limiter.h"
#include "observability/metrics.h"
#include "store/log_store.h"
#include "store/store.h"
#include "tovrel/platform/thread_annotations.h"
#include "tovrel_server/server.h"

namespace tovrel::server {

using tovrel::platform::Lock;
using tovrel::platform::Mutex;
using tovrel::platform::ReaderLock;
using tovrel::platform::SharedMutex;

/// An endpoint's answer: HTTP status and JSON body; `retry` asks the client to come back (the
/// Retry-After of a 429 or 503).
struct ApiReply {
    unsigned status = 200;
    std::string body;
    bool retry = false;
};

/// Limits and settings of the service, from the command line.
struct ServiceOptions {
    /// How long a database statement waits for another connection's lock before the request is
    /// answered 503.
    int busyTimeoutMs = 250;
    /// Seconds a session key stays valid after its session started; 0 keeps keys valid for ever.
    double sessionTtl = 0;
    /// Session keys (and their devices' links) held in memory at most; older ones are read again from
    /// the database when used.
    std::size_t maxCachedSessions = 1'000'000;
    /// Session starts a second one SDK key may make (bursts of twice that); 0: no limit.
    double sessionRateLimit = 0;
    /// /v1/log messages a second one device may send (bursts of 60 times that); 0: no limit.
    double logRateLimit = 0;
    /// Days of log messages kept (see StoreOptions); 0: every message.
    int logRetentionDays = 0;
    /// Where log messages go (see openLogStore()); "": the store's own location.
    std::string logLocation;
    /// Days kept of cleared links and of sessions; pruneExpired() removes older ones. 0 keeps them.
    /// Session keys older than their retention are answered 401 as expired ones are.
    int retainLinksDays = 0;
    int retainSessionsDays = 0;
    /// Days kept of the admin API's audit trail; 0 keeps it.
    int retainAuditDays = 0;
    /// Writes of one statement that arrive together share a commit (see StoreOptions).
    bool groupCommit = true;
    /// Seconds between checks of a shared store's catalogue version (see StoreOptions).
    double changeCheckSeconds = 5;
    /// The most changed rows applied to the catalogue in place (see ServerOptions).
    std::size_t catalogChangesInPlace = 10'000;
    /// Written over the database's control-group key at start when not empty (see ServerOptions).
    std::string controlGroupKey;
};

/// The JSON endpoints, independent of HTTP. Thread-safe: request threads call answerInMemory() and
/// database threads handle() at once.
///
/// The Store (SQLite or PostgreSQL) holds everything durably and is used under dbMutex_ (writes are
/// serialised). Hot reads never touch the store: the catalogue snapshot, the session keys and each
/// device's live links are mirrored in memory under stateMutex_, which writers update while they
/// still hold dbMutex_ so that memory and database never disagree. The catalogue is rebuilt from a
/// snapshot read by a connection of its own and swapped in, so neither requests nor writers wait for a
/// rebuild.
///
/// With a store that several replicas share, what the others change reaches the mirror through the
/// store's change feed: a newer catalogue version rebuilds the catalogue, a device linked or cleared
/// elsewhere has its links read again on its next request. Decisions that must agree across replicas
/// (link ids, per-device caps) are always taken by the store.
class Logger;

class Service : private ChangeListener {
  public:
    /// The most records one /v2/place answer carries: the nearest ones.
    static constexpr std::size_t kMaxPlaceRecords = 1'000;
    /// The places and offers a catalogue holds beside the part it shares, in changes in place, before it
    /// is read whole.
    static constexpr std::size_t kCatalogOverlayChanges = 5;

    /// Opens the store at `location` (an SQLite file or a postgresql:// address) and the log store
    /// (ServiceOptions::logLocation), and builds the catalogue; throws std::runtime_error. `metrics` and
    /// `logger` may be null; both must outlive it.
    Service(const std::string& location, Clock clock, ServiceOptions options = {}, Metrics* metrics = nullptr,
            const Logger* logger = nullptr);
    /// Stops following other replicas first: their notifications are handled by this object; then waits
    /// for a catalogue read in progress.
    ~Service() override;
    Service(const Service&) = delete;
    Service& operator=(const Service&) = delete;

    /// Answers one request, using the database when it must. mediaBase is put before relative media
    /// addresses. Never throws. Any thread; blocks while the database is locked.
    ApiReply handle(std::string_view path, std::string_view body, std::string_view mediaBase);
    /// A place request written plainly (readPlainPlaceRequest), for a session held in memory, answered
    /// without building a JSON value; nullopt: read the body and answer it as any request. Any thread.
    std::optional<ApiReply> answerPlainPlaces(std::string_view body, std::string_view mediaBase);
    /// A diagnostics message written plainly (readPlainLog), kept without building a JSON value;
    /// nullopt: read the body and answer it as any request. Any thread.
    std::optional<ApiReply> writePlainLog(std::string_view body);
    /// The message of a /v1/log body written plainly and within the endpoint's limit, received now;
    /// nullopt: read the body and answer it as any request (refusals get their reasons there). Any thread.
    std::optional<LogMessage> plainLogMessage(std::string_view body) const;
    /// Keeps `message` as a /v1/log request with that message would: the answer once it is written.
    /// `queuedAt` as for handleParsed(). Never throws. Any thread; blocks while the log store commits.
    ApiReply writeLog(LogMessage message, std::optional<double> queuedAt = std::nullopt);
    /// startWrite() for a message read already: false when messages commit one at a time (then nothing
    /// was started and `message` is untouched) or `launch` was refused (then the message is dropped and
    /// the caller answers that the server is busy). Any thread.
    bool startLog(LogMessage& message, const Launch& launch, const std::function<void(ApiReply)>& answer);
    /// Whether log messages share commits, so that startLog() can take them. Any thread.
    bool logsShareCommits() const;
    /// The 429 for a device over its log message budget, which this message counts against; nullopt
    /// while it is within. Any thread.
    std::optional<ApiReply> refuseChattyDevice(const std::string& deviceId);
    /// handle() for a body its caller has already read: `body` must be what `text` reads as. Answers
    /// exactly as handle(path, text, mediaBase), without reading the text again. Never throws. Any thread.
    ApiReply handleRead(std::string_view path, std::string_view text, const nlohmann::json& body,
                        std::string_view mediaBase);
    /// Reads a request body: the object, or the error answer. Never throws. Any thread.
    static std::variant<nlohmann::json, ApiReply> parse(std::string_view path, std::string_view body);
    /// Answers from memory alone when it can: places for a session key held in memory, refusals of a
    /// rate limit or of an SDK key refused a moment ago. nullopt: the request needs the database
    /// (handleParsed on a database thread). Never waits for the database. Any thread.
    std::optional<ApiReply> answerInMemory(std::string_view path, const nlohmann::json& req,
                                           std::string_view mediaBase);
    /// handle() for a body already parsed. `queuedAt` (steadySeconds()) is when the request was queued
    /// for a database thread: a write queued before the database was last found busy is refused at
    /// once rather than waiting for the same lock. Any thread; blocks while the database is locked.
    ApiReply handleParsed(std::string_view path, const nlohmann::json& req, std::string_view mediaBase,
                          std::optional<double> queuedAt = std::nullopt);
    /// Starts a write that no thread needs to wait for: a log message, or a tag set or removed or a
    /// link status for a session key held in memory, when the store shares commits. `answer` is called once
    /// with what handleParsed() would have answered, on the thread that committed the write (or at once for a
    /// refusal). False when the request must go the usual way (handleParsed on a database thread); then
    /// `answer` is never called. Never waits for the database. Any thread.
    bool startWrite(std::string_view path, const nlohmann::json& req, const Launch& launch,
                    const std::function<void(ApiReply)>& answer);
    /// Seconds on the steady clock that handleParsed() compares. Any thread.
    static double steadySeconds();

    /// Runs `work` on the store under the writers' lock and, when `catalogChanged`, brings the
    /// catalogue up to date afterwards (outside that lock) so that the change is served when this
    /// returns. Any thread.
    template <typename Work>
    auto change(Work&& work, bool catalogChanged) {
        using Result = decltype(work(*store_));
        if constexpr (std::is_void_v<Result>) {
            {
                Lock db(dbMutex_);
                work(*store_);
            }
            if (catalogChanged) {
                refreshCatalog();
            }
        } else {
            Result result = [&] {
                Lock db(dbMutex_);
                return work(*store_);
            }();
            if (catalogChanged) {
                refreshCatalog();
            }
            return result;
        }
    }

    /// The server's clock. Any thread.
    double now() const { return clock_(); }
    /// Runs `work` in one store transaction: at once where the store takes several writers, under the
    /// writers' lock elsewhere. For tables nothing in memory mirrors (the webhooks'). Any thread.
    void transact(const std::function<void(const SqlSource&)>& work) {
        writeOnly([&](Store& store) { store.transact(work); });
    }

    /// Erases the device with this identifier, its log messages first, from the stores and from what
    /// this replica holds in memory (the store tells the other replicas); its session keys are unknown
    /// from then on. nullopt when there is no such device. Any thread.
    std::optional<ErasedDevice> eraseDevice(const std::string& deviceId);
    /// Everything held about the device (see deviceRecordWithLogs()); nullopt when unknown. Any thread.
    std::optional<nlohmann::json> deviceRecord(const std::string& deviceId, bool withMessages);
    /// The device's log messages received in [from, to) (at most `limit`) and the links it made then;
    /// nullopt when unknown. Any thread.
    std::optional<DeviceDayRows> deviceDay(const std::string& deviceId, double from, double to, int limit);
    /// Why a link was held back, in words from the rules as they are now. Any thread.
    std::optional<HeldBack> heldBack(int64_t deviceEvent);

    /// Removes the log messages, cleared links and sessions older than their retention, in batches of
    /// `batch` rows so that writers get in between (at most kMaxPruneBatches each a pass), and reports
    /// each kind's count and oldest row to the metrics. Returns the rows removed by kind. Any thread;
    /// the server's retention thread calls it.
    std::map<std::string, int64_t> pruneExpired(int batch = 1000);
    static constexpr int kMaxPruneBatches = 1000;

    ImportSummary importGeoJson(const std::string& path);
    void addApp(const std::string& key, const std::string& name);
    /// Rebuilds the catalogue from the database without holding the writers' lock (a connection of its
    /// own reads a snapshot), then swaps it in; requests never wait for it. Any thread.
    void reloadPlaces();
    /// Applies what changed in the store since the catalogue in memory was read, sharing the rest of
    /// it; reads the whole catalogue again when the store cannot tell what changed or too much did.
    /// When the changes held beside the shared part grow past kCatalogOverlayChanges times that, a
    /// thread of its own reads the whole catalogue while changes go on being applied. Any thread.
    void refreshCatalog();
    Report report();

    /// What the readiness check and the metrics report. Any thread.
    std::size_t placesIndexed();
    std::size_t sessionsCached();
    std::uint64_t catalogVersion() const { return catalogVersion_.load(); }
    /// How many of those updates read the whole catalogue. Any thread.
    std::uint64_t catalogReads() const { return catalogReads_.load(); }
    /// Counts a request the store (or a bug) failed and logs it with the failure's own words, which
    /// never go into an answer. Any thread.
    void reportFailure(std::string_view path, std::string_view what);
    /// True when the database answers a read now. Any thread; waits at most the busy timeout.
    bool databaseReachable();
    /// Database threads worth running: more than one where the store takes writes at once, and enough
    /// for log messages to share their commits. Any thread.
    int databaseThreads() const { return std::max(concurrentStore().databaseThreads(), kLogWriters); }
    /// Log messages written at once (by as many database threads), whatever the store takes.
    static constexpr int kLogWriters = 8;

  private:
    struct LinkInfo {
        int64_t id = 0;
        bool suppressed = false;
    };
    struct DeviceLinks {
        std::unordered_map<uint64_t, LinkInfo> byPair;  ///< key: offer id << 32 | place id
        int sessions = 0;                               ///< cached session keys of the device
        bool stale = false;                             ///< changed elsewhere: read again before use
    };
    struct CachedSession {
        int64_t device = 0;
        double createdAt = 0;
    };
    struct StringHash {
        using is_transparent = void;
        std::size_t operator()(std::string_view s) const { return std::hash<std::string_view>{}(s); }
    };

    /// A link asked for, waiting for the writers' lock: the thread that takes it records every link
    /// queued meanwhile at once (Store::addLinks()), and the others find theirs done.
    struct PendingLink {
        int64_t device = 0;
        NewLink link;
        LinkInfo info;
        std::exception_ptr error;
        bool done = false;  ///< under dbMutex_
    };

    /// A session start asked for, waiting for the writers' lock: as a PendingLink, the thread that takes
    /// the lock starts every session queued meanwhile at once (Store::startSessions()).
    struct PendingSession {
        DeviceInfo device;
        std::string keyHash;
        std::exception_ptr error;
        bool done = false;  ///< under dbMutex_
    };

    std::string session(const nlohmann::json& req);
    std::string places(const nlohmann::json& req, std::string_view mediaBase);
    std::string link(const nlohmann::json& req, std::string_view mediaBase);
    std::string update(const nlohmann::json& req);
    std::string clear(const nlohmann::json& req);
    std::string tagUpdate(const nlohmann::json& req);
    std::string tagDelete(const nlohmann::json& req);
    std::string log(const nlohmann::json& req);
    /// Runs the endpoint's own operation; ApiError and the store's exceptions pass through.
    std::string answer(Route route, const nlohmann::json& req, std::string_view mediaBase);
    /// The 503 of a write refused because the database is busy.
    ApiReply refuseBusy(double started);

    /// Records the links queued (linkQueue_) in one store call and mirrors them; each one's result or
    /// error goes to its PendingLink.
    void linkQueuedLocked() TOVREL_REQUIRES(dbMutex_) TOVREL_EXCLUDES(stateMutex_, linkQueueMutex_);
    /// Starts the sessions queued (sessionQueue_) in one store call and holds them in memory; each one's
    /// error goes to its PendingSession.
    void startQueuedSessionsLocked() TOVREL_REQUIRES(dbMutex_)
        TOVREL_EXCLUDES(stateMutex_, sessionQueueMutex_);
    /// The answer to a request that threw `error` after `started` (steadyNow()), as handleParsed()
    /// answers it.
    ApiReply failure(std::string_view path, const std::exception_ptr& error, double started);
    /// A log request's message; ApiError 400 when malformed.
    LogMessage logMessage(const nlohmann::json& req) const;
    /// What a link status request asks for.
    struct LinkStatus {
        int64_t deviceEvent = 0;
        std::string code;
    };
    /// A link status request's LinkStatus; ApiError 400 when malformed.
    static LinkStatus linkStatus(const nlohmann::json& req);
    /// The 404 answer's words for a status of a device event that is not the device's live link.
    static std::string noDeviceEvent(int64_t deviceEvent);
    /// What a tag request asks for.
    struct TagWrite {
        std::string group;
        std::string tag;
        std::optional<std::string> value;  ///< nullopt: remove the tag
    };
    /// A tag request's TagWrite; ApiError 400 when malformed.
    TagWrite tagWrite(const nlohmann::json& req, bool update) const;
    /// The device of the request's "sessionKey"; ApiError 401 when unknown or expired. Loads the
    /// device's links.
    int64_t authenticate(const nlohmann::json& req);
    /// The device of a session key held in memory; nullopt when it is not held. ApiError 401 when it
    /// has expired. stateMutex_ held (shared is enough).
    std::optional<int64_t> cachedDeviceLocked(const std::string& keyHash, double now) const
        TOVREL_REQUIRES_SHARED(stateMutex_);
    void catalogVersion(std::uint64_t version) override;
    void devicesChanged(const std::vector<int64_t>& devices) override;
    void resynchronise() override;

    /// Mirrors the device's live links in memory unless they are, and up to date.
    void loadDeviceLocked(int64_t device) TOVREL_REQUIRES(dbMutex_) TOVREL_EXCLUDES(stateMutex_);
    /// Forgets the device's session keys and links held in memory.
    void forgetDeviceLocked(int64_t device) TOVREL_REQUIRES(dbMutex_) TOVREL_EXCLUDES(stateMutex_);
    /// Holds a session key in memory, forgetting the oldest beyond the limit.
    void cacheSessionLocked(const std::string& keyHash, int64_t device, double createdAt)
        TOVREL_REQUIRES(dbMutex_) TOVREL_EXCLUDES(stateMutex_);
    /// The store, for the operations it allows on any thread at once without the writers' lock: a
    /// catalogue snapshot and the reachability check, when concurrentCatalogReads(); any operation
    /// that touches nothing in memory, when concurrency() > 1.
    Store& concurrentStore() const TOVREL_NO_THREAD_SAFETY_ANALYSIS { return *store_; }
    std::shared_ptr<const Catalog> catalog();
    /// Reads the whole catalogue and swaps it in.
    void rebuildCatalogLocked() TOVREL_REQUIRES(rebuildMutex_);
    /// The whole catalogue, or what changed after `since` (Store::readCatalogChanges), read without the
    /// writers' lock where the store allows.
    CatalogData readWholeCatalog() TOVREL_EXCLUDES(dbMutex_);
    std::optional<CatalogChanges> readCatalogChanges(std::uint64_t since) TOVREL_EXCLUDES(dbMutex_);
    /// Frees a catalogue swapped out of a whole read, and the heap's pages with it, unless requests
    /// still hold it.
    static void release(std::shared_ptr<const Catalog> old);
    /// Starts compactCatalog() on a thread of its own unless it runs.
    void startCompaction() TOVREL_EXCLUDES(compactorMutex_);
    /// Reads the whole catalogue without holding rebuildMutex_, applies what changed meanwhile and
    /// swaps it in, so that the changes held beside the shared part start again from none.
    void compactCatalog() TOVREL_EXCLUDES(rebuildMutex_);
    /// Swaps `fresh` in as the catalogue of the store's `version`; returns the one it replaced.
    std::shared_ptr<const Catalog> swapCatalogLocked(std::shared_ptr<const Catalog> fresh,
                                                     std::uint64_t version) TOVREL_REQUIRES(rebuildMutex_);
    std::string placesAnswer(const nlohmann::json& req, int64_t device, std::string_view mediaBase);
    std::string placesAnswer(const PlaceQuery& query, int64_t device, std::string_view mediaBase);
    /// The device of a session key held in memory whose links are current; nullopt: ask the database.
    /// ApiError 401 for a key that has expired.
    std::optional<int64_t> deviceInMemory(std::string_view sessionKey);
    /// Runs a write that changes nothing held in memory: at once where the store takes several,
    /// under the writers' lock elsewhere.
    template <typename Write>
    void writeOnly(Write&& write) {
        if (concurrentStore().concurrency() > 1) {
            write(concurrentStore());
            return;
        }
        Lock db(dbMutex_);
        write(*store_);
    }

    Clock clock_;
    ServiceOptions options_;
    Metrics* metrics_;
    const Logger* logger_;
    /// When (steady seconds) the store last answered busy: writes queued before are refused at once.
    std::atomic<double> busyFoundAt_{0};
    /// The writers' lock: the store's writes, and the order of every change to the mirror below.
    Mutex dbMutex_;
    std::unique_ptr<Store> store_ TOVREL_PT_GUARDED_BY(dbMutex_);
    std::unique_ptr<LogStore> logs_;  ///< thread-safe
    Mutex linkQueueMutex_;            ///< taken alone, or inside dbMutex_
    std::vector<PendingLink*> linkQueue_ TOVREL_GUARDED_BY(linkQueueMutex_);
    Mutex sessionQueueMutex_;  ///< taken alone, or inside dbMutex_
    std::vector<PendingSession*> sessionQueue_ TOVREL_GUARDED_BY(sessionQueueMutex_);
    Mutex rebuildMutex_;  ///< one catalogue rebuild at a time, so that the newest one wins
    std::atomic<std::uint64_t> catalogVersion_{0};
    std::atomic<std::uint64_t> catalogReads_{0};
    /// The mirror that requests read without the database; changed only with dbMutex_ held too.
    SharedMutex stateMutex_;
    std::shared_ptr<const Catalog> catalog_ TOVREL_GUARDED_BY(stateMutex_);
    std::unordered_map<std::string, CachedSession, StringHash, std::equal_to<>> sessions_
        TOVREL_GUARDED_BY(stateMutex_);
    std::deque<std::string> sessionOrder_ TOVREL_GUARDED_BY(stateMutex_);  ///< cached keys, oldest first
    std::unordered_map<int64_t, DeviceLinks> devices_ TOVREL_GUARDED_BY(stateMutex_);
    /// Counts the changes made elsewhere, so that links read while one arrived are read again.
    std::uint64_t linkEpoch_ TOVREL_GUARDED_BY(stateMutex_) = 0;
    /// The store's version of the catalogue in memory (0: the store keeps none).
    std::atomic<std::uint64_t> storeCatalogVersion_{0};
    RateLimiter sessionLimiter_;
    RateLimiter logLimiter_;
    Mutex refusedMutex_;
    /// SDK key → until when it is refused.
    std::unordered_map<std::string, double> refusedSdkKeys_ TOVREL_GUARDED_BY(refusedMutex_);
    std::atomic<bool> compacting_{false};
    Mutex compactorMutex_;
    std::thread compactor_ TOVREL_GUARDED_BY(compactorMutex_);
    /// Last, so that it stops before anything it calls is destroyed.
    std::unique_ptr<ChangeFeed> changeFeed_;
};

}  // namespace tovrel::server
