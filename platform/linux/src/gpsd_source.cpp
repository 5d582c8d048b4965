#include <gps.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstring>
#include <optional>
#include <stdexcept>

#include "source_thread.h"
#include "tovrel/linux/location_sources.h"

namespace tovrel::linuxbackend {

GpsdOptions gpsdOptionsForAddress(std::string_view address) {
    const auto invalid = [address](const std::string& what) {
        return std::invalid_argument("gpsd address '" + std::string(address) + "': " + what);
    };
    std::string_view host = address;
    std::optional<std::string_view> port;
    if (address.starts_with('[')) {
        const auto close = address.find(']');
        if (close == std::string_view::npos) {
            throw invalid("no ']' after the IPv6 host");
        }
        host = address.substr(1, close - 1);
        if (const auto rest = address.substr(close + 1); !rest.empty()) {
            if (rest.front() != ':') {
                throw invalid("':port' expected after ']'");
            }
            port = rest.substr(1);
        }
    } else if (const auto colon = address.find(':');
               colon != std::string_view::npos && address.find(':', colon + 1) == std::string_view::npos) {
        // One colon separates a port; more than one make a bare IPv6 host.
        host = address.substr(0, colon);
        port = address.substr(colon + 1);
    }
    if (host.empty()) {
        throw invalid("no host");
    }
    GpsdOptions options;
    options.host = std::string(host);
    if (port) {
        unsigned value = 0;
        const auto* end = port->data() + port->size();
        const auto [stop, error] = std::from_chars(port->data(), end, value);
        if (port->empty() || error != std::errc{} || stop != end || value == 0 || value > 65535) {
            throw invalid("the port '" + std::string(*port) + "' is not a number from 1 to 65535");
        }
        options.port = std::string(*port);
    }
    return options;
}

std::string gpsdAddressProblem(std::string_view address) {
    try {
        gpsdOptionsForAddress(address);
        return {};
    } catch (const std::invalid_argument& error) {
        return error.what();
    }
}
namespace {

class GpsdSource final : public FixSource {
  public:
    GpsdSource(GpsdOptions options, std::shared_ptr<platform::Clock> clock)
        : options_(std::move(options)),
          clock_(std::move(clock)),
          stopFd_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}
    ~GpsdSource() override {
        GpsdSource::stop();
        if (stopFd_ >= 0) {
            ::close(stopFd_);
        }
    }
    GpsdSource(const GpsdSource&) = delete;
    GpsdSource& operator=(const GpsdSource&) = delete;

    void start(std::weak_ptr<FixSink> sink) override {
        thread_.start([this, sink = std::move(sink)] { run(sink); });
    }

    void stop() override {
        if (stopFd_ >= 0) {
            const std::uint64_t one = 1;
            [[maybe_unused]] const auto written = ::write(stopFd_, &one, sizeof one);
        }
        thread_.stop();
    }

    void wake() override { thread_.wake(); }

    [[nodiscard]] std::string describe() const override {
        return "gpsd at " + options_.host + ":" + options_.port;
    }

  private:
    enum class Session { kStopped, kCouldNotConnect, kLost };

    void run(const std::weak_ptr<FixSink>& sink) {
        double delay = std::max(options_.reconnectInitialDelaySeconds, 0.01);
        int failures = 0;
        bool outageReported = false;
        while (!thread_.stopping()) {
            bool hadFix = false;
            const Session outcome = session(sink, hadFix);
            if (outcome == Session::kStopped) {
                return;
            }
            if (outcome == Session::kLost) {
                // It was connected: the backoff starts over.
                delay = std::max(options_.reconnectInitialDelaySeconds, 0.01);
                failures = 0;
                outageReported = false;
            } else {
                ++failures;
            }
            if (!outageReported) {
                outageReported = true;
                report(sink, 0,
                       outcome == Session::kLost ? describe() + " went away; reconnecting"
                                                 : describe() + " is not reachable: " + lastError_);
            }
            if (options_.maxReconnectAttempts > 0 && failures >= options_.maxReconnectAttempts) {
                report(sink, kLocationErrorSourceGaveUp,
                       describe() + " did not answer " + std::to_string(failures) +
                           " times; giving up until updates start again");
                if (!thread_.waitFor(std::chrono::duration<double>(-1), true)) {
                    return;
                }
                failures = 0;
                outageReported = false;
                delay = std::max(options_.reconnectInitialDelaySeconds, 0.01);
                continue;
            }
            if (!thread_.waitFor(std::chrono::duration<double>(delay))) {
                return;
            }
            delay = std::min(delay * 2, std::max(options_.reconnectMaxDelaySeconds, delay));
        }
    }

