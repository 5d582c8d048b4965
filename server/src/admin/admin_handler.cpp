#include "admin/admin_handler.h"

#include <sys/stat.h>

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <stdexcept>
#include <vector>

#include "admin/access_admin.h"
#include "admin/catalogue_export.h"
#include "admin/device_day.h"
#include "admin/query_string.h"
#include "admin/webhooks_admin.h"
#include "api/service.h"
#include "catalog/catalog_data.h"
#include "common/field_limits.h"
#include "common/request_fields.h"
#include "common/session_keys.h"
#include "http/static_files.h"
#include "store/access_store.h"
#include "store/admin_store.h"
#include "store/device_data.h"
#include "store/report.h"
#include "store/work_queue.h"
#include "tovrel_server/admin.h"

namespace tovrel::server {

using nlohmann::json;

namespace {

constexpr std::string_view kPrefix = "/admin/v1/";
constexpr int kDefaultPageSize = 100;
constexpr int kMaxPageSize = 1000;
// Four weeks: enough for caps per week to bite a few times over.
constexpr int64_t kLongestPreviewDays = 28;

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

int64_t idOf(const std::string& text, const char* what) {
    int64_t id = 0;
    const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), id);
    if (ec != std::errc() || end != text.data() + text.size() || id < 0) {
        throw ApiError(400, std::string("\"") + text + "\" is not " + what);
    }
    return id;
}

// The credentials of "Authorization: Bearer <token>"; empty for any other header.
std::string_view bearerToken(std::string_view authorization) {
    // The scheme is case-insensitive; the credentials follow one or more spaces.
    constexpr std::string_view kBearer = "bearer";
    const auto lower = [](char c) { return static_cast<char>(std::tolower(static_cast<unsigned char>(c))); };
    if (authorization.size() <= kBearer.size() || authorization[kBearer.size()] != ' ' ||
        !std::equal(kBearer.begin(), kBearer.end(), authorization.begin(),
                    [&](char a, char b) { return a == lower(b); })) {
        return {};
    }
    authorization.remove_prefix(kBearer.size());
    authorization.remove_prefix(std::min(authorization.find_first_not_of(' '), authorization.size()));
    return authorization;
}

// What a change is about, for the audit trail: the item its path names, else the name the posted body
// gives it. Device ids are replaced by their keyed hash where this is used.
std::string auditItem(const std::vector<std::string>& parts, const std::string& body) {
    constexpr std::size_t kLongestItem = 200;
    constexpr std::size_t kLargestBodyRead = 64 * 1024;
    std::string item;
    if (parts.size() >= 2) {
        item = parts[1];
    } else if (body.size() <= kLargestBodyRead) {
        const json posted = json::parse(body, nullptr, false);
        if (posted.is_object()) {
            const json& properties = posted.contains("properties") ? posted["properties"] : json();
            const json named = posted.contains("name")  ? posted["name"]
                               : posted.contains("url") ? posted["url"]
                               : properties.is_object() ? properties.value("placeId", json())
                                                        : json();
            item = named.is_string() ? named.get<std::string>() : named.is_number() ? named.dump() : "";
        }
    }
    return item.substr(0, kLongestItem);
}

// A place file made of the posted parts, so that what the admin API accepts is read by the same rules
// as an imported file.
json placeFile(json features, json campaigns) {
    return json{{"type", "FeatureCollection"},
                {"properties", {{"campaigns", std::move(campaigns)}}},
                {"features", std::move(features)}};
}

// One admin API request, on the admin thread: its path split into decoded segments ("places", "12", ...).
struct AdminRequest {
    const std::string& method;
    const std::string& target;
    std::string_view path;
    std::vector<std::string> parts;
    const std::string& body;
    const std::string& ifMatch;
    double now;

    bool is(std::string_view m) const { return method == m; }
    // "there is no place 12"
    std::string missing() const {
        return "there is no " + parts[0].substr(0, parts[0].size() - 1) + " " +
               (parts.size() > 1 ? parts[1] : "");
    }
};

