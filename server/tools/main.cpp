// tovrel-server: serve the API, import places, manage app keys and print usage reports.
#include <CLI/CLI.hpp>
#include <cstdio>
#include <iostream>
#include <nlohmann/json.hpp>
#include <stdexcept>

#include "access_command.h"
#include "data_commands.h"
#include "serve_command.h"
#include "store/report.h"
#include "tovrel/tools/command_line.h"
#include "webhooks_command.h"

namespace {

using namespace tovrel::server;

int report(const std::string& db, const std::string& logDb, bool asJson, bool byDay) {
    const Report r = readReport(db, logDb);
    const Funnel funnel = readFunnel(db, byDay);
    if (!asJson) {
        std::cout << formatReport(funnel, r.logCounts);
        return 0;
    }
    nlohmann::json out = funnelJson(funnel);
    out["log"] = r.logCounts;
    std::cout << out.dump(2) << '\n';
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app{"tovrel-server: the self-hostable back-end of the Tovrel location service"};
    tovrel::tools::addVersionFlag(app, "tovrel-server");
    app.set_config("--config", "",
                   "Read settings from a TOML or INI file ([serve] section for serve's options)");
    app.require_subcommand(1);

    std::string db;
    auto addDb = [&db](CLI::App* command) {
        command
            ->add_option("--db", db,
                         "SQLite database file (created when missing), or a postgresql:// address of a "
                         "PostgreSQL database shared by several servers")
            ->required()
            ->envname("TOVREL_DB");
    };
    ServeCommand serveCommand(app, addDb);
    DataCommands data(app, addDb);
    WebhooksCommand webhooks(app, addDb);
    AccessCommand access(app, addDb);

    CLI::App* reportCmd = app.add_subcommand(
        "report", "Print the funnel (links, answers) per campaign and offer, and log counts");
    bool asJson = false;
    bool byDay = false;
    addDb(reportCmd);
    std::string logDb;
    addLogDbOption(reportCmd, logDb);
    reportCmd->add_flag("--json", asJson, "Print JSON instead of tables");
    reportCmd->add_flag("--by-day", byDay, "Also count per UTC day");

    if (const auto status = tovrel::tools::parseCommandLine(app, argc, argv)) {
        return *status;
    }

    try {
        if (const auto status = serveCommand.run(db)) {
            return *status;
        }
        if (const auto status = data.run(db)) {
            return *status;
        }
        if (const auto status = webhooks.run(db)) {
            return *status;
        }
        if (const auto status = access.run(db)) {
            return *status;
        }
        if (reportCmd->parsed()) {
            return report(db, logDb, asJson, byDay);
        }
    } catch (const std::exception& e) {
        std::fprintf(stderr, "tovrel-server: %s\n", e.what());
        return 1;
    }
    return 0;
}
