#pragma once

#include <functional>
#include <optional>
#include <string>

#include "http_server.h"

namespace tovrel::server {

class Service;
class WorkQueue;

/// The admin listener's requests. Unauthenticated, for probes and scrapers: GET /healthz (the process
/// answers), GET /readyz (catalogue loaded and database reachable, else 503) and GET /metrics
/// (Prometheus text). Under /admin/v1/, every request carries "Authorization: Bearer <token>": apps,
/// campaigns, offers and places listed, added, disabled, enabled and removed, place files uploaded
/// (with ?dry_run=1 only checked), and the funnel. Changes are served by the public listener when
/// their answer is sent. Admin work runs on a thread of its own, never on the connection's.
class AdminHandler : public RequestHandler {
  public:
    /// `token` empty: the admin API answers 403 (probes and metrics still answer). `snapshot` fills the
    /// gauges that only the server knows (open connections, queued jobs).
    AdminHandler(Service& service, Metrics& metrics, WorkQueue& work, std::string token,
                 std::function<MetricsSnapshot()> snapshot);

    /// Any connection thread.
    void handle(const HttpRequest& request, Respond respond) override;

  private:
    HttpReply administer(const std::string& method, const std::string& target, const std::string& body);

    Service& service_;
    Metrics& metrics_;
    WorkQueue& work_;
    std::string token_;
    std::function<MetricsSnapshot()> snapshot_;
};

/// Reads an admin token file: its first line without surrounding blanks. Throws std::runtime_error
/// when the file cannot be read or the token is shorter than 16 characters.
std::string readAdminToken(const std::string& path);

}  // namespace tovrel::server