// An item changed (or removed) since the client read the version it sent in If-Match; answered 412 with
// the item as it is now (null when removed).
struct StaleVersion : std::runtime_error {
    StaleVersion(const std::string& what, json now) : std::runtime_error(what), current(std::move(now)) {}
    json current;
};

// The version of an item as an entity tag: a digest of what an editor sees of it, so that any change
// another editor makes (on any replica) gives a new one without a column to keep it.
std::string versionOf(const json& item) {
    return '"' + sessionKeyHash(item.dump(-1, ' ', false, json::error_handler_t::replace)).substr(0, 20) +
           '"';
}

// Refuses the change when the client sent If-Match and `current` (null: no such item) is not that version.
void requireVersion(const AdminRequest& r, const json& current, const std::string& what) {
    if (r.ifMatch.empty() || (r.ifMatch == "*" && !current.is_null())) {
        return;
    }
    if (current.is_null() || versionOf(current) != r.ifMatch) {
        throw StaleVersion(current.is_null()
                               ? what + " was removed by someone else"
                               : what + " was changed by someone else since you read it; reload it",
                           current);
    }
}

// A place as an editor sees it: its row and its offers' rows.
json placeItem(Service& service, int64_t id) {
    return service.change(
        [&](Store& store) {
            json rows = store.listPlaces(id - 1, 1, std::nullopt);
            if (rows.empty() || rows[0]["placeId"] != id) {
                return json(nullptr);
            }
            json offers = json::array();
            for (json& offer : store.listOffers()) {
                if (std::find(rows[0]["offers"].begin(), rows[0]["offers"].end(), offer["eventId"]) !=
                    rows[0]["offers"].end()) {
                    offer.erase("places");
                    offers.push_back(std::move(offer));
                }
            }
            return json{{"place", std::move(rows[0])}, {"offers", std::move(offers)}};
        },
        false);
}

// A campaign as an editor sees it (how many offers it has left out: adding one is no edit of it).
json campaignItem(Service& service, const std::string& nameOrId) {
    return service.change(
        [&](Store& store) {
            const auto id = store.findCampaign(nameOrId);
            for (json& campaign : store.listCampaigns()) {
                if (id && campaign["id"] == *id) {
                    campaign.erase("offers");
                    return campaign;
                }
            }
            return json(nullptr);
        },
        false);
}

// GET .../KIND/ID: the item and its version.
HttpReply itemReply(const json& item, const AdminRequest& r) {
    if (item.is_null()) {
        throw ApiError(404, r.missing());
    }
    HttpReply reply = jsonReply(200, item);
    reply.headers.emplace_back("ETag", versionOf(item));
    return reply;
}

// POST .../KIND/ID/disable or /enable.
template <typename SetDisabled>
HttpReply toggle(Service& service, const AdminRequest& r, SetDisabled&& setDisabled, bool catalog) {
    if (r.parts.size() != 3 || !r.is("POST") || (r.parts[2] != "disable" && r.parts[2] != "enable")) {
        throw ApiError(
            404, "use POST " + std::string(r.path.substr(0, r.path.rfind('/'))) + "/disable or /enable");
    }
    const bool disabled = r.parts[2] == "disable";
    if (!service.change([&](Store& store) { return setDisabled(store, disabled); }, catalog)) {
        throw ApiError(404, r.missing());
    }
    return jsonReply(200, {{"id", r.parts[1]}, {"disabled", disabled}});
}

// DELETE .../KIND/ID.
template <typename RemoveOne>
HttpReply removeItem(Service& service, const AdminRequest& r, RemoveOne&& removeOne, bool catalog) {
    if (!service.change([&](Store& store) { return removeOne(store); }, catalog)) {
        throw ApiError(404, r.missing());
    }
    return jsonReply(200, {{"removed", r.parts[1]}});
}

