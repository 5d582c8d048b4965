#include "tovrel_server/server.h"

#include <chrono>
#include <mutex>

#include "http_server.h"
#include "service.h"
#include "static_files.h"

namespace tovrel_server {

double wallClock() {
    using namespace std::chrono;
    return duration<double>(system_clock::now().time_since_epoch()).count();
}

struct Server::Impl {
    explicit Impl(ServerOptions o)
        : options(std::move(o)),
          service(options.dbPath, options.clock ? options.clock : Clock(wallClock)),
          files(options.contentDir),
          http(service, files,
               HttpOptions{options.listenAddress, options.port, options.threads,
                           options.requestTimeoutSeconds, options.mediaBaseUrl, options.maxConnections,
                           options.maxConnectionsPerAddress, options.rateLimit}) {}

    ServerOptions options;
    Service service;
    StaticFiles files;
    HttpServer http;
};

Server::Server(ServerOptions options) : impl_(std::make_unique<Impl>(std::move(options))) {}

Server::~Server() {
    stop();
}

uint16_t Server::start() {
    return impl_->http.start();
}

void Server::stop() {
    impl_->http.stop();
}

uint16_t Server::port() const {
    return impl_->http.port();
}

Reply Server::handle(std::string_view path, std::string_view body, std::string_view mediaBase) {
    ApiReply reply = impl_->service.handle(path, body, mediaBase);
    return {reply.status, std::move(reply.body)};
}

ImportSummary Server::importGeoJson(const std::string& path) {
    return impl_->service.importGeoJson(path);
}

void Server::addApp(const std::string& key, const std::string& name) {
    if (key.empty()) {
        throw std::invalid_argument("the app key must not be empty");
    }
    impl_->service.addApp(key, name);
}

void Server::reloadPlaces() {
    impl_->service.reloadPlaces();
}

Report Server::report() {
    return impl_->service.report();
}

}  // namespace tovrel_server
