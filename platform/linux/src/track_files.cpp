#include "tovrel/linux/track_files.h"

#include <charconv>
#include <cmath>
#include <cstring>
#include <ctime>
#include <fstream>
#include <map>
#include <pugixml.hpp>
#include <sstream>
#include <stdexcept>
#include <string>

namespace tovrel::linuxbackend {
namespace {

constexpr double kMetresPerHdop = 5;
constexpr double kDefaultAccuracy = 5;
constexpr double kMetresPerSecondPerKnot = 0.514444;

std::optional<double> number(std::string_view text) {
    while (!text.empty() &&
           (text.front() == ' ' || text.front() == '\t' || text.front() == '\n' || text.front() == '\r')) {
        text.remove_prefix(1);
    }
    while (!text.empty() &&
           (text.back() == ' ' || text.back() == '\t' || text.back() == '\n' || text.back() == '\r')) {
        text.remove_suffix(1);
    }
    if (text.empty()) {
        return std::nullopt;
    }
    double value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size() || !std::isfinite(value)) {
        return std::nullopt;
    }
    return value;
}

std::string_view localName(const char* name) {
    std::string_view view(name);
    if (const auto colon = view.rfind(':'); colon != std::string_view::npos) {
        view.remove_prefix(colon + 1);
    }
    return view;
}

/// The first descendant of `node` whose local name is `name`.
pugi::xml_node descendant(const pugi::xml_node& node, std::string_view name) {
    return node.find_node([name](const pugi::xml_node& n) {
        return n.type() == pugi::node_element && localName(n.name()) == name;
    });
}

std::vector<std::string_view> splitFields(std::string_view sentence) {
    std::vector<std::string_view> fields;
    std::size_t start = 0;
    for (std::size_t i = 0; i <= sentence.size(); ++i) {
        if (i == sentence.size() || sentence[i] == ',') {
            fields.push_back(sentence.substr(start, i - start));
            start = i + 1;
        }
    }
    return fields;
}

/// "4807.038","N" -> 48.1173; nullopt when malformed.
std::optional<double> nmeaAngle(std::string_view value, std::string_view hemisphere) {
    const auto raw = number(value);
    if (!raw || hemisphere.size() != 1) {
        return std::nullopt;
    }
    const double degrees = std::floor(*raw / 100);
    double angle = degrees + (*raw - degrees * 100) / 60;
    if (hemisphere == "S" || hemisphere == "W") {
        angle = -angle;
    } else if (hemisphere != "N" && hemisphere != "E") {
        return std::nullopt;
    }
    return angle;
}

/// Seconds of the day from "hhmmss.ss".
std::optional<double> nmeaTimeOfDay(std::string_view value) {
    const auto raw = number(value);
    if (!raw || value.size() < 6) {
        return std::nullopt;
    }
    const double hours = std::floor(*raw / 10000);
    const double minutes = std::floor((*raw - hours * 10000) / 100);
    const double seconds = *raw - hours * 10000 - minutes * 100;
    return hours * 3600 + minutes * 60 + seconds;
}

/// Seconds since 1970 of the day "ddmmyy".
std::optional<double> nmeaDate(std::string_view value) {
    if (value.size() != 6) {
        return std::nullopt;
    }
    const auto raw = number(value);
    if (!raw) {
        return std::nullopt;
    }
    std::tm day{};
    const int digits = static_cast<int>(*raw);
    day.tm_mday = digits / 10000;
    day.tm_mon = (digits / 100) % 100 - 1;
    day.tm_year = digits % 100 + 100;
    return static_cast<double>(::timegm(&day));
}

/// The sentence between '$' and '*', or nullopt when its checksum is wrong.
std::optional<std::string_view> checkedSentence(std::string_view line) {
    while (!line.empty() && (line.back() == '\r' || line.back() == '\n' || line.back() == ' ')) {
        line.remove_suffix(1);
    }
    const auto dollar = line.find('$');
    if (dollar == std::string_view::npos) {
        return std::nullopt;
    }
    line.remove_prefix(dollar + 1);
    const auto star = line.find('*');
    if (star == std::string_view::npos) {
        return line;
    }
    const std::string_view body = line.substr(0, star);
    const std::string_view given = line.substr(star + 1);
    unsigned expected = 0;
    for (const char c : body) {
        expected ^= static_cast<unsigned char>(c);
    }
    unsigned parsed = 0;
    const auto [end, error] = std::from_chars(given.data(), given.data() + given.size(), parsed, 16);
    if (error != std::errc() || end == given.data() || parsed != expected) {
        return std::nullopt;
    }
    return body;
}

/// A fix at `timestamp` with the accuracy a log that states none is given.
TrackPoint timedFix(double latitude, double longitude, double timestamp) {
    TrackPoint point;
    point.fix.coordinate = {latitude, longitude};
    point.fix.horizontalAccuracy = kDefaultAccuracy;
    point.fix.timestamp = timestamp;
    point.timed = true;
    return point;
}

/// The fixes of an NMEA log, one per time of day in the order the log first gives each: a receiver
/// sends RMC and GGA for the same fix, so the RMC is taken when there is one, with the GGA's
/// altitude and HDOP.
class NmeaFixes {
  public:
    /// Fields of an RMC sentence (ten or more); an invalid fix is skipped.
    void addRmc(const std::vector<std::string_view>& fields) {
        const auto timeOfDay = nmeaTimeOfDay(fields[1]);
        const auto lat = nmeaAngle(fields[3], fields[4]);
        const auto lon = nmeaAngle(fields[5], fields[6]);
        if (fields[2] != "A" || !timeOfDay || !lat || !lon) {
            return;
        }
        if (const auto date = nmeaDate(fields[9])) {
            lastDate_ = *date;
        }
        TrackPoint point = timedFix(*lat, *lon, lastDate_ + *timeOfDay);
        if (const auto knots = number(fields[7])) {
            point.fix.speed = *knots * kMetresPerSecondPerKnot;
        }
        if (const auto course = number(fields[8])) {
            point.fix.course = *course;
        }
        pendingAt(*timeOfDay).rmc = point;
    }

