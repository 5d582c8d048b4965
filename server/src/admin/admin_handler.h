#pragma once

#include <atomic>
#include <functional>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "admin/admin_tokens.h"
#include "admin/console.h"
#include "admin/preview_runner.h"
#include "http/http_server.h"

namespace tovrel::server {

class Service;
class WorkQueue;

/// The admin listener's requests. Unauthenticated, for probes and scrapers: GET /healthz (the process
/// answers), GET /readyz (catalogue loaded and database reachable, else 503) and GET /metrics
/// (Prometheus text). Under /admin/v1/, every request carries "Authorization: Bearer <token>" with an
/// admin token whose role allows its route (kAdminRoutes): apps, campaigns, offers and places listed,
/// added, disabled, enabled and removed, place files uploaded (with ?dry_run=1 only checked), the
/// funnel, devices, webhooks, tokens and the audit trail, where every change is written. Changes are served
/// by the public listener when their answer is sent. Admin work runs on a thread of its own, never on the
/// connection's. The campaign console's pages and sign-in are under /console/ (see Console); a signed-in
/// console may use the admin API with its session cookie instead of the token.
class AdminHandler : public RequestHandler {
  public:
    /// `fileToken`: the token of --admin-token-file, an `admin` token beside the stored ones; with neither
    /// the admin API answers 403 (probes and metrics still answer). `snapshot` fills the
    /// gauges that only the server knows (open connections, queued jobs). `consoleDir`: the built
    /// console, empty when it is not installed; `contentDir`: the public pages, which its offer
    /// previews show. `webhookAllowPrivate`: webhook endpoints may be on private addresses.
    /// `preview`: what runs POST /admin/v1/preview (ServerOptions::preview); unset: it answers 501.
    AdminHandler(Service& service, Metrics& metrics, WorkQueue& work, std::string fileToken,
                 std::function<MetricsSnapshot()> snapshot, const std::string& consoleDir = {},
                 const std::string& contentDir = {}, bool webhookAllowPrivate = false,
                 PreviewRunner::Preview preview = {});

    /// Admin API requests without the token are refused here, before their body is read, and at most
    /// kMaxAdminRequests are read or worked on at once; probes may carry kMaxProbeBody. Any connection
    /// thread.
    Admission admit(const HttpRequest& header) override;
    /// Any connection thread.
    void handle(const HttpRequest& request, Respond respond) override;

    /// Reads the stored admin tokens again (AdminTokens::kRefreshSeconds apart, from the server's thread);
    /// on a failure the tokens read last stay, and the first failure of a run of them is reported. Any
    /// thread.
    void refreshTokens();

    /// Admin API requests being read or worked on at once, at most.
    static constexpr int kMaxAdminRequests = 8;
    /// The largest body a probe or a metrics scrape may carry.
    static constexpr std::size_t kMaxProbeBody = 4 * 1024;

  private:
    struct Authorized {
        AdminIdentity who;
        const AdminRoute* route = nullptr;
        std::vector<std::string> parts;
    };
    /// Who makes an admin API request and which route it takes; or the 403 of an admin API without
    /// tokens, the 401 of a request without a known token or a console session, the 403 of a console's
    /// change without its anti-forgery token, the 400 of a malformed path, the 404 or 405 of a route
    /// there is not, the 403 of a route outside the token's role. Any connection thread.
    std::variant<Authorized, HttpReply> authorize(const HttpRequest& request);
    /// `ifMatch`: the version the client last read of the item it changes (If-Match), or empty.
    /// Admin thread.
    HttpReply administer(const Authorized& request, const std::string& method, const std::string& target,
                         const std::string& body, const std::string& ifMatch);
    /// POST /admin/v1/preview: the draft in `body` (with ?import=1 in `target`: the catalogue as it would
    /// be after importing it) against the catalogue as it is, over ?days=N (1 to 28; 1 by default), on the
    /// preview's thread; 429 while another preview runs. Any connection thread.
    void preview(std::string body, std::string target, Respond respond);
    /// GET /healthz, /readyz (its database check on the admin thread) and /metrics. Any connection
    /// thread.
    void probe(const HttpRequest& request, Respond respond);
    /// Writes a change to the audit trail; a failure is logged, the answer stands. Admin thread.
    void audit(const AdminIdentity& who, std::string_view action, const std::vector<std::string>& parts,
               const std::string& body, unsigned status);

    Service& service_;
    Metrics& metrics_;
    WorkQueue& work_;
    AdminTokens tokens_;
    std::function<MetricsSnapshot()> snapshot_;
    Console console_;
    bool webhookAllowPrivate_;
    std::atomic<int> inFlight_{0};
    /// The last read of the stored tokens failed (its failure was reported).
    std::atomic<bool> tokensUnreadable_{false};
    /// Last: a preview that runs is waited for before the rest goes.
    PreviewRunner previews_;
};

/// Reads an admin token file: its first line without surrounding blanks. Throws std::runtime_error
/// when the file cannot be read, the token is shorter than 16 characters, or other users may read or
/// write the file (unless `othersMayRead`).
std::string readAdminToken(const std::string& path, bool othersMayRead = false);

}  // namespace tovrel::server
