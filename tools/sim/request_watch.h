#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "tovrel/platform/thread_annotations.h"

namespace tovrel::sim {

/// Tells, in wall time, about requests to a service that has not answered yet. The virtual clock
/// stands still while a request is in flight, so a run against a silent service would otherwise say
/// nothing until the HTTP client gives up. A request still open one interval after it began is
/// reported, and again after every further interval, from a thread of its own (steady clock).
class RequestWatch {
  public:
    using Clock = std::chrono::steady_clock;
    /// Receives one line (no newline), on the watch's thread, with no lock of the watch held.
    using Report = std::function<void(const std::string& line)>;

    static constexpr Clock::duration kInterval = std::chrono::seconds(5);

    /// Any thread. Starts the watch's thread. `timeoutSeconds` is when the client gives up, for the
    /// line to say; `interval` is at least a tick of the clock.
    RequestWatch(double timeoutSeconds, Report report, Clock::duration interval = kInterval);
    /// The owner's thread, never from `report`: stop().
    ~RequestWatch();

    RequestWatch(const RequestWatch&) = delete;
    RequestWatch& operator=(const RequestWatch&) = delete;

    /// Any thread. Request `id` (unique among those open) began: `what` names it, e.g.
    /// "POST http://127.0.0.1:8080/v1/session".
    void begin(std::uint64_t id, std::string what);
    /// Any thread. Request `id` was answered or failed: it is reported no more. Unknown ids are ignored.
    void end(std::uint64_t id);
    /// The owner's thread, never from `report`. Wakes and joins the watch's thread at once (a line
    /// already being reported is finished first); nothing is reported once it returns. Idempotent.
    void stop();

    /// The line for a request that has waited `waited` and gives up after `timeoutSeconds`. Pure.
    static std::string line(Clock::duration waited, const std::string& what, double timeoutSeconds);

  private:
    struct Open {
        std::string what;
        Clock::time_point since;
        std::int64_t intervalsReported = 0;
    };

    /// The watch's thread.
    void run();
    /// Adds a line per open request due by `now` to `lines`; when the next one falls due (none: none
    /// open).
    std::optional<Clock::time_point> collectDue(Clock::time_point now, std::vector<std::string>& lines)
        TOVREL_REQUIRES(mutex_);
    /// Sleeps until `deadline` (without one: until woken), the mutex released meanwhile.
    void waitUntil(std::optional<Clock::time_point> deadline) TOVREL_REQUIRES(mutex_);

    const double timeoutSeconds_;
    const Report report_;
    const Clock::duration interval_;
    platform::Mutex mutex_;
    std::condition_variable changed_;
    std::map<std::uint64_t, Open> open_ TOVREL_GUARDED_BY(mutex_);
    bool stopping_ TOVREL_GUARDED_BY(mutex_) = false;
    std::thread thread_;  ///< last: it starts once everything above is in place
};

}  // namespace tovrel::sim