    /// Fields of a GGA sentence (ten or more); one without a fix is skipped. GGA has no date: the
    /// last RMC's is taken.
    void addGga(const std::vector<std::string_view>& fields) {
        const auto timeOfDay = nmeaTimeOfDay(fields[1]);
        const auto lat = nmeaAngle(fields[2], fields[3]);
        const auto lon = nmeaAngle(fields[4], fields[5]);
        const auto quality = number(fields[6]);
        if (!timeOfDay || !lat || !lon || !quality || *quality == 0) {
            return;
        }
        Pending& pending = pendingAt(*timeOfDay);
        pending.altitude = number(fields[9]);
        pending.hdop = number(fields[8]);
        pending.gga = timedFix(*lat, *lon, lastDate_ + *timeOfDay);
    }

    [[nodiscard]] std::vector<TrackPoint> points() const {
        std::vector<TrackPoint> points;
        for (const double timeOfDay : order_) {
            const Pending& pending = byTime_.at(timeOfDay);
            std::optional<TrackPoint> point = pending.rmc ? pending.rmc : pending.gga;
            if (!point) {
                continue;
            }
            if (pending.altitude) {
                point->fix.altitude = *pending.altitude;
                point->fix.verticalAccuracy = kDefaultAccuracy * 2;
            }
            if (pending.hdop) {
                point->fix.horizontalAccuracy = *pending.hdop * kMetresPerHdop;
            }
            points.push_back(*point);
        }
        return points;
    }

  private:
    struct Pending {
        std::optional<TrackPoint> rmc;
        std::optional<double> altitude;
        std::optional<double> hdop;
        std::optional<TrackPoint> gga;
    };

    Pending& pendingAt(double timeOfDay) {
        Pending& pending = byTime_[timeOfDay];
        if (!pending.rmc && !pending.gga) {
            order_.push_back(timeOfDay);
        }
        return pending;
    }

    std::map<double, Pending> byTime_;
    std::vector<double> order_;
    double lastDate_ = 0;
};

}  // namespace

std::optional<platform::MotionActivity> activityNamed(std::string_view name, std::string_view confidence) {
    platform::MotionActivity activity;
    if (name == "stationary") {
        activity.stationary = true;
    } else if (name == "walking") {
        activity.walking = true;
    } else if (name == "running") {
        activity.running = true;
    } else if (name == "automotive") {
        activity.automotive = true;
    } else if (name == "cycling") {
        activity.cycling = true;
    } else if (name == "unknown") {
        activity.unknown = true;
    } else {
        return std::nullopt;
    }
    if (confidence == "low") {
        activity.confidence = platform::MotionConfidence::kLow;
    } else if (confidence == "medium") {
        activity.confidence = platform::MotionConfidence::kMedium;
    } else {
        activity.confidence = platform::MotionConfidence::kHigh;
    }
    return activity;
}

