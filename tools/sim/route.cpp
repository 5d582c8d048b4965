#include "route.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <ctime>
#include <fstream>
#include <pugixml.hpp>
#include <sstream>

#include "tovrel/platform/decimal_text.h"

#if TOVREL_SIM_NMEA
#include "tovrel/linux/track_files.h"
#endif

namespace tovrel::sim {
namespace {

std::string_view trim(std::string_view text) {
    // Called for every field of every line: plain loops, not the general character-set search.
    const auto blank = [](char c) { return c == ' ' || c == '\t' || c == '\r'; };
    while (!text.empty() && blank(text.front())) {
        text.remove_prefix(1);
    }
    while (!text.empty() && blank(text.back())) {
        text.remove_suffix(1);
    }
    return text;
}

std::optional<double> parseNumber(std::string_view text) {
    text = trim(text);
    if (!text.empty() && text.front() == '+') {
        text.remove_prefix(1);
    }
    const std::optional<double> value = platform::readDouble(text);
    if (!value || !std::isfinite(*value)) {
        return std::nullopt;
    }
    return value;
}

[[noreturn]] void fail(const std::string& fileName, std::size_t line, const std::string& what) {
    throw RouteError(fileName + ":" + std::to_string(line) + ": " + what);
}

void checkPoint(const RoutePoint& point, const std::vector<RoutePoint>& before, const std::string& fileName,
                std::size_t line) {
    if (point.latitude < -90 || point.latitude > 90) {
        fail(fileName, line, "latitude " + std::to_string(point.latitude) + " is outside -90..90");
    }
    if (point.longitude < -180 || point.longitude > 180) {
        fail(fileName, line, "longitude " + std::to_string(point.longitude) + " is outside -180..180");
    }
    if (point.t < 0) {
        fail(fileName, line, "time is negative");
    }
    if (!before.empty() && point.t < before.back().t) {
        fail(fileName, line,
             "time goes backwards (" + std::to_string(point.t) + " s after " +
                 std::to_string(before.back().t) + " s)");
    }
}

std::size_t lineOfOffset(std::string_view text, std::ptrdiff_t offset) {
    const auto end =
        text.begin() + std::clamp<std::ptrdiff_t>(offset, 0, static_cast<std::ptrdiff_t>(text.size()));
    return static_cast<std::size_t>(std::count(text.begin(), end, '\n')) + 1;
}

/// Line numbers of increasing offsets in one text, each found from the previous one: linear in the
/// text's length over a whole document, where counting from the start each time is quadratic.
class LineCounter {
  public:
    explicit LineCounter(std::string_view text) : text_(text) {}
    std::size_t lineOf(std::ptrdiff_t offset) {
        const auto end = std::clamp<std::ptrdiff_t>(offset, 0, static_cast<std::ptrdiff_t>(text_.size()));
        if (end < offset_) {
            return lineOfOffset(text_, end);
        }
        line_ += static_cast<std::size_t>(std::count(text_.begin() + offset_, text_.begin() + end, '\n'));
        offset_ = end;
        return line_;
    }

