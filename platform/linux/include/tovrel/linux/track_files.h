#pragma once

#include <filesystem>
#include <optional>
#include <string_view>
#include <vector>

#include "tovrel/export.h"
#include "tovrel/platform/location.h"
#include "tovrel/platform/motion.h"

namespace tovrel::linuxbackend {

/// One recorded position. `fix.timestamp` is the recorded time (0 when the file has none).
struct TOVREL_EXPORT TrackPoint {
    platform::Location fix;
    bool timed = false;
    /// An activity recorded with the point (GPX extension element "activity": stationary, walking,
    /// running, automotive, cycling or unknown, with an optional confidence="low|medium|high").
    std::optional<platform::MotionActivity> activity;
};

/// The activity named `name` ("walking"), at `confidence` ("high" when empty); nullopt for an unknown
/// name. Pure.
TOVREL_EXPORT std::optional<platform::MotionActivity> activityNamed(std::string_view name,
                                                                    std::string_view confidence = {});

/// Parses "2024-06-01T12:00:00Z" / "...00.250Z" / "...00+02:00" to seconds since 1970; nullopt when it is not
/// such a time. Pure.
TOVREL_EXPORT std::optional<double> parseIsoTime(std::string_view text);

/// The track points of a GPX 1.0/1.1 document (trkpt, then rtept when there is no track): lat/lon,
/// ele, time, hdop (accuracy 5 m per unit, else 5 m), speed and course (GPX 1.0 elements or any
/// extension element of that name), and an extension "activity". Throws std::runtime_error when the
/// text is not XML or holds no point.
TOVREL_EXPORT std::vector<TrackPoint> parseGpx(std::string_view text);

/// The fixes of an NMEA 0183 log: RMC sentences (valid ones) joined with the GGA of the same time
/// (altitude, HDOP); GGA alone when a log has no RMC. Lines with a wrong checksum, unknown sentences
/// and void fixes are skipped. Throws std::runtime_error when no fix is found.
TOVREL_EXPORT std::vector<TrackPoint> parseNmea(std::string_view text);

/// Reads `file` as GPX (by content: an XML document) or NMEA. Throws std::runtime_error when it
/// cannot be read or parsed.
TOVREL_EXPORT std::vector<TrackPoint> loadTrack(const std::filesystem::path& file);

}  // namespace tovrel::linuxbackend
