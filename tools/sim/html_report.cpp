#include "html_report.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <fstream>
#include <limits>
#include <map>
#include <set>
#include <sstream>

#include "catalog/catalog_data.h"
#include "report_escape.h"
#include "report_map.h"
#include "report_plot.h"
#include "tovrel/platform/distance.h"
#include "tovrel/protocol.h"

namespace tovrel::sim {
namespace {

using nlohmann::json;

constexpr std::size_t kBodyCharacters = 4000;  // a longer body is cut in the timeline (whole in --events)

std::string text(const json& value) {
    if (value.is_string()) {
        return value.get<std::string>();
    }
    return value.is_null() ? std::string() : jsonText(value);
}

double number(const json& value) {
    if (value.is_number()) {
        return value.get<double>();
    }
    if (value.is_string()) {
        try {
            return std::stod(value.get<std::string>());
        } catch (const std::exception&) {
            return 0;
        }
    }
    return 0;
}

const json& field(const json& object, const char* name) {
    static const json kNull;
    return object.is_object() && object.contains(name) ? object[name] : kNull;
}

/// Place names by place id from the place file the embedded service imported; none when it cannot be
/// read (the names are only labels).
std::map<std::string, std::string> placeNames(const std::filesystem::path& file) {
    std::map<std::string, std::string> names;
    if (file.empty()) {
        return names;
    }
    std::ifstream in(file, std::ios::binary);
    std::ostringstream content;
    content << in.rdbuf();
    try {
        for (const auto& place : tovrel::server::parseGeoJson(content.str(), file.string()).places) {
            names[std::to_string(place.id)] = place.name;
        }
    } catch (const std::exception&) {
        names.clear();
    }
    return names;
}

/// Places the service described, grouped by place, from the bodies of the places answers; each
/// offer's state from the run's outcome events.
std::vector<MapPlace> collectPlaces(const std::vector<json>& events,
                                    const std::map<std::string, std::string>& names) {
    std::map<std::string, MapPlace> byPlace;
    std::vector<std::string> order;
    std::map<std::string, json> outcomes;
    for (const auto& event : events) {
        const std::string type = event.value("type", "");
        if (type == "outcome") {
            outcomes[text(field(event, "eventId")) + "@" + text(field(event, "placeId"))] = event;
        }
        if (type != "response" || event.value("path", "") != protocol::kPlacePath) {
            continue;
        }
        const json& records = field(field(event, "body"), "places");
        if (!records.is_array()) {
            continue;
        }
        for (const auto& record : records) {
            if (!record.is_object()) {
                continue;
            }
            const std::string placeId = text(field(record, "placeId"));
            auto [entry, added] = byPlace.try_emplace(placeId);
            MapPlace& place = entry->second;
            if (added) {
                order.push_back(placeId);
                place.placeId = placeId;
                place.latitude = number(field(record, "centroidLat"));
                place.longitude = number(field(record, "centroidLon"));
                place.radius = number(field(record, "centroidRadius"));
                if (const auto name = names.find(placeId); name != names.end()) {
                    place.name = name->second;
                }
            }
            const std::string eventId = text(field(record, "eventId"));
            const bool known = std::any_of(place.offers.begin(), place.offers.end(),
                                           [&](const MapOffer& offer) { return offer.eventId == eventId; });
            if (!known) {
                MapOffer offer;
                offer.eventId = eventId;
                offer.name = text(field(record, "eventName"));
                offer.campaign = text(field(record, "campaignName"));
                offer.eventType = static_cast<int>(number(field(record, "eventTypeId")));
                offer.dwellMinutes = static_cast<int>(number(field(record, "dwellTime")));
                place.offers.push_back(std::move(offer));
            }
        }
    }
    std::vector<MapPlace> places;
    for (const auto& placeId : order) {
        MapPlace& place = byPlace[placeId];
        for (auto& offer : place.offers) {
            const auto found = outcomes.find(offer.eventId + "@" + placeId);
            if (found == outcomes.end()) {
                offer.state = "missed";
                continue;
            }
            const json& outcome = found->second;
            offer.reason = text(field(outcome, "reason"));
            offer.state = outcome.value("delivered", false)            ? "delivered"
                          : number(field(outcome, "linkRequests")) > 0 ? "linked"
                          : field(outcome, "enteredAt").is_number()    ? "entered"
                                                                       : "missed";
        }
        places.push_back(std::move(place));
    }
    return places;
}

/// The offer an event concerns, where it names one (directly or through its device event).
class OfferOfEvent {
  public:
    std::string operator()(const json& event) {
        const std::string type = event.value("type", "");
        const std::string path = event.value("path", "");
        const json& body = field(event, "body");
        if (type == "outcome") {
            return text(field(event, "eventId"));
        }
        if (path == protocol::kLinkPath && type == "request") {
            return text(field(body, "eventId"));
        }
        if (path == protocol::kLinkPath && type == "response") {
            const json& records = field(body, "places");
            if (records.is_array() && !records.empty()) {
                const std::string eventId = text(field(records[0], "eventId"));
                const json& deviceEvent = field(records[0], "deviceEventId");
                if (!deviceEvent.is_null()) {
                    byDeviceEvent_[text(deviceEvent)] = eventId;
                }
                return eventId;
            }
            return {};
        }
        if (path == protocol::kLinkStatusPath) {
            return lookup(text(field(body, "deviceEventId")));
        }
        if (type == "notification") {
            return lookup(text(field(field(event, "userInfo"), "deviceeventId")));
        }
        if (type == "alert") {
            return lookup(text(field(event, "tag")));
        }
        if (path == protocol::kLogPath && type == "request") {
            const json& message = field(body, "message");
            if (message.is_object() && !message.empty()) {
                return text(field(message.begin().value(), "eventid"));
            }
        }
        return {};
    }