// A 400 listing what is wrong with a posted body read by the place file's rules, each member made
// relative to the body (`within` is where the body sits in the place file made of it). With one problem,
// its message and member are the answer's own.
HttpReply problemsReply(const std::vector<PlaceFileProblem>& found, std::string_view within,
                        const std::string& what) {
    json problems = json::array();
    for (const PlaceFileProblem& p : found) {
        const bool inside = p.member.rfind(within, 0) == 0;
        problems.push_back({{"feature", p.feature ? json(*p.feature) : json(nullptr)},
                            {"member", inside ? p.member.substr(within.size()) : p.member},
                            {"message", p.message}});
    }
    json answer = {{"error", std::to_string(found.size()) + " problem" + (found.size() == 1 ? "" : "s") +
                                 " in " + what}};
    if (problems.size() == 1) {
        answer["error"] = problems[0]["message"];
        answer["member"] = problems[0]["member"];
    }
    answer["problems"] = std::move(problems);
    return jsonReply(400, answer);
}

// Writes a place file made of posted parts, read by the same rules as an imported file.
HttpReply writePosted(Service& service, const json& file, std::string_view within, const std::string& what,
                      double now, const std::function<json(const ImportSummary&)>& answer) {
    PlaceFileCheck check = checkPlaceFile(std::string_view(file.dump()), what);
    if (!check.catalog) {
        return problemsReply(check.problems, within, what);
    }
    const ImportSummary summary =
        service.change([&](Store& store) { return store.writePlaceCatalog(*check.catalog, now); }, true);
    return jsonReply(200, answer(summary));
}

HttpReply appsRequest(Service& service, const AdminRequest& r) {
    const auto& parts = r.parts;
    if (parts.size() == 1 && r.is("GET")) {
        return jsonReply(200,
                         {{"apps", service.change([](Store& store) { return store.listApps(); }, false)}});
    }
    if (parts.size() == 1 && r.is("POST")) {
        const json req = parseObjectBody(r.body);
        const std::string name = requireString(req, "name", limits::kAppName);
        const std::string key = optionalString(req, "key", limits::kSdkKey, "");
        bool added = false;
        const std::string stored =
            service.change([&](Store& store) { return store.addApp(key, name, r.now, &added); }, false);
        return jsonReply(added ? 201 : 200, {{"key", stored}, {"name", name}});
    }
    if (parts.size() == 2 && r.is("DELETE")) {
        return removeItem(
            service, r, [&](Store& store) { return store.removeApp(parts[1]); }, false);
    }
    if (parts.size() == 3 && r.is("POST") && parts[2] == "rotate") {
        const auto fresh = service.change([&](Store& store) { return store.rotateApp(parts[1]); }, false);
        if (!fresh) {
            throw ApiError(404, r.missing());
        }
        return jsonReply(200, {{"key", *fresh}, {"previous", parts[1]}});
    }
    if (parts.size() == 3) {
        return toggle(
            service, r, [&](Store& store, bool d) { return store.setAppDisabled(parts[1], d); }, false);
    }
    throw ApiError(404, "there is no admin endpoint " + r.method + " " + std::string(r.path));
}

HttpReply campaignsRequest(Service& service, const AdminRequest& r) {
    const auto& parts = r.parts;
    if (parts.size() == 1 && r.is("GET")) {
        return jsonReply(
            200, {{"campaigns", service.change([](Store& store) { return store.listCampaigns(); }, false)}});
    }
    if (parts.size() == 1 && r.is("POST")) {
        json posted = parseObjectBody(r.body);
        if (!r.ifMatch.empty()) {
            const std::string name =
                posted.contains("name") && posted["name"].is_string() ? posted["name"] : "";
            requireVersion(r, campaignItem(service, name), "the campaign " + name);
        }
        return writePosted(service, placeFile(json::array(), json::array({std::move(posted)})),
                           "/properties/campaigns/0", "the campaign", r.now,
                           [](const ImportSummary& summary) {
                               return json{{"campaigns", summary.campaigns}};
                           });
    }
    if (parts.size() < 2) {
        throw ApiError(404, "there is no admin endpoint " + r.method + " " + std::string(r.path));
    }
    const auto id = service.change([&](Store& store) { return store.findCampaign(parts[1]); }, false);
    if (!id) {
        throw ApiError(404, r.missing());
    }
    if (parts.size() == 2 && r.is("GET")) {
        return itemReply(campaignItem(service, parts[1]), r);
    }
    if (!r.ifMatch.empty()) {
        requireVersion(r, campaignItem(service, parts[1]), "the campaign " + parts[1]);
    }
    if (parts.size() == 2 && r.is("DELETE")) {
        return removeItem(
            service, r, [&](Store& store) { return store.removeCampaign(*id); }, true);
    }
    return toggle(
        service, r, [&](Store& store, bool d) { return store.setCampaignDisabled(*id, d); }, true);
}

