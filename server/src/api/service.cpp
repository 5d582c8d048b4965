#include "api/service.h"

#include <malloc.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <map>
#include <utility>

#include "api/log_body.h"
#include "common/field_limits.h"
#include "common/request_fields.h"
#include "common/routes.h"
#include "common/session_keys.h"
#include "http/buffer_pool.h"
#include "observability/log.h"
#include "store/device_data.h"
#include "tovrel/platform/json_text.h"

namespace tovrel::server {

using nlohmann::json;
namespace member = protocol::member;

// The hot answers are written as text, with the contract's names.
static_assert(std::string_view(member::kPlaces) == "places" &&
              std::string_view(member::kStatus) == "status" &&
              std::string_view(member::kDeviceEventId) == "deviceEventId" &&
              std::string_view(member::kSuppressMessage) == "suppressMessage");

namespace {

const std::string kStatusOk = R"({"status":1})";

uint64_t pairKey(int64_t offer, int64_t place) {
    return (static_cast<uint64_t>(offer) << 32) | static_cast<uint32_t>(place);
}

}  // namespace

namespace {

constexpr double kRefusedSdkKeySeconds = 5;
constexpr std::size_t kMaxRefusedSdkKeys = 4096;
constexpr double kLogBurstSeconds = 60;

double steadyNow() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

StoreOptions storeOptions(const ServiceOptions& options) {
    return StoreOptions{options.busyTimeoutMs, options.logRetentionDays, options.changeCheckSeconds,
                        options.groupCommit};
}

}  // namespace

double Service::steadySeconds() {
    return steadyNow();
}

Service::Service(const std::string& location, Clock clock, ServiceOptions options, Metrics* metrics,
                 const Logger* logger)
    : clock_(std::move(clock)),
      options_(options),
      metrics_(metrics),
      logger_(logger),
      store_(openStore(location, storeOptions(options))),
      logs_(
          openLogStore(options.logLocation.empty() ? location : options.logLocation, storeOptions(options))),
      sessionLimiter_(options.sessionRateLimit, options.sessionRateLimit * 2),
      logLimiter_(options.logRateLimit, options.logRateLimit * kLogBurstSeconds) {
    // A key held in memory must not outlive its row.
    if (const double kept = options_.retainSessionsDays * 86400.0;
        kept > 0 && (options_.sessionTtl <= 0 || options_.sessionTtl > kept)) {
        options_.sessionTtl = kept;
    }
    if (!options_.controlGroupKey.empty()) {
        store_->setControlGroupKey(options_.controlGroupKey);
    }
    reloadPlaces();
    changeFeed_ = concurrentStore().watchChanges(*this);
}

Service::~Service() {
    changeFeed_.reset();
    Lock lock(compactorMutex_);
    if (compactor_.joinable()) {
        compactor_.join();
    }
}

void Service::catalogVersion(std::uint64_t version) {
    if (version == storeCatalogVersion_.load()) {
        return;
    }
    try {
        refreshCatalog();
    } catch (const std::exception&) {
        // The catalogue in memory keeps answering; the next check of the version tries again.
        if (metrics_ != nullptr) {
            metrics_->databaseError();
        }
    }
}

void Service::devicesChanged(const std::vector<int64_t>& devices) {
    Lock lock(stateMutex_);
    ++linkEpoch_;
    for (const int64_t device : devices) {
        if (const auto it = devices_.find(device); it != devices_.end()) {
            it->second.stale = true;
        }
    }
}

void Service::resynchronise() {
    Lock lock(stateMutex_);
    ++linkEpoch_;
    for (auto& [device, links] : devices_) {
        links.stale = true;
    }
}

std::variant<json, ApiReply> Service::parse(std::string_view path, std::string_view body) {
    if (const ApiRoute* route = findApiRoute(path); route != nullptr && body.size() > route->bodyLimit) {
        return ApiReply{413, errorJson("the request body exceeds the limit of " +
                                       std::to_string(route->bodyLimit / 1024) + " KiB")};
    }
    try {
        return parseObjectBody(body);
    } catch (const ApiError& e) {
        return ApiReply{e.status(), errorJson(e.what())};
    }
}

ApiReply Service::handle(std::string_view path, std::string_view body, std::string_view mediaBase) {
    if (path == protocol::kPlacePath) {
        if (auto reply = answerPlainPlaces(body, mediaBase)) {
            return std::move(*reply);
        }
    } else if (path == protocol::kLogPath) {
        if (auto reply = writePlainLog(body)) {
            return std::move(*reply);
        }
    }
    auto parsed = parse(path, body);
    if (auto* refused = std::get_if<ApiReply>(&parsed)) {
        return std::move(*refused);
    }
    const json& req = std::get<json>(parsed);
    if (auto reply = answerInMemory(path, req, mediaBase)) {
        return std::move(*reply);
    }
    return handleParsed(path, req, mediaBase);
}

ApiReply Service::handleRead(std::string_view path, std::string_view text, const json& body,
                             std::string_view mediaBase) {
    const ApiRoute* route = findApiRoute(path);
    // Whatever the text would be refused for, it is refused for by reading it.
    if (!body.is_object() || (route != nullptr && text.size() > route->bodyLimit) ||
        !platform::jsonNestingWithin(text, static_cast<std::size_t>(kMaxBodyDepth))) {
        return handle(path, text, mediaBase);
    }
    if (auto reply = answerInMemory(path, body, mediaBase)) {
        return std::move(*reply);
    }
    return handleParsed(path, body, mediaBase);
}

std::optional<int64_t> Service::deviceInMemory(std::string_view sessionKey) {
    const std::string keyHash = sessionKeyHash(sessionKey);
    ReaderLock lock(stateMutex_);
    const std::optional<int64_t> device = cachedDeviceLocked(keyHash, clock_());
    if (!device) {
        return std::nullopt;
    }
    const auto links = devices_.find(*device);
    if (links == devices_.end() || links->second.stale) {
        return std::nullopt;
    }
    return device;
}

std::optional<ApiReply> Service::answerPlainPlaces(std::string_view body, std::string_view mediaBase) {
    if (body.size() > kMaxRequestBody) {
        return std::nullopt;
    }
    const std::optional<PlainPlaceRequest> request = readPlainPlaceRequest(body);
    if (!request) {
        return std::nullopt;
    }
    try {
        const std::optional<int64_t> device = deviceInMemory(request->sessionKey);
        if (!device) {
            return std::nullopt;
        }
        return ApiReply{200, placesAnswer(request->query, *device, mediaBase)};
    } catch (const ApiError& e) {
        return ApiReply{e.status(), errorJson(e.what())};
    }
}

std::optional<LogMessage> Service::plainLogMessage(std::string_view body) const {
    const ApiRoute* route = findApiRoute(protocol::kLogPath);
    if (route == nullptr || body.size() > route->bodyLimit) {
        return std::nullopt;
    }
    std::optional<PlainLog> plain = readPlainLog(body);
    if (!plain) {
        return std::nullopt;
    }
    return LogMessage{std::move(plain->deviceId), std::move(plain->eventName), std::move(plain->text),
                      clock_()};
}

std::optional<ApiReply> Service::writePlainLog(std::string_view body) {
    std::optional<LogMessage> message = plainLogMessage(body);
    if (!message) {
        return std::nullopt;
    }
    if (auto refused = refuseChattyDevice(message->deviceId)) {
        return refused;
    }
    return writeLog(std::move(*message));
}

std::optional<ApiReply> Service::refuseChattyDevice(const std::string& deviceId) {
    if (logLimiter_.allow(deviceId, steadyNow())) {
        return std::nullopt;
    }
    if (metrics_ != nullptr) {
        metrics_->rateLimited();
    }
    return ApiReply{429, errorJson("too many log messages from this device; slow down"), true};
}

ApiReply Service::writeLog(LogMessage message, std::optional<double> queuedAt) {
    const double started = steadyNow();
    if (queuedAt.value_or(started) < busyFoundAt_.load()) {
        return refuseBusy(started);
    }
    try {
        logs_->add(std::move(message));
        return ApiReply{200, kStatusOk};
    } catch (...) {
        return failure(protocol::kLogPath, std::current_exception(), started);
    }
}

bool Service::logsShareCommits() const {
    return logs_->sharesCommits();
}

bool Service::startLog(LogMessage& message, const Launch& launch,
                       const std::function<void(ApiReply)>& answer) {
    if (!logs_->sharesCommits()) {
        return false;
    }
    const double started = steadyNow();
    WriteDone written = [this, started, answer](std::exception_ptr error) {
        answer(error ? failure(protocol::kLogPath, error, started) : ApiReply{200, kStatusOk});
    };
    return logs_->start(std::move(message), std::move(written), launch);
}

std::optional<ApiReply> Service::answerInMemory(std::string_view path, const json& req,
                                                std::string_view mediaBase) {
    const ApiRoute* route = findApiRoute(path);
    if (route == nullptr || !route->fromMemory) {
        return std::nullopt;
    }
    try {
        if (route->route == Route::place) {
            const std::optional<int64_t> device =
                deviceInMemory(requireString(req, member::kSessionKey, limits::kSessionKey));
            if (!device) {
                return std::nullopt;
            }
            return ApiReply{200, placesAnswer(req, *device, mediaBase)};
        }
        if (route->route == Route::session) {
            const std::string& sdkKey = requireString(req, "sdkkey", limits::kSdkKey);
            requireString(req, "deviceId", limits::kDeviceId);
            if (!sessionLimiter_.allow(sdkKey, steadyNow())) {
                if (metrics_ != nullptr) {
                    metrics_->rateLimited();
                }
                return ApiReply{429, errorJson("too many session starts for this sdkkey; slow down"), true};
            }
            Lock lock(refusedMutex_);
            if (const auto it = refusedSdkKeys_.find(compactKey(sdkKey)); it != refusedSdkKeys_.end()) {
                if (steadyNow() < it->second) {
                    return ApiReply{401, errorJson("the sdkkey is not a registered app key")};
                }
                refusedSdkKeys_.erase(it);
            }
            return std::nullopt;
        }
        if (route->route == Route::log) {
            return refuseChattyDevice(requireString(req, member::kDeviceId, limits::kDeviceId));
        }
        return std::nullopt;
    } catch (const ApiError& e) {
        return ApiReply{e.status(), errorJson(e.what())};
    }
}

ApiReply Service::handleParsed(std::string_view path, const json& req, std::string_view mediaBase,
                               std::optional<double> queuedAt) {
    const double started = steadyNow();
    const ApiRoute* route = findApiRoute(path);
    if (route == nullptr) {
        return {404, errorJson("there is no endpoint " + std::string(path))};
    }
    if (route->writes && queuedAt.value_or(started) < busyFoundAt_.load()) {
        return refuseBusy(started);
    }
    try {
        return {200, answer(route->route, req, mediaBase)};
    } catch (...) {
        return failure(path, std::current_exception(), started);
    }
}

ApiReply Service::failure(std::string_view path, const std::exception_ptr& error, double started) {
    try {
        std::rethrow_exception(error);
    } catch (const ApiError& e) {
        return {e.status(), errorJson(e.what())};
    } catch (const DeviceGone&) {
        // Erased through another replica while this request was on its way.
        return {401, errorJson("the sessionKey is unknown; start a session at /v1/session")};
    } catch (const NoLiveLink& e) {
        return {404, errorJson(noDeviceEvent(e.deviceEvent()))};
    } catch (const DatabaseBusy&) {
        // Writes queued behind this one would each wait their own busy timeout for the same lock.
        busyFoundAt_ = steadyNow();
        return refuseBusy(started);
    } catch (const std::runtime_error& e) {
        // The store's words stay in the log: they can name tables, indexes and values of other clients.
        reportFailure(path, e.what());
        return {503, errorJson("the database could not take this request; try again later"), true};
    } catch (const std::exception& e) {
        reportFailure(path, e.what());
        return {500, errorJson("the server failed")};
    } catch (...) {
        reportFailure(path, "an unknown exception");
        return {500, errorJson("the server failed")};
    }
}

bool Service::startWrite(std::string_view path, const json& req, const Launch& launch,
                         const std::function<void(ApiReply)>& answer) {
    const ApiRoute* route = findApiRoute(path);
    if (route == nullptr || (route->route != Route::log && route->route != Route::tagUpdate &&
                             route->route != Route::tagDelete && route->route != Route::update)) {
        return false;
    }
    try {
        if (route->route == Route::log) {
            LogMessage message = logMessage(req);
            return startLog(message, launch, answer);
        }
        const double started = steadyNow();
        WriteDone written = [this, path = std::string(path), started, answer](std::exception_ptr error) {
            answer(error ? failure(path, error, started) : ApiReply{200, kStatusOk});
        };
        Store& store = concurrentStore();
        if (store.concurrency() < 2) {
            return false;
        }
        const std::optional<int64_t> device =
            deviceInMemory(requireString(req, member::kSessionKey, limits::kSessionKey));
        if (!device) {
            return false;
        }
        if (route->route == Route::update) {
            const LinkStatus status = linkStatus(req);
            return store.startLinkStatus(*device, status.deviceEvent, status.code, clock_(),
                                         std::move(written), launch);
        }
        const TagWrite tag = tagWrite(req, route->route == Route::tagUpdate);
        return store.startTagWrite(*device, tag.group, tag.tag, tag.value, clock_(), std::move(written),
                                   launch);
    } catch (const ApiError& e) {
        answer({e.status(), errorJson(e.what())});
        return true;
    }
}

std::string Service::answer(Route route, const json& req, std::string_view mediaBase) {
    switch (route) {
        case Route::session:
            return session(req);
        case Route::place:
            return places(req, mediaBase);
        case Route::link:
            return link(req, mediaBase);
        case Route::update:
            return update(req);
        case Route::clear:
            return clear(req);
        case Route::tagUpdate:
            return tagUpdate(req);
        case Route::tagDelete:
            return tagDelete(req);
        case Route::log:
            return log(req);
        default:
            throw ApiError(404, "there is no such endpoint");
    }
}

ApiReply Service::refuseBusy(double started) {
    if (metrics_ != nullptr) {
        metrics_->databaseBusy(steadyNow() - started);
    }
    return {503, errorJson("the database is busy; try again shortly"), true};
}

void Service::reportFailure(std::string_view path, std::string_view what) {
    if (metrics_ != nullptr) {
        metrics_->databaseError();
    }
    if (logger_ != nullptr) {
        logger_->write(LogLevel::error,
                       logger_->line(LogLevel::error, "request failed").add("path", path).add("error", what));
    }
}

std::shared_ptr<const Catalog> Service::catalog() {
    ReaderLock lock(stateMutex_);
    return catalog_;
}

void Service::reloadPlaces() {
    Lock rebuild(rebuildMutex_);
    rebuildCatalogLocked();
}

void Service::refreshCatalog() {
    Lock rebuild(rebuildMutex_);
    const std::uint64_t since = storeCatalogVersion_.load();
    const std::optional<CatalogChanges> changes =
        since != 0 ? readCatalogChanges(since) : std::optional<CatalogChanges>();
    if (!changes) {
        rebuildCatalogLocked();
        return;
    }
    if (changes->version == since) {
        return;
    }
    auto fresh = std::make_shared<const Catalog>(*catalog(), *changes);
    const bool large = fresh->overlaySize() > kCatalogOverlayChanges * options_.catalogChangesInPlace;
    swapCatalogLocked(std::move(fresh), changes->version);
    if (large) {
        startCompaction();
    }
}

void Service::startCompaction() {
    if (compacting_.exchange(true)) {
        return;
    }
    Lock lock(compactorMutex_);
    if (compactor_.joinable()) {
        compactor_.join();
    }
    compactor_ = std::thread([this] {
        try {
            compactCatalog();
        } catch (const std::exception&) {
            // The catalogue in memory keeps answering; the next change that finds it large tries again.
            if (metrics_ != nullptr) {
                metrics_->databaseError();
            }
        }
        compacting_ = false;
    });
}

void Service::compactCatalog() {
    CatalogData data = readWholeCatalog();
    std::uint64_t version = data.version;
    auto whole = std::make_shared<const Catalog>(data);
    data = CatalogData();
    std::shared_ptr<const Catalog> old;
    {
        Lock rebuild(rebuildMutex_);
        if (version < storeCatalogVersion_.load()) {
            const std::optional<CatalogChanges> changes = readCatalogChanges(version);
            if (!changes) {
                return;
            }
            whole = std::make_shared<const Catalog>(*whole, *changes);
            version = changes->version;
        }
        old = swapCatalogLocked(std::move(whole), version);
        ++catalogReads_;
    }
    release(std::move(old));
}

void Service::rebuildCatalogLocked() {
    CatalogData data = readWholeCatalog();
    const std::uint64_t version = data.version;
    auto fresh = std::make_shared<const Catalog>(data);
    data = CatalogData();
    std::shared_ptr<const Catalog> old = swapCatalogLocked(std::move(fresh), version);
    ++catalogReads_;
    release(std::move(old));
}

CatalogData Service::readWholeCatalog() {
    if (concurrentStore().concurrentCatalogReads()) {
        return concurrentStore().readCatalog();
    }
    Lock db(dbMutex_);
    return store_->readCatalog();
}

std::optional<CatalogChanges> Service::readCatalogChanges(std::uint64_t since) {
    if (concurrentStore().concurrentCatalogReads()) {
        return concurrentStore().readCatalogChanges(since, options_.catalogChangesInPlace);
    }
    Lock db(dbMutex_);
    return store_->readCatalogChanges(since, options_.catalogChangesInPlace);
}

void Service::release(std::shared_ptr<const Catalog> old) {
    // A large catalogue's rows are many small blocks; without a trim the heap keeps the old one's pages.
    if (old.use_count() == 1) {
        old.reset();
        malloc_trim(0);
    }
}

std::shared_ptr<const Catalog> Service::swapCatalogLocked(std::shared_ptr<const Catalog> fresh,
                                                          std::uint64_t version) {
    std::shared_ptr<const Catalog> old;
    {
        Lock lock(stateMutex_);
        old = std::exchange(catalog_, std::move(fresh));
    }
    storeCatalogVersion_ = version;
    ++catalogVersion_;
    return old;
}

std::size_t Service::placesIndexed() {
    return catalog()->placeCount();
}

std::size_t Service::sessionsCached() {
    ReaderLock lock(stateMutex_);
    return sessions_.size();
}

bool Service::databaseReachable() {
    if (concurrentStore().concurrentCatalogReads()) {
        return concurrentStore().reachable();
    }
    Lock db(dbMutex_);
    return store_->reachable();
}

void Service::loadDeviceLocked(int64_t device) {
    std::uint64_t epoch = 0;
    {
        ReaderLock lock(stateMutex_);
        if (const auto it = devices_.find(device); it != devices_.end() && !it->second.stale) {
            return;
        }
        epoch = linkEpoch_;
    }
    std::unordered_map<uint64_t, LinkInfo> byPair;
    for (const LinkRow& row : store_->liveLinks(device)) {
        byPair[pairKey(row.offer, row.place)] = LinkInfo{row.id, row.suppressed};
    }
    Lock lock(stateMutex_);
    DeviceLinks& links = devices_[device];
    links.byPair = std::move(byPair);
    // A change notified while the rows were read may not be in them.
    links.stale = linkEpoch_ != epoch;
}

std::optional<int64_t> Service::cachedDeviceLocked(const std::string& keyHash, double now) const {
    const auto it = sessions_.find(std::string_view(keyHash));
    if (it == sessions_.end()) {
        return std::nullopt;
    }
    if (options_.sessionTtl > 0 && now - it->second.createdAt > options_.sessionTtl) {
        throw ApiError(401, "the sessionKey has expired; start a new session at /v1/session");
    }
    return it->second.device;
}

std::map<std::string, int64_t> Service::pruneExpired(int batch) {
    const double now = clock_();
    std::map<std::string, int64_t> removed;
    for (const Retained kind : {Retained::logs, Retained::links, Retained::sessions, Retained::audit}) {
        const int days = kind == Retained::logs    ? options_.logRetentionDays
                         : kind == Retained::links ? options_.retainLinksDays
                         : kind == Retained::audit ? options_.retainAuditDays
                                                   : options_.retainSessionsDays;
        int64_t count = 0;
        std::optional<double> oldest;
        try {
            if (days > 0) {
                // Log messages are kept by UTC day: today and the days before it.
                const double before = kind == Retained::logs
                                          ? static_cast<double>(utcDayNumber(now) - days + 1) * 86400
                                          : now - days * 86400.0;
                for (int i = 0; i < kMaxPruneBatches; ++i) {
                    int64_t n = 0;
                    if (kind == Retained::logs) {
                        n = logs_->prune(before, batch);
                    } else {
                        writeOnly([&](Store& store) { n = store.pruneBatch(kind, before, batch); });
                    }
                    count += n;
                    if (n < batch) {
                        break;
                    }
                }
            }
            if (kind == Retained::logs) {
                oldest = logs_->oldest();
            } else {
                writeOnly([&](Store& store) { oldest = store.oldestRow(kind); });
            }
        } catch (const std::exception& e) {
            // The next pass tries again; what this one removed is committed.
            if (metrics_ != nullptr) {
                metrics_->databaseError();
            }
            if (logger_ != nullptr) {
                logger_->write(LogLevel::error, logger_->line(LogLevel::error, "retention failed")
                                                    .add("kind", retainedName(kind))
                                                    .add("error", e.what()));
            }
        }
        removed[retainedName(kind)] = count;
        if (metrics_ != nullptr) {
            metrics_->retention(retainedName(kind), count,
                                oldest ? std::optional<double>(std::max(0.0, now - *oldest)) : std::nullopt);
        }
    }
    return removed;
}

std::optional<HeldBack> Service::heldBack(int64_t deviceEvent) {
    std::optional<HeldBackLink> held;
    {
        Lock db(dbMutex_);
        held = store_->heldBack(deviceEvent);
    }
    if (!held) {
        return std::nullopt;
    }
    const std::shared_ptr<const Catalog> cat = catalog();
    const Catalog::Campaign* campaign = cat->findCampaign(held->campaign);
    return HeldBack{
        std::string(suppressionName(held->reason)),
        describeHold(held->reason, campaign ? &campaign->rules : nullptr,
                     campaign ? campaign->perDeviceCap : std::nullopt, appRulesFrom(held->appRules)),
        held->lastDelivery};
}

std::optional<ErasedDevice> Service::eraseDevice(const std::string& deviceId) {
    Lock db(dbMutex_);
    std::optional<ErasedDevice> erased = eraseDeviceAndLogs(*store_, *logs_, deviceId);
    if (erased) {
        forgetDeviceLocked(erased->device);
    }
    return erased;
}

std::optional<nlohmann::json> Service::deviceRecord(const std::string& deviceId, bool withMessages) {
    return change([&](Store& store) { return deviceRecordWithLogs(store, *logs_, deviceId, withMessages); },
                  false);
}

std::optional<DeviceDayRows> Service::deviceDay(const std::string& deviceId, double from, double to,
                                                int limit) {
    return change([&](Store& store) { return deviceDayWithLogs(store, *logs_, deviceId, from, to, limit); },
                  false);
}

void Service::forgetDeviceLocked(int64_t device) {
    Lock lock(stateMutex_);
    // Their places in sessionOrder_ stay: eviction passes over keys no longer held.
    std::erase_if(sessions_, [device](const auto& entry) { return entry.second.device == device; });
    devices_.erase(device);
}

void Service::cacheSessionLocked(const std::string& keyHash, int64_t device, double createdAt) {
    Lock lock(stateMutex_);
    if (!sessions_.emplace(keyHash, CachedSession{device, createdAt}).second) {
        return;
    }
    sessionOrder_.push_back(keyHash);
    ++devices_[device].sessions;
    // Added before the oldest goes: evicting first could drop the links of this very device.
    while (sessions_.size() > std::max<std::size_t>(1, options_.maxCachedSessions)) {
        const auto oldest = sessions_.find(std::string_view(sessionOrder_.front()));
        if (oldest != sessions_.end()) {
            const auto links = devices_.find(oldest->second.device);
            if (links != devices_.end() && --links->second.sessions <= 0) {
                devices_.erase(links);
            }
            sessions_.erase(oldest);
        }
        sessionOrder_.pop_front();
    }
}

int64_t Service::authenticate(const json& req) {
    const std::string keyHash = sessionKeyHash(requireString(req, member::kSessionKey, limits::kSessionKey));
    const double now = clock_();
    std::optional<int64_t> cached;
    {
        ReaderLock lock(stateMutex_);
        cached = cachedDeviceLocked(keyHash, now);
        // A device changed by another replica may have been erased there, its sessions with it.
        if (const auto links = cached ? devices_.find(*cached) : devices_.end();
            links != devices_.end() && !links->second.stale) {
            return *cached;
        }
    }
    Lock db(dbMutex_);
    std::optional<SessionRow> stored;
    try {
        stored = store_->findSession(keyHash);
    } catch (const DatabaseBusy&) {
        // The database is away: a key held in memory stands until it can be checked again.
        if (cached) {
            return *cached;
        }
        throw;
    }
    if (!stored) {
        if (cached) {
            forgetDeviceLocked(*cached);
        }
        throw ApiError(401, "the sessionKey is unknown; start a session at /v1/session");
    }
    const int64_t device = stored->device;
    const double createdAt = stored->createdAt;
    if (options_.sessionTtl > 0 && now - createdAt > options_.sessionTtl) {
        throw ApiError(401, "the sessionKey has expired; start a new session at /v1/session");
    }
    loadDeviceLocked(device);
    cacheSessionLocked(keyHash, device, createdAt);
    return device;
}

std::string Service::session(const json& req) {
    const std::string& deviceId = requireString(req, "deviceId", limits::kDeviceId);
    const std::string& sdkKey = requireString(req, "sdkkey", limits::kSdkKey);
    const std::string deviceType = optionalString(req, "deviceType", limits::kDeviceType, "");
    const std::string deviceModel = optionalString(req, "deviceModel", limits::kDeviceModel, "");
    if (deviceId.empty()) {
        throw ApiError(400, "the member \"deviceId\" must not be empty");
    }
    const std::string key = randomKey();
    PendingSession mine{DeviceInfo{deviceId, deviceType, deviceModel, sdkKey}, sessionKeyHash(key), nullptr,
                        false};
    {
        Lock queue(sessionQueueMutex_);
        sessionQueue_.push_back(&mine);
    }
    {
        Lock db(dbMutex_);
        if (!mine.done) {
            startQueuedSessionsLocked();
        }
    }
    if (mine.error) {
        std::rethrow_exception(mine.error);
    }
    return json{{member::kSessionKey, key}}.dump();
}

void Service::startQueuedSessionsLocked() {
    std::vector<PendingSession*> batch;
    {
        Lock queue(sessionQueueMutex_);
        batch.swap(sessionQueue_);
    }
    const double now = clock_();
    std::map<std::string_view, bool> enabled;
    std::vector<SessionRequest> requests;
    std::vector<PendingSession*> asked;
    for (PendingSession* pending : batch) {
        try {
            const std::string& sdkKey = pending->device.appKey;
            auto known = enabled.find(sdkKey);
            if (known == enabled.end()) {
                known = enabled.emplace(sdkKey, store_->appEnabled(sdkKey)).first;
            }
            if (!known->second) {
                // A device with a wrong key retries at once, for ever: the next tries are refused from
                // memory.
                Lock lock(refusedMutex_);
                if (refusedSdkKeys_.size() >= kMaxRefusedSdkKeys) {
                    refusedSdkKeys_.clear();
                }
                refusedSdkKeys_[compactKey(sdkKey)] = steadyNow() + kRefusedSdkKeySeconds;
                throw ApiError(401, "the sdkkey is not a registered app key");
            }
            requests.push_back({&pending->device, &pending->keyHash});
            asked.push_back(pending);
        } catch (...) {
            pending->error = std::current_exception();
            pending->done = true;
        }
    }
    std::vector<SessionResult> results;
    try {
        results = store_->startSessions(requests, now);
    } catch (...) {
        results.assign(requests.size(), std::current_exception());
    }
    for (std::size_t i = 0; i < asked.size(); ++i) {
        PendingSession& pending = *asked[i];
        try {
            if (const auto* error = std::get_if<std::exception_ptr>(&results[i])) {
                std::rethrow_exception(*error);
            }
            const int64_t deviceRow = std::get<int64_t>(results[i]);
            loadDeviceLocked(deviceRow);
            cacheSessionLocked(pending.keyHash, deviceRow, now);
        } catch (...) {
            pending.error = std::current_exception();
        }
        pending.done = true;
    }
}

std::string Service::places(const json& req, std::string_view mediaBase) {
    const int64_t device = authenticate(req);
    try {
        Lock db(dbMutex_);
        loadDeviceLocked(device);
    } catch (const DatabaseBusy&) {
        // Places are answered while the database is away; only the linked flags may be behind.
    }
    return placesAnswer(req, device, mediaBase);
}

std::string Service::placesAnswer(const json& req, int64_t device, std::string_view mediaBase) {
    const auto list = req.find(member::kCoordinatesList);
    if (list == req.end() || !list->is_array() || list->empty() || !list->front().is_object()) {
        throw ApiError(400, "the member \"coordinatesList\" must be an array of {\"lat\", \"lon\"} objects");
    }
    PlaceQuery query;
    query.latitude = requireNumber(list->front(), member::kLatitude, -90, 90);
    query.longitude = requireNumber(list->front(), member::kLongitude, -180, 180);
    query.threshold = requireNumber(req, member::kDistanceThreshold, 0, kMaxDistanceThreshold);
    return placesAnswer(query, device, mediaBase);
}

std::string Service::placesAnswer(const PlaceQuery& query, int64_t device, std::string_view mediaBase) {
    const double lat = query.latitude;
    const double lon = query.longitude;
    const double threshold = query.threshold;
    const double now = clock_();

    thread_local std::vector<SpatialIndex::Hit> hits;
    thread_local std::vector<std::pair<int, const Catalog::Offer*>> offers;
    std::string out = buffer_pool::take();
    out += "{\"places\":[";
    const std::shared_ptr<const Catalog> snapshot = catalog();
    const Catalog& cat = *snapshot;
    cat.near(lat, lon, threshold, hits);
    ReaderLock lock(stateMutex_);
    const auto links = devices_.find(device);
    bool first = true;
    std::size_t records = 0;
    for (const SpatialIndex::Hit& hit : hits) {
        const Catalog::Place& place = cat.placeAt(hit.id);
        offers.clear();
        for (std::size_t i = 0; i < place.offers.size(); ++i) {
            const auto [found, campaign] = cat.offerOf(place, i);
            if (found != nullptr && campaign->liveAt(now)) {
                offers.emplace_back(-campaign->rules.priority, found);
            }
        }
        // The component links the first offer of a place: higher priorities first, then by eventId.
        // std::sort, not stable_sort: the latter takes a heap buffer per place on the hottest path.
        std::sort(offers.begin(), offers.end(), [](const auto& a, const auto& b) {
            return a.first != b.first ? a.first < b.first : a.second->id < b.second->id;
        });
        for (const auto& [priority, found] : offers) {
            const Catalog::Offer& offer = *found;
            if (records++ == kMaxPlaceRecords) {
                break;
            }
            const bool linked =
                links != devices_.end() && links->second.byPair.contains(pairKey(offer.id, place.id));
            if (!first) {
                out += ',';
            }
            first = false;
            cat.appendRecord(out, place, offer, mediaBase, linked);
            out += '}';
        }
        if (records > kMaxPlaceRecords) {
            break;
        }
    }
    out += "]}";
    return out;
}

void Service::linkQueuedLocked() {
    std::vector<PendingLink*> batch;
    {
        Lock queue(linkQueueMutex_);
        batch.swap(linkQueue_);
    }
    const double now = clock_();
    std::vector<LinkRequest> requests;
    std::vector<PendingLink*> asked;
    requests.reserve(batch.size());
    asked.reserve(batch.size());
    for (PendingLink* pending : batch) {
        try {
            loadDeviceLocked(pending->device);
        } catch (...) {
            pending->error = std::current_exception();
            pending->done = true;
            continue;
        }
        const CampaignRules* rules = pending->link.rules;
        pending->link.outsideSchedule =
            rules != nullptr && rules->schedule && !rules->schedule->contains(now);
        requests.push_back({pending->device, &pending->link});
        asked.push_back(pending);
    }
    std::vector<LinkResult> results;
    try {
        results = store_->addLinks(requests, now);
    } catch (...) {
        results.assign(requests.size(), std::current_exception());
    }
    // The writers' lock held throughout: nothing evicted the devices since they were loaded.
    Lock lock(stateMutex_);
    for (std::size_t i = 0; i < asked.size(); ++i) {
        PendingLink& pending = *asked[i];
        if (const auto* row = std::get_if<LinkRow>(&results[i])) {
            pending.info = LinkInfo{row->id, row->suppressed};
            devices_.at(pending.device).byPair[pairKey(pending.link.offer, pending.link.place)] =
                pending.info;
        } else {
            pending.error = std::get<std::exception_ptr>(results[i]);
        }
        pending.done = true;
    }
}

std::string Service::link(const json& req, std::string_view mediaBase) {
    const int64_t device = authenticate(req);
    const int64_t eventId = requireId(req, member::kEventId);
    const int64_t placeId = requireId(req, member::kPlaceId);
    const std::shared_ptr<const Catalog> cat = catalog();
    const Catalog::Place* place = cat->findPlace(placeId);
    const Catalog::Offer* offer = cat->findOffer(eventId);
    if (!place) {
        throw ApiError(404, "there is no place with placeId " + std::to_string(placeId));
    }
    if (!offer) {
        throw ApiError(404, "there is no offer with eventId " + std::to_string(eventId));
    }
    if (!cat->offeredAt(*place, *offer)) {
        throw ApiError(
            404, "offer " + std::to_string(eventId) + " is not offered at place " + std::to_string(placeId));
    }
    const Catalog::Campaign& campaign = cat->campaignOf(*offer);

    PendingLink mine{
        device,
        NewLink{eventId, placeId, campaign.id, campaign.perDeviceCap, campaign.name, &campaign.rules, false},
        {},
        nullptr,
        false};
    {
        Lock queue(linkQueueMutex_);
        linkQueue_.push_back(&mine);
    }
    {
        Lock db(dbMutex_);
        if (!mine.done) {
            linkQueuedLocked();
        }
    }
    if (mine.error) {
        std::rethrow_exception(mine.error);
    }
    const LinkInfo info = mine.info;
    std::string out = "{\"places\":[";
    cat->appendRecord(out, *place, *offer, mediaBase, true);
    out += ",\"deviceEventId\":" + std::to_string(info.id) +
           ",\"suppressMessage\":" + (info.suppressed ? "1" : "0");
    out += "}]}";
    return out;
}

Service::LinkStatus Service::linkStatus(const json& req) {
    static constexpr std::array<std::string_view, 4> kCodes = {"ack", "seen", "saved", "declined"};
    LinkStatus status{requireId(req, member::kDeviceEventId),
                      requireString(req, member::kStatusCode, kCodes.size() * 8)};
    if (std::find(kCodes.begin(), kCodes.end(), status.code) == kCodes.end()) {
        throw ApiError(400, "the statusCode must be one of \"ack\", \"seen\", \"saved\", \"declined\"");
    }
    return status;
}

std::string Service::noDeviceEvent(int64_t deviceEvent) {
    return "this device has no device event " + std::to_string(deviceEvent);
}

std::string Service::update(const json& req) {
    const int64_t device = authenticate(req);
    const LinkStatus status = linkStatus(req);
    writeOnly([&](Store& store) {
        if (store.liveLinkOwner(status.deviceEvent) != device) {
            throw ApiError(404, noDeviceEvent(status.deviceEvent));
        }
        store.addLinkStatus(status.deviceEvent, status.code, clock_());
    });
    return kStatusOk;
}

std::string Service::clear(const json& req) {
    const int64_t device = authenticate(req);
    Lock db(dbMutex_);
    store_->clearLinks(device, clock_());
    Lock lock(stateMutex_);
    devices_[device].byPair.clear();
    return kStatusOk;
}

Service::TagWrite Service::tagWrite(const json& req, bool update) const {
    TagWrite write;
    write.tag = requireString(req, member::kTag, limits::kTag);
    if (update) {
        write.value = requireString(req, member::kTagValue, limits::kTagValue);
    }
    write.group = optionalString(req, member::kGroupTag, limits::kGroupTag, "");
    return write;
}

std::string Service::tagUpdate(const json& req) {
    const int64_t device = authenticate(req);
    const TagWrite tag = tagWrite(req, true);
    writeOnly([&](Store& store) { store.setTag(device, tag.group, tag.tag, *tag.value, clock_()); });
    return kStatusOk;
}

std::string Service::tagDelete(const json& req) {
    const int64_t device = authenticate(req);
    const TagWrite tag = tagWrite(req, false);
    writeOnly([&](Store& store) { store.deleteTag(device, tag.group, tag.tag); });
    return kStatusOk;
}

LogMessage Service::logMessage(const json& req) const {
    const std::string& deviceId = requireString(req, member::kDeviceId, limits::kDeviceId);
    const auto message = req.find(member::kMessage);
    if (message == req.end()) {
        throw ApiError(400, "the request lacks the member \"message\"");
    }
    if (!message->is_object() || message->size() != 1) {
        throw ApiError(400,
                       "the member \"message\" must be an object with exactly one member, the event name");
    }
    const std::string& event = message->begin().key();
    if (event.empty()) {
        throw ApiError(400, "the event name (the message's only member) must not be empty");
    }
    if (event.size() > limits::kLogEventName || event.find('\0') != std::string::npos) {
        throw ApiError(400, "the event name (the message's only member) may be at most " +
                                std::to_string(limits::kLogEventName) +
                                " bytes long, without NUL characters");
    }
    return LogMessage{deviceId, event, message->dump(), clock_()};
}

std::string Service::log(const json& req) {
    logs_->add(logMessage(req));
    return kStatusOk;
}

ImportSummary Service::importGeoJson(const std::string& path) {
    const PlaceFileCheck check = checkPlaceFile(path);
    if (!check.catalog) {
        throw ImportError(describeProblems(check.problems));
    }
    return change([&](Store& store) { return store.writePlaceCatalog(*check.catalog, clock_()); }, true);
}

void Service::addApp(const std::string& key, const std::string& name) {
    Lock db(dbMutex_);
    store_->addApp(key, name, clock_(), nullptr);
}

Report Service::report() {
    Report report = [&] {
        Lock db(dbMutex_);
        return store_->report();
    }();
    report.logCounts = logs_->countsByEvent();
    return report;
}

}  // namespace tovrel::server
