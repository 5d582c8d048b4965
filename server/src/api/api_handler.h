#pragma once

#include <string>

#include "common/started_write.h"
#include "http/http_server.h"
#include "store/log_store.h"

namespace tovrel::server {

class Service;
class StaticFiles;
class WorkQueue;

/// The public listener's requests: the JSON endpoints and the content pages. A request answered from
/// memory (places of a known session, refusals) is answered on the connection's thread; a write that
/// shares a commit (log messages, tags, link statuses) is queued for it and answered by the thread that
/// committed it; any other that needs the database is queued on the database threads. A request that finds
/// the database threads' queue full is refused with 503. A log message written as the component writes it
/// is kept as it came, without being parsed.
class ApiHandler : public RequestHandler {
  public:
    /// `fallbackBase` ("http://host:port") goes before relative media addresses when a request has no
    /// usable Host header; `mediaBase`, when set, always.
    ApiHandler(Service& service, const StaticFiles& files, WorkQueue& database, std::string mediaBase);

    /// Sets the fallback base once the listener's port is known. Before serving.
    void setFallbackBase(std::string base) { fallbackBase_ = std::move(base); }

    /// A body may carry its endpoint's limit (kApiRoutes). Any connection thread.
    Admission admit(const HttpRequest& header) override;
    /// Any connection thread.
    void handle(const HttpRequest& request, Respond respond) override;

  private:
    std::string mediaBase(std::string_view host, bool tls) const;
    /// Keeps a message read from its text: on the thread that commits it when messages share commits,
    /// else on a database thread.
    void writeLog(LogMessage message, const Launch& launch, const Respond& respond);

    Service& service_;
    const StaticFiles& files_;
    WorkQueue& database_;
    std::string mediaBase_;
    std::string fallbackBase_;
};

}  // namespace tovrel::server