  private:
    std::string_view text_;
    std::ptrdiff_t offset_ = 0;
    std::size_t line_ = 1;
};

/// A header line such as "t,lat,lon" or "time,latitude,longitude,activity": no field is a number.
bool isHeader(const std::vector<std::string_view>& fields) {
    return std::none_of(fields.begin(), fields.end(), [](std::string_view field) {
        return field.empty() || parseNumber(field).has_value();
    });
}

/// "2024-05-01T10:00:00Z", "2024-05-01T10:00:00.250Z", "2024-05-01T12:00:00+02:00" → seconds since 1970.
std::optional<double> parseIsoTime(std::string_view text) {
    text = trim(text);
    int year = 0, month = 0, day = 0, hour = 0, minute = 0;
    double second = 0;
    char tail[16] = {};
    const std::string copy(text);
    if (std::sscanf(copy.c_str(), "%4d-%2d-%2dT%2d:%2d:%lf%15s", &year, &month, &day, &hour, &minute, &second,
                    tail) < 6) {
        return std::nullopt;
    }
    if (month < 1 || month > 12 || day < 1 || day > 31 || hour > 23 || minute > 59 || second < 0 ||
        second >= 61) {
        return std::nullopt;
    }
    std::tm tm{};
    tm.tm_year = year - 1900;
    tm.tm_mon = month - 1;
    tm.tm_mday = day;
    tm.tm_hour = hour;
    tm.tm_min = minute;
    double result = static_cast<double>(timegm(&tm)) + second;
    const std::string_view zone(tail);
    if (zone.empty() || zone == "Z") {
        return result;
    }
    int zoneHours = 0, zoneMinutes = 0;
    char sign = 0;
    if (std::sscanf(tail, "%c%2d:%2d", &sign, &zoneHours, &zoneMinutes) == 3 &&
        (sign == '+' || sign == '-')) {
        const double offset = zoneHours * 3600.0 + zoneMinutes * 60.0;
        return sign == '+' ? result - offset : result + offset;
    }
    return std::nullopt;
}

}  // namespace

std::optional<Activity> activityFromName(std::string_view name) {
    name = trim(name);
    if (name == "stationary")
        return Activity::kStationary;
    if (name == "walking")
        return Activity::kWalking;
    if (name == "running")
        return Activity::kRunning;
    if (name == "automotive")
        return Activity::kAutomotive;
    if (name == "cycling")
        return Activity::kCycling;
    if (name == "unknown")
        return Activity::kUnknown;
    return std::nullopt;
}

std::string_view activityName(Activity activity) {
    switch (activity) {
        case Activity::kStationary:
            return "stationary";
        case Activity::kWalking:
            return "walking";
        case Activity::kRunning:
            return "running";
        case Activity::kAutomotive:
            return "automotive";
        case Activity::kCycling:
            return "cycling";
        case Activity::kUnknown:
            return "unknown";
    }
    return "unknown";
}

Activity activityForSpeed(double metresPerSecond) {
    if (metresPerSecond < 0.3)
        return Activity::kStationary;
    if (metresPerSecond < 2.5)
        return Activity::kWalking;
    if (metresPerSecond < 4.5)
        return Activity::kRunning;
    if (metresPerSecond < 8.0)
        return Activity::kCycling;
    return Activity::kAutomotive;
}

Route parseCsvRoute(std::string_view text, const std::string& fileName) {
    Route route;
    route.name = fileName;
    std::size_t lineNumber = 0;
    std::size_t withActivity = 0;
    bool headerSeen = false;
    std::vector<std::string_view> fields;
    route.points.reserve(static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n')) + 1);
    while (!text.empty()) {
        const auto newline = text.find('\n');
        const std::string_view line = trim(text.substr(0, newline));
        text = newline == std::string_view::npos ? std::string_view() : text.substr(newline + 1);
        ++lineNumber;
        if (line.empty() || line.front() == '#') {
            continue;
        }
        fields.clear();
        std::string_view rest = line;
        for (;;) {
            const auto comma = rest.find(',');
            fields.push_back(trim(rest.substr(0, comma)));
            if (comma == std::string_view::npos) {
                break;
            }
            rest = rest.substr(comma + 1);
        }
        if (route.points.empty() && !headerSeen && fields.size() >= 3 && fields.size() <= 4 &&
            isHeader(fields)) {
            headerSeen = true;
            continue;
        }
        if (fields.size() < 3 || fields.size() > 4) {
            fail(fileName, lineNumber,
                 "expected t,lat,lon[,activity] but found " + std::to_string(fields.size()) + " fields");
        }
        RoutePoint point;
        const auto t = parseNumber(fields[0]);
        const auto lat = parseNumber(fields[1]);
        const auto lon = parseNumber(fields[2]);
        if (!t)
            fail(fileName, lineNumber, "time '" + std::string(fields[0]) + "' is not a number");
        if (!lat)
            fail(fileName, lineNumber, "latitude '" + std::string(fields[1]) + "' is not a number");
        if (!lon)
            fail(fileName, lineNumber, "longitude '" + std::string(fields[2]) + "' is not a number");
        point.t = *t;
        point.latitude = *lat;
        point.longitude = *lon;
        if (fields.size() == 4) {
            point.activity = activityFromName(fields[3]);
            if (!point.activity) {
                fail(fileName, lineNumber,
                     "activity '" + std::string(fields[3]) +
                         "' is not one of stationary, walking, running, automotive, cycling, unknown");
            }
            ++withActivity;
        }
        checkPoint(point, route.points, fileName, lineNumber);
        route.points.push_back(point);
    }
    if (route.points.empty()) {
        throw RouteError(fileName + ": no positions (expected lines of t,lat,lon[,activity])");
    }
    route.hasActivity = withActivity == route.points.size();
    return route;
}

Route parseGpxRoute(std::string_view text, const std::string& fileName) {
    pugi::xml_document document;
    const auto parsed = document.load_buffer(text.data(), text.size());
    if (!parsed) {
        fail(fileName, lineOfOffset(text, parsed.offset),
             std::string("not valid XML: ") + parsed.description());
    }
    Route route;
    route.name = fileName;
    std::optional<double> start;
    const auto points = document.select_nodes("//*[local-name()='trkpt']");
    LineCounter lines(text);
    for (const auto& selected : points) {
        const pugi::xml_node node = selected.node();
        const std::size_t line = lines.lineOf(node.offset_debug());
        const auto lat = parseNumber(node.attribute("lat").value());
        const auto lon = parseNumber(node.attribute("lon").value());
        if (!lat || !lon) {
            fail(fileName, line, "trkpt needs numeric lat and lon attributes");
        }
        pugi::xml_node timeNode;
        for (const auto& child : node.children()) {
            const std::string_view childName = child.name();
            if (childName == "time" || childName.ends_with(":time")) {
                timeNode = child;
            }
        }
        if (!timeNode) {
            fail(fileName, line, "trkpt has no <time>");
        }
        const auto time = parseIsoTime(timeNode.child_value());
        if (!time) {
            fail(fileName, line,
                 std::string("time '") + timeNode.child_value() + "' is not an ISO 8601 UTC time");
        }
        if (!start) {
            start = *time;
        }
        RoutePoint point{*time - *start, *lat, *lon, std::nullopt};
        checkPoint(point, route.points, fileName, line);
        route.points.push_back(point);
    }
    if (route.points.empty()) {
        throw RouteError(fileName + ": no <trkpt> with a time in this GPX file");
    }
    return route;
}

Route parseNmeaRoute(std::string_view text, const std::string& fileName) {
#if TOVREL_SIM_NMEA
    std::vector<linuxbackend::TrackPoint> track;
    try {
        track = linuxbackend::parseNmea(text);
    } catch (const std::exception& error) {
        throw RouteError(fileName + ": " + error.what());
    }
    Route route;
    route.name = fileName;
    const double start = track.front().fix.timestamp;
    for (const auto& point : track) {
        if (!point.timed) {
            throw RouteError(fileName + ": an NMEA fix without a time (routes need RMC or GGA times)");
        }
        const RoutePoint routePoint{point.fix.timestamp - start, point.fix.coordinate.latitude,
                                    point.fix.coordinate.longitude, std::nullopt};
        checkPoint(routePoint, route.points, fileName, route.points.size() + 1);
        route.points.push_back(routePoint);
    }
    return route;
#else
    (void)text;
    throw RouteError(fileName + ": NMEA routes need the linux backend, which this build leaves out");
#endif
}

Route loadRoute(const std::filesystem::path& file) {
    std::ifstream in(file, std::ios::binary);
    if (!in) {
        throw RouteError(file.string() + ": cannot be read");
    }
    std::string text;
    in.seekg(0, std::ios::end);
    if (const std::streamoff size = in.tellg(); size > 0) {
        text.resize(static_cast<std::size_t>(size));
        in.seekg(0);
        in.read(text.data(), size);
        text.resize(static_cast<std::size_t>(in.gcount()));
    } else {
        // Not a file with a size (a pipe, say): read it as it comes.
        in.clear();
        in.seekg(0);
        std::ostringstream buffer;
        buffer << in.rdbuf();
        text = buffer.str();
    }
    const std::string_view start = trim(std::string_view(text).substr(0, 64));
    if (file.extension() == ".gpx" || start.starts_with("<")) {
        return parseGpxRoute(text, file.string());
    }
    if (file.extension() == ".nmea" || start.starts_with("$")) {
        return parseNmeaRoute(text, file.string());
    }
    return parseCsvRoute(text, file.string());
}

}  // namespace tovrel::sim
