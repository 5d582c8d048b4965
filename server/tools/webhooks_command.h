#pragma once

#include <CLI/CLI.hpp>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace tovrel::server {

/// `tovrel-server webhooks list|show|add|remove|enable|disable|rotate|test|replay|attempts`: the admin
/// API's webhook routes run on a database directly, each answer printed as JSON. A running server sends
/// what they queue at its next delivery pass. Main thread.
class WebhooksCommand {
  public:
    /// Adds the subcommands to `app`; `addDb` gives each its --db option.
    WebhooksCommand(CLI::App& app, const std::function<void(CLI::App*)>& addDb);
    /// The exit status of the subcommand given, run on the store at `db`; nullopt when none was given.
    /// Throws std::runtime_error when the store cannot be opened.
    std::optional<int> run(const std::string& db);

  private:
    std::vector<CLI::App*> verbs_;
    std::string id_;
    std::string url_;
    std::vector<std::string> events_;
    bool includeDevice_ = false;
    bool allowHttp_ = false;
    bool allowPrivate_ = false;
    double grace_ = 86400;
    double since_ = 0;
    bool all_ = false;
    int limit_ = 20;
};

}  // namespace tovrel::server
