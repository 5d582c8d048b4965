#pragma once

#include <CLI/CLI.hpp>
#include <functional>
#include <optional>
#include <string>

#include "admin/preview_process.h"
#include "tovrel_server/server.h"

namespace tovrel::server {

/// What `serve` was told beside the server's own options.
struct ServeSettings {
    std::string listen = "127.0.0.1:8080";
    std::string adminListen = "127.0.0.1:8081";
    std::string adminTokenFile;
    bool tokenReadableByOthers = false;
    std::string consoleDir = "auto";
    std::string accessLog = "on";
    ServerOptions options;
};

/// `tovrel-server serve`: its options (each also a TOVREL_* variable, or a line under [serve] in a
/// --config file), then the server run until SIGINT or SIGTERM, with SIGHUP reloading the places. Main
/// thread.
class ServeCommand {
  public:
    /// Adds the subcommand to `app`; `addDb` gives it its --db option.
    ServeCommand(CLI::App& app, const std::function<void(CLI::App*)>& addDb);
    /// Serves the store at `db` until a signal stops the server; the exit status. nullopt when `serve`
    /// was not the subcommand given.
    std::optional<int> run(const std::string& db);

  private:
    /// Where and how connections are taken: the listener, its threads, timeouts and connection caps.
    void addConnectionOptions();
    /// Rates per client, per SDK key and per device; how long diagnostics and links are kept.
    void addRateAndRetentionOptions();
    /// The simulator behind previews, and webhook delivery.
    void addPreviewAndWebhookOptions();
    /// Sessions, the audit trail and the database: retention, checks, commits, caches, waits.
    void addStoreOptions();
    /// HTTPS on the public and the admin listener.
    void addTlsOptions();
    /// The admin listener, its token, the console, and what is logged.
    void addAdminOptions();

    CLI::App* command_;
    ServeSettings settings_;
    PreviewProgram preview_;
};

}  // namespace tovrel::server
