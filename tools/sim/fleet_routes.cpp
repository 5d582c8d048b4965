#include "fleet_routes.h"

#include <algorithm>
#include <cmath>
#include <fstream>
#include <nlohmann/json.hpp>
#include <optional>
#include <sstream>

#include "gps.h"

namespace tovrel::sim {
namespace {

using nlohmann::json;

constexpr double kMetresPerDegree = 111'320;
constexpr double kDefaultRadius = 50;
/// How far a walk goes to its next place and a drive to its next stop, at most: places farther apart
/// are left out, so that a place file spread over a continent still makes routes of hours, not weeks.
constexpr double kWalkReach = 3000;
constexpr double kDriveReach = 30000;

std::string idText(const json& value) {
    if (value.is_string()) {
        return value.get<std::string>();
    }
    if (value.is_number_integer()) {
        return std::to_string(value.get<long long>());
    }
    return {};
}

/// Uniform numbers from a seed (splitmix64), the same on every platform.
class Random {
  public:
    explicit Random(std::uint64_t seed) : state_(seed) {}
    double uniform(double low, double high) {
        state_ = mixSeed(state_);
        return low + (high - low) * static_cast<double>(state_ >> 11) / 9007199254740992.0;
    }
    std::size_t index(std::size_t size) {
        return std::min(size - 1, static_cast<std::size_t>(uniform(0, static_cast<double>(size))));
    }
    bool chance(double p) { return uniform(0, 1) < p; }

  private:
    std::uint64_t state_;
};

struct Point {
    double latitude = 0;
    double longitude = 0;
};

/// A point `metres` away from `from` on `bearing` (radians from north), on a local flat map.
Point offset(const Point& from, double metres, double bearing) {
    const double cosine = std::max(std::cos(from.latitude * M_PI / 180), 1e-6);
    return {from.latitude + metres * std::cos(bearing) / kMetresPerDegree,
            from.longitude + metres * std::sin(bearing) / (kMetresPerDegree * cosine)};
}

double metresBetween(const Point& a, const Point& b) {
    const double cosine = std::cos((a.latitude + b.latitude) / 2 * M_PI / 180);
    const double north = (b.latitude - a.latitude) * kMetresPerDegree;
    const double east = (b.longitude - a.longitude) * kMetresPerDegree * cosine;
    return std::hypot(north, east);
}

class RouteBuilder {
  public:
    explicit RouteBuilder(std::string name) { route_.name = std::move(name); }

    void start(const Point& at, Activity activity) {
        at_ = at;
        add(activity);
    }
    /// Moves in a straight line at `speed` m/s, one position a second.
    void moveTo(const Point& to, double speed, Activity activity) {
        const double distance = metresBetween(at_, to);
        const auto steps = static_cast<long>(std::ceil(distance / speed));
        const Point from = at_;
        for (long step = 1; step <= steps; ++step) {
            const double f = static_cast<double>(step) / static_cast<double>(steps);
            at_ = {from.latitude + (to.latitude - from.latitude) * f,
                   from.longitude + (to.longitude - from.longitude) * f};
            t_ += 1;
            add(activity);
        }
    }
    /// Stays where it is for `seconds`, one position a second.
    void stay(double seconds) {
        for (double waited = 1; waited <= seconds; waited += 1) {
            t_ += 1;
            add(Activity::kStationary);
        }
    }
    [[nodiscard]] const Point& at() const { return at_; }
    Route finish() {
        route_.hasActivity = true;
        return std::move(route_);
    }

  private:
    void add(Activity activity) { route_.points.push_back({t_, at_.latitude, at_.longitude, activity}); }

