#include "html_report.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <map>
#include <optional>
#include <sstream>

namespace tovrel::sim {
namespace {

using nlohmann::json;

struct Place {
    double lat = 0;
    double lon = 0;
    double radius = 0;
    std::string eventId;
    std::string name;
    int eventType = 0;
};

struct Sample {
    double t = 0;
    double value = 0;
};

std::string escape(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    for (const char c : text) {
        switch (c) {
            case '&':
                out += "&amp;";
                break;
            case '<':
                out += "&lt;";
                break;
            case '>':
                out += "&gt;";
                break;
            case '"':
                out += "&quot;";
                break;
            default:
                out += c;
        }
    }
    return out;
}

std::string text(const json& value) {
    if (value.is_string()) {
        return value.get<std::string>();
    }
    return value.is_null() ? std::string() : value.dump();
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

std::string fixed(double value, int decimals) {
    std::ostringstream out;
    out.setf(std::ios::fixed);
    out.precision(decimals);
    out << value;
    return out.str();
}

/// Places the service described, by event and place, from the bodies of the places answers.
std::vector<Place> collectPlaces(const std::vector<json>& events) {
    std::map<std::string, Place> byKey;
    for (const auto& event : events) {
        if (event.value("type", "") != "response" || event.value("path", "") != "/v2/place") {
            continue;
        }
        const json& body = event.contains("body") ? event["body"] : json();
        if (!body.is_object() || !body.contains("places") || !body["places"].is_array()) {
            continue;
        }
        for (const auto& record : body["places"]) {
            if (!record.is_object()) {
                continue;
            }
            Place place;
            place.lat = number(record.value("centroidLat", json()));
            place.lon = number(record.value("centroidLon", json()));
            place.radius = number(record.value("centroidRadius", json()));
            place.eventId = text(record.value("eventId", json()));
            place.name = text(record.value("eventName", json()));
            place.eventType = static_cast<int>(number(record.value("eventTypeId", json())));
            byKey[place.eventId + "@" + text(record.value("placeId", json()))] = place;
        }
    }
    std::vector<Place> places;
    for (auto& [key, place] : byKey) {
        places.push_back(std::move(place));
    }
    return places;
}

struct Projection {
    double lat0 = 0, lon0 = 0, scale = 1, width = 900, height = 560, minX = 0, minY = 0;
    double metresX(double lon) const { return (lon - lon0) * 111194.93 * std::cos(lat0 * M_PI / 180); }
    double metresY(double lat) const { return (lat - lat0) * 111194.93; }
    double x(double lon) const { return 20 + (metresX(lon) - minX) * scale; }
    double y(double lat) const { return height - 20 - (metresY(lat) - minY) * scale; }
};

Projection fit(const Route& route, const std::vector<Place>& places) {
    Projection p;
    if (!route.points.empty()) {
        p.lat0 = route.points.front().latitude;
        p.lon0 = route.points.front().longitude;
    }
    double minX = std::numeric_limits<double>::max(), maxX = -minX, minY = minX, maxY = -minX;
    const auto include = [&](double lat, double lon, double margin) {
        minX = std::min(minX, p.metresX(lon) - margin);
        maxX = std::max(maxX, p.metresX(lon) + margin);
        minY = std::min(minY, p.metresY(lat) - margin);
        maxY = std::max(maxY, p.metresY(lat) + margin);
    };
    for (const auto& point : route.points) {
        include(point.latitude, point.longitude, 50);
    }
    // Places far off the route would shrink it to a dot: show those within 3 km of it.
    for (const auto& place : places) {
        const bool near = std::any_of(route.points.begin(), route.points.end(), [&](const RoutePoint& point) {
            return distanceMetres(point.latitude, point.longitude, place.lat, place.lon) < 3000;
        });
        if (near) {
            include(place.lat, place.lon, place.radius + 20);
        }
    }
    if (minX > maxX) {
        minX = minY = -500;
        maxX = maxY = 500;
    }
    p.minX = minX;
    p.minY = minY;
    p.scale =
        std::min((p.width - 40) / std::max(maxX - minX, 1.0), (p.height - 40) / std::max(maxY - minY, 1.0));
    return p;
}

std::optional<RoutePoint> positionAt(const std::vector<json>& events, const Route& route, double t) {
    std::optional<RoutePoint> last;
    for (const auto& event : events) {
        if (event.value("type", "") == "position" && event.value("t", 0.0) <= t) {
            last =
                RoutePoint{event.value("t", 0.0), number(event["lat"]), number(event["lon"]), std::nullopt};
        }
    }
    if (!last && !route.points.empty()) {
        last = route.points.front();
    }
    return last;
}

void writeMap(std::ostream& out, const ReportInput& input, const std::vector<Place>& places) {
    const Projection p = fit(input.route, places);
    out << "<svg class=\"map\" viewBox=\"0 0 " << p.width << ' ' << p.height
        << "\" role=\"img\" aria-label=\"map\">\n";
    out << "<rect width=\"100%\" height=\"100%\" fill=\"#eef2f3\"/>\n";
    for (const auto& place : places) {
        const double r = std::max(place.radius * p.scale, 2.0);
        out << "<circle cx=\"" << fixed(p.x(place.lon), 1) << "\" cy=\"" << fixed(p.y(place.lat), 1)
            << "\" r=\"" << fixed(r, 1) << "\" class=\"place type" << place.eventType << "\"><title>"
            << escape(place.name) << " (event " << escape(place.eventId) << ", type " << place.eventType
            << ", " << fixed(place.radius, 0) << " m)</title></circle>\n";
        out << "<path class=\"pin\" d=\"M" << fixed(p.x(place.lon), 1) << ' ' << fixed(p.y(place.lat), 1)
            << " l-5 -12 a5 5 0 1 1 10 0 z\"/>\n";
    }
    out << "<polyline class=\"route\" points=\"";
    for (const auto& point : input.route.points) {
        out << fixed(p.x(point.longitude), 1) << ',' << fixed(p.y(point.latitude), 1) << ' ';
    }
    out << "\"/>\n";
    struct Marker {
        const char* cls;
        const char* label;
    };
    const auto mark = [&](double t, const Marker& marker, const std::string& detail) {
        if (const auto at = positionAt(input.events, input.route, t)) {
            out << "<circle class=\"marker " << marker.cls << "\" cx=\"" << fixed(p.x(at->longitude), 1)
                << "\" cy=\"" << fixed(p.y(at->latitude), 1) << "\" r=\"6\"><title>" << marker.label << " at "
                << fixed(t, 0) << " s " << escape(detail) << "</title></circle>\n";
        }
    };
    for (const auto& event : input.events) {
        const std::string type = event.value("type", "");
        const double t = event.value("t", 0.0);
        if (type == "log" && event.value("line", "").find("Inside the target bounds!") != std::string::npos) {
            mark(t, {"entered", "entered"}, "");
        } else if (type == "request" && event.value("path", "") == "/v1/deviceevent/link") {
            mark(t, {"linked", "linked"}, text(event["body"].value("eventId", json())));
        } else if (type == "notification" || type == "alert") {
            mark(t, {"notified", "notified"}, "");
        } else if (type == "alert_answer") {
            mark(t, {"answered", "answered"}, text(event.value("button", json())));
        }
    }
    if (!input.route.points.empty()) {
        const auto& start = input.route.points.front();
        out << "<circle class=\"start\" cx=\"" << fixed(p.x(start.longitude), 1) << "\" cy=\""
            << fixed(p.y(start.latitude), 1) << "\" r=\"5\"><title>start</title></circle>\n";
    }
    out << "</svg>\n";
    out << "<p class=\"legend\"><span class=\"k entered\"></span>entered <span class=\"k "
           "linked\"></span>linked "
           "<span class=\"k notified\"></span>notified <span class=\"k answered\"></span>answered</p>\n";
}

void writePlot(std::ostream& out, const std::string& title,
               const std::vector<std::pair<std::string, std::vector<Sample>>>& series, double duration,
               bool steps) {
    const double width = 900, height = 220, left = 60, bottom = 30;
    double maxValue = 1;
    for (const auto& [name, samples] : series) {
        for (const auto& s : samples) {
            maxValue = std::max(maxValue, s.value);
        }
    }
    duration = std::max(duration, 1.0);
    const auto x = [&](double t) { return left + t / duration * (width - left - 10); };
    const auto y = [&](double v) {
        return height - bottom - std::max(v, 0.0) / maxValue * (height - bottom - 10);
    };
    out << "<h3>" << escape(title) << "</h3>\n<svg class=\"plot\" viewBox=\"0 0 " << width << ' ' << height
        << "\">\n";
    out << "<line class=\"axis\" x1=\"" << left << "\" y1=\"" << height - bottom << "\" x2=\"" << width - 10
        << "\" y2=\"" << height - bottom << "\"/><line class=\"axis\" x1=\"" << left << "\" y1=\"10\" x2=\""
        << left << "\" y2=\"" << height - bottom << "\"/>\n";
    out << "<text x=\"4\" y=\"16\">" << fixed(maxValue, 0) << " m</text><text x=\"4\" y=\"" << height - bottom
        << "\">0</text><text x=\"" << width - 60 << "\" y=\"" << height - 8 << "\">" << fixed(duration, 0)
        << " s</text>\n";
    int index = 0;
    for (const auto& [name, samples] : series) {
        out << "<polyline class=\"series s" << index << "\" points=\"";
        double lastY = 0;
        bool first = true;
        for (const auto& s : samples) {
            if (steps && !first) {
                out << fixed(x(s.t), 1) << ',' << fixed(lastY, 1) << ' ';
            }
            lastY = y(s.value);
            out << fixed(x(s.t), 1) << ',' << fixed(lastY, 1) << ' ';
            first = false;
        }
        if (steps && !samples.empty()) {
            out << fixed(x(duration), 1) << ',' << fixed(lastY, 1);
        }
        out << "\"/><text class=\"s" << index << "\" x=\"" << left + 10 + 220 * index << "\" y=\""
            << height - 4 << "\">" << escape(name) << "</text>\n";
        ++index;
    }
    out << "</svg>\n";
}

std::string summarise(const json& event) {
    const std::string type = event.value("type", "");
    if (type == "request")
        return text(event.value("path", json())) + " " + event.value("body", json()).dump();
    if (type == "response") {
        return text(event.value("path", json())) + " " + std::to_string(event.value("status", 0)) + " " +
               (event.contains("error") ? text(event["error"]) : event.value("body", json()).dump());
    }
    if (type == "position")
        return fixed(number(event["lat"]), 6) + ", " + fixed(number(event["lon"]), 6);
    if (type == "settings") {
        return "accuracy " + text(event.value("desiredAccuracy", json())) + ", filter " +
               text(event.value("distanceFilter", json()));
    }
    if (type == "notification")
        return text(event.value("alertBody", json()));
    if (type == "alert")
        return text(event.value("message", json())) + " " + event.value("buttons", json()).dump();
    if (type == "alert_answer")
        return "button " + text(event.value("button", json()));
    if (type == "post")
        return text(event.value("name", json()));
    if (type == "log")
        return text(event.value("line", json()));
    json rest = event;
    rest.erase("t");
    rest.erase("type");
    return rest.dump();
}

constexpr const char* kStyle = R"(
body{font:14px/1.45 system-ui,sans-serif;margin:24px auto;max-width:960px;color:#223}
h1{font-size:22px}h2{font-size:17px;margin-top:28px}h3{font-size:14px;margin:14px 0 4px}
.cards{display:flex;gap:12px;flex-wrap:wrap}.card{background:#f4f6f8;border-radius:8px;padding:10px 14px;min-width:150px}
.card b{display:block;font-size:20px}svg{width:100%;height:auto;border:1px solid #dde}
.route{fill:none;stroke:#2a6fdb;stroke-width:2}.place{fill:rgba(120,120,120,.12);stroke:rgba(120,120,120,.5)}
.place.type2{fill:rgba(230,150,20,.15)}.place.type3{fill:rgba(40,160,90,.15)}.pin{fill:#d33}
.marker{stroke:#fff;stroke-width:1.5}.entered,.k.entered{fill:#f2b705;background:#f2b705}
.linked,.k.linked{fill:#7b3fe4;background:#7b3fe4}.notified,.k.notified{fill:#17a34a;background:#17a34a}
.answered,.k.answered{fill:#e11d48;background:#e11d48}.start{fill:#222}
.k{display:inline-block;width:10px;height:10px;border-radius:5px;margin:0 4px 0 12px}
.axis{stroke:#889}.series{fill:none;stroke-width:1.5}.s0{stroke:#2a6fdb;fill:#2a6fdb}.s1{stroke:#e67e22;fill:#e67e22}
polyline.s0,polyline.s1{fill:none}text{font-size:11px;fill:#556}
table{border-collapse:collapse;width:100%;font-size:12px}td,th{border-bottom:1px solid #eee;padding:3px 6px;text-align:left;vertical-align:top}
td.t{white-space:nowrap;color:#667}td.d{word-break:break-all}
)";

}  // namespace

double distanceMetres(double lat1, double lon1, double lat2, double lon2) {
    constexpr double k = 0.017453292519943295;
    const double dLat = (lat2 - lat1) * k;
    const double dLon = (lon2 - lon1) * k;
    const double a = std::sin(dLat / 2) * std::sin(dLat / 2) +
                     std::cos(lat1 * k) * std::cos(lat2 * k) * std::sin(dLon / 2) * std::sin(dLon / 2);
    return 6371000.0 * 2 * std::atan2(std::sqrt(a), std::sqrt(1 - a));
}

void writeHtmlReport(const ReportInput& input, std::ostream& out) {
    const auto places = collectPlaces(input.events);
    double duration = input.route.duration();
    for (const auto& event : input.events) {
        duration = std::max(duration, event.value("t", 0.0));
    }

    std::map<std::string, int> requestsByPath;
    std::map<std::string, int> answers;
    std::map<std::string, int> eventTypeById;
    for (const auto& place : places) {
        eventTypeById[place.eventId] = place.eventType;
    }
    int notifications = 0, alerts = 0, offerViews = 0, links = 0;
    std::map<int, int> linkedByType;
    for (const auto& event : input.events) {
        const std::string type = event.value("type", "");
        if (type == "request") {
            const std::string path = event.value("path", "");
            ++requestsByPath[path];
            if (path == "/v1/deviceevent/update") {
                ++answers[text(event["body"].value("statusCode", json()))];
            }
            if (path == "/v1/deviceevent/link") {
                ++links;
                ++linkedByType[eventTypeById[text(event["body"].value("eventId", json()))]];
            }
        }
        notifications += type == "notification";
        alerts += type == "alert";
        offerViews += type == "offer_view";
    }

    std::vector<Sample> nearest;
    std::vector<Sample> accuracy;
    std::vector<Sample> filter;
    for (const auto& event : input.events) {
        const std::string type = event.value("type", "");
        const double t = event.value("t", 0.0);
        if (type == "position" && !places.empty()) {
            double best = std::numeric_limits<double>::max();
            for (const auto& place : places) {
                best = std::min(
                    best, distanceMetres(number(event["lat"]), number(event["lon"]), place.lat, place.lon));
            }
            nearest.push_back({t, best});
        } else if (type == "settings") {
            accuracy.push_back({t, number(event["desiredAccuracy"])});
            filter.push_back({t, number(event["distanceFilter"])});
        }
    }

    out << "<!DOCTYPE html>\n<html lang=\"en\"><head><meta charset=\"utf-8\"><title>" << escape(input.title)
        << "</title><style>" << kStyle << "</style></head><body>\n";
    out << "<h1>" << escape(input.title) << "</h1>\n<p>Route " << escape(input.route.name) << ": "
        << input.route.points.size() << " positions over " << fixed(input.route.duration(), 0)
        << " s; simulated " << fixed(duration, 0) << " s in " << fixed(input.wallSeconds, 2)
        << " s of wall time.</p>\n";

    out << "<h2>Offers</h2>\n<table><tr><th>offer</th><th>place</th><th>name</th><th>outcome</th></tr>\n";
    for (const auto& event : input.events) {
        if (event.value("type", "") == "outcome") {
            out << "<tr><td>" << escape(text(event.value("eventId", json()))) << "</td><td>"
                << escape(text(event.value("placeId", json()))) << "</td><td>"
                << escape(text(event.value("eventName", json()))) << "</td><td class=\"d\">"
                << escape(text(event.value("reason", json()))) << "</td></tr>\n";
        }
    }
    out << "</table>\n";

    out << "<h2>Summary</h2>\n<div class=\"cards\">";
    out << "<div class=\"card\"><b>" << notifications + alerts << "</b>offers delivered (" << notifications
        << " notifications, " << alerts << " alerts)</div>";
    out << "<div class=\"card\"><b>" << links << "</b>link requests";
    for (const auto& [type, count] : linkedByType) {
        out << "<br>type " << type << ": " << count;
    }
    out << "</div><div class=\"card\"><b>" << offerViews << "</b>offer views opened</div>";
    out << "<div class=\"card\"><b>" << answers["seen"] + answers["saved"] + answers["declined"]
        << "</b>answers: " << answers["seen"] << " seen, " << answers["saved"] << " saved, "
        << answers["declined"] << " declined; " << answers["ack"] << " ack</div>";
    out << "<div class=\"card\"><b>" << places.size() << "</b>places seen</div></div>\n";
    out << "<h3>Requests by endpoint</h3><table><tr><th>endpoint</th><th>requests</th></tr>";
    for (const auto& [path, count] : requestsByPath) {
        out << "<tr><td>" << escape(path) << "</td><td>" << count << "</td></tr>";
    }
    out << "</table>\n";

    out << "<h2>Map</h2>\n";
    writeMap(out, input, places);
    out << "<h2>Distance and accuracy</h2>\n";
    writePlot(out, "Distance to the nearest place", {{"distance (m)", nearest}}, duration, false);
    writePlot(out, "Desired accuracy and distance filter",
              {{"desired accuracy (m; -1 = best)", accuracy}, {"distance filter (m)", filter}}, duration,
              true);

    out << "<h2>Timeline</h2>\n<table><tr><th>t (s)</th><th>event</th><th>detail</th></tr>\n";
    for (const auto& event : input.events) {
        const std::string type = event.value("type", "");
        if (type == "log" || type == "position") {
            continue;
        }
        out << "<tr><td class=\"t\">" << fixed(event.value("t", 0.0), 1) << "</td><td>" << escape(type)
            << "</td><td class=\"d\">" << escape(summarise(event)) << "</td></tr>\n";
    }
    out << "</table>\n";
    if (input.eventsNotKept > 0) {
        out << "<p>The report holds the first " << input.events.size() << " events; the "
            << input.eventsNotKept << " after them are in the events file (--events).</p>\n";
    }
    out << "<details><summary>Log lines and positions</summary><table>\n";
    for (const auto& event : input.events) {
        const std::string type = event.value("type", "");
        if (type == "log" || type == "position") {
            out << "<tr><td class=\"t\">" << fixed(event.value("t", 0.0), 1) << "</td><td>" << escape(type)
                << "</td><td class=\"d\">" << escape(summarise(event)) << "</td></tr>\n";
        }
    }
    out << "</table></details>\n</body></html>\n";
}

}  // namespace tovrel::sim
