#pragma once

#include <filesystem>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace tovrel::sim {

enum class Activity { kStationary, kWalking, kRunning, kAutomotive, kCycling, kUnknown };

/// "stationary", "walking", ...; nullopt for anything else.
std::optional<Activity> activityFromName(std::string_view name);
std::string_view activityName(Activity activity);

struct RoutePoint {
    double t = 0;  ///< seconds from the route's start
    double latitude = 0;
    double longitude = 0;
    std::optional<Activity> activity;  ///< from the route file, when it says
};

struct Route {
    std::string name;  ///< the file's name
    std::vector<RoutePoint> points;
    bool hasActivity = false;  ///< every point carries an activity

    [[nodiscard]] double duration() const { return points.empty() ? 0 : points.back().t; }
};

/// A route file that cannot be used; what() names the file and the line.
class RouteError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

/// Reads a GPX track (trkpt with time), an NMEA 0183 log (".nmea" or a "$" start; the linux backend's
/// replay reader) or CSV lines "t,lat,lon[,activity]" ('#' comments; a first line of names, such as
/// "t,lat,lon", is a header).
/// GPX is recognised by the ".gpx" extension or an XML start.
Route loadRoute(const std::filesystem::path& file);
Route parseCsvRoute(std::string_view text, const std::string& fileName);
Route parseGpxRoute(std::string_view text, const std::string& fileName);
/// NMEA fixes, with times from the first; what() of a failure names the file.
Route parseNmeaRoute(std::string_view text, const std::string& fileName);

/// Activity from speed between fixes (metres per second), for routes without an activity column.
Activity activityForSpeed(double metresPerSecond);

}  // namespace tovrel::sim
