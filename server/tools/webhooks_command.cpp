#include "webhooks_command.h"

#include <cstdio>
#include <filesystem>
#include <iostream>
#include <nlohmann/json.hpp>

#include "admin/webhooks_admin.h"
#include "common/request_fields.h"
#include "store/store.h"
#include "tovrel_server/server.h"

namespace tovrel::server {
namespace {

using nlohmann::json;

struct Verb {
    const char* name;
    const char* what;
};

constexpr Verb kVerbs[] = {
    {"list", "List the webhook endpoints (secrets by their last four characters)"},
    {"show", "Show one endpoint"},
    {"add", "Add an endpoint and print its secret (shown this once)"},
    {"remove", "Remove an endpoint with its messages"},
    {"enable", "Send to an endpoint again (after a 410 or a disable)"},
    {"disable", "Stop sending to an endpoint; its messages wait"},
    {"rotate", "Give an endpoint a new secret; the old one signs beside it for --grace seconds"},
    {"test", "Queue a webhook.test event for an endpoint"},
    {"replay", "Send an endpoint's failed messages (or --all) created since --since again"},
    {"attempts", "List an endpoint's latest delivery attempts"},
};

}  // namespace

WebhooksCommand::WebhooksCommand(CLI::App& app, const std::function<void(CLI::App*)>& addDb) {
    CLI::App* webhooks = app.add_subcommand("webhooks", "Manage the endpoints that events are sent to");
    webhooks->require_subcommand(1);
    for (const Verb& verb : kVerbs) {
        CLI::App* cmd = webhooks->add_subcommand(verb.name, verb.what);
        addDb(cmd);
        const std::string name = verb.name;
        if (name == "add") {
            cmd->add_option("URL", url_, "https address the events are POSTed to")->required();
            cmd->add_option("--events", events_, "Event types to send (default: every one)")->delimiter(',');
            cmd->add_flag("--include-device", includeDevice_, "Put the device's identifier in each event");
            cmd->add_flag("--allow-http", allowHttp_, "Accept a plain http address");
            cmd->add_flag("--allow-private", allowPrivate_,
                          "Accept a loopback, link-local or private address (the server must also run with "
                          "--webhook-allow-private)");
        } else if (name != "list") {
            cmd->add_option("ID", id_, "The endpoint's id")->required();
        }
        if (name == "rotate") {
            cmd->add_option("--grace", grace_, "Seconds the old secret keeps signing")
                ->check(CLI::Range(0, 604800));
        }
        if (name == "replay") {
            cmd->add_option("--since", since_, "Only messages created since (seconds since 1970)");
            cmd->add_flag("--all", all_, "Delivered messages too, not only failed ones");
        }
        if (name == "attempts") {
            cmd->add_option("--limit", limit_, "How many")->check(CLI::Range(1, 500));
        }
        verbs_.push_back(cmd);
    }
}

std::optional<int> WebhooksCommand::run(const std::string& db) {
    const auto given = std::find_if(verbs_.begin(), verbs_.end(), [](CLI::App* v) { return v->parsed(); });
    if (given == verbs_.end()) {
        return std::nullopt;
    }
    const std::string verb = (*given)->get_name();
    if (!isPostgresLocation(db) && !std::filesystem::exists(db)) {
        throw std::runtime_error("there is no database " + db);
    }
    const auto store = openStore(db);
    std::string method = "GET";
    std::vector<std::string> parts{"webhooks"};
    std::string target = "/admin/v1/webhooks";
    json body = nullptr;
    if (verb == "add") {
        method = "POST";
        body = {{"url", url_}, {"includeDevice", includeDevice_}, {"allowHttp", allowHttp_}};
        if (!events_.empty()) {
            body["eventTypes"] = events_;
        }
    } else if (verb != "list") {
        parts.push_back(id_);
        method = verb == "show" || verb == "attempts" ? "GET" : verb == "remove" ? "DELETE" : "POST";
        if (verb == "enable" || verb == "disable") {
            method = "PATCH";
            body = {{"enabled", verb == "enable"}};
        } else if (verb != "show" && verb != "remove") {
            parts.push_back(verb);
        }
        if (verb == "rotate") {
            body = {{"graceSeconds", grace_}};
        }
        target += "/" + id_ + (parts.size() > 2 ? "/" + verb : "") + "?since=" + std::to_string(since_) +
                  "&all=" + (all_ ? "1" : "0") + "&limit=" + std::to_string(limit_);
    }
    const std::string text = body.is_null() ? "" : body.dump();
    try {
        const WebhookAdminReply reply = webhooksRequest(
            WebhookAdminRequest{method, parts, target, text, allowPrivate_,
                                [&](const auto& work) { store->transact(work); }, wallClock()});
        std::cout << reply.body.dump(2) << '\n';
        return 0;
    } catch (const ApiError& e) {
        std::fprintf(stderr, "tovrel-server: %s\n", e.what());
        return 1;
    }
}

}  // namespace tovrel::server
