#pragma once

#include <mutex>
#include <vector>

#include "tovrel/linux/asio_main_loop.h"
#include "tovrel/platform/location.h"

namespace tovrel::linuxbackend::test {

/// Keeps what a location manager tells its delegate, and whether each call came on the loop thread.
class RecordingDelegate final : public platform::LocationManagerDelegate {
  public:
    explicit RecordingDelegate(const AsioMainLoop& loop) : loop_(loop) {}

    void locationManagerDidUpdateLocations(const std::vector<platform::Location>& locations) override {
        check();
        fixes.insert(fixes.end(), locations.begin(), locations.end());
    }
    void locationManagerDidFailWithError(const platform::LocationError& error) override {
        check();
        errors.push_back(error);
    }
    void locationManagerDidPauseLocationUpdates() override { check(); }
    void locationManagerDidResumeLocationUpdates() override { check(); }

    std::vector<platform::Location> fixes;
    std::vector<platform::LocationError> errors;
    int offLoopCalls = 0;

  private:
    void check() {
        if (!loop_.isMainThread()) {
            ++offLoopCalls;
        }
    }
    const AsioMainLoop& loop_;
};

}  // namespace tovrel::linuxbackend::test