  private:
    std::string lookup(const std::string& deviceEventId) const {
        const auto found = byDeviceEvent_.find(deviceEventId);
        return found == byDeviceEvent_.end() ? std::string() : found->second;
    }
    std::map<std::string, std::string> byDeviceEvent_;
};

/// Where the device was when something happened: entries, link requests, deliveries, answers.
std::vector<MapMark> collectMarks(const std::vector<json>& events, const Route& route) {
    std::vector<MapMark> marks;
    std::map<std::string, std::size_t> lastOfKind;
    // Entries repeat on every position inside a circle and link requests on every retry: one point per
    // stretch of them is enough to show where.
    const auto mark = [&](const char* kind, double t, const std::string& detail) {
        const auto at = routePositionAt(route, t);
        if (!at) {
            return;
        }
        const auto last = lastOfKind.find(kind);
        if (last != lastOfKind.end()) {
            const MapMark& previous = marks[last->second];
            if (previous.detail == detail &&
                distanceMetres(previous.latitude, previous.longitude, at->latitude, at->longitude) < 40) {
                return;
            }
        }
        lastOfKind[kind] = marks.size();
        marks.push_back({kind, t, at->latitude, at->longitude, detail});
    };
    for (const auto& event : events) {
        const std::string type = event.value("type", "");
        const double t = event.value("t", 0.0);
        if (type == "log" && event.value("line", "").find("Inside the target bounds!") != std::string::npos) {
            mark("entered", t, "");
        } else if (type == "request" && event.value("path", "") == protocol::kLinkPath) {
            mark("linked", t, "offer " + text(field(field(event, "body"), "eventId")));
        } else if (type == "notification" || type == "alert") {
            mark("delivered", t, type);
        } else if (type == "alert_answer") {
            mark("answered", t, "button " + text(field(event, "button")));
        }
    }
    return marks;
}

/// One line that says what an event was, without its raw body.
std::string summarise(const json& event) {
    const std::string type = event.value("type", "");
    const std::string path = text(field(event, "path"));
    const json& body = field(event, "body");
    if (type == "request") {
        if (path == protocol::kPlacePath) {
            const json& list = field(body, "coordinatesList");
            if (list.is_array() && !list.empty()) {
                return path + " near " + text(field(list[0], "lat")) + ", " + text(field(list[0], "lon"));
            }
        }
        if (path == protocol::kLinkPath) {
            return path + " offer " + text(field(body, "eventId")) + " at place " +
                   text(field(body, "placeId"));
        }
        if (path == protocol::kLinkStatusPath) {
            return path + " device event " + text(field(body, "deviceEventId")) + ": " +
                   text(field(body, "statusCode"));
        }
        if (path == protocol::kLogPath) {
            const json& message = field(body, "message");
            if (message.is_object() && !message.empty()) {
                return path + " " + message.begin().key();
            }
        }
        return path;
    }
    if (type == "response") {
        std::string line = path + " → " + text(field(event, "status"));
        if (event.contains("error")) {
            return line + " " + text(event["error"]);
        }
        const json& records = field(body, "places");
        if (records.is_array()) {
            line += ", " + std::to_string(records.size()) + (records.size() == 1 ? " place" : " places");
        }
        return line;
    }
    if (type == "position") {
        return fixed(number(field(event, "lat")), 6) + ", " + fixed(number(field(event, "lon")), 6);
    }
    if (type == "settings") {
        return "accuracy " + text(field(event, "desiredAccuracy")) + ", filter " +
               text(field(event, "distanceFilter"));
    }
    if (type == "notification") {
        return text(field(event, "alertBody"));
    }
    if (type == "alert") {
        std::string buttons;
        const json& list = field(event, "buttons");
        if (list.is_array()) {
            for (const auto& button : list) {
                buttons += (buttons.empty() ? "" : ", ") + text(button);
            }
        }
        return text(field(event, "message")) + (buttons.empty() ? "" : " [" + buttons + "]");
    }
    if (type == "alert_answer") {
        return "button " + text(field(event, "button"));
    }
    if (type == "post") {
        return text(field(event, "name"));
    }
    if (type == "log") {
        return text(field(event, "line"));
    }
    if (type == "outcome") {
        return text(field(event, "eventName")) + ": " + text(field(event, "reason"));
    }
    std::string line;
    if (event.is_object()) {
        for (const auto& [key, value] : event.items()) {
            if (key != "t" && key != "type") {
                line += (line.empty() ? "" : ", ") + key + " " + (value.is_structured() ? "…" : text(value));
            }
        }
    }
    return line;
}

void writeBody(std::ostream& out, const json& event) {
    if (!event.contains("body") || event["body"].is_null()) {
        return;
    }
    std::string body = event["body"].dump(1, ' ', false, json::error_handler_t::replace);
    std::string cut;
    if (body.size() > kBodyCharacters) {
        cut = "\n… " + std::to_string(body.size() - kBodyCharacters) + " more characters in the events file";
        body.resize(kBodyCharacters);
    }
    out << "<details><summary>body</summary><pre>" << escapeHtml(body) << escapeHtml(cut)
        << "</pre></details>";
}

constexpr const char* kTimelineScript = R"JS(
(function () {
  var kind = document.getElementById('filter-kind');
  var offer = document.getElementById('filter-offer');
  var count = document.getElementById('filter-count');
  var rows = document.querySelectorAll('#timeline tbody tr');
  function apply() {
    var shown = 0;
    for (var i = 0; i < rows.length; i++) {
      var r = rows[i];
      var show = (!kind.value || r.dataset.kind === kind.value) && (!offer.value || r.dataset.offer === offer.value);
      r.hidden = !show;
      if (show) shown++;
    }
    count.textContent = shown + ' of ' + rows.length + ' events shown';
  }
  kind.addEventListener('change', apply);
  offer.addEventListener('change', apply);
  // "#offer=ID" or "#kind=KIND" (the offers table links them) selects and shows the timeline.
  function fromHash() {
    var m = /^#(offer|kind)=(.*)$/.exec(location.hash);
    if (!m) return false;
    var select = m[1] === 'offer' ? offer : kind;
    select.value = decodeURIComponent(m[2]);
    if (select.selectedIndex < 0) select.value = '';
    apply();
    document.getElementById('timeline-filters').scrollIntoView();
    return true;
  }
  window.addEventListener('hashchange', fromHash);
  if (!fromHash()) apply();
})();
)JS";

void writeTimeline(std::ostream& out, const std::vector<json>& events, const std::vector<MapPlace>& places) {
    std::map<std::string, int> kinds;
    std::map<std::string, int> offers;
    OfferOfEvent offerOf;
    std::vector<std::string> offerOfRow;
    for (const auto& event : events) {
        const std::string type = event.value("type", "");
        if (type == "log" || type == "position") {
            continue;
        }
        ++kinds[type];
        offerOfRow.push_back(offerOf(event));
        if (!offerOfRow.back().empty()) {
            ++offers[offerOfRow.back()];
        }
    }
    std::map<std::string, std::string> offerNames;
    for (const auto& place : places) {
        for (const auto& offer : place.offers) {
            offerNames.emplace(offer.eventId, offer.name);
        }
    }
    out << "<div class=\"filters\" id=\"timeline-filters\"><label>Kind <select id=\"filter-kind\"><option "
           "value=\"\">all "
           "kinds</option>";
    for (const auto& [kind, count] : kinds) {
        out << "<option value=\"" << escapeHtml(kind) << "\">" << escapeHtml(kind) << " (" << count
            << ")</option>";
    }
    out << "</select></label> <label>Offer <select id=\"filter-offer\"><option value=\"\">all "
           "offers</option>";
    for (const auto& [offer, count] : offers) {
        const auto name = offerNames.find(offer);
        out << "<option value=\"" << escapeHtml(offer) << "\">" << escapeHtml(offer)
            << (name != offerNames.end() ? " " + escapeHtml(name->second) : "") << " (" << count
            << " events)</option>";
    }
    out << "</select></label> <span id=\"filter-count\"></span></div>\n";
    out << "<table id=\"timeline\"><thead><tr><th>t "
           "(s)</th><th>kind</th><th>offer</th><th>what</th></tr></thead>"
           "<tbody>\n";
    std::size_t row = 0;
    for (const auto& event : events) {
        const std::string type = event.value("type", "");
        if (type == "log" || type == "position") {
            continue;
        }
        const std::string& offer = offerOfRow[row++];
        out << "<tr data-kind=\"" << escapeHtml(type) << "\" data-offer=\"" << escapeHtml(offer)
            << "\"><td class=\"t\">" << fixed(event.value("t", 0.0), 1) << "</td><td>" << escapeHtml(type)
            << "</td><td>" << escapeHtml(offer) << "</td><td class=\"d\">" << escapeHtml(summarise(event));
        writeBody(out, event);
        out << "</td></tr>\n";
    }
    out << "</tbody></table>\n<script>" << kTimelineScript << "</script>\n";
}

/// Every byte but letters, digits and "-._~" as %XX, for a URL fragment.
std::string percentEncoded(std::string_view text) {
    std::string out;
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (std::isalnum(byte) != 0 || c == '-' || c == '.' || c == '_' || c == '~') {
            out += c;
        } else {
            constexpr const char* kHex = "0123456789ABCDEF";
            out += '%';
            out += kHex[byte >> 4];
            out += kHex[byte & 15];
        }
    }
    return out;
}

