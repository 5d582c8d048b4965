#include "fleet_report.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <sstream>

namespace tovrel::sim {
namespace {

std::string escaped(const std::string& text) {
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

std::string number(double value, int precision = 1) {
    std::ostringstream out;
    out.setf(std::ios::fixed);
    out.precision(precision);
    out << value;
    return out.str();
}

constexpr double kMetresPerDegree = 111'320;

/// The places as circles and the trigger points as dots, on an equirectangular map fitted to them.
void writeMap(const FleetAggregate& fleet, std::ostream& out) {
    constexpr double kWidth = 760;
    constexpr double kHeight = 520;
    constexpr double kPad = 20;
    double south = std::numeric_limits<double>::infinity();
    double north = -south;
    double west = south;
    double east = -south;
    const auto include = [&](double latitude, double longitude) {
        south = std::min(south, latitude);
        north = std::max(north, latitude);
        west = std::min(west, longitude);
        east = std::max(east, longitude);
    };
    for (const auto& [name, offer] : fleet.offers) {
        include(offer.latitude, offer.longitude);
    }
    for (const TriggerPoint& point : fleet.triggers) {
        include(point.latitude, point.longitude);
    }
    if (!std::isfinite(south)) {
        out << "<p>No place was named to any device.</p>\n";
        return;
    }
    const double cosine = std::max(std::cos((south + north) / 2 * M_PI / 180), 0.01);
    const double spanX = std::max((east - west) * cosine, 1e-4);
    const double spanY = std::max(north - south, 1e-4);
    const double scale = std::min((kWidth - 2 * kPad) / spanX, (kHeight - 2 * kPad) / spanY);
    const auto x = [&](double longitude) { return kPad + (longitude - west) * cosine * scale; };
    const auto y = [&](double latitude) { return kHeight - kPad - (latitude - south) * scale; };
    const double pixelsPerMetre = scale / kMetresPerDegree;

    out << "<svg viewBox=\"0 0 " << kWidth << ' ' << kHeight << "\" width=\"" << kWidth << "\" height=\""
        << kHeight << "\" role=\"img\" aria-label=\"places and trigger points\">\n"
        << "<rect width=\"100%\" height=\"100%\" fill=\"#eef0f2\"/>\n";
    for (const auto& [name, offer] : fleet.offers) {
        const double share =
            offer.devices > 0 ? static_cast<double>(offer.delivered) / static_cast<double>(offer.devices) : 0;
        out << "<circle class=\"place\" cx=\"" << number(x(offer.longitude)) << "\" cy=\""
            << number(y(offer.latitude)) << "\" r=\"" << number(std::max(2.0, offer.radius * pixelsPerMetre))
            << "\" fill=\"rgba(30,120,200," << number(0.1 + 0.4 * share, 2)
            << ")\" stroke=\"#1e78c8\"><title>" << escaped(offer.eventName) << " (offer " << offer.eventId
            << ", place " << offer.placeId << "): " << offer.delivered << " deliveries</title></circle>\n";
    }
    for (const TriggerPoint& point : fleet.triggers) {
        out << "<circle class=\"trigger\" cx=\"" << number(x(point.longitude)) << "\" cy=\""
            << number(y(point.latitude)) << "\" r=\"2\" fill=\"" << (point.falseEntry ? "#d33" : "#222")
            << "\"/>\n";
    }
    // A scale bar of a round number of metres, about a fifth of the width.
    const double target = (kWidth / 5) / pixelsPerMetre;
    double bar = std::pow(10, std::floor(std::log10(target)));
    for (const double step : {2.0, 5.0}) {
        if (bar * step <= target) {
            bar = std::pow(10, std::floor(std::log10(target))) * step;
        }
    }
    const double barPixels = bar * pixelsPerMetre;
    out << "<line x1=\"" << kPad << "\" y1=\"" << kHeight - 8 << "\" x2=\"" << number(kPad + barPixels)
        << "\" y2=\"" << kHeight - 8 << "\" stroke=\"#000\" stroke-width=\"2\"/>\n"
        << "<text x=\"" << number(kPad + barPixels + 6) << "\" y=\"" << kHeight - 4 << "\" font-size=\"12\">"
        << (bar >= 1000 ? number(bar / 1000, 0) + " km" : number(bar, 0) + " m") << "</text>\n"
        << "</svg>\n";
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
        out << "<rect class=\"bar\" x=\"" << number(kLeft + static_cast<double>(i) * barWidth) << "\" y=\""
            << number(10 + plotHeight - h) << "\" width=\"" << number(barWidth - 1) << "\" height=\""
            << number(h) << "\" fill=\"#1e78c8\"><title>"
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
        out << "<line x1=\"" << number(tickX) << "\" y1=\"" << axisY << "\" x2=\"" << number(tickX)
            << "\" y2=\"" << axisY + 5 << "\" stroke=\"#000\"/><text x=\"" << number(tickX) << "\" y=\""
            << axisY + 18 << "\" font-size=\"11\" text-anchor=\"middle\">" << i / binsPerMinute
            << "</text>\n";
    }
    out << "<text x=\"" << (kLeft + kWidth) / 2 << "\" y=\"" << kHeight - 4
        << "\" font-size=\"12\" text-anchor=\"middle\">minutes from entering the circle to delivery</text>\n";
    const long long step = std::max(1LL, static_cast<long long>(std::ceil(static_cast<double>(highest) / 5)));
    for (long long value = 0; value <= highest; value += step) {
        const double tickY = axisY - plotHeight * static_cast<double>(value) / static_cast<double>(highest);
        out << "<line x1=\"" << kLeft - 5 << "\" y1=\"" << number(tickY) << "\" x2=\"" << kLeft << "\" y2=\""
            << number(tickY) << "\" stroke=\"#000\"/><text x=\"" << kLeft - 8 << "\" y=\""
            << number(tickY + 4) << "\" font-size=\"11\" text-anchor=\"end\">" << value << "</text>\n";
    }
    out << "</svg>\n";
}

}  // namespace

void writeFleetReport(const std::string& title, const FleetAggregate& fleet, double wallSeconds,
                      std::ostream& out) {
    const double hours = fleet.deviceHours();
    out << "<!DOCTYPE html>\n<html lang=\"en\"><head><meta charset=\"utf-8\"><title>" << escaped(title)
        << "</title>\n<style>body{font-family:sans-serif;margin:2em;max-width:90em}"
           "table{border-collapse:collapse;font-size:.9em}"
           "td,th{border:1px solid #ccc;padding:.2em .5em;text-align:right}"
           "td:nth-child(-n+3),th:nth-child(-n+3){text-align:left}</style></head><body>\n"
        << "<h1>" << escaped(title) << "</h1>\n<p>" << fleet.devices << " devices, " << number(hours, 1)
        << " device-hours simulated in " << number(wallSeconds, 2) << " s: " << fleet.deliveries()
        << " deliveries.</p>\n";
    if (fleet.sessionsNeverStarted + fleet.timeStalled > 0) {
        out << "<p><strong>" << fleet.sessionsNeverStarted << " devices never started a session, "
            << fleet.timeStalled << " stalled";
        if (fleet.firstStop) {
            out << " (device " << fleet.firstStop->first << ": " << escaped(fleet.firstStop->second) << ")";
        }
        out << ".</strong></p>\n";
    }
    out << "<h2>Deliveries per offer</h2>\n<table id=\"offers\"><tr><th>offer</th><th>place</th><th>name</th>"
           "<th>named to</th><th>entered</th><th>linked</th><th>delivered</th><th>notifications</th>"
           "<th>alerts</th><th>answered</th><th>false entries</th><th>link requests</th>"
           "<th>not delivered because</th></tr>\n";
    for (const auto& [name, t] : fleet.offers) {
        std::string reasons;
        for (const auto& [why, count] : t.why) {
            if (why != "delivered") {
                reasons += (reasons.empty() ? "" : ", ") + why + " " + std::to_string(count);
            }
        }
        out << "<tr><td>" << escaped(t.eventId) << "</td><td>" << escaped(t.placeId) << "</td><td>"
            << escaped(t.eventName) << "</td><td>" << t.devices << "</td><td>" << t.entered << "</td><td>"
            << t.linked << "</td><td>" << t.delivered << "</td><td>" << t.notifications << "</td><td>"
            << t.alerts << "</td><td>" << t.answered << "</td><td>" << t.falseEntries << "</td><td>"
            << t.linkRequests << "</td><td style=\"text-align:left;font-size:.85em\">" << escaped(reasons)
            << "</td></tr>\n";
    }
    out << "</table>\n<h2>Trigger points</h2>\n<p>Where each device was when an offer reached it (black; "
           "red: "
           "a false entry, the route never entered the circle); circles are the places, darker where more "
           "of the devices they were named to got the offer.";
    if (fleet.triggers.size() == FleetAggregate::kTriggerPoints) {
        out << " A sample of " << FleetAggregate::kTriggerPoints << " points.";
    }
    out << "</p>\n";
    writeMap(fleet, out);
    out << "<h2>Entry to delivery</h2>\n";
    writeHistogram(fleet, out);
    out << "<h2>Requests per endpoint</h2>\n<p>What a real service must carry for this fleet.</p>\n"
           "<table id=\"requests\"><tr><th>endpoint</th><th>requests</th><th>per device-hour</th></tr>\n";
    for (const auto& [path, count] : fleet.requests) {
        out << "<tr><td>" << escaped(path) << "</td><td>" << count << "</td><td>"
            << number(hours > 0 ? static_cast<double>(count) / hours : 0, 2) << "</td></tr>\n";
    }
    out << "</table>\n<h2>Location updates</h2>\n<p>Time with standard location updates on, per accuracy "
           "level "
           "the component asked for (best and ten metres keep the satellite receiver on; coarser levels "
           "mostly use Wi-Fi and cells), and with significant-change monitoring alone.</p>\n"
           "<table id=\"gps\"><tr><th>accuracy</th><th>minutes</th><th>minutes per device-hour</th></tr>\n";
    const GpsOnTime gps = fleet.gpsOn();
    for (std::size_t i = 0; i < kAccuracyLevels; ++i) {
        out << "<tr><td>" << accuracyLevelName(static_cast<AccuracyLevel>(i)) << "</td><td>"
            << number(gps.seconds[i] / 60) << "</td><td>"
            << number(hours > 0 ? gps.seconds[i] / 60 / hours : 0) << "</td></tr>\n";
    }
    out << "<tr><td>significant changes only</td><td>" << number(gps.significantOnlySeconds / 60)
        << "</td><td>" << number(hours > 0 ? gps.significantOnlySeconds / 60 / hours : 0)
        << "</td></tr>\n</table>\n"
        << "</body></html>\n";
}

}  // namespace tovrel::sim
