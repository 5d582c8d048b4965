#pragma once

#include <filesystem>
#include <memory>
#include <string>
#include <string_view>

#include "tovrel/export.h"
#include "tovrel/linux/track_files.h"
#include "tovrel/platform/clock.h"
#include "tovrel/platform/location.h"

namespace tovrel::linuxbackend {

/// Error codes a location source reports besides the platform's 0 ("location currently unknown").
inline constexpr int kLocationErrorSourceGaveUp = 2;  ///< reconnect attempts exhausted

/// Where a source puts what it reads. Called on the source's own thread.
class TOVREL_EXPORT FixSink {
  public:
    virtual ~FixSink() = default;
    /// Source thread. A new position (timestamp: when it was read, seconds since 1970).
    virtual void publishFix(const TrackPoint& point) = 0;
    /// Source thread. The source failed (it keeps trying by itself unless it says it gave up).
    virtual void publishError(const platform::LocationError& error) = 0;
};

/// A producer of raw fixes on a thread of its own.
class TOVREL_EXPORT FixSource {
  public:
    virtual ~FixSource() = default;
    /// Any thread. Starts producing into `sink` (held weakly); later calls do nothing.
    virtual void start(std::weak_ptr<FixSink> sink) = 0;
    /// Any thread. Stops and joins the source's thread; nothing is published after it returns.
    virtual void stop() = 0;
    /// Any thread. A location manager started updates: a source that gave up tries again.
    virtual void wake() {}
    /// Any thread. What the source reads, for log lines ("gpsd at 127.0.0.1:2947").
    [[nodiscard]] virtual std::string describe() const = 0;
};

struct TOVREL_EXPORT GpsdOptions {
    std::string host = "127.0.0.1";
    std::string port = "2947";
    /// The first wait before connecting again after a failure; doubled after each failure.
    double reconnectInitialDelaySeconds = 1;
    double reconnectMaxDelaySeconds = 30;
    /// Failed connections in a row before giving up (0: never); a manager starting updates wakes it.
    int maxReconnectAttempts = 0;
};

/// The gpsd options for an address as a user types it: "host", "host:port", "[IPv6]" or
/// "[IPv6]:port" (a bare IPv6 literal is a host); the port defaults to 2947. Throws
/// std::invalid_argument, naming what is wrong, for an empty host or a port that is not 1 to 65535.
TOVREL_EXPORT GpsdOptions gpsdOptionsForAddress(std::string_view address);
/// What is wrong with a gpsd address (as gpsdOptionsForAddress would say), or "" when it is fine:
/// for command-line checks.
TOVREL_EXPORT std::string gpsdAddressProblem(std::string_view address);

/// Fixes from gpsd (libgps: gps_open, gps_stream with WATCH_JSON, gps_read) on a thread that polls the
/// daemon's socket together with a stop descriptor. A 2D or 3D TPV report becomes a fix: eph is the
/// horizontal accuracy (epx/epy when eph is missing), epv the vertical one, speed and track as
/// reported, the timestamp the time it was read. When the daemon cannot be reached or goes away the
/// sink hears error 0 once per outage; the source reconnects with exponential backoff, and fixes flow
/// again when the daemon is back. After maxReconnectAttempts failures in a row it reports
/// kLocationErrorSourceGaveUp and waits for wake().
TOVREL_EXPORT std::unique_ptr<FixSource> makeGpsdSource(GpsdOptions options,
                                                        std::shared_ptr<platform::Clock> clock);

struct TOVREL_EXPORT ReplayOptions {
    std::filesystem::path file;
    /// 1: the recorded pace; 10: ten times faster.
    double speed = 1;
    /// Seconds between points that carry no time (divided by speed as well).
    double untimedIntervalSeconds = 1;
    /// Start again from the first point after the last one.
    bool loop = false;
};

/// Fixes replayed from a GPX or NMEA file (loadTrack) at the recorded pace divided by `speed`. Each fix
/// is stamped with the time it is published; a point without speed or course gets them from its
/// neighbour, by the recorded times. Throws std::runtime_error when the file cannot be read or parsed.
TOVREL_EXPORT std::unique_ptr<FixSource> makeReplaySource(ReplayOptions options,
                                                          std::shared_ptr<platform::Clock> clock);

/// A replay over points already in memory (tests, generated routes).
TOVREL_EXPORT std::unique_ptr<FixSource> makeReplaySource(std::vector<TrackPoint> points,
                                                          ReplayOptions options,
                                                          std::shared_ptr<platform::Clock> clock);

}  // namespace tovrel::linuxbackend
