#include "data_commands.h"

#include <cstdio>
#include <iostream>
#include <nlohmann/json.hpp>
#include <stdexcept>

#include "access_command.h"
#include "catalog/catalog_data.h"
#include "store/device_data.h"
#include "store/store.h"
#include "tovrel_server/server.h"

namespace tovrel::server {
namespace {

// Changes by these verbs reach a running server at its next SIGHUP (campaigns) or session start (apps).
std::unique_ptr<Store> openExisting(const std::string& db) {
    if (!isPostgresLocation(db) && !std::filesystem::exists(db)) {
        throw std::runtime_error("there is no database " + db);
    }
    return openStore(db);
}

int listTable(const std::string& dbPath, bool apps) {
    const auto store = openExisting(dbPath);
    const nlohmann::json rows = apps ? store->listApps() : store->listCampaigns();
    std::vector<std::vector<std::string>> table;
    if (apps) {
        table.push_back({"key", "name", "state"});
        for (const auto& row : rows) {
            table.push_back({row["key"], row["name"], row["disabled"] ? "disabled" : "enabled"});
        }
    } else {
        table.push_back({"id", "name", "start", "end", "cap", "offers", "state"});
        for (const auto& row : rows) {
            table.push_back(
                {std::to_string(row["id"].get<int64_t>()), row["name"], row["startDate"], row["endDate"],
                 row["perDeviceCap"].is_null() ? "-" : std::to_string(row["perDeviceCap"].get<int64_t>()),
                 std::to_string(row["offers"].get<int64_t>()), row["disabled"] ? "disabled" : "enabled"});
        }
    }
    std::cout << formatTable(table, table.front().size());
    return 0;
}

int changeApp(const std::string& dbPath, const std::string& verb, const std::string& key) {
    const auto store = openExisting(dbPath);
    if (verb == "rotate") {
        const auto fresh = store->rotateApp(key);
        if (!fresh) {
            throw std::runtime_error("there is no app key \"" + key + "\"");
        }
        std::printf("%s\n", fresh->c_str());
        return 0;
    }
    const bool done =
        verb == "remove" ? store->removeApp(key) : store->setAppDisabled(key, verb == "disable");
    if (!done) {
        throw std::runtime_error("there is no app key \"" + key + "\"");
    }
    std::printf("app key \"%s\": %sd\n", key.c_str(), verb.c_str());
    return 0;
}

int changeCampaign(const std::string& dbPath, const std::string& campaign, bool disable) {
    const auto store = openExisting(dbPath);
    const auto id = store->findCampaign(campaign);
    if (!id || !store->setCampaignDisabled(*id, disable)) {
        throw std::runtime_error("there is no campaign \"" + campaign + "\"");
    }
    std::printf("campaign \"%s\": %s (a running server serves the change after SIGHUP)\n", campaign.c_str(),
                disable ? "disabled" : "enabled");
    return 0;
}

// Prints what the stores hold about a device (with its log messages when exporting), or erases it.
int deviceCommand(const std::string& dbPath, const std::string& logDbPath, const std::string& verb,
                  const std::string& deviceId) {
    const auto store = openExisting(dbPath);
    const auto logs = openLogStore(logDbPath.empty() ? dbPath : logDbPath);
    if (verb == "erase") {
        const auto erased = eraseDeviceAndLogs(*store, *logs, deviceId);
        recordCommandLineChange(*store, "devices.erase", deviceId, erased ? 200 : 404);
        if (!erased) {
            throw std::runtime_error("there is no device \"" + deviceId + "\"");
        }
        std::cout << nlohmann::json{{"deviceId", deviceId}, {"erased", erasedJson(*erased)}}.dump(2) << '\n';
        return 0;
    }
    const auto record = deviceRecordWithLogs(*store, *logs, deviceId, verb == "export");
    if (!record) {
        throw std::runtime_error("there is no device \"" + deviceId + "\"");
    }
    std::cout << record->dump(2) << '\n';
    return 0;
}

// Prints every problem of a place file; writes nothing. 0: valid, 1: problems (or unreadable).
int validatePlaces(const std::string& file, bool asJson) {
    const PlaceFileCheck check = checkPlaceFile(file);
    if (asJson) {
        nlohmann::json problems = nlohmann::json::array();
        for (const PlaceFileProblem& p : check.problems) {
            problems.push_back({{"feature", p.feature ? nlohmann::json(*p.feature) : nlohmann::json()},
                                {"member", p.member},
                                {"message", p.message}});
        }
        std::cout << nlohmann::json{{"file", file}, {"problems", problems}}.dump(2) << '\n';
    } else if (check.catalog) {
        std::printf("%s: valid: %zu places, %zu offers, %zu campaigns, %zu apps\n", file.c_str(),
                    check.catalog->placeCount(), check.catalog->offerCount(), check.catalog->campaigns.size(),
                    check.catalog->apps.size());
    } else {
        for (const PlaceFileProblem& p : check.problems) {
            std::printf("%s\n", p.message.c_str());
        }
        std::printf("%s: %zu problem%s\n", file.c_str(), check.problems.size(),
                    check.problems.size() == 1 ? "" : "s");
    }
    return check.problems.empty() ? 0 : 1;
}

}  // namespace

DataCommands::DataCommands(CLI::App& app, const std::function<void(CLI::App*)>& addDb) {
    import_ = app.add_subcommand("import", "Import a GeoJSON place file (see docs/server.md)");
    import_->add_option("FILE", file_, "GeoJSON FeatureCollection of Point features")->required();
    addDb(import_);

    CLI::App* placesCmd = app.add_subcommand("places", "Work with place files");
    placesCmd->require_subcommand(1);
    placesValidate_ = placesCmd->add_subcommand(
        "validate", "Check a GeoJSON place file and list every problem; writes nothing");
    placesValidate_->add_option("FILE", placeFile_, "GeoJSON FeatureCollection of Point features")
        ->required();
    placesValidate_->add_flag("--json", validateJson_,
                              "Print the problems as JSON (feature, member, message)");

    CLI::App* appsCmd = app.add_subcommand("apps", "Manage the app keys that may start sessions");
    appsCmd->require_subcommand(1);
    appsAdd_ = appsCmd->add_subcommand("add", "Add an app key (or rename an existing one)");
    appsAdd_->add_option("KEY", key_, "The sdkkey the app sends")->required();
    appsAdd_->add_option("NAME", name_, "A name for people")->required();
    addDb(appsAdd_);
    appsList_ = appsCmd->add_subcommand("list", "List the app keys");
    addDb(appsList_);
    appsRemove_ = appsCmd->add_subcommand("remove", "Remove an app key (its sessions stay valid)");
    appsRemove_->add_option("KEY", key_, "The app key")->required();
    addDb(appsRemove_);
    appsRotate_ = appsCmd->add_subcommand("rotate", "Give an app a new random key and print it");
    appsRotate_->add_option("KEY", key_, "The app key")->required();
    addDb(appsRotate_);
    appsDisable_ = appsCmd->add_subcommand("disable", "Refuse new sessions with an app key");
    appsDisable_->add_option("KEY", key_, "The app key")->required();
    addDb(appsDisable_);
    appsEnable_ = appsCmd->add_subcommand("enable", "Accept an app key again");
    appsEnable_->add_option("KEY", key_, "The app key")->required();
    addDb(appsEnable_);

    CLI::App* campaignsCmd = app.add_subcommand("campaigns", "List, disable and enable campaigns");
    campaignsCmd->require_subcommand(1);
    campaignsList_ = campaignsCmd->add_subcommand("list", "List the campaigns");
    addDb(campaignsList_);
    campaignsDisable_ = campaignsCmd->add_subcommand("disable", "Stop offering a campaign's offers");
    campaignsDisable_->add_option("CAMPAIGN", campaign_, "The campaign's name or id")->required();
    addDb(campaignsDisable_);
    campaignsEnable_ = campaignsCmd->add_subcommand("enable", "Offer a disabled campaign again");
    campaignsEnable_->add_option("CAMPAIGN", campaign_, "The campaign's name or id")->required();
    addDb(campaignsEnable_);

    CLI::App* devicesCmd =
        app.add_subcommand("devices", "Show, export or erase what is held about one device");
    devicesCmd->require_subcommand(1);
    for (const auto& [verb, what] :
         {std::pair{"show", "Print the device, its sessions, links, tags and log counts as JSON"},
          std::pair{"export", "Print everything held about the device as one JSON document"},
          std::pair{"erase",
                    "Erase every row about the device; the funnel keeps its counts. With SQLite, "
                    "erase through the admin API while a server runs on the file"}}) {
        CLI::App* cmd = devicesCmd->add_subcommand(verb, what);
        cmd->add_option("DEVICE_ID", deviceId_, "The deviceId the device sends")->required();
        addDb(cmd);
        addLogDbOption(cmd, logDb_);
        deviceVerbs_.push_back(cmd);
    }
}

void addLogDbOption(CLI::App* command, std::string& logDb) {
    command
        ->add_option("--log-db", logDb,
                     "Where /v1/log messages are kept: another SQLite file or postgresql:// database, so "
                     "that diagnostics never share commits or storage with the rest (default: --db)")
        ->envname("TOVREL_LOG_DB");
}

std::optional<int> DataCommands::run(const std::string& db) {
    if (import_->parsed()) {
        const ImportSummary s = importGeoJsonFile(db, file_);
        std::printf("imported %d places, %d offers, %d campaigns, %d apps into %s\n", s.places, s.offers,
                    s.campaigns, s.apps, db.c_str());
        return 0;
    }
    if (placesValidate_->parsed()) {
        return validatePlaces(placeFile_, validateJson_);
    }
    if (appsAdd_->parsed()) {
        addAppKey(db, key_, name_);
        std::printf("app key \"%s\" (%s) added to %s\n", key_.c_str(), name_.c_str(), db.c_str());
        return 0;
    }
    if (appsList_->parsed() || campaignsList_->parsed()) {
        return listTable(db, appsList_->parsed());
    }
    if (appsRemove_->parsed() || appsRotate_->parsed() || appsDisable_->parsed() || appsEnable_->parsed()) {
        const char* verb = appsRemove_->parsed()    ? "remove"
                           : appsRotate_->parsed()  ? "rotate"
                           : appsDisable_->parsed() ? "disable"
                                                    : "enable";
        return changeApp(db, verb, key_);
    }
    if (campaignsDisable_->parsed() || campaignsEnable_->parsed()) {
        return changeCampaign(db, campaign_, campaignsDisable_->parsed());
    }
    for (CLI::App* verb : deviceVerbs_) {
        if (verb->parsed()) {
            return deviceCommand(db, logDb_, verb->get_name(), deviceId_);
        }
    }
    return std::nullopt;
}

}  // namespace tovrel::server
