#include "admin/admin_handler.h"

#include <openssl/crypto.h>
#include <sys/stat.h>

#include <algorithm>
#include <cctype>
#include <charconv>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <stdexcept>
#include <vector>

#include "api/service.h"
#include "catalog/catalog_data.h"
#include "common/field_limits.h"
#include "common/request_fields.h"
#include "http/static_files.h"
#include "store/admin_store.h"
#include "store/report.h"
#include "store/work_queue.h"
#include "tovrel_server/admin.h"

namespace tovrel::server {

using nlohmann::json;

namespace {

constexpr std::string_view kPrefix = "/admin/v1/";
constexpr int kDefaultPageSize = 100;
constexpr int kMaxPageSize = 1000;

HttpReply jsonReply(unsigned status, const json& body) {
    HttpReply reply;
    reply.status = status;
    reply.body = body.dump(-1, ' ', false, json::error_handler_t::replace);
    reply.route = Route::admin;
    return reply;
}

HttpReply errorReply(unsigned status, const std::string& message) {
    HttpReply reply;
    reply.status = status;
    reply.body = errorJson(message);
    reply.route = Route::admin;
    return reply;
}

std::vector<std::string> segments(std::string_view path) {
    std::vector<std::string> out;
    while (!path.empty()) {
        const std::size_t slash = path.find('/');
        const std::string_view part = path.substr(0, slash);
        if (!part.empty()) {
            const auto decoded = percentDecode(part);
            if (!decoded) {
                throw ApiError(400, "the path has a malformed %-escape");
            }
            out.push_back(*decoded);
        }
        if (slash == std::string_view::npos) {
            break;
        }
        path.remove_prefix(slash + 1);
    }
    return out;
}

std::string queryValue(std::string_view target, std::string_view name) {
    const std::size_t question = target.find('?');
    if (question == std::string_view::npos) {
        return {};
    }
    std::string_view query = target.substr(question + 1);
    while (!query.empty()) {
        const std::size_t amp = query.find('&');
        const std::string_view pair = query.substr(0, amp);
        const std::size_t eq = pair.find('=');
        if (pair.substr(0, eq) == name) {
            return eq == std::string_view::npos ? "1" : percentDecode(pair.substr(eq + 1)).value_or("");
        }
        if (amp == std::string_view::npos) {
            break;
        }
        query.remove_prefix(amp + 1);
    }
    return {};
}

int64_t idOf(const std::string& text, const char* what) {
    int64_t id = 0;
    const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), id);
    if (ec != std::errc() || end != text.data() + text.size() || id < 0) {
        throw ApiError(400, std::string("\"") + text + "\" is not " + what);
    }
    return id;
}

double steadyNow() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

bool tokenMatches(std::string_view authorization, const std::string& token) {
    // The scheme is case-insensitive; the credentials follow one or more spaces.
    constexpr std::string_view kBearer = "bearer";
    const auto lower = [](char c) { return static_cast<char>(std::tolower(static_cast<unsigned char>(c))); };
    if (authorization.size() <= kBearer.size() || authorization[kBearer.size()] != ' ' ||
        !std::equal(kBearer.begin(), kBearer.end(), authorization.begin(),
                    [&](char a, char b) { return a == lower(b); })) {
        return false;
    }
    authorization.remove_prefix(kBearer.size());
    authorization.remove_prefix(std::min(authorization.find_first_not_of(' '), authorization.size()));
    return authorization.size() == token.size() &&
           CRYPTO_memcmp(authorization.data(), token.data(), token.size()) == 0;
}

// A place file made of the posted parts, so that what the admin API accepts is read by the same rules
// as an imported file.
json placeFile(json features, json campaigns) {
    return json{{"type", "FeatureCollection"},
                {"properties", {{"campaigns", std::move(campaigns)}}},
                {"features", std::move(features)}};
}

}  // namespace

std::string readAdminToken(const std::string& path, bool othersMayRead) {
    struct stat info {};
    if (!othersMayRead && ::stat(path.c_str(), &info) == 0 && (info.st_mode & (S_IROTH | S_IWOTH)) != 0) {
        char mode[8];
        std::snprintf(mode, sizeof mode, "%04o", static_cast<unsigned>(info.st_mode & 07777));
        throw std::runtime_error("the admin token file " + path + " can be read by other users (mode " +
                                 mode + "): chmod o-rw it, or start with --admin-token-insecure-permissions");
    }
    std::ifstream in(path);
    std::string token;
    if (!in || !std::getline(in, token)) {
        throw std::runtime_error("cannot read the admin token file " + path);
    }
    const auto first = token.find_first_not_of(" \t\r");
    const auto last = token.find_last_not_of(" \t\r");
    token = first == std::string::npos ? std::string() : token.substr(first, last - first + 1);
    if (token.size() < 16) {
        throw std::runtime_error("the admin token in " + path + " is shorter than 16 characters");
    }
    return token;
}

