#pragma once

#include <filesystem>
#include <memory>
#include <optional>
#include <string>

#include "outcomes.h"
#include "tovrel/platform/clock.h"
#include "tovrel/virtual/recording_http_client.h"

namespace tovrel::server {
class Server;
}

namespace tovrel::sim {

/// The embedded tovrel-server without HTTP: the virtual HTTP port hands each request's body to the
/// service's handler and the handler's bytes back, on the device's own thread. One service serves
/// any number of devices on any threads; each request is stamped with the virtual time of the device
/// that makes it (DeviceClock).
class InProcessService {
  public:
    /// The base URL the devices are given; it names no real host.
    static constexpr const char* kBaseURL = "http://tovrel-server.invalid";
    /// The control-group key of every embedded service: simulated devices are held out alike run after run.
    static constexpr const char* kControlGroupKey = "tovrel-sim control groups";

    /// Imports `placesFile`; pages are read from `contentDir`. `startTime` stamps the import. Throws
    /// std::exception with a message naming the file when the places cannot be imported.
    InProcessService(const std::filesystem::path& placesFile, std::filesystem::path contentDir,
                     double startTime);
    ~InProcessService();
    InProcessService(const InProcessService&) = delete;
    InProcessService& operator=(const InProcessService&) = delete;

    /// The answer to one request: POSTs to the JSON endpoints from the service's handler, GETs of pages
    /// from the content folder. Any thread.
    virtualbackend::Reply answer(const virtualbackend::RecordedRequest& request);
    /// Why the service held back the link with this deviceEventId; nullopt when it did not. Any thread.
    std::optional<HeldBackInfo> heldBack(const std::string& deviceEventId);

    /// While it lives, requests answered on this thread are stamped with `clock`'s time.
    class DeviceClock {
      public:
        explicit DeviceClock(const platform::Clock& clock);
        ~DeviceClock();
        DeviceClock(const DeviceClock&) = delete;
        DeviceClock& operator=(const DeviceClock&) = delete;

      private:
        const platform::Clock* previous_;
    };

  private:
    virtualbackend::Reply page(const std::string& path) const;

    std::unique_ptr<tovrel::server::Server> server_;
    std::filesystem::path contentDir_;
};

/// Why `server` held back the link with this deviceEventId (digits); nullopt when it did not. Any thread.
std::optional<HeldBackInfo> heldBackBy(tovrel::server::Server& server, const std::string& deviceEventId);

}  // namespace tovrel::sim