std::optional<double> parseIsoTime(std::string_view text) {
    std::tm parts{};
    std::string copy(text);
    const char* rest = ::strptime(copy.c_str(), "%Y-%m-%dT%H:%M:%S", &parts);
    if (rest == nullptr) {
        return std::nullopt;
    }
    double seconds = static_cast<double>(::timegm(&parts));
    if (*rest == '.') {
        const char* start = rest;
        ++rest;
        while (*rest >= '0' && *rest <= '9') {
            ++rest;
        }
        if (const auto fraction = number(std::string_view(start, static_cast<std::size_t>(rest - start)))) {
            seconds += *fraction;
        }
    }
    if (*rest == 'Z' || *rest == '\0') {
        return seconds;
    }
    if ((*rest == '+' || *rest == '-') && std::strlen(rest) >= 6 && rest[3] == ':') {
        const int sign = *rest == '+' ? 1 : -1;
        const auto hours = number(std::string_view(rest + 1, 2));
        const auto minutes = number(std::string_view(rest + 4, 2));
        if (hours && minutes) {
            return seconds - sign * (*hours * 3600 + *minutes * 60);
        }
    }
    return std::nullopt;
}

std::vector<TrackPoint> parseGpx(std::string_view text) {
    pugi::xml_document document;
    const auto result = document.load_buffer(text.data(), text.size());
    if (!result) {
        throw std::runtime_error(std::string("not a GPX document: ") + result.description());
    }
    std::vector<TrackPoint> points;
    for (const char* element : {"trkpt", "rtept"}) {
        const auto nodes =
            document.select_nodes((std::string("//*[local-name()='") + element + "']").c_str());
        for (const auto& selected : nodes) {
            const pugi::xml_node node = selected.node();
            const auto lat = number(node.attribute("lat").value());
            const auto lon = number(node.attribute("lon").value());
            if (!lat || !lon || std::abs(*lat) > 90 || std::abs(*lon) > 180) {
                continue;
            }
            TrackPoint point;
            point.fix.coordinate = {*lat, *lon};
            point.fix.horizontalAccuracy = kDefaultAccuracy;
            if (const auto ele = number(descendant(node, "ele").child_value())) {
                point.fix.altitude = *ele;
                point.fix.verticalAccuracy = kDefaultAccuracy * 2;
            }
            if (const auto time = parseIsoTime(descendant(node, "time").child_value())) {
                point.fix.timestamp = *time;
                point.timed = true;
            }
            if (const auto hdop = number(descendant(node, "hdop").child_value())) {
                point.fix.horizontalAccuracy = *hdop * kMetresPerHdop;
            }
            if (const auto speed = number(descendant(node, "speed").child_value()); speed && *speed >= 0) {
                point.fix.speed = *speed;
            }
            if (const auto course = number(descendant(node, "course").child_value());
                course && *course >= 0) {
                point.fix.course = *course;
            }
            if (const auto activity = descendant(node, "activity")) {
                point.activity =
                    activityNamed(activity.child_value(), activity.attribute("confidence").value());
            }
            points.push_back(point);
        }
        if (!points.empty()) {
            break;
        }
    }
    if (points.empty()) {
        throw std::runtime_error("the GPX document holds no track or route point");
    }
    return points;
}

std::vector<TrackPoint> parseNmea(std::string_view text) {
    NmeaFixes fixes;
    std::istringstream lines{std::string(text)};
    std::string line;
    while (std::getline(lines, line)) {
        const auto sentence = checkedSentence(line);
        if (!sentence || sentence->size() < 6) {
            continue;
        }
        const auto fields = splitFields(*sentence);
        const std::string_view type = fields[0].substr(fields[0].size() >= 3 ? fields[0].size() - 3 : 0);
        if (type == "RMC" && fields.size() >= 10) {
            fixes.addRmc(fields);
        } else if (type == "GGA" && fields.size() >= 10) {
            fixes.addGga(fields);
        }
    }
    std::vector<TrackPoint> points = fixes.points();
    if (points.empty()) {
        throw std::runtime_error("the NMEA log holds no valid fix");
    }
    return points;
}

std::vector<TrackPoint> loadTrack(const std::filesystem::path& file) {
    std::ifstream in(file, std::ios::binary);
    if (!in) {
        throw std::runtime_error("cannot read track file " + file.string());
    }
    std::ostringstream content;
    content << in.rdbuf();
    const std::string text = content.str();
    const auto first = text.find_first_not_of(" \t\r\n\xef\xbb\xbf");
    if (first != std::string::npos && text[first] == '<') {
        return parseGpx(text);
    }
    return parseNmea(text);
}

}  // namespace tovrel::linuxbackend
