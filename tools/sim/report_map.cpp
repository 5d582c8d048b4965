#include "report_map.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <nlohmann/json.hpp>
#include <sstream>

#include "html_report.h"
#include "leaflet_assets.h"
#include "report_escape.h"

namespace tovrel::sim {
namespace {

using nlohmann::json;

constexpr double kMetresPerDegree = 111194.93;
constexpr double kNearRouteMetres = 3000;  // places farther from the route would shrink it to a dot
constexpr double kFocusMetres =
    200;  // places the route passes this close to, and the route there, fill the view

struct Bounds {
    double south = std::numeric_limits<double>::max();
    double north = -std::numeric_limits<double>::max();
    double west = std::numeric_limits<double>::max();
    double east = -std::numeric_limits<double>::max();

    [[nodiscard]] bool empty() const { return south > north; }
    void include(double lat, double lon, double marginMetres) {
        const double dLat = marginMetres / kMetresPerDegree;
        const double dLon = dLat / std::max(std::cos(lat * M_PI / 180), 0.01);
        south = std::min(south, lat - dLat);
        north = std::max(north, lat + dLat);
        west = std::min(west, lon - dLon);
        east = std::max(east, lon + dLon);
    }
    [[nodiscard]] json toJson() const {
        return json::array({json::array({south, west}), json::array({north, east})});
    }
};

/// The route's points, at most `limit` of them (every k-th, the last always), for drawing.
std::vector<const RoutePoint*> thinned(const Route& route, std::size_t limit) {
    std::vector<const RoutePoint*> out;
    const std::size_t stride = std::max<std::size_t>(1, (route.points.size() + limit - 1) / limit);
    for (std::size_t i = 0; i < route.points.size(); i += stride) {
        out.push_back(&route.points[i]);
    }
    if (!route.points.empty() && out.back() != &route.points.back()) {
        out.push_back(&route.points.back());
    }
    return out;
}

struct Views {
    Bounds focus;  ///< where things happened: the places near the route, the marks, the route near them
    Bounds whole;  ///< the whole route and the places near it
    std::vector<bool> nearRoute;
};

Views views(const MapInput& input) {
    Views v;
    const auto points =
        input.route != nullptr ? thinned(*input.route, 4000) : std::vector<const RoutePoint*>{};
    for (const auto* point : points) {
        v.whole.include(point->latitude, point->longitude, 50);
    }
    for (const auto& place : input.places) {
        double closest = std::numeric_limits<double>::max();
        for (const auto* point : points) {
            closest = std::min(
                closest, distanceMetres(point->latitude, point->longitude, place.latitude, place.longitude));
        }
        v.nearRoute.push_back(points.empty() || closest < kNearRouteMetres);
        if (v.nearRoute.back()) {
            v.whole.include(place.latitude, place.longitude, place.radius + 20);
        }
        if (points.empty() || closest < place.radius + kFocusMetres) {
            v.focus.include(place.latitude, place.longitude, place.radius + 20);
        }
    }
    for (const auto& mark : input.marks) {
        v.focus.include(mark.latitude, mark.longitude, 30);
    }
    for (const auto* point : points) {
        for (const auto& place : input.places) {
            if (distanceMetres(point->latitude, point->longitude, place.latitude, place.longitude) <
                place.radius + kFocusMetres) {
                v.focus.include(point->latitude, point->longitude, 30);
                break;
            }
        }
    }
    if (v.focus.empty()) {
        v.focus = v.whole;
    }
    if (v.whole.empty()) {
        v.whole.include(48.137, 11.575, 500);
        v.focus = v.whole;
    }
    return v;
}

std::string placeState(const MapPlace& place) {
    for (const char* state : {"delivered", "linked", "entered"}) {
        for (const auto& offer : place.offers) {
            if (offer.state == state) {
                return state;
            }
        }
    }
    return "missed";
}

std::string placeLabel(const MapPlace& place) {
    std::string offers;
    for (const auto& offer : place.offers) {
        offers += (offers.empty() ? "" : " / ") + offer.name;
    }
    const std::string name = place.name.empty() ? "place " + place.placeId : place.name;
    return offers.empty() ? name : name + ": " + offers;
}

json mapData(const MapInput& input, const Views& v) {
    json route = json::array();
    if (input.route != nullptr) {
        for (const auto* point : thinned(*input.route, 20000)) {
            route.push_back(json::array(
                {std::round(point->latitude * 1e6) / 1e6, std::round(point->longitude * 1e6) / 1e6}));
        }
    }
    json places = json::array();
    for (std::size_t i = 0; i < input.places.size(); ++i) {
        const auto& place = input.places[i];
        json offers = json::array();
        for (const auto& offer : place.offers) {
            offers.push_back({{"id", offer.eventId},
                              {"name", offer.name},
                              {"campaign", offer.campaign},
                              {"type", offer.eventType},
                              {"dwell", offer.dwellMinutes},
                              {"state", offer.state},
                              {"reason", offer.reason}});
        }
        places.push_back({{"id", place.placeId},
                          {"name", place.name},
                          {"lat", place.latitude},
                          {"lon", place.longitude},
                          {"r", place.radius},
                          {"state", placeState(place)},
                          {"label", placeLabel(place)},
                          {"near", static_cast<bool>(v.nearRoute[i])},
                          {"offers", offers}});
    }
    json marks = json::array();
    for (const auto& mark : input.marks) {
        marks.push_back({{"kind", mark.kind},
                         {"t", mark.t},
                         {"lat", mark.latitude},
                         {"lon", mark.longitude},
                         {"detail", mark.detail}});
    }
    json tiles = nullptr;
    if (!input.tileTemplate.empty()) {
        tiles = {{"url", input.tileTemplate}, {"attribution", input.tileAttribution}};
    }
    return {{"route", route}, {"places", places},          {"marks", marks},
            {"tiles", tiles}, {"focus", v.focus.toJson()}, {"whole", v.whole.toJson()}};
}

// Builds the map from the JSON above; every text from input goes through textContent, never HTML.
constexpr const char* kMapScript = R"JS(
(function () {
  var data = JSON.parse(document.getElementById('map-data').textContent);
  var box = document.getElementById('map');
  var note = document.getElementById('map-note');
  var map = L.map(box, {zoomSnap: 0.25, zoomControl: true});
  L.control.scale({imperial: false, maxWidth: 160}).addTo(map);
  function plain(text) {
    box.classList.add('plain');
    note.textContent = text;
  }
  if (data.tiles && navigator.onLine !== false) {
    var loaded = false;
    var tiles = L.tileLayer(data.tiles.url, {attribution: data.tiles.attribution, maxZoom: 19});
    tiles.on('tileload', function () { loaded = true; });
    tiles.on('tileerror', function () {
      if (!loaded && map.hasLayer(tiles)) {
        map.removeLayer(tiles);
        plain('Map tiles did not load (offline?): places and route on a plain background.');
      }
    });
    tiles.addTo(map);
  } else {
    plain(data.tiles ? 'Offline: places and route on a plain background.'
                     : 'No map tiles (--tiles off): places and route on a plain background.');
  }
  function element(tag, cls, text) {
    var e = document.createElement(tag);
    if (cls) e.className = cls;
    if (text !== undefined) e.textContent = text;
    return e;
  }
  var labelled = [];
  var rank = {delivered: 0, linked: 1, entered: 2, missed: 3};
  data.places.forEach(function (p) {
    var circle = L.circle([p.lat, p.lon], {radius: p.r, className: 'place ' + p.state, weight: 1.5});
    var popup = element('div', 'popup');
    popup.appendChild(element('b', '', (p.name ? p.name + ', place ' : 'Place ') + p.id + ' (' + Math.round(p.r) + ' m)'));
    p.offers.forEach(function (o) {
      var row = element('div', 'offer ' + o.state);
      row.appendChild(element('b', '', o.name));
      row.appendChild(element('span', '', ' offer ' + o.id + ', type ' + o.type + ', dwell ' + o.dwell +
        ' min' + (o.campaign ? ', campaign ' + o.campaign : '')));
      if (o.reason) row.appendChild(element('div', 'reason', o.reason));
      popup.appendChild(row);
    });
    circle.bindPopup(popup, {maxWidth: 360});
    circle.bindTooltip(element('span', '', p.label), {
      permanent: true, direction: 'top', className: 'place-label ' + (p.state === 'missed' ? 'quiet' : 'busy')
    });
    circle.addTo(map);
    labelled.push({tooltip: circle.getTooltip(), rank: rank[p.state]});
  });
  labelled.sort(function (a, b) { return a.rank - b.rank; });
  if (data.route.length) {
    L.polyline(data.route, {className: 'route-line', weight: 3, interactive: false}).addTo(map);
    L.circleMarker(data.route[0], {radius: 5, className: 'start'}).bindTooltip('start').addTo(map);
  }
  function clock(t) {
    var s = Math.round(t), m = Math.floor(s / 60);
    return m + ':' + ('0' + (s % 60)).slice(-2);
  }
  data.marks.forEach(function (m) {
    L.circleMarker([m.lat, m.lon], {radius: 6, className: 'mark ' + m.kind, weight: 1.5})
      .bindTooltip(element('span', '', m.kind + ' at ' + clock(m.t) + (m.detail ? ' ' + m.detail : '')))
      .addTo(map);
  });
  // Labels that would cover one of a place that matters more are hidden until zoomed in.
  function labels() {
    box.classList.toggle('far', map.getZoom() < 17);
    var shown = [];
    labelled.forEach(function (l) {
      var e = l.tooltip.getElement();
      if (!e) return;
      e.style.visibility = '';
      var r = e.getBoundingClientRect();
      if (!r.width) return;
      var covers = shown.some(function (s) {
        return r.left < s.right && s.left < r.right && r.top < s.bottom && s.top < r.bottom;
      });
      if (covers) e.style.visibility = 'hidden'; else shown.push(r);
    });
  }
  map.on('zoomend moveend', labels);
  map.fitBounds(data.focus, {padding: [16, 16]});
  labels();
  document.getElementById('fit-focus').onclick = function () { map.fitBounds(data.focus, {padding: [16, 16]}); };
  document.getElementById('fit-whole').onclick = function () { map.fitBounds(data.whole, {padding: [16, 16]}); };
})();
)JS";

constexpr const char* kLegend =
    "<p class=\"legend\">Circles: <span class=\"k delivered\"></span>an offer delivered "
    "<span class=\"k linked\"></span>linked, not delivered <span class=\"k entered\"></span>entered, not "
    "linked <span class=\"k missed\"></span>never entered. Points: <span class=\"k "
    "p-entered\"></span>entered "
    "<span class=\"k p-linked\"></span>link request <span class=\"k p-delivered\"></span>delivered "
    "<span class=\"k p-answered\"></span>answered</p>\n";

void writeLeafletMap(std::ostream& out, const MapInput& input, const LeafletAssets& leaflet) {
    const Views v = views(input);
    out << "<div class=\"map-tools\"><button type=\"button\" id=\"fit-focus\">Places and events</button>"
           "<button type=\"button\" id=\"fit-whole\">Whole route</button> <span "
           "id=\"map-note\"></span></div>\n";
    out << "<div id=\"map\" class=\"map\"><noscript>The map needs JavaScript.</noscript></div>\n" << kLegend;
    out << "<script>/* Leaflet " << leaflet.version
        << " (c) 2010-2019 Vladimir Agafonkin, (c) 2010-2011 CloudMade; BSD-2-Clause, see NOTICE */\n"
        << leaflet.script << "\n</script>\n";
    out << "<script type=\"application/json\" id=\"map-data\">" << jsonForScript(mapData(input, v))
        << "</script>\n<script>" << kMapScript << "</script>\n";
}

struct Projection {
    double lat0 = 0, lon0 = 0, scale = 1, width = 900, height = 560, minX = 0, minY = 0;
    [[nodiscard]] double metresX(double lon) const {
        return (lon - lon0) * kMetresPerDegree * std::cos(lat0 * M_PI / 180);
    }
    [[nodiscard]] double metresY(double lat) const { return (lat - lat0) * kMetresPerDegree; }
    [[nodiscard]] double x(double lon) const { return 20 + (metresX(lon) - minX) * scale; }
    [[nodiscard]] double y(double lat) const { return height - 20 - (metresY(lat) - minY) * scale; }
};

void writePlainMap(std::ostream& out, const MapInput& input) {
    const Views v = views(input);
    Projection p;
    p.lat0 = (v.focus.south + v.focus.north) / 2;
    p.lon0 = (v.focus.west + v.focus.east) / 2;
    p.minX = p.metresX(v.focus.west);
    p.minY = p.metresY(v.focus.south);
    p.scale = std::min((p.width - 40) / std::max(p.metresX(v.focus.east) - p.minX, 1.0),
                       (p.height - 40) / std::max(p.metresY(v.focus.north) - p.minY, 1.0));
    out << "<p class=\"note\">This build has no Leaflet (the Debian package libjs-leaflet was not installed "
           "when it was configured): a plain map without streets or zoom.</p>\n";
    out << "<svg class=\"map plain-map\" viewBox=\"0 0 " << p.width << ' ' << p.height
        << "\" role=\"img\" aria-label=\"map\">\n<rect width=\"100%\" height=\"100%\" fill=\"#eef2f3\"/>\n";
    for (const auto& place : input.places) {
        out << "<circle cx=\"" << fixed(p.x(place.longitude), 1) << "\" cy=\""
            << fixed(p.y(place.latitude), 1) << "\" r=\"" << fixed(std::max(place.radius * p.scale, 2.0), 1)
            << "\" class=\"place " << placeState(place) << "\"><title>" << escapeHtml(placeLabel(place))
            << " (place " << escapeHtml(place.placeId) << ", " << fixed(place.radius, 0)
            << " m)</title></circle>\n";
    }
    out << "<polyline class=\"route-line\" points=\"";
    if (input.route != nullptr) {
        for (const auto* point : thinned(*input.route, 20000)) {
            out << fixed(p.x(point->longitude), 1) << ',' << fixed(p.y(point->latitude), 1) << ' ';
        }
    }
    out << "\"/>\n";
    for (const auto& mark : input.marks) {
        out << "<circle class=\"mark " << escapeHtml(mark.kind) << "\" cx=\"" << fixed(p.x(mark.longitude), 1)
            << "\" cy=\"" << fixed(p.y(mark.latitude), 1) << "\" r=\"6\"><title>" << escapeHtml(mark.kind)
            << " at " << fixed(mark.t, 0) << " s " << escapeHtml(mark.detail) << "</title></circle>\n";
    }
    out << "</svg>\n" << kLegend;
}

constexpr const char* kMapStyle = R"(
.map{width:100%;height:560px;border:1px solid #dde;border-radius:6px;background:#eef2f3}
.map.plain{background:#eef2f3 repeating-linear-gradient(0deg,transparent 0 63px,#e2e8ea 63px 64px)}
.map-tools{margin:4px 0;font-size:12px;color:#667}.map-tools button{margin-right:6px;font-size:12px}
svg.plain-map{height:auto}
.route-line{fill:none;stroke:#2a6fdb;stroke-width:3;stroke-opacity:.85}
.place{stroke-width:1.5}.place.missed{fill:#889;stroke:#667;fill-opacity:.12}
.place.entered{fill:#f2b705;stroke:#c99700;fill-opacity:.2}.place.linked{fill:#7b3fe4;stroke:#5b2fb0;fill-opacity:.2}
.place.delivered{fill:#17a34a;stroke:#0f7a36;fill-opacity:.25}
.mark{stroke:#fff;fill-opacity:1}.mark.entered{fill:#f2b705}.mark.linked{fill:#7b3fe4}
.mark.delivered{fill:#17a34a}.mark.answered{fill:#e11d48}.start{fill:#222;stroke:#fff;fill-opacity:1}
.place-label{font-size:11px;padding:1px 4px;opacity:.85!important}.far .place-label.quiet{display:none}
.leaflet-tooltip.place-label.busy{font-weight:600}
.popup .offer{margin-top:6px}.popup .reason{color:#556;font-size:12px}
.legend{font-size:12px;color:#445}.k{display:inline-block;width:10px;height:10px;border-radius:5px;margin:0 4px 0 10px}
.k.delivered,.k.p-delivered{background:#17a34a}.k.linked,.k.p-linked{background:#7b3fe4}
.k.entered,.k.p-entered{background:#f2b705}.k.missed{background:#aab}.k.p-answered{background:#e11d48}
.k.delivered,.k.linked,.k.entered,.k.missed{opacity:.55;border:1px solid #667}
)";

}  // namespace

std::optional<RoutePoint> routePositionAt(const Route& route, double t) {
    if (route.points.empty()) {
        return std::nullopt;
    }
    const auto after = std::lower_bound(route.points.begin(), route.points.end(), t,
                                        [](const RoutePoint& point, double time) { return point.t < time; });
    if (after == route.points.begin()) {
        return route.points.front();
    }
    if (after == route.points.end()) {
        return route.points.back();
    }
    const RoutePoint& before = *(after - 1);
    const double span = after->t - before.t;
    const double f = span > 0 ? (t - before.t) / span : 1;
    return RoutePoint{t, before.latitude + (after->latitude - before.latitude) * f,
                      before.longitude + (after->longitude - before.longitude) * f, before.activity};
}

std::string tileAttribution(const std::string& tiles) {
    if (tiles == kOpenStreetMapTiles) {
        return "&copy; <a href=\"https://www.openstreetmap.org/copyright\">OpenStreetMap</a> contributors";
    }
    const auto scheme = tiles.find("://");
    const auto start = scheme == std::string::npos ? 0 : scheme + 3;
    const std::string host = tiles.substr(start, tiles.find('/', start) - start);
    return host.empty() ? std::string() : "Tiles: " + escapeHtml(host);
}

void writeReportMapStyle(std::ostream& out) {
    if (const LeafletAssets* leaflet = leafletAssets()) {
        out << leaflet->style;
    }
    out << kMapStyle;
}

void writeReportMap(std::ostream& out, const MapInput& input) {
    if (const LeafletAssets* leaflet = leafletAssets()) {
        writeLeafletMap(out, input, *leaflet);
    } else {
        writePlainMap(out, input);
    }
}

}  // namespace tovrel::sim
