#pragma once

#include <cstddef>
#include <memory>
#include <string>

#include "tovrel/platform/clock.h"
#include "tovrel/platform/http.h"

namespace tovrel::sim {

/// Why a run ended before its route did.
enum class RunStop {
    kNone,
    kSessionNeverStarted,  ///< every session request failed, up to the limit
    kTimeStalled,          ///< requests kept coming without the virtual clock moving
};

/// The component's HTTP port, as a simulation sees it: it counts what would keep a run from ending
/// and, past a limit, stops answering, so the request chains that retry at once run dry and the
/// virtual clock can move again. The simulation then ends the run and says why.
///
/// A failed session start is tried again at once, forever, by design; on a device that is harmless,
/// but a simulation in virtual time would never advance. Main thread (the scheduler's).
class RunGuard final : public platform::HttpClient {
  public:
    struct Limits {
        std::size_t sessionAttempts = 5;  ///< failed session starts in a row before giving up
        std::size_t requestsPerInstant =
            10'000;  ///< requests at one virtual instant before calling it a stall
    };

    RunGuard(std::shared_ptr<platform::HttpClient> inner, std::shared_ptr<platform::Clock> clock,
             Limits limits);

    void postJson(const std::string& url, std::string body, platform::JsonCompletion completion) override;
    void send(platform::HttpRequest request, platform::ResponseCompletion completion) override;

    /// Why requests are no longer answered (kNone while they are).
    [[nodiscard]] RunStop stop() const { return stop_; }
    /// One sentence for the user: what happened, with the last error when there was one.
    [[nodiscard]] std::string stopMessage() const;
    /// The virtual time (clock reading) when the guard stopped answering.
    [[nodiscard]] double stoppedAt() const { return stoppedAt_; }

  private:
    /// Counts a request; false when it must not be answered.
    bool admit();
    void stopWith(RunStop reason);

    std::shared_ptr<platform::HttpClient> inner_;
    std::shared_ptr<platform::Clock> clock_;
    Limits limits_;
    RunStop stop_ = RunStop::kNone;
    double stoppedAt_ = 0;
    double instant_ = -1;
    std::size_t requestsAtInstant_ = 0;
    std::size_t failedSessions_ = 0;
    bool sessionStarted_ = false;
    std::string lastSessionError_;
};

}  // namespace tovrel::sim