HttpReply offersRequest(Service& service, const AdminRequest& r) {
    if (r.parts.size() == 1 && r.is("GET")) {
        return jsonReply(
            200, {{"offers", service.change([](Store& store) { return store.listOffers(); }, false)}});
    }
    if (r.parts.size() < 2) {
        throw ApiError(404, "there is no admin endpoint " + r.method + " " + std::string(r.path));
    }
    const int64_t id = idOf(r.parts[1], "an offer's eventId");
    if (r.parts.size() == 2 && r.is("DELETE")) {
        return removeItem(
            service, r, [&](Store& store) { return store.removeOffer(id); }, true);
    }
    return toggle(
        service, r, [&](Store& store, bool d) { return store.setOfferDisabled(id, d); }, true);
}

// "west,south,east,north" in degrees.
PlaceArea areaOf(const std::string& text) {
    PlaceArea area;
    double* const corners[] = {&area.west, &area.south, &area.east, &area.north};
    std::size_t from = 0;
    for (std::size_t i = 0; i < 4; ++i) {
        const std::size_t comma = i < 3 ? text.find(',', from) : text.size();
        if (comma == std::string::npos) {
            break;
        }
        const auto [end, ec] = std::from_chars(text.data() + from, text.data() + comma, *corners[i]);
        if (ec != std::errc() || end != text.data() + comma || !std::isfinite(*corners[i])) {
            break;
        }
        from = comma + 1;
        if (i == 3 && area.south <= area.north && area.south >= -90 && area.north <= 90 &&
            area.west >= -180 && area.west <= 180 && area.east >= -180 && area.east <= 180) {
            return area;
        }
    }
    throw ApiError(400, "bbox must be west,south,east,north in degrees (south up to north)");
}

HttpReply placesRequest(Service& service, const AdminRequest& r) {
    const auto& parts = r.parts;
    if (parts.size() == 1 && r.is("GET")) {
        const std::string after = queryValue(r.target, "after");
        const std::string limitText = queryValue(r.target, "limit");
        const std::string box = queryValue(r.target, "bbox");
        const int64_t from = after.empty() ? 0 : idOf(after, "a placeId");
        const int64_t limit = limitText.empty() ? kDefaultPageSize : idOf(limitText, "a page size");
        const int pageSize = static_cast<int>(std::clamp<int64_t>(limit, 1, kMaxPageSize));
        const std::optional<PlaceArea> area = box.empty() ? std::nullopt : std::optional(areaOf(box));
        json page =
            service.change([&](Store& store) { return store.listPlaces(from, pageSize, area); }, false);
        json next =
            page.size() == static_cast<std::size_t>(pageSize) ? page.back()["placeId"] : json(nullptr);
        return jsonReply(200, {{"places", std::move(page)}, {"next", std::move(next)}});
    }
    if (parts.size() == 1 && r.is("POST")) {
        const json feature = parseObjectBody(r.body, 64);
        if (!r.ifMatch.empty()) {
            const json id = feature.contains("properties") && feature["properties"].is_object()
                                ? feature["properties"].value("placeId", json(nullptr))
                                : json(nullptr);
            const bool known = id.is_number_integer();
            requireVersion(r, known ? placeItem(service, id.get<int64_t>()) : json(nullptr),
                           "the place " + (known ? id.dump() : std::string("without a placeId")));
        }
        const json campaigns =
            service.change([](Store& store) { return store.campaignDefinitions(); }, false);
        return writePosted(service, placeFile(json::array({feature}), campaigns), "/features/0", "the place",
                           r.now, [](const ImportSummary& summary) {
                               return json{{"places", summary.places}, {"offers", summary.offers}};
                           });
    }
    if (parts.size() < 2) {
        throw ApiError(404, "there is no admin endpoint " + r.method + " " + std::string(r.path));
    }
    const int64_t id = idOf(parts[1], "a placeId");
    if (parts.size() == 2 && r.is("GET")) {
        return itemReply(placeItem(service, id), r);
    }
    if (!r.ifMatch.empty()) {
        requireVersion(r, placeItem(service, id), "the place " + parts[1]);
    }
    if (parts.size() == 2 && r.is("DELETE")) {
        return removeItem(
            service, r, [&](Store& store) { return store.removePlace(id); }, true);
    }
    return toggle(
        service, r, [&](Store& store, bool d) { return store.setPlaceDisabled(id, d); }, true);
}

