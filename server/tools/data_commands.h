#pragma once

#include <CLI/CLI.hpp>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace tovrel::server {

/// The commands that work on a store's rows directly: `import`, `places validate`, `apps`, `campaigns`
/// and `devices`. Main thread.
class DataCommands {
  public:
    /// Adds the subcommands to `app`; `addDb` gives each that needs one its --db option.
    DataCommands(CLI::App& app, const std::function<void(CLI::App*)>& addDb);
    /// The exit status of the subcommand given, run on the store at `db`; nullopt when none of these
    /// was given. Throws what the store throws.
    std::optional<int> run(const std::string& db);

  private:
    CLI::App* import_ = nullptr;
    CLI::App* placesValidate_ = nullptr;
    CLI::App* appsAdd_ = nullptr;
    CLI::App* appsList_ = nullptr;
    CLI::App* appsRemove_ = nullptr;
    CLI::App* appsRotate_ = nullptr;
    CLI::App* appsDisable_ = nullptr;
    CLI::App* appsEnable_ = nullptr;
    CLI::App* campaignsList_ = nullptr;
    CLI::App* campaignsDisable_ = nullptr;
    CLI::App* campaignsEnable_ = nullptr;
    std::vector<CLI::App*> deviceVerbs_;
    std::string file_;
    std::string placeFile_;
    bool validateJson_ = false;
    std::string key_;
    std::string name_;
    std::string campaign_;
    std::string deviceId_;
    std::string logDb_;
};

/// Adds --log-db (where /v1/log messages are kept; "" for --db) to `command`, read into `logDb`.
void addLogDbOption(CLI::App* command, std::string& logDb);

}  // namespace tovrel::server