constexpr const char* kStyle = R"(
body{font:14px/1.45 system-ui,sans-serif;margin:24px auto;max-width:960px;color:#223;padding:0 12px}
h1{font-size:22px}h2{font-size:17px;margin-top:28px}h3{font-size:14px;margin:14px 0 4px}
.cards{display:flex;gap:12px;flex-wrap:wrap}.card{background:#f4f6f8;border-radius:8px;padding:10px 14px;min-width:150px}
.card b{display:block;font-size:20px}svg.plot{width:100%;height:auto;border:1px solid #dde}
.grid{stroke:#e6e9ee}.axis{stroke:#889}.series{fill:none;stroke-width:1.5}.tick,.unit{font-size:11px;fill:#556}
.s0{stroke:#2a6fdb;fill:#2a6fdb}.s1{stroke:#e67e22;fill:#e67e22}polyline.s0,polyline.s1{fill:none}
text{font-size:11px}.note{color:#a15c00}
table{border-collapse:collapse;width:100%;font-size:12px}td,th{border-bottom:1px solid #eee;padding:3px 6px;text-align:left;vertical-align:top}
td.t{white-space:nowrap;color:#667}td.d{word-break:break-word}tr.delivered td:last-child{color:#0f7a36}
details summary{cursor:pointer;color:#667;font-size:11px}pre{white-space:pre-wrap;word-break:break-all;background:#f7f8fa;padding:6px;margin:2px 0;max-height:320px;overflow:auto}
.filters{margin:6px 0 8px;font-size:12px}.filters select{font-size:12px;margin-right:8px}
)";

/// What the summary counts over the run's events.
struct RunTallies {
    std::map<std::string, int> requestsByPath;
    std::map<std::string, int> answers;  ///< link-status requests by statusCode
    std::map<int, int> linkedByType;     ///< link requests by the offer's event type
    int notifications = 0;
    int alerts = 0;
    int offerViews = 0;
    int links = 0;
    std::size_t offerCount = 0;
};

RunTallies tallyRun(const std::vector<json>& events, const std::vector<MapPlace>& places) {
    RunTallies tallies;
    std::map<std::string, int> eventTypeById;
    for (const auto& place : places) {
        for (const auto& offer : place.offers) {
            eventTypeById[offer.eventId] = offer.eventType;
            ++tallies.offerCount;
        }
    }
    for (const auto& event : events) {
        const std::string type = event.value("type", "");
        if (type == "request") {
            const std::string path = event.value("path", "");
            ++tallies.requestsByPath[path];
            if (path == protocol::kLinkStatusPath) {
                ++tallies.answers[text(field(field(event, "body"), "statusCode"))];
            }
            if (path == protocol::kLinkPath) {
                ++tallies.links;
                ++tallies.linkedByType[eventTypeById[text(field(field(event, "body"), "eventId"))]];
            }
        }
        tallies.notifications += type == "notification";
        tallies.alerts += type == "alert";
        tallies.offerViews += type == "offer_view";
    }
    return tallies;
}

/// The series the two plots draw.
struct PlotSeries {
    std::vector<PlotSample> nearest;
    std::vector<PlotSample> accuracy;
    std::vector<PlotSample> filter;
};

PlotSeries plotSeries(const std::vector<json>& events, const std::vector<MapPlace>& places) {
    PlotSeries series;
    for (const auto& event : events) {
        const std::string type = event.value("type", "");
        const double t = event.value("t", 0.0);
        if (type == "position" && !places.empty()) {
            double best = std::numeric_limits<double>::max();
            for (const auto& place : places) {
                best = std::min(best, distanceMetres(number(field(event, "lat")), number(field(event, "lon")),
                                                     place.latitude, place.longitude));
            }
            series.nearest.push_back({t, best});
        } else if (type == "settings") {
            series.accuracy.push_back({t, std::max(number(field(event, "desiredAccuracy")), 0.0)});
            series.filter.push_back({t, std::max(number(field(event, "distanceFilter")), 0.0)});
        }
    }
    return series;
}

void writeHead(std::ostream& out, const ReportInput& input, double duration) {
    out << "<!DOCTYPE html>\n<html lang=\"en\"><head><meta charset=\"utf-8\">"
           "<meta name=\"viewport\" content=\"width=device-width,initial-scale=1\"><title>"
        << escapeHtml(input.title) << "</title><style>" << kStyle;
    writeReportMapStyle(out);
    out << "</style></head><body>\n";
    out << "<h1>" << escapeHtml(input.title) << "</h1>\n<p>Route " << escapeHtml(input.route.name) << ": "
        << input.route.points.size() << " positions over " << formatClock(input.route.duration(), false)
        << " (m:ss); simulated " << fixed(duration, 0) << " s in " << fixed(input.wallSeconds, 2)
        << " s of wall time.</p>\n";
}

void writeOffers(std::ostream& out, const std::vector<json>& events) {
    out << "<h2>Offers</h2>\n<table><tr><th>offer</th><th>place</th><th>name</th><th>outcome</th></tr>\n";
    for (const auto& event : events) {
        if (event.value("type", "") == "outcome") {
            const std::string eventId = text(field(event, "eventId"));
            out << "<tr" << (event.value("delivered", false) ? " class=\"delivered\"" : "")
                << "><td><a href=\"#offer=" << escapeHtml(percentEncoded(eventId))
                << "\" title=\"this offer's events in the timeline\">" << escapeHtml(eventId)
                << "</a></td><td>" << escapeHtml(text(field(event, "placeId"))) << "</td><td>"
                << escapeHtml(text(field(event, "eventName"))) << "</td><td class=\"d\">"
                << escapeHtml(text(field(event, "reason"))) << "</td></tr>\n";
        }
    }
    out << "</table>\n";
}

void writeSummary(std::ostream& out, const RunTallies& tallies, std::size_t placeCount) {
    const auto answers = [&tallies](const char* code) {
        const auto found = tallies.answers.find(code);
        return found == tallies.answers.end() ? 0 : found->second;
    };
    out << "<h2>Summary</h2>\n<div class=\"cards\">";
    out << "<div class=\"card\"><b>" << tallies.notifications + tallies.alerts << "</b>offers delivered ("
        << tallies.notifications << " notifications, " << tallies.alerts << " alerts)</div>";
    out << "<div class=\"card\"><b>" << tallies.links << "</b>link requests";
    for (const auto& [type, count] : tallies.linkedByType) {
        out << "<br>offer type " << type << ": " << count;
    }
    out << "</div><div class=\"card\"><b>" << tallies.offerViews << "</b>offer views opened</div>";
    out << "<div class=\"card\"><b>" << answers("seen") + answers("saved") + answers("declined")
        << "</b>answers: " << answers("seen") << " seen, " << answers("saved") << " saved, "
        << answers("declined") << " declined; " << answers("ack") << " ack</div>";
    out << "<div class=\"card\"><b>" << placeCount << "</b>places the service named (" << tallies.offerCount
        << " offers)</div></div>\n";
    out << "<h3>Requests by endpoint</h3><table><tr><th>endpoint</th><th>requests</th></tr>";
    for (const auto& [path, count] : tallies.requestsByPath) {
        out << "<tr><td>" << escapeHtml(path) << "</td><td>" << count << "</td></tr>";
    }
    out << "</table>\n";
}

void writeMap(std::ostream& out, const ReportInput& input, const std::vector<MapPlace>& places) {
    out << "<h2>Map</h2>\n";
    MapInput map;
    map.route = &input.route;
    map.places = places;
    map.marks = collectMarks(input.events, input.route);
    if (input.tiles != "off") {
        map.tileTemplate = input.tiles;
        map.tileAttribution = input.tiles.empty() ? "" : tileAttribution(input.tiles);
    }
    writeReportMap(out, map);
}

void writePlots(std::ostream& out, const PlotSeries& series, double duration) {
    out << "<h2>Distance and accuracy</h2>\n";
    writeSvgPlot(out, "Distance to the nearest place",
                 {{"distance to the nearest place centre", series.nearest}}, duration, false);
    writeSvgPlot(
        out, "Desired accuracy and distance filter",
        {{"desired accuracy (best drawn at 0 m)", series.accuracy}, {"distance filter", series.filter}},
        duration, true);
}

/// The timeline, and the log lines and positions it leaves out.
void writeTimelineSection(std::ostream& out, const ReportInput& input, const std::vector<MapPlace>& places) {
    out << "<h2>Timeline</h2>\n";
    writeTimeline(out, input.events, places);
    if (input.eventsNotKept > 0) {
        out << "<p>The report holds the first " << input.events.size() << " events; the "
            << input.eventsNotKept << " after them are in the events file (--events).</p>\n";
    }
    out << "<details><summary>Log lines and positions</summary><table>\n";
    for (const auto& event : input.events) {
        const std::string type = event.value("type", "");
        if (type == "log" || type == "position") {
            out << "<tr><td class=\"t\">" << fixed(event.value("t", 0.0), 1) << "</td><td>"
                << escapeHtml(type) << "</td><td class=\"d\">" << escapeHtml(summarise(event))
                << "</td></tr>\n";
        }
    }
    out << "</table></details>\n</body></html>\n";
}

}  // namespace

double distanceMetres(double lat1, double lon1, double lat2, double lon2) {
    return tovrel::platform::haversineMetres(lat1, lon1, lat2, lon2);
}

void writeHtmlReport(const ReportInput& input, std::ostream& out) {
    const auto places = collectPlaces(input.events, placeNames(input.placesFile));
    double duration = input.route.duration();
    for (const auto& event : input.events) {
        duration = std::max(duration, event.value("t", 0.0));
    }

    writeHead(out, input, duration);
    writeOffers(out, input.events);
    writeSummary(out, tallyRun(input.events, places), places.size());
    writeMap(out, input, places);
    writePlots(out, plotSeries(input.events, places), duration);
    writeTimelineSection(out, input, places);
}

}  // namespace tovrel::sim
