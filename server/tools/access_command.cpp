#include "access_command.h"

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <iostream>

#include "admin/access_admin.h"
#include "common/request_fields.h"
#include "store/access_store.h"
#include "store/store.h"
#include "tovrel_server/server.h"

namespace tovrel::server {
namespace {

constexpr std::string_view kCommandLine = "command-line";

struct Verb {
    const char* command;
    const char* name;
    const char* what;
};

constexpr Verb kVerbs[] = {
    {"tokens", "list", "List the admin tokens by name and role (never the tokens)"},
    {"tokens", "add", "Add a named admin token and print it (shown this once)"},
    {"tokens", "revoke", "Revoke a named admin token"},
    {"audit", "list", "Print the audit trail of admin changes, newest first"},
    {"audit", "hash", "Print what the audit trail writes for a device id"},
};

}  // namespace

AccessCommand::AccessCommand(CLI::App& app, const std::function<void(CLI::App*)>& addDb) {
    CLI::App* tokens = app.add_subcommand("tokens", "Manage the named admin tokens and their roles");
    tokens->require_subcommand(1);
    CLI::App* audit = app.add_subcommand("audit", "Read the audit trail of the admin API's changes");
    audit->require_subcommand(1);
    for (const Verb& verb : kVerbs) {
        CLI::App* cmd = (std::string_view(verb.command) == "tokens" ? tokens : audit)
                            ->add_subcommand(verb.name, verb.what);
        addDb(cmd);
        const std::string name = verb.name;
        if (name == "add" || name == "revoke") {
            cmd->add_option("NAME", name_, "The token's name")->required();
        }
        if (name == "add") {
            cmd->add_option("--role", role_, "read, support, campaigns or admin")
                ->capture_default_str()
                ->check(CLI::IsMember({"read", "support", "campaigns", "admin"}));
        }
        if (name == "hash") {
            cmd->add_option("DEVICE_ID", name_, "The deviceId the device sends")->required();
        }
        if (std::string_view(verb.command) == "audit" && name == "list") {
            cmd->add_option("--limit", limit_, "How many entries")->check(CLI::Range(1, 1000));
            cmd->add_option("--before", before_, "Only entries with ids below this");
        }
        verbs_.push_back(cmd);
    }
}

std::optional<int> AccessCommand::run(const std::string& db) {
    const auto given = std::find_if(verbs_.begin(), verbs_.end(), [](CLI::App* v) { return v->parsed(); });
    if (given == verbs_.end()) {
        return std::nullopt;
    }
    const std::string command = (*given)->get_parent()->get_name();
    const std::string verb = (*given)->get_name();
    if (!isPostgresLocation(db) && !std::filesystem::exists(db)) {
        throw std::runtime_error("there is no database " + db);
    }
    const auto store = openStore(db);
    const StoreTransact transact = [&](const auto& work) { store->transact(work); };
    if (command == "audit" && verb == "hash") {
        std::string hash;
        transact([&](const SqlSource& source) { hash = auditDeviceHash(source, name_); });
        std::cout << hash << '\n';
        return 0;
    }
    std::vector<std::string> parts{command};
    std::string method = verb == "add" ? "POST" : verb == "revoke" ? "DELETE" : "GET";
    std::string target = "/admin/v1/" + command + "?limit=" + std::to_string(limit_) +
                         (before_ > 0 ? "&before=" + std::to_string(before_) : "");
    std::string body;
    if (verb == "revoke") {
        parts.push_back(name_);
    }
    if (verb == "add") {
        body = nlohmann::json{{"name", name_}, {"role", role_}}.dump();
    }
    const AccessAdminRequest request{method, parts, target, body, kCommandLine, transact, wallClock()};
    try {
        const AdminJsonReply reply = command == "tokens" ? tokensRequest(request) : auditRequest(request);
        if (method != "GET") {
            recordCommandLineChange(*store, verb == "add" ? "tokens.add" : "tokens.revoke", name_,
                                    static_cast<int>(reply.status));
        }
        std::cout << reply.body.dump(2) << '\n';
        return 0;
    } catch (const ApiError& e) {
        if (method != "GET") {
            recordCommandLineChange(*store, verb == "add" ? "tokens.add" : "tokens.revoke", name_,
                                    static_cast<int>(e.status()));
        }
        std::fprintf(stderr, "tovrel-server: %s\n", e.what());
        return 1;
    }
}

void recordCommandLineChange(Store& store, std::string_view action, const std::string& item, int status) {
    store.transact([&](const SqlSource& db) {
        const std::string recorded = action.substr(0, 8) == "devices." ? auditDeviceHash(db, item) : item;
        appendAudit(
            db, AuditEntry{0, wallClock(), std::string(kCommandLine), std::string(action), recorded, status});
    });
}

}  // namespace tovrel::server