    Route route_;
    Point at_;
    double t_ = 0;
};

Point centreOf(const PlaceCircle& place) {
    return {place.latitude, place.longitude};
}

/// A point inside the circle (when `inside`) or beside it, 1.5 to 3 radii from its centre.
Point near(const PlaceCircle& place, bool inside, Random& random) {
    const double bearing = random.uniform(0, 2 * M_PI);
    const double distance =
        inside ? random.uniform(0, 0.6) * place.radius : random.uniform(1.5, 3.0) * place.radius;
    return offset(centreOf(place), distance, bearing);
}

/// The next place to go to: one of the four nearest not yet visited within `reach`; none when there
/// is none.
std::optional<std::size_t> nextPlace(const std::vector<PlaceCircle>& places, const Point& from,
                                     const std::vector<bool>& visited, double reach, Random& random) {
    std::vector<std::pair<double, std::size_t>> candidates;
    for (std::size_t i = 0; i < places.size(); ++i) {
        const double distance = metresBetween(from, centreOf(places[i]));
        if (!visited[i] && distance <= reach) {
            candidates.emplace_back(distance, i);
        }
    }
    if (candidates.empty()) {
        return std::nullopt;
    }
    std::sort(candidates.begin(), candidates.end());
    return candidates[random.index(std::min<std::size_t>(4, candidates.size()))].second;
}

Route walk(const std::vector<PlaceCircle>& places, Random& random, std::string name) {
    RouteBuilder builder(std::move(name));
    std::vector<bool> visited(places.size(), false);
    const std::size_t first = random.index(places.size());
    builder.start(offset(centreOf(places[first]), random.uniform(100, 400), random.uniform(0, 2 * M_PI)),
                  Activity::kWalking);
    const double speed = random.uniform(1.1, 1.6);
    const auto stops = static_cast<int>(random.uniform(3, 7));
    for (int stop = 0; stop < stops; ++stop) {
        const std::optional<std::size_t> next =
            stop == 0 ? first : nextPlace(places, builder.at(), visited, kWalkReach, random);
        if (!next) {
            break;
        }
        const std::size_t place = *next;
        visited[place] = true;
        const bool enter = random.chance(0.5);
        builder.moveTo(near(places[place], enter, random), speed, Activity::kWalking);
        if (enter) {
            builder.stay(std::round(random.uniform(60, 900)));
        }
    }
    return builder.finish();
}

Route drive(const std::vector<PlaceCircle>& places, Random& random, std::string name) {
    const std::size_t first = random.index(places.size());
    RouteBuilder builder(std::move(name));
    builder.start(offset(centreOf(places[first]), random.uniform(5000, 9000), random.uniform(0, 2 * M_PI)),
                  Activity::kAutomotive);
    const double speed = random.uniform(9, 14);
    std::vector<bool> visited(places.size(), false);
    for (int stop = 0; stop < 2; ++stop) {
        const std::optional<std::size_t> next =
            stop == 0 ? first : nextPlace(places, builder.at(), visited, kDriveReach, random);
        if (!next) {
            break;
        }
        visited[*next] = true;
        builder.moveTo(near(places[*next], true, random), speed, Activity::kAutomotive);
        builder.stay(std::round(random.uniform(120, 1200)));
    }
    builder.moveTo(offset(builder.at(), random.uniform(5000, 9000), random.uniform(0, 2 * M_PI)), speed,
                   Activity::kAutomotive);
    return builder.finish();
}

}  // namespace

std::vector<PlaceCircle> parsePlaceCircles(std::string_view text, const std::string& fileName) {
    json document(json::value_t::discarded);
    try {
        document = json::parse(text, nullptr, false);
    } catch (const json::exception&) {
        // A number beyond double range: refused below like any unusable text.
    }
    if (document.is_discarded() || !document.is_object() || !document.contains("features") ||
        !document["features"].is_array()) {
        throw RouteError(fileName + ": not a GeoJSON FeatureCollection");
    }
    std::vector<PlaceCircle> places;
    for (const json& feature : document["features"]) {
        if (!feature.is_object() || !feature.contains("geometry") || !feature["geometry"].is_object()) {
            continue;
        }
        const json& geometry = feature["geometry"];
        if (geometry.value("type", json()) != json("Point") || !geometry.contains("coordinates")) {
            continue;
        }
        const json& coordinates = geometry["coordinates"];
        if (!coordinates.is_array() || coordinates.size() < 2 || !coordinates[0].is_number() ||
            !coordinates[1].is_number()) {
            continue;
        }
        PlaceCircle place;
        place.longitude = coordinates[0].get<double>();
        place.latitude = coordinates[1].get<double>();
        if (!std::isfinite(place.latitude) || !std::isfinite(place.longitude) ||
            std::abs(place.latitude) > 90 || std::abs(place.longitude) > 180) {
            continue;
        }
        place.radius = kDefaultRadius;
        if (feature.contains("properties") && feature["properties"].is_object()) {
            const json& properties = feature["properties"];
            const json radius = properties.value("radius", json());
            if (radius.is_number() && radius.get<double>() > 0 && radius.get<double>() < 1e6) {
                place.radius = radius.get<double>();
            }
            place.placeId = idText(properties.value("placeId", json()));
            const json placeName = properties.value("name", json());
            place.name = placeName.is_string() ? placeName.get<std::string>() : std::string();
        }
        places.push_back(std::move(place));
    }
    if (places.empty()) {
        throw RouteError(fileName + ": no Point feature to go to");
    }
    return places;
}

std::vector<PlaceCircle> readPlaceCircles(const std::filesystem::path& file) {
    std::ifstream in(file, std::ios::binary);
    if (!in) {
        throw RouteError(file.string() + ": cannot be read");
    }
    std::ostringstream text;
    text << in.rdbuf();
    return parsePlaceCircles(text.str(), file.string());
}

std::vector<Route> loadRouteFolder(const std::filesystem::path& folder) {
    std::error_code error;
    std::vector<std::filesystem::path> files;
    for (std::filesystem::directory_iterator it(folder, error), end; !error && it != end;
         it.increment(error)) {
        const std::string extension = it->path().extension().string();
        if (it->is_regular_file(error) &&
            (extension == ".gpx" || extension == ".nmea" || extension == ".csv")) {
            files.push_back(it->path());
        }
    }
    if (error) {
        throw RouteError(folder.string() + ": cannot be read: " + error.message());
    }
    if (files.empty()) {
        throw RouteError(folder.string() + ": holds no route (.gpx, .nmea or .csv)");
    }
    std::sort(files.begin(), files.end());
    std::vector<Route> routes;
    routes.reserve(files.size());
    for (const auto& file : files) {
        routes.push_back(loadRoute(file));
    }
    return routes;
}

Route generateRoute(RouteKind kind, const std::vector<PlaceCircle>& places, std::uint64_t seed,
                    std::string name) {
    Random random(seed);
    if (places.empty()) {
        return Route{std::move(name), {}, true};
    }
    return kind == RouteKind::kWalk ? walk(places, random, std::move(name))
                                    : drive(places, random, std::move(name));
}

}  // namespace tovrel::sim