// A device's positions and links on one UTC day, as JSON or (format=geojson) GeoJSON. Positions are
// stamped by the device and uploaded up to half an hour later: messages received until an hour after
// the day are read.
HttpReply deviceDayReply(Service& service, const AdminRequest& r, const std::string& deviceId) {
    static constexpr int kMaxMessages = 20'000;
    static constexpr std::size_t kMaxPositions = 100'000;
    const std::string date = queryValue(r.target, "date");
    const std::string format = queryValue(r.target, "format");
    const std::optional<double> from = utcDayStart(date);
    if (!from) {
        throw ApiError(400, "date must be a day like 2026-11-25 (UTC)");
    }
    if (!format.empty() && format != "json" && format != "geojson") {
        throw ApiError(400, "format must be json or geojson");
    }
    const double to = *from + 86400;
    const auto rows = service.deviceDay(deviceId, *from, to + 3600, kMaxMessages);
    if (!rows) {
        throw ApiError(404, r.missing());
    }
    const std::vector<DayPosition> positions = dayPositions(rows->messages, *from, to, kMaxPositions);
    if (format == "geojson") {
        HttpReply reply = jsonReply(200, dayGeoJson(deviceId, date, positions));
        reply.contentType = "application/geo+json";
        return reply;
    }
    return jsonReply(200, dayJson(deviceId, date, positions, rows->links));
}

HttpReply devicesRequest(Service& service, const AdminRequest& r) {
    const auto& parts = r.parts;
    if (parts.size() < 2 || parts.size() > 3 || parts[1].empty() || parts[1].size() > limits::kDeviceId) {
        throw ApiError(404, "there is no admin endpoint " + r.method + " " + std::string(r.path));
    }
    const std::string& deviceId = parts[1];
    if (parts.size() == 3 && parts[2] == "day" && r.is("GET")) {
        return deviceDayReply(service, r, deviceId);
    }
    const bool exported = parts.size() == 3 && parts[2] == "export";
    if ((parts.size() == 2 || exported) && r.is("GET")) {
        const auto record = service.deviceRecord(deviceId, exported);
        if (!record) {
            throw ApiError(404, r.missing());
        }
        HttpReply reply = jsonReply(200, *record);
        if (exported) {
            reply.headers.emplace_back("Content-Disposition", "attachment; filename=\"device.json\"");
        }
        return reply;
    }
    if (parts.size() == 2 && r.is("DELETE")) {
        const auto erased = service.eraseDevice(deviceId);
        if (!erased) {
            throw ApiError(404, r.missing());
        }
        return jsonReply(200, {{"deviceId", deviceId}, {"erased", erasedJson(*erased)}});
    }
    throw ApiError(404, "there is no admin endpoint " + r.method + " " + std::string(r.path));
}

