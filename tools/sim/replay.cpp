#include "replay.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdlib>
#include <fstream>
#include <iomanip>
#include <limits>
#include <map>
#include <memory>
#include <numbers>
#include <optional>
#include <sstream>
#include <stdexcept>

#include "admin_fetch.h"
#include "common/temporary_file.h"
#include "html_report.h"
#include "simulation.h"

namespace tovrel::sim {

namespace {

using nlohmann::json;

// Places this far beyond the track are fetched with it: the component holds places for some kilometres
// around the device.
constexpr double kCatalogueMarginMetres = 10'000;

// "HH:MM:SS" UTC of seconds since 1970.
std::string clock(double at) {
    const auto seconds = static_cast<long long>(std::floor(at));
    const long long day = ((seconds % 86400) + 86400) % 86400;
    std::ostringstream out;
    out << std::setfill('0') << std::setw(2) << day / 3600 << ':' << std::setw(2) << day / 60 % 60 << ':'
        << std::setw(2) << day % 60;
    return out.str();
}

// Metres from the circle's centre to the segment a→b (on a local flat projection, which is exact enough
// over the few kilometres a gap spans).
double segmentDistance(const DayPoint& a, const DayPoint& b, const PlaceCircle& c) {
    constexpr double kMetresPerDegree = 111'195;
    const double scale = std::cos(c.latitude * M_PI / 180);
    const double ax = (a.longitude - c.longitude) * scale * kMetresPerDegree;
    const double ay = (a.latitude - c.latitude) * kMetresPerDegree;
    const double bx = (b.longitude - c.longitude) * scale * kMetresPerDegree;
    const double by = (b.latitude - c.latitude) * kMetresPerDegree;
    const double dx = bx - ax;
    const double dy = by - ay;
    const double length = dx * dx + dy * dy;
    const double t = length > 0 ? std::clamp(-(ax * dx + ay * dy) / length, 0.0, 1.0) : 0;
    return std::hypot(ax + t * dx, ay + t * dy);
}

// Why the track near `circle` cannot be trusted: a gap between checks that passes near it, a check near
// it whose accuracy is coarser than its radius.
std::vector<std::string> doubts(const DayRecord& day, const PlaceCircle& circle, const ReplayLimits& limits) {
    constexpr double kNear = 500;
    constexpr double kNearEnd = 100;
    std::vector<std::string> out;
    for (std::size_t i = 1; i < day.positions.size(); ++i) {
        const DayPoint& a = day.positions[i - 1];
        const DayPoint& b = day.positions[i];
        if (b.at - a.at > limits.gapSeconds && segmentDistance(a, b, circle) < circle.radius + kNear) {
            out.push_back("no position for " + std::to_string(static_cast<long>(b.at - a.at) / 60) +
                          " min (" + clock(a.at) + " to " + clock(b.at) + " UTC) on a stretch that passes " +
                          std::to_string(static_cast<long>(segmentDistance(a, b, circle))) +
                          " m from the place");
        }
    }
    for (const DayPoint* end : {&day.positions.front(), &day.positions.back()}) {
        if (distanceMetres(end->latitude, end->longitude, circle.latitude, circle.longitude) <
            circle.radius + kNearEnd) {
            out.push_back(std::string("the track ") + (end == &day.positions.front() ? "starts" : "ends") +
                          " near the place, at " + clock(end->at) +
                          " UTC: what the device did beyond it was not uploaded");
        }
    }
    for (const DayPoint& p : day.positions) {
        const double metres = distanceMetres(p.latitude, p.longitude, circle.latitude, circle.longitude);
        if (p.accuracy > circle.radius && metres < circle.radius + p.accuracy) {
            out.push_back("at " + clock(p.at) + " UTC the device's accuracy (" +
                          std::to_string(static_cast<long>(p.accuracy)) +
                          " m) was coarser than the place's radius (" +
                          std::to_string(static_cast<long>(circle.radius)) + " m)");
            break;
        }
    }
    return out;
}

}  // namespace

std::vector<ReplayFinding> compareReplay(const DayRecord& day, const std::vector<OfferOutcome>& replay,
                                         const std::vector<PlaceCircle>& places, const ReplayLimits& limits) {
    std::vector<ReplayFinding> findings;
    std::vector<std::optional<PlaceCircle>> circles;
    std::map<std::string, std::size_t> byKey;
    for (const OfferOutcome& o : replay) {
        byKey[o.eventId + "@" + o.placeId] = findings.size();
        ReplayFinding& f = findings.emplace_back();
        f.eventId = o.eventId;
        f.placeId = o.placeId;
        f.eventName = o.eventName;
        f.replayLinked = o.linkedAt.has_value();
        f.replayReason = o.reason;
        circles.emplace_back(PlaceCircle{o.placeId, "", o.latitude, o.longitude, o.radius});
    }
    for (const RecordedLink& link : day.links) {
        const std::string key = link.eventId + "@" + link.placeId;
        if (!byKey.contains(key)) {
            byKey[key] = findings.size();
            ReplayFinding& f = findings.emplace_back();
            f.eventId = link.eventId;
            f.placeId = link.placeId;
            const auto circle = std::find_if(places.begin(), places.end(),
                                             [&](const PlaceCircle& c) { return c.placeId == link.placeId; });
            circles.push_back(circle == places.end() ? std::nullopt : std::optional(*circle));
        }
        findings[byKey[key]].recorded = true;
    }
    for (std::size_t i = 0; i < findings.size(); ++i) {
        ReplayFinding& f = findings[i];
        if (!circles[i]) {
            f.uncertain.push_back("the place is not in the catalogue replayed against (removed since?)");
            continue;
        }
        const PlaceCircle& c = *circles[i];
        f.uncertain = doubts(day, c, limits);
        double closest = std::numeric_limits<double>::infinity();
        for (const DayPoint& p : day.positions) {
            closest = std::min(closest,
                               distanceMetres(p.latitude, p.longitude, c.latitude, c.longitude) - p.accuracy);
        }
        // The service links only a device that stayed inside: a track that never gets there misses part of
        // where the device was.
        if (f.recorded && !f.replayLinked && closest > c.radius) {
            f.uncertain.push_back("the service linked it, yet no uploaded position comes within " +
                                  std::to_string(static_cast<long>(closest - c.radius)) +
                                  " m of the place: the track misses where the device was");
        }
    }
    std::stable_sort(findings.begin(), findings.end(), [](const ReplayFinding& a, const ReplayFinding& b) {
        return !a.agrees() && b.agrees();
    });
    return findings;
}

void printFindings(const DayRecord& day, const std::vector<ReplayFinding>& findings, std::ostream& out) {
    const std::size_t disagreements = static_cast<std::size_t>(
        std::count_if(findings.begin(), findings.end(), [](const ReplayFinding& f) { return !f.agrees(); }));
    out << "replay of " << (day.deviceId.empty() ? "a device" : day.deviceId) << " on "
        << (day.date.empty() ? "its day" : day.date) << ": " << day.positions.size() << " positions from "
        << clock(day.positions.front().at) << " to " << clock(day.positions.back().at) << " UTC, "
        << findings.size() << " offers, " << disagreements << " where the replay and the service disagree\n";
    for (const ReplayFinding& f : findings) {
        out << "  offer " << f.eventId << (f.eventName.empty() ? "" : " \"" + f.eventName + "\"")
            << " at place " << f.placeId << ": ";
        if (f.replayLinked && f.recorded) {
            out << "linked, as the service recorded";
        } else if (!f.replayLinked && !f.recorded) {
            out << "not linked, as the service recorded; the replay: " << f.replayReason;
        } else if (f.recorded) {
            out << "DISAGREE: the service stored a link the replay does not make"
                << (f.replayReason.empty() ? " (the replay's service never named this offer)"
                                           : ": " + f.replayReason);
        } else {
            out << "DISAGREE: the replay links it, the service stored no link: " << f.replayReason;
        }
        out << (f.uncertain.empty() ? "" : " (UNCERTAIN)") << '\n';
        for (const std::string& why : f.uncertain) {
            out << "      uncertain: " << why << '\n';
        }
    }
}

json findingsJson(const DayRecord& day, const std::vector<ReplayFinding>& findings) {
    json list = json::array();
    for (const ReplayFinding& f : findings) {
        list.push_back({{"eventId", f.eventId},
                        {"placeId", f.placeId},
                        {"eventName", f.eventName},
                        {"replayLinked", f.replayLinked},
                        {"recorded", f.recorded},
                        {"agrees", f.agrees()},
                        {"replayReason", f.replayReason},
                        {"uncertain", f.uncertain}});
    }
    return {{"deviceId", day.deviceId},
            {"date", day.date},
            {"positions", day.positions.size()},
            {"findings", std::move(list)}};
}

namespace {

// The device's app as the service holds it (its key and rules), so that the replayed device meets the
// same quiet hours and daily cap; nothing when the service does not know the device or its app.
std::optional<json> deviceApp(const ReplayOptions& options, const std::string& deviceId) {
    try {
        const json device =
            json::parse(adminGet(options.adminUrl, options.token, "devices/" + pathSegment(deviceId)));
        const json apps = json::parse(adminGet(options.adminUrl, options.token, "apps"));
        for (json app : apps.at("apps")) {
            if (app.at("key") == device.at("appKey")) {
                app.erase("createdAt");
                app.erase("disabled");
                return app;
            }
        }
    } catch (const std::exception&) {
        // Any failure leaves the replay without the app's rules, which it then says.
    }
    return std::nullopt;
}

// What the replay runs against: the service's catalogue around the track with the device's app, in a file
// of its own. Says in `catalogue` what that is.
std::filesystem::path fetchCatalogue(const ReplayOptions& options, const DayRecord& day, SimOptions& sim,
                                     std::optional<tovrel::server::TemporaryFile>& file,
                                     std::string& catalogue) {
    json places =
        json::parse(adminGet(options.adminUrl, options.token, "catalogue?bbox=" + catalogueArea(day)));
    std::optional<json> app = deviceApp(options, day.deviceId);
    catalogue = "the service's catalogue as it is now, not as it was that day";
    if (!app) {
        app = json{{"key", sim.sdkKey}, {"name", "Replay"}};
        catalogue +=
            "; the device's app is unknown to the service, so its quiet hours and daily offer cap are "
            "not replayed";
    }
    sim.sdkKey = (*app)["key"].get<std::string>();
    places["properties"]["apps"] = json::array({std::move(*app)});
    file.emplace("tovrel-replay-catalogue", ".geojson");
    file->write(places.dump());
    return file->path();
}

}  // namespace

std::string fetchDay(const std::string& adminUrl, const std::string& token, const std::string& deviceId,
                     const std::string& date) {
    return adminGet(adminUrl, token, "devices/" + pathSegment(deviceId) + "/day?date=" + date);
}

std::string catalogueArea(const DayRecord& day) {
    double south = 90;
    double north = -90;
    double west = 180;
    double east = -180;
    for (const DayPoint& p : day.positions) {
        south = std::min(south, p.latitude);
        north = std::max(north, p.latitude);
        west = std::min(west, p.longitude);
        east = std::max(east, p.longitude);
    }
    constexpr double kMetresPerDegree = 111'320;
    const double latMargin = kCatalogueMarginMetres / kMetresPerDegree;
    const double widest = std::min(89.0, std::max(std::abs(south), std::abs(north)) + latMargin);
    const double lonMargin = latMargin / std::cos(widest * std::numbers::pi / 180);
    std::ostringstream box;
    box << std::setprecision(9) << std::max(-180.0, west - lonMargin) << ','
        << std::max(-90.0, south - latMargin) << ',' << std::min(180.0, east + lonMargin) << ','
        << std::min(90.0, north + latMargin);
    return box.str();
}

int replayDay(const ReplayOptions& options, std::ostream& out) {
    std::string text;
    std::string name = options.dayFile;
    if (!options.dayFile.empty()) {
        std::ifstream in(options.dayFile, std::ios::binary);
        if (!in) {
            throw RouteError("cannot read " + options.dayFile);
        }
        std::ostringstream buffer;
        buffer << in.rdbuf();
        text = std::move(buffer).str();
    } else {
        text = fetchDay(options.adminUrl, options.token, options.deviceId, options.date);
        name = options.deviceId + " on " + options.date;
    }
    const DayRecord day = parseDayRecord(text, name);
    const Route route = routeOfDay(day);
    SimOptions sim;
    std::optional<tovrel::server::TemporaryFile> fetched;
    std::string catalogue = "the place file " + options.placesFile.string();
    const std::filesystem::path placesFile = options.placesFile.empty()
                                                 ? fetchCatalogue(options, day, sim, fetched, catalogue)
                                                 : options.placesFile;
    sim.route = &route;
    sim.placesFile = placesFile;
    sim.contentDir = options.contentDir;
    sim.startTime = day.positions.front().at;
    sim.quiet = true;
    sim.keepEvents = !options.reportFile.empty();
    const SimOutcome outcome = runSimulation(sim, nullptr, nullptr);
    if (outcome.stop != RunStop::kNone) {
        throw std::runtime_error("the replay stopped: " + outcome.stopMessage);
    }
    const std::vector<ReplayFinding> findings =
        compareReplay(day, outcome.offers, readPlaceCircles(placesFile), options.limits);
    if (!options.reportFile.empty()) {
        std::ofstream report(options.reportFile);
        writeHtmlReport({"Tovrel replay: " + route.name, outcome.route, outcome.events, outcome.wallSeconds,
                         outcome.eventsNotKept, options.tiles, placesFile},
                        report);
        if (!report) {
            throw std::runtime_error("cannot write " + options.reportFile);
        }
    }
    if (options.asJson) {
        json answer = findingsJson(day, findings);
        answer["catalogue"] = catalogue;
        out << answer.dump(2) << '\n';
    } else {
        out << "replayed against " << catalogue << '\n';
        printFindings(day, findings, out);
    }
    return std::all_of(findings.begin(), findings.end(), [](const ReplayFinding& f) { return f.agrees(); })
               ? 0
               : 1;
}

}  // namespace tovrel::sim
