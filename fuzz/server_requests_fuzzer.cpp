// Feeds arbitrary bytes to what tovrel-server reads from a request before any endpoint logic: the
// JSON body and its members, and the request target as a static path; and to what it reads back from
// what devices sent (a stored /v1/log message read as a day's positions); and to what webhook receivers
// answer (Retry-After) and what an admin saves as an endpoint's address; and a draft previewed as an
// import over a catalogue; and place and log requests read plainly, which must read as the general reader
// reads them.
// Nothing may crash or trip a sanitizer; refusals are ApiError (a 4xx) and nothing else.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "admin/admin_routes.h"
#include "admin/catalogue_export.h"
#include "admin/device_day.h"
#include "api/log_body.h"
#include "api/place_query.h"
#include "common/request_fields.h"
#include "http/compression.h"
#include "http/static_files.h"
#include "webhooks/address_policy.h"
#include "webhooks/retry_schedule.h"

namespace {

const tovrel::server::StaticFiles& contentFolder() {
    static const std::filesystem::path root = [] {
        auto dir = std::filesystem::temp_directory_path() / "tovrel-fuzz-content";
        std::filesystem::create_directories(dir / "media");
        return dir;
    }();
    static const tovrel::server::StaticFiles files(root.string());
    return files;
}

const nlohmann::json& liveCatalogue() {
    static const nlohmann::json live = nlohmann::json::parse(R"({"type": "FeatureCollection",
      "properties": {"campaigns": [{"name": "Open"}]},
      "features": [{"type": "Feature", "geometry": {"type": "Point", "coordinates": [11.5, 48.1]},
        "properties": {"placeId": 1, "radius": 50, "offers": [{"eventId": 11, "campaign": "Open",
          "eventName": "A", "alertText": "a", "eventTypeId": 3}]}}]})");
    return live;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    (void)contentFolder().resolve(text);
    for (const auto& p : tovrel::server::dayPositions({{0, std::string(text)}}, -1e18, 1e18, 1000)) {
        if (p.lat < -90 || p.lat > 90 || p.lon < -180 || p.lon > 180) {
            std::abort();
        }
    }
    (void)tovrel::server::utcDayStart(text);
    if (const auto wait = tovrel::server::webhooks::parseRetryAfter(text, 1.7e9);
        wait && !(*wait >= 0 && *wait <= 86400)) {
        std::abort();
    }
    (void)tovrel::server::webhooks::endpointUrlProblem(text, size % 2 == 0);
    (void)tovrel::server::percentDecode(text);
    if (const auto draft = nlohmann::json::parse(text, nullptr, false); !draft.is_discarded()) {
        try {
            const nlohmann::json merged = tovrel::server::mergeImport(liveCatalogue(), draft);
            if (!merged["features"].is_array()) {
                std::abort();
            }
        } catch (const tovrel::server::ApiError&) {
        }
    }
    {
        // An admin path as its segments: a match is one route of the table, with the method asked for.
        std::vector<std::string> parts;
        for (std::size_t from = 0; from <= text.size();) {
            const std::size_t slash = std::min(text.find('/', from), text.size());
            parts.emplace_back(text.substr(from, slash - from));
            from = slash + 1;
        }
        const std::string_view method = size % 3 == 0 ? "GET" : size % 3 == 1 ? "POST" : "DELETE";
        const auto match = tovrel::server::matchAdminRoute(method, parts);
        if (match.route != nullptr && match.route->method != method) {
            std::abort();
        }
    }
    if (tovrel::server::acceptsGzip(text)) {
        std::string packed;
        (void)tovrel::server::gzipCompress(text, packed);
    }
    // A place request read plainly must be one the general reader reads to the same values.
    if (const auto plain = tovrel::server::readPlainPlaceRequest(text)) {
        try {
            const nlohmann::json body = tovrel::server::parseObjectBody(text);
            const nlohmann::json& at = body.at("coordinatesList").at(0);
            if (tovrel::server::requireString(body, "sessionKey", 4096) != plain->sessionKey ||
                tovrel::server::requireNumber(at, "lat", -90, 90) != plain->query.latitude ||
                tovrel::server::requireNumber(at, "lon", -180, 180) != plain->query.longitude ||
                tovrel::server::requireNumber(body, "distanceThreshold", 0, 50000) !=
                    plain->query.threshold) {
                std::abort();
            }
        } catch (const std::exception&) {
            std::abort();
        }
    }
    // A log body read plainly must be one the general reader reads alike, its message printing as kept.
    if (const auto plain = tovrel::server::readPlainLog(text)) {
        try {
            const nlohmann::json body = tovrel::server::parseObjectBody(text);
            const nlohmann::json& message = body.at("message");
            if (tovrel::server::requireString(body, "deviceid", 128) != plain->deviceId ||
                message.size() != 1 || message.begin().key() != plain->eventName ||
                message.dump() != plain->text) {
                std::abort();
            }
        } catch (const std::exception&) {
            std::abort();
        }
    }
    try {
        const nlohmann::json body = tovrel::server::parseObjectBody(text);
        for (const char* name : {"sessionKey", "statusCode", "tag", "deviceid"}) {
            try {
                (void)tovrel::server::requireString(body, name, 128);
            } catch (const tovrel::server::ApiError&) {
            }
        }
        for (const char* name : {"eventId", "placeId", "deviceEventId"}) {
            try {
                (void)tovrel::server::requireId(body, name);
            } catch (const tovrel::server::ApiError&) {
            }
        }
        try {
            (void)tovrel::server::requireNumber(body, "distanceThreshold", 0, 50000);
        } catch (const tovrel::server::ApiError&) {
        }
        (void)tovrel::server::optionalString(body, "groupTag", 128, "");
    } catch (const tovrel::server::ApiError&) {
    }
    return 0;
}
