#pragma once

#include <CLI/CLI.hpp>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tovrel::server {

class Store;

/// `tovrel-server tokens list|add|revoke` and `tovrel-server audit list|hash`: the admin API's token and
/// audit routes run on a database directly, each answer printed as JSON. A running server takes a token
/// added or revoked here within a second. Main thread.
class AccessCommand {
  public:
    /// Adds the subcommands to `app`; `addDb` gives each its --db option.
    AccessCommand(CLI::App& app, const std::function<void(CLI::App*)>& addDb);
    /// The exit status of the subcommand given, run on the store at `db`; nullopt when none was given.
    /// Throws std::runtime_error when the store cannot be opened.
    std::optional<int> run(const std::string& db);

  private:
    std::vector<CLI::App*> verbs_;
    std::string name_;
    std::string role_ = "read";
    int limit_ = 100;
    long long before_ = 0;
};

/// Writes a change made from the command line to the audit trail, by the token name "command-line" (a
/// device's id as its keyed hash). Main thread.
void recordCommandLineChange(Store& store, std::string_view action, const std::string& item, int status);

}  // namespace tovrel::server