AdminHandler::AdminHandler(Service& service, Metrics& metrics, WorkQueue& work, std::string token,
                           std::function<MetricsSnapshot()> snapshot, const std::string& consoleDir)
    : service_(service),
      metrics_(metrics),
      work_(work),
      token_(std::move(token)),
      snapshot_(std::move(snapshot)),
      console_(consoleDir, token_) {}

std::optional<HttpReply> AdminHandler::refuseUnauthorised(const HttpRequest& request) {
    if (token_.empty()) {
        return errorReply(403, "the admin API is off: start tovrel-server with --admin-token-file");
    }
    if (tokenMatches(request.authorization, token_)) {
        return std::nullopt;
    }
    switch (console_.check(request, steadyNow())) {
        case Console::Access::granted:
            return std::nullopt;
        case Console::Access::forged:
            return errorReply(403, "a change from the console needs its X-CSRF-Token and its own origin");
        case Console::Access::none:
            break;
    }
    HttpReply reply = errorReply(401,
                                 "the admin API needs \"Authorization: Bearer <token>\" with the token "
                                 "of --admin-token-file");
    reply.authenticate = "Bearer";
    return reply;
}

Admission AdminHandler::admit(const HttpRequest& header) {
    Admission admission;
    if (header.path.substr(0, kPrefix.size()) != kPrefix) {
        // Probes, metrics and the console's pages and sign-in carry small bodies at most.
        admission.bodyLimit = kMaxProbeBody;
        return admission;
    }
    if (auto refusal = refuseUnauthorised(header)) {
        admission.refusal = std::move(refusal);
        return admission;
    }
    if (inFlight_.fetch_add(1) >= kMaxAdminRequests) {
        inFlight_.fetch_sub(1);
        admission.refusal = errorReply(503, "too many admin requests at once; try again shortly");
        admission.refusal->retryAfter = "1";
        return admission;
    }
    admission.slot = std::shared_ptr<void>(nullptr, [this](void*) { inFlight_.fetch_sub(1); });
    return admission;
}

void AdminHandler::handle(const HttpRequest& request, Respond respond) {
    const std::string_view path = request.path;
    if (Console::owns(path)) {
        return respond(console_.handle(request, steadyNow()));
    }
    if (path == "/healthz" || path == "/readyz" || path == "/metrics") {
        if (request.method != "GET" && request.method != "HEAD") {
            HttpReply reply = errorReply(405, "use GET for " + std::string(path));
            reply.allow = "GET, HEAD";
            return respond(std::move(reply));
        }
        if (path == "/metrics") {
            HttpReply reply;
            reply.route = Route::metrics;
            reply.contentType = "text/plain; version=0.0.4; charset=utf-8";
            MetricsSnapshot snapshot = snapshot_ ? snapshot_() : MetricsSnapshot{};
            snapshot.placesIndexed = static_cast<int64_t>(service_.placesIndexed());
            snapshot.sessionsCached = static_cast<int64_t>(service_.sessionsCached());
            snapshot.catalogVersion = service_.catalogVersion();
            snapshot.catalogReads = service_.catalogReads();
            reply.body = metrics_.scrape(snapshot);
            return respond(std::move(reply));
        }
        if (path == "/healthz") {
            HttpReply reply = jsonReply(200, {{"status", "ok"}});
            reply.route = Route::health;
            return respond(std::move(reply));
        }
        // The database check opens a connection: off the connection's thread.
        const bool posted = work_.post([this, respond] {
            const bool reachable = service_.databaseReachable();
            HttpReply reply =
                reachable ? jsonReply(200, {{"status", "ready"}, {"places", service_.placesIndexed()}})
                          : errorReply(503, "the database cannot be read");
            reply.route = Route::health;
            respond(std::move(reply));
        });
        if (!posted) {
            respond(errorReply(503, "the admin queue is full"));
        }
        return;
    }
    if (path.substr(0, kPrefix.size()) != kPrefix) {
        return respond(errorReply(404, "there is no admin endpoint " + std::string(path)));
    }
    if (auto refusal = refuseUnauthorised(request)) {
        return respond(std::move(*refusal));
    }
    const bool posted =
        work_.post([this, respond, method = std::string(request.method), target = std::string(request.target),
                    body = std::string(request.body)] { respond(administer(method, target, body)); });
    if (!posted) {
        HttpReply reply = errorReply(503, "the admin queue is full");
        reply.retryAfter = "1";
        respond(std::move(reply));
    }
}