    /// One connection: reads until the daemon goes away or the source stops.
    Session session(const std::weak_ptr<FixSink>& sink, bool& hadFix) {
        gps_data_t data{};
        if (::gps_open(options_.host.c_str(), options_.port.c_str(), &data) != 0) {
            lastError_ = ::gps_errstr(errno);
            return Session::kCouldNotConnect;
        }
        ::gps_stream(&data, WATCH_ENABLE | WATCH_JSON, nullptr);
        Session outcome = Session::kLost;
        for (;;) {
            pollfd fds[2] = {{static_cast<int>(data.gps_fd), POLLIN, 0}, {stopFd_, POLLIN, 0}};
            const int ready = ::poll(fds, 2, -1);
            if (ready < 0 && errno == EINTR) {
                continue;
            }
            if (ready < 0 || (fds[1].revents & POLLIN) != 0 || thread_.stopping()) {
                outcome = Session::kStopped;
                break;
            }
            if ((fds[0].revents & (POLLIN | POLLHUP | POLLERR)) == 0) {
                continue;
            }
            bool lost = false;
            do {
                if (::gps_read(&data, nullptr, 0) < 0) {
                    lost = true;
                    break;
                }
                publishIfNew(sink, data, hadFix);
            } while (::gps_waiting(&data, 0));
            if (lost) {
                break;
            }
        }
        ::gps_stream(&data, WATCH_DISABLE, nullptr);
        ::gps_close(&data);
        return thread_.stopping() ? Session::kStopped : outcome;
    }

    void publishIfNew(const std::weak_ptr<FixSink>& sink, const gps_data_t& data, bool& hadFix) {
        if ((data.set & LATLON_SET) == 0 || data.fix.mode < MODE_2D || !std::isfinite(data.fix.latitude) ||
            !std::isfinite(data.fix.longitude)) {
            return;
        }
        // Every report after a TPV (SKY, DEVICE ...) leaves the fix in place; one fix is published once.
        if (hadFix && data.fix.time.tv_sec == lastTime_.tv_sec &&
            data.fix.time.tv_nsec == lastTime_.tv_nsec && data.fix.latitude == lastLatitude_ &&
            data.fix.longitude == lastLongitude_) {
            return;
        }
        hadFix = true;
        lastTime_ = data.fix.time;
        lastLatitude_ = data.fix.latitude;
        lastLongitude_ = data.fix.longitude;

        TrackPoint point;
        auto& fix = point.fix;
        fix.coordinate = {data.fix.latitude, data.fix.longitude};
        fix.altitude = std::isfinite(data.fix.altMSL) ? data.fix.altMSL : 0;
        if (std::isfinite(data.fix.eph)) {
            fix.horizontalAccuracy = data.fix.eph;
        } else if (std::isfinite(data.fix.epx) && std::isfinite(data.fix.epy)) {
            fix.horizontalAccuracy = std::max(data.fix.epx, data.fix.epy);
        } else {
            fix.horizontalAccuracy = 10;
        }
        fix.verticalAccuracy = std::isfinite(data.fix.epv) ? data.fix.epv : -1;
        fix.speed = std::isfinite(data.fix.speed) ? data.fix.speed : -1;
        fix.course = std::isfinite(data.fix.track) ? data.fix.track : -1;
        fix.timestamp = clock_ ? clock_->now() : static_cast<double>(data.fix.time.tv_sec);
        point.timed = true;
        if (const auto live = sink.lock()) {
            live->publishFix(point);
        }
    }

    static void report(const std::weak_ptr<FixSink>& sink, int code, std::string description) {
        if (const auto live = sink.lock()) {
            live->publishError(platform::LocationError{code, std::move(description)});
        }
    }

    GpsdOptions options_;
    std::shared_ptr<platform::Clock> clock_;
    int stopFd_;
    SourceThread thread_;
    std::string lastError_;
    timespec lastTime_{};
    double lastLatitude_ = 0;
    double lastLongitude_ = 0;
};

}  // namespace

std::unique_ptr<FixSource> makeGpsdSource(GpsdOptions options, std::shared_ptr<platform::Clock> clock) {
    return std::make_unique<GpsdSource>(std::move(options), std::move(clock));
}

}  // namespace tovrel::linuxbackend
