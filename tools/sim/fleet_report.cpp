#include "fleet_report.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <map>
#include <sstream>

#include "report_escape.h"
#include "report_map.h"

namespace tovrel::sim {
namespace {

/// The places as circles (their offers' states from how many devices got them) and the trigger points
/// as marks, on the same map as a single run's report.
void writeMap(const FleetAggregate& fleet, const std::string& tiles, std::ostream& out) {
    if (fleet.offers.empty()) {
        out << "<p>No place was named to any device.</p>\n";
        return;
    }
    MapInput map;
    std::map<std::string, std::size_t> placeIndex;
    for (const auto& [name, offer] : fleet.offers) {
        auto [it, added] = placeIndex.emplace(offer.placeId, map.places.size());
        if (added) {
            map.places.push_back(
                MapPlace{offer.placeId, "", offer.latitude, offer.longitude, offer.radius, {}});
        }
        MapOffer shown;
        shown.eventId = offer.eventId;
        shown.name = offer.eventName;
        shown.state = offer.delivered > 0 ? "delivered"
                      : offer.linked > 0  ? "linked"
                      : offer.entered > 0 ? "entered"
                                          : "missed";
        shown.reason = std::to_string(offer.delivered) + " of " + std::to_string(offer.devices) +
                       " devices it was named to got it";
        map.places[it->second].offers.push_back(std::move(shown));
    }
    for (const TriggerPoint& point : fleet.triggers) {
        map.marks.push_back(MapMark{point.falseEntry ? "entered" : "delivered", 0, point.latitude,
                                    point.longitude,
                                    "offer " + point.eventId + (point.falseEntry ? " (a false entry)" : "")});
    }
    if (tiles != "off") {
        map.tileTemplate = tiles;
        map.tileAttribution = tiles.empty() ? "" : tileAttribution(tiles);
    }
    writeReportMap(out, map);
}

/// Entry-to-delivery delays as bars, with ticks every minute on the x axis and on the y axis.
void writeHistogram(const FleetAggregate& fleet, std::ostream& out) {
    constexpr double kWidth = 760;
    constexpr double kHeight = 260;
    constexpr double kLeft = 50;
    constexpr double kBottom = 40;
    const long long highest = *std::max_element(fleet.delays.begin(), fleet.delays.end());
    if (highest == 0) {
        out << "<p>No delivery after an entry.</p>\n";
        return;
    }
    const double barWidth = (kWidth - kLeft - 10) / static_cast<double>(FleetAggregate::kDelayBins);
    const double plotHeight = kHeight - kBottom - 10;
    out << "<svg viewBox=\"0 0 " << kWidth << ' ' << kHeight << "\" width=\"" << kWidth << "\" height=\""
        << kHeight << "\" role=\"img\" aria-label=\"entry to delivery delay\">\n";
    for (std::size_t i = 0; i < FleetAggregate::kDelayBins; ++i) {
        const double h = plotHeight * static_cast<double>(fleet.delays[i]) / static_cast<double>(highest);
        out << "<rect class=\"bar\" x=\"" << fixed(kLeft + static_cast<double>(i) * barWidth, 1) << "\" y=\""
            << fixed(10 + plotHeight - h, 1) << "\" width=\"" << fixed(barWidth - 1, 1) << "\" height=\""
            << fixed(h, 1) << "\" fill=\"#1e78c8\"><title>"
            << static_cast<long>(static_cast<double>(i) * FleetAggregate::kDelayBinSeconds) << "–"
            << static_cast<long>(static_cast<double>(i + 1) * FleetAggregate::kDelayBinSeconds)
            << (i + 1 == FleetAggregate::kDelayBins ? "+ s: " : " s: ") << fleet.delays[i]
            << "</title></rect>\n";
    }
    const double axisY = 10 + plotHeight;
    out << "<line x1=\"" << kLeft << "\" y1=\"" << axisY << "\" x2=\"" << kWidth - 10 << "\" y2=\"" << axisY
        << "\" stroke=\"#000\"/>\n";
    const auto binsPerMinute = static_cast<std::size_t>(60 / FleetAggregate::kDelayBinSeconds);
    for (std::size_t i = 0; i <= FleetAggregate::kDelayBins; i += binsPerMinute) {
        const double tickX = kLeft + static_cast<double>(i) * barWidth;
        out << "<line x1=\"" << fixed(tickX, 1) << "\" y1=\"" << axisY << "\" x2=\"" << fixed(tickX, 1)
            << "\" y2=\"" << axisY + 5 << "\" stroke=\"#000\"/><text x=\"" << fixed(tickX, 1) << "\" y=\""
            << axisY + 18 << "\" font-size=\"11\" text-anchor=\"middle\">" << i / binsPerMinute
            << "</text>\n";
    }
    out << "<text x=\"" << (kLeft + kWidth) / 2 << "\" y=\"" << kHeight - 4
        << "\" font-size=\"12\" text-anchor=\"middle\">minutes from entering the circle to delivery</text>\n";
    const long long step = std::max(1LL, static_cast<long long>(std::ceil(static_cast<double>(highest) / 5)));
    for (long long value = 0; value <= highest; value += step) {
        const double tickY = axisY - plotHeight * static_cast<double>(value) / static_cast<double>(highest);
        out << "<line x1=\"" << kLeft - 5 << "\" y1=\"" << fixed(tickY, 1) << "\" x2=\"" << kLeft
            << "\" y2=\"" << fixed(tickY, 1) << "\" stroke=\"#000\"/><text x=\"" << kLeft - 8 << "\" y=\""
            << fixed(tickY + 4, 1) << "\" font-size=\"11\" text-anchor=\"end\">" << value << "</text>\n";
    }
    out << "</svg>\n";
}

}  // namespace

void writeFleetReport(const std::string& title, const FleetAggregate& fleet, double wallSeconds,
                      const std::string& tiles, std::ostream& out) {
    const double hours = fleet.deviceHours();
    out << "<!DOCTYPE html>\n<html lang=\"en\"><head><meta charset=\"utf-8\"><title>" << escapeHtml(title)
        << "</title>\n<style>body{font-family:sans-serif;margin:2em;max-width:90em}"
           "table{border-collapse:collapse;font-size:.9em}"
           "td,th{border:1px solid #ccc;padding:.2em .5em;text-align:right}"
           "td:nth-child(-n+3),th:nth-child(-n+3){text-align:left}\n";
    writeReportMapStyle(out);
    out << "</style></head><body>\n"
        << "<h1>" << escapeHtml(title) << "</h1>\n<p>" << fleet.devices << " devices, " << fixed(hours, 1)
        << " device-hours simulated in " << fixed(wallSeconds, 2) << " s: " << fleet.deliveries()
        << " deliveries.</p>\n";
    if (fleet.sessionsNeverStarted + fleet.timeStalled > 0) {
        out << "<p><strong>" << fleet.sessionsNeverStarted << " devices never started a session, "
            << fleet.timeStalled << " stalled";
        if (fleet.firstStop) {
            out << " (device " << fleet.firstStop->first << ": " << escapeHtml(fleet.firstStop->second)
                << ")";
        }
        out << ".</strong></p>\n";
    }
    out << "<h2>Deliveries per offer</h2>\n<table id=\"offers\"><tr><th>offer</th><th>place</th><th>name</th>"
           "<th>named to</th><th>entered</th><th>linked</th><th>delivered</th><th>notifications</th>"
           "<th>alerts</th><th>answered</th><th>false entries</th><th>link requests</th>"
           "<th>exposed</th><th>control</th><th>not delivered because</th></tr>\n";
    for (const auto& [name, t] : fleet.offers) {
        // Linked devices split by the campaign's control group: held out, or exposed to the offer.
        const auto control = t.why.find("suppressed:control");
        const long long heldOut = control == t.why.end() ? 0 : control->second;
        std::string reasons;
        for (const auto& [why, count] : t.why) {
            if (why != "delivered") {
                reasons += (reasons.empty() ? "" : ", ") + why + " " + std::to_string(count);
            }
        }
        out << "<tr><td>" << escapeHtml(t.eventId) << "</td><td>" << escapeHtml(t.placeId) << "</td><td>"
            << escapeHtml(t.eventName) << "</td><td>" << t.devices << "</td><td>" << t.entered << "</td><td>"
            << t.linked << "</td><td>" << t.delivered << "</td><td>" << t.notifications << "</td><td>"
            << t.alerts << "</td><td>" << t.answered << "</td><td>" << t.falseEntries << "</td><td>"
            << t.linkRequests << "</td><td>" << t.linked - heldOut << "</td><td>" << heldOut
            << "</td><td style=\"text-align:left;font-size:.85em\">" << escapeHtml(reasons) << "</td></tr>\n";
    }
    out << "</table>\n<h2>Trigger points</h2>\n<p>Where each device was when an offer reached it (marked as "
           "a "
           "delivery; as an entry where it was a false entry: the route never entered the circle); circles "
           "are "
           "the places, coloured by the best any device got (delivered, linked, entered, missed).";
    if (fleet.triggers.size() == FleetAggregate::kTriggerPoints) {
        out << " A sample of " << FleetAggregate::kTriggerPoints << " points.";
    }
    out << "</p>\n";
    writeMap(fleet, tiles, out);
    out << "<h2>Entry to delivery</h2>\n";
    writeHistogram(fleet, out);
    out << "<h2>Requests per endpoint</h2>\n<p>What a real service must carry for this fleet.</p>\n"
           "<table id=\"requests\"><tr><th>endpoint</th><th>requests</th><th>per device-hour</th></tr>\n";
    for (const auto& [path, count] : fleet.requests) {
        out << "<tr><td>" << escapeHtml(path) << "</td><td>" << count << "</td><td>"
            << fixed(hours > 0 ? static_cast<double>(count) / hours : 0, 2) << "</td></tr>\n";
    }
    out << "</table>\n<h2>Location updates</h2>\n<p>Time with standard location updates on, per accuracy "
           "level "
           "the component asked for (best and ten metres keep the satellite receiver on; coarser levels "
           "mostly use Wi-Fi and cells), and with significant-change monitoring alone.</p>\n"
           "<table id=\"gps\"><tr><th>accuracy</th><th>minutes</th><th>minutes per device-hour</th></tr>\n";
    const GpsOnTime gps = fleet.gpsOn();
    for (std::size_t i = 0; i < kAccuracyLevels; ++i) {
        out << "<tr><td>" << accuracyLevelName(static_cast<AccuracyLevel>(i)) << "</td><td>"
            << fixed(gps.seconds[i] / 60, 1) << "</td><td>"
            << fixed(hours > 0 ? gps.seconds[i] / 60 / hours : 0, 1) << "</td></tr>\n";
    }
    out << "<tr><td>significant changes only</td><td>" << fixed(gps.significantOnlySeconds / 60, 1)
        << "</td><td>" << fixed(hours > 0 ? gps.significantOnlySeconds / 60 / hours : 0, 1)
        << "</td></tr>\n</table>\n"
        << "</body></html>\n";
}

}  // namespace tovrel::sim