HttpReply AdminHandler::administer(const std::string& method, const std::string& target,
                                   const std::string& body) {
    try {
        const std::string_view path = std::string_view(target).substr(0, target.find_first_of("?#"));
        const std::vector<std::string> parts = segments(path.substr(kPrefix.size()));
        if (parts.empty()) {
            throw ApiError(404, "there is no admin endpoint " + std::string(path));
        }
        const std::string& kind = parts[0];
        const bool get = method == "GET";
        const bool post = method == "POST";
        const bool del = method == "DELETE";
        const auto now = wallClock();

        // Actions on one item: .../KIND/ID/disable|enable|rotate, DELETE .../KIND/ID.
        const auto toggle = [&](auto&& setDisabled, bool catalog) -> HttpReply {
            if (parts.size() != 3 || !post || (parts[2] != "disable" && parts[2] != "enable")) {
                throw ApiError(
                    404, "use POST " + std::string(path.substr(0, path.rfind('/'))) + "/disable or /enable");
            }
            const bool disabled = parts[2] == "disable";
            if (!service_.change([&](Store& store) { return setDisabled(store, disabled); }, catalog)) {
                throw ApiError(404, "there is no " + kind.substr(0, kind.size() - 1) + " " + parts[1]);
            }
            return jsonReply(200, {{"id", parts[1]}, {"disabled", disabled}});
        };
        const auto remove = [&](auto&& removeOne, bool catalog) -> HttpReply {
            if (!service_.change([&](Store& store) { return removeOne(store); }, catalog)) {
                throw ApiError(404, "there is no " + kind.substr(0, kind.size() - 1) + " " + parts[1]);
            }
            return jsonReply(200, {{"removed", parts[1]}});
        };

        if (kind == "apps") {
            if (parts.size() == 1 && get) {
                return jsonReply(
                    200, {{"apps", service_.change([](Store& store) { return store.listApps(); }, false)}});
            }
            if (parts.size() == 1 && post) {
                const json req = parseObjectBody(body);
                const std::string name = requireString(req, "name", limits::kAppName);
                const std::string key = optionalString(req, "key", limits::kSdkKey, "");
                bool added = false;
                const std::string stored = service_.change(
                    [&](Store& store) { return store.addApp(key, name, now, &added); }, false);
                return jsonReply(added ? 201 : 200, {{"key", stored}, {"name", name}});
            }
            if (parts.size() == 2 && del) {
                return remove([&](Store& store) { return store.removeApp(parts[1]); }, false);
            }
            if (parts.size() == 3 && post && parts[2] == "rotate") {
                const auto fresh =
                    service_.change([&](Store& store) { return store.rotateApp(parts[1]); }, false);
                if (!fresh) {
                    throw ApiError(404, "there is no app " + parts[1]);
                }
                return jsonReply(200, {{"key", *fresh}, {"previous", parts[1]}});
            }
            if (parts.size() == 3) {
                return toggle([&](Store& store, bool d) { return store.setAppDisabled(parts[1], d); }, false);
            }
        } else if (kind == "campaigns") {
            if (parts.size() == 1 && get) {
                return jsonReply(
                    200, {{"campaigns",
                           service_.change([](Store& store) { return store.listCampaigns(); }, false)}});
            }
            if (parts.size() == 1 && post) {
                const CatalogData data = parseGeoJson(
                    placeFile(json::array(), json::array({parseObjectBody(body)})).dump(), "the campaign");
                const ImportSummary summary =
                    service_.change([&](Store& store) { return store.writeCatalog(data, now); }, true);
                return jsonReply(200, {{"campaigns", summary.campaigns}});
            }
            if (parts.size() >= 2) {
                const auto id =
                    service_.change([&](Store& store) { return store.findCampaign(parts[1]); }, false);
                if (!id) {
                    throw ApiError(404, "there is no campaign " + parts[1]);
                }
                if (parts.size() == 2 && del) {
                    return remove([&](Store& store) { return store.removeCampaign(*id); }, true);
                }
                return toggle([&](Store& store, bool d) { return store.setCampaignDisabled(*id, d); }, true);
            }
        } else if (kind == "offers") {
            if (parts.size() == 1 && get) {
                return jsonReply(
                    200,
                    {{"offers", service_.change([](Store& store) { return store.listOffers(); }, false)}});
            }
            if (parts.size() >= 2) {
                const int64_t id = idOf(parts[1], "an offer's eventId");
                if (parts.size() == 2 && del) {
                    return remove([&](Store& store) { return store.removeOffer(id); }, true);
                }
                return toggle([&](Store& store, bool d) { return store.setOfferDisabled(id, d); }, true);
            }
        } else if (kind == "places") {
            if (parts.size() == 1 && get) {
                const std::string after = queryValue(target, "after");
                const std::string limitText = queryValue(target, "limit");
                const int64_t from = after.empty() ? 0 : idOf(after, "a placeId");
                const int64_t limit = limitText.empty() ? kDefaultPageSize : idOf(limitText, "a page size");
                const int pageSize = static_cast<int>(std::clamp<int64_t>(limit, 1, kMaxPageSize));
                json page =
                    service_.change([&](Store& store) { return store.listPlaces(from, pageSize); }, false);
                json next = page.size() == static_cast<std::size_t>(pageSize) ? page.back()["placeId"]
                                                                              : json(nullptr);
                return jsonReply(200, {{"places", std::move(page)}, {"next", std::move(next)}});
            }
            if (parts.size() == 1 && post) {
                const json feature = parseObjectBody(body, 64);
                const json campaigns =
                    service_.change([](Store& store) { return store.campaignDefinitions(); }, false);
                const CatalogData data =
                    parseGeoJson(placeFile(json::array({feature}), campaigns).dump(), "the place");
                const ImportSummary summary =
                    service_.change([&](Store& store) { return store.writeCatalog(data, now); }, true);
                return jsonReply(200, {{"places", summary.places}, {"offers", summary.offers}});
            }
            if (parts.size() >= 2) {
                const int64_t id = idOf(parts[1], "a placeId");
                if (parts.size() == 2 && del) {
                    return remove([&](Store& store) { return store.removePlace(id); }, true);
                }
                return toggle([&](Store& store, bool d) { return store.setPlaceDisabled(id, d); }, true);
            }
        } else if (kind == "import" && parts.size() == 1 && post) {
            const bool dryRun = queryValue(target, "dry_run") == "1";
            PlaceFileCheck check = checkPlaceFile(std::string_view(body), "the upload");
            if (!check.catalog) {
                json problems = json::array();
                for (const PlaceFileProblem& p : check.problems) {
                    problems.push_back({{"feature", p.feature ? json(*p.feature) : json(nullptr)},
                                        {"member", p.member},
                                        {"message", p.message}});
                }
                return jsonReply(400,
                                 {{"error", std::to_string(check.problems.size()) + " problem" +
                                                (check.problems.size() == 1 ? "" : "s") + " in the upload"},
                                  {"problems", std::move(problems)}});
            }
            const PlaceCatalog& data = *check.catalog;
            if (dryRun) {
                return jsonReply(200, {{"valid", true},
                                       {"places", data.placeCount()},
                                       {"offers", data.offerCount()},
                                       {"campaigns", data.campaigns.size()},
                                       {"apps", data.apps.size()}});
            }
            const ImportSummary summary =
                service_.change([&](Store& store) { return store.writePlaceCatalog(data, now); }, true);
            return jsonReply(200, {{"places", summary.places},
                                   {"offers", summary.offers},
                                   {"campaigns", summary.campaigns},
                                   {"apps", summary.apps}});
        } else if (kind == "funnel" && parts.size() == 1 && get) {
            const bool byDay = queryValue(target, "by") == "day";
            return jsonReply(
                200, funnelJson(service_.change([&](Store& store) { return store.funnel(byDay); }, false)));
        }
        throw ApiError(404, "there is no admin endpoint " + method + " " + std::string(path));
    } catch (const ApiError& e) {
        return errorReply(e.status(), e.what());
    } catch (const ImportError& e) {
        return errorReply(400, e.what());
    } catch (const admin_store::Conflict& e) {
        return errorReply(409, e.what());
    } catch (const DatabaseBusy&) {
        HttpReply reply = errorReply(503, "the database is busy; try again shortly");
        reply.retryAfter = "1";
        return reply;
    } catch (const std::runtime_error& e) {
        service_.reportFailure(target, e.what());
        HttpReply reply = errorReply(503, "the database could not take this request; try again later");
        reply.retryAfter = "1";
        return reply;
    } catch (const std::exception& e) {
        service_.reportFailure(target, e.what());
        return errorReply(500, "the server failed; its log says why");
    }
}

}  // namespace tovrel::server