HttpReply importRequest(Service& service, const AdminRequest& r) {
    PlaceFileCheck check = checkPlaceFile(std::string_view(r.body), "the upload");
    if (!check.catalog) {
        return problemsReply(check.problems, "", "the upload");
    }
    const PlaceCatalog& data = *check.catalog;
    if (queryValue(r.target, "dry_run") == "1") {
        return jsonReply(200, {{"valid", true},
                               {"places", data.placeCount()},
                               {"offers", data.offerCount()},
                               {"campaigns", data.campaigns.size()},
                               {"apps", data.apps.size()}});
    }
    const ImportSummary summary =
        service.change([&](Store& store) { return store.writePlaceCatalog(data, r.now); }, true);
    return jsonReply(200, {{"places", summary.places},
                           {"offers", summary.offers},
                           {"campaigns", summary.campaigns},
                           {"apps", summary.apps}});
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

AdminHandler::AdminHandler(Service& service, Metrics& metrics, WorkQueue& work, std::string fileToken,
                           std::function<MetricsSnapshot()> snapshot, const std::string& consoleDir,
                           const std::string& contentDir, bool webhookAllowPrivate,
                           PreviewRunner::Preview preview)
    : service_(service),
      metrics_(metrics),
      work_(work),
      tokens_(std::move(fileToken)),
      snapshot_(std::move(snapshot)),
      console_(consoleDir, tokens_, contentDir),
      webhookAllowPrivate_(webhookAllowPrivate),
      previews_(std::move(preview)) {
    refreshTokens();
}

void AdminHandler::refreshTokens() {
    try {
        std::vector<StoredToken> stored;
        service_.transact([&](const SqlSource& db) { stored = readTokens(db); });
        tokens_.replace(stored);
        tokensUnreadable_.store(false);
    } catch (const std::exception& e) {
        // Once an outage, not four times a second through it.
        if (!tokensUnreadable_.exchange(true)) {
            service_.reportFailure("/admin/v1/tokens", std::string("reading the admin tokens: ") + e.what());
        }
    }
}

std::variant<AdminHandler::Authorized, HttpReply> AdminHandler::authorize(const HttpRequest& request) {
    if (!tokens_.any()) {
        return errorReply(403,
                          "the admin API is off: start tovrel-server with --admin-token-file, or add a token "
                          "with tovrel-server tokens add");
    }
    Authorized authorized;
    if (auto who = tokens_.find(bearerToken(request.authorization))) {
        authorized.who = std::move(*who);
    } else {
        switch (console_.check(request, Service::steadySeconds(), &authorized.who)) {
            case Console::Access::granted:
                break;
            case Console::Access::forged:
                return errorReply(403, "a change from the console needs its X-CSRF-Token and its own origin");
            case Console::Access::none: {
                HttpReply reply = errorReply(401,
                                             "the admin API needs \"Authorization: Bearer <token>\" with an "
                                             "admin token, or the token of --admin-token-file");
                reply.authenticate = "Bearer";
                return reply;
            }
        }
    }
    try {
        authorized.parts = segments(request.path.substr(kPrefix.size()));
    } catch (const ApiError& e) {
        return errorReply(e.status(), e.what());
    }
    const RouteMatch match = matchAdminRoute(request.method, authorized.parts);
    if (match.route == nullptr) {
        const std::string what = std::string(request.method) + " " + std::string(request.path);
        if (match.allow == nullptr) {
            return errorReply(404, "there is no admin endpoint " + what);
        }
        HttpReply reply = errorReply(405, "there is no admin endpoint " + what + "; use " + match.allow);
        reply.allow = match.allow;
        return reply;
    }
    if (!allows(authorized.who.role, match.route->need)) {
        if (changesState(request.method)) {
            // Refused attempts at a change are audited too: they are what a review looks for.
            work_.post([this, who = authorized.who, action = std::string(match.route->action),
                        parts = authorized.parts] { audit(who, action, parts, {}, 403); });
        }
        return errorReply(403, "the token " + authorized.who.name + " (role " +
                                   std::string(roleName(authorized.who.role)) + ") may not " +
                                   std::string(match.route->action));
    }
    authorized.route = match.route;
    return authorized;
}

void AdminHandler::audit(const AdminIdentity& who, std::string_view action,
                         const std::vector<std::string>& parts, const std::string& body, unsigned status) {
    try {
        service_.transact([&](const SqlSource& db) {
            std::string item = auditItem(parts, body);
            if (!parts.empty() && parts[0] == "devices" && !item.empty()) {
                item = auditDeviceHash(db, item);
            }
            appendAudit(db, AuditEntry{0, service_.now(), who.name, std::string(action), std::move(item),
                                       static_cast<int>(status)});
        });
    } catch (const std::exception& e) {
        service_.reportFailure("/admin/v1/audit", std::string("writing the audit trail: ") + e.what());
    }
}

Admission AdminHandler::admit(const HttpRequest& header) {
    Admission admission;
    if (header.path.substr(0, kPrefix.size()) != kPrefix) {
        // Probes, metrics and the console's pages and sign-in carry small bodies at most.
        admission.bodyLimit = kMaxProbeBody;
        return admission;
    }
    if (auto verdict = authorize(header); auto* refusal = std::get_if<HttpReply>(&verdict)) {
        admission.refusal = std::move(*refusal);
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

namespace {

// A device's id is personal data: the access log names the route, not the device.
Respond loggedWithoutDevice(std::string_view path, Respond respond) {
    constexpr std::string_view kDevices = "/admin/v1/devices/";
    if (!path.starts_with(kDevices)) {
        return respond;
    }
    const std::size_t end = path.find('/', kDevices.size());
    std::string logged = std::string(kDevices) + "*" +
                         std::string(end == std::string_view::npos ? std::string_view() : path.substr(end));
    return [inner = std::move(respond), logged = std::move(logged)](HttpReply&& reply) {
        reply.loggedPath = logged;
        inner(std::move(reply));
    };
}

}  // namespace

void AdminHandler::probe(const HttpRequest& request, Respond respond) {
    const std::string_view path = request.path;
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
        HttpReply reply = reachable
                              ? jsonReply(200, {{"status", "ready"}, {"places", service_.placesIndexed()}})
                              : errorReply(503, "the database cannot be read");
        reply.route = Route::health;
        respond(std::move(reply));
    });
    if (!posted) {
        respond(errorReply(503, "the admin queue is full"));
    }
}

void AdminHandler::handle(const HttpRequest& request, Respond answer) {
    const std::string_view path = request.path;
    Respond respond = loggedWithoutDevice(path, std::move(answer));
    if (Console::owns(path)) {
        std::optional<AdminIdentity> signedIn;
        HttpReply reply = console_.handle(request, Service::steadySeconds(), &signedIn);
        if (signedIn) {
            work_.post([this, who = *signedIn] { audit(who, "console.signin", {}, {}, 200); });
        }
        return respond(std::move(reply));
    }
    if (path == "/healthz" || path == "/readyz" || path == "/metrics") {
        return probe(request, std::move(respond));
    }
    if (path.substr(0, kPrefix.size()) != kPrefix) {
        return respond(errorReply(404, "there is no admin endpoint " + std::string(path)));
    }
    auto verdict = authorize(request);
    if (auto* refusal = std::get_if<HttpReply>(&verdict)) {
        return respond(std::move(*refusal));
    }
    if (const Authorized& authorized = std::get<Authorized>(verdict);
        authorized.route->action == "catalogue.preview") {
        // Audited like every other change tried, with the answer it ends with.
        Respond audited = [this, respond = std::move(respond), who = authorized.who,
                           parts = authorized.parts](HttpReply&& reply) {
            work_.post([this, who, parts, status = reply.status] {
                audit(who, "catalogue.preview", parts, {}, status);
            });
            respond(std::move(reply));
        };
        return preview(std::string(request.body), std::string(request.target), std::move(audited));
    }
    const bool posted =
        work_.post([this, respond, authorized = std::get<Authorized>(std::move(verdict)),
                    method = std::string(request.method), target = std::string(request.target),
                    body = std::string(request.body), ifMatch = std::string(request.ifMatch)] {
            HttpReply reply = administer(authorized, method, target, body, ifMatch);
            if (changesState(method)) {
                audit(authorized.who, authorized.route->action, authorized.parts, body, reply.status);
            }
            respond(std::move(reply));
        });
    if (!posted) {
        HttpReply reply = errorReply(503, "the admin queue is full");
        reply.retryAfter = "1";
        respond(std::move(reply));
    }
}

void AdminHandler::preview(std::string body, std::string target, Respond respond) {
    if (!previews_.available()) {
        return respond(errorReply(501,
                                  "this server runs no previews: tovrel-server does, an embedded server "
                                  "needs ServerOptions::preview"));
    }
    const bool posted =
        work_.post([this, body = std::move(body), target = std::move(target), respond]() mutable {
            try {
                const auto days =
                    static_cast<std::size_t>(countParameter(target, "days", 1, kLongestPreviewDays));
                json draft = parseObjectBody(body, 64);
                if (draft.contains("properties") && !draft["properties"].is_object()) {
                    throw ApiError(400, "the draft's properties must be an object");
                }
                json live =
                    service_.change([](Store& store) { return exportCatalogue(store, std::nullopt); }, false);
                if (queryValue(target, "import") == "1") {
                    draft = mergeImport(live, draft);
                }
                // Both sides' devices use one app of the preview's own: the sides differ in their campaigns,
                // places and offers alone.
                const json apps = json::array({{{"key", kPreviewAppKey}, {"name", "Preview"}}});
                draft["properties"]["apps"] = apps;
                live["properties"]["apps"] = apps;
                if (!previews_.start(draft.dump(-1, ' ', false, json::error_handler_t::replace),
                                     live.dump(-1, ' ', false, json::error_handler_t::replace),
                                     service_.now(), days, respond)) {
                    HttpReply busy = errorReply(429, "a preview is running; try again when it ends");
                    busy.retryAfter = "5";
                    respond(std::move(busy));
                }
            } catch (const ApiError& e) {
                respond(errorReply(e.status(), e.what()));
            } catch (const std::exception& e) {
                respond(errorReply(503, std::string("the catalogue cannot be read: ") + e.what()));
            }
        });
    if (!posted) {
        HttpReply reply = errorReply(503, "the admin queue is full");
        reply.retryAfter = "1";
        respond(std::move(reply));
    }
}

HttpReply AdminHandler::administer(const Authorized& authorized, const std::string& method,
                                   const std::string& target, const std::string& body,
                                   const std::string& ifMatch) {
    try {
        const std::string_view path = std::string_view(target).substr(0, target.find_first_of("?#"));
        const AdminRequest request{method, target, path, authorized.parts, body, ifMatch, wallClock()};
        const std::string kind = request.parts.empty() ? std::string() : request.parts[0];
        if (kind == "apps") {
            return appsRequest(service_, request);
        }
        if (kind == "campaigns") {
            return campaignsRequest(service_, request);
        }
        if (kind == "offers") {
            return offersRequest(service_, request);
        }
        if (kind == "places") {
            return placesRequest(service_, request);
        }
        if (kind == "devices") {
            return devicesRequest(service_, request);
        }
        if (kind == "webhooks") {
            const WebhookAdminReply reply = webhooksRequest(
                WebhookAdminRequest{method, request.parts, target, body, webhookAllowPrivate_,
                                    [this](const auto& work) { service_.transact(work); }, service_.now()});
            return jsonReply(reply.status, reply.body);
        }
        if (kind == "tokens" || kind == "audit") {
            const AccessAdminRequest access{
                method,        request.parts,       target,
                body,          authorized.who.name, [this](const auto& work) { service_.transact(work); },
                service_.now()};
            const AdminJsonReply reply = kind == "tokens" ? tokensRequest(access) : auditRequest(access);
            if (kind == "tokens" && changesState(method)) {
                refreshTokens();
            }
            return jsonReply(reply.status, reply.body);
        }
        if (kind == "import" && request.parts.size() == 1 && method == "POST") {
            return importRequest(service_, request);
        }
        if (kind == "catalogue" && request.parts.size() == 1 && method == "GET") {
            const std::string box = queryValue(target, "bbox");
            const std::optional<PlaceArea> area = box.empty() ? std::nullopt : std::optional(areaOf(box));
            return jsonReply(
                200, service_.change([&](Store& store) { return exportCatalogue(store, area); }, false));
        }
        if (kind == "funnel" && request.parts.size() == 1 && method == "GET") {
            const bool byDay = queryValue(target, "by") == "day";
            return jsonReply(
                200, funnelJson(service_.change([&](Store& store) { return store.funnel(byDay); }, false)));
        }
        throw ApiError(404, "there is no admin endpoint " + method + " " + std::string(path));
    } catch (const StaleVersion& e) {
        HttpReply reply = jsonReply(412, {{"error", e.what()}, {"current", e.current}});
        if (!e.current.is_null()) {
            reply.headers.emplace_back("ETag", versionOf(e.current));
        }
        return reply;
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
