#include "in_process_service.h"

#include <fstream>
#include <sstream>

#include "tovrel_server/server.h"

namespace tovrel::sim {
namespace {

thread_local const platform::Clock* tDeviceClock = nullptr;

std::string contentTypeOf(const std::filesystem::path& file) {
    const std::string extension = file.extension().string();
    if (extension == ".html" || extension == ".htm") {
        return "text/html";
    }
    if (extension == ".css") {
        return "text/css";
    }
    if (extension == ".js") {
        return "text/javascript";
    }
    if (extension == ".png") {
        return "image/png";
    }
    if (extension == ".jpg" || extension == ".jpeg") {
        return "image/jpeg";
    }
    return "application/octet-stream";
}

}  // namespace

InProcessService::InProcessService(const std::filesystem::path& placesFile, std::filesystem::path contentDir,
                                   double startTime)
    : contentDir_(std::move(contentDir)) {
    tovrel::server::ServerOptions options;
    options.dbPath = ":memory:";
    // Runs repeat: the same devices fall in the same control groups every time.
    options.controlGroupKey = kControlGroupKey;
    options.clock = [startTime] { return tDeviceClock != nullptr ? tDeviceClock->now() : startTime; };
    server_ = std::make_unique<tovrel::server::Server>(options);
    server_->importGeoJson(placesFile.string());
}

InProcessService::~InProcessService() = default;

virtualbackend::Reply InProcessService::answer(const virtualbackend::RecordedRequest& request) {
    if (request.method != "POST") {
        return page(request.path);
    }
    // A JSON request the client has read already need not be read again.
    tovrel::server::Reply reply = request.json && !request.body.is_null()
                                      ? server_->handle(request.path, request.rawBody, request.body, kBaseURL)
                                      : server_->handle(request.path, request.rawBody, kBaseURL);
    return {static_cast<int>(reply.status), std::move(reply.body), "application/json", {}};
}

std::optional<HeldBackInfo> heldBackBy(tovrel::server::Server& server, const std::string& deviceEventId) {
    if (deviceEventId.empty() || deviceEventId.size() > 18 ||
        deviceEventId.find_first_not_of("0123456789") != std::string::npos) {
        return std::nullopt;
    }
    const std::optional<tovrel::server::HeldBack> held = server.heldBack(std::stoll(deviceEventId));
    if (!held) {
        return std::nullopt;
    }
    return HeldBackInfo{held->rule, held->text, held->lastDelivery};
}

std::optional<HeldBackInfo> InProcessService::heldBack(const std::string& deviceEventId) {
    return heldBackBy(*server_, deviceEventId);
}

virtualbackend::Reply InProcessService::page(const std::string& path) const {
    const std::filesystem::path relative = std::filesystem::path(path).relative_path().lexically_normal();
    const bool inside = !relative.empty() && *relative.begin() != "..";
    std::ifstream in;
    std::error_code error;
    if (inside && !contentDir_.empty() && std::filesystem::is_regular_file(contentDir_ / relative, error)) {
        in.open(contentDir_ / relative, std::ios::binary);
    }
    if (!in) {
        return virtualbackend::Reply::text(404, "not found", "text/plain");
    }
    std::ostringstream body;
    body << in.rdbuf();
    return virtualbackend::Reply::text(200, body.str(), contentTypeOf(relative));
}

InProcessService::DeviceClock::DeviceClock(const platform::Clock& clock) : previous_(tDeviceClock) {
    tDeviceClock = &clock;
}

InProcessService::DeviceClock::~DeviceClock() {
    tDeviceClock = previous_;
}

}  // namespace tovrel::sim
