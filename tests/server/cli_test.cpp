// The tovrel-server command line, run as a real process.
#include <gtest/gtest.h>
#include <signal.h>
#include <sqlite3.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <regex>
#include <thread>

#include "support/child_process.h"
#include "test_support.h"
#include "tovrel/version.h"

namespace tovrel::server::test {
namespace {

CommandResult run(const std::string& args) {
    return runCommand(std::string(TOVREL_SERVER_BINARY) + " " + args + " 2>&1");
}

class CommandLine : public ::testing::Test {
  protected:
    TempDir dir;
    std::string db = (dir / "cli.db").string();
};

TEST_F(CommandLine, EveryCommandHasHelp) {
    for (const std::string command : {"", "serve", "import", "apps", "apps add", "report", "places",
                                      "places validate", "webhooks", "webhooks replay"}) {
        const CommandResult r = run(command + " --help");
        EXPECT_EQ(r.exitCode, 0) << command;
        EXPECT_NE(r.output.find("Usage"), std::string::npos) << r.output;
    }
    EXPECT_NE(run("import --help").output.find("--db"), std::string::npos);
    const CommandResult version = run("--version");
    EXPECT_EQ(version.exitCode, 0);
    EXPECT_EQ(version.output, "tovrel-server " + std::string(tovrel::kVersion) + "\n");
}

TEST_F(CommandLine, UsageErrorsExitWithTwo) {
    for (const std::string command :
         {"", "report", "serve --db x --threads 0", "apps", "frobnicate", "report --db", "places",
          "places validate", "places validate a b", "webhooks", "webhooks add --db x",
          "webhooks rotate 1 --grace -1 --db x"}) {
        const CommandResult r = run(command);
        EXPECT_EQ(r.exitCode, 2) << command << ": " << r.output;
    }
    EXPECT_NE(run("report").output.find("--db"), std::string::npos);
}

// The commands that read and change the database, on each store.
class CommandLineOnEachStore : public StoreTest {
  protected:
    TempDir dir;
    std::string db = newDatabase(dir);
};

TEST_P(CommandLineOnEachStore, ImportAppsAndReport) {
    const CommandResult imported =
        run("import " + (examplesDir() / "places" / "munich.geojson").string() + " --db " + db);
    ASSERT_EQ(imported.exitCode, 0) << imported.output;
    EXPECT_NE(imported.output.find("imported 43 places"), std::string::npos) << imported.output;
    const CommandResult added = run("apps add kiosk-key Kiosk --db " + db);
    EXPECT_EQ(added.exitCode, 0) << added.output;
    EXPECT_EQ(queryRows(db, "SELECT key, name FROM apps ORDER BY key"),
              (std::vector<std::string>{"demo-key|Demo", "kiosk-key|Kiosk"}));
    const CommandResult report = run("report --db " + db);
    EXPECT_EQ(report.exitCode, 0);
    EXPECT_NE(report.output.find("eventId"), std::string::npos);
    EXPECT_NE(report.output.find("Coffee on the Square"), std::string::npos);
    EXPECT_NE(report.output.find("Campaigns\ncampaign"), std::string::npos) << report.output;
    EXPECT_EQ(report.output.find("by day"), std::string::npos);
    const CommandResult asJson = run("report --json --db " + db);
    const json parsed = json::parse(asJson.output);
    EXPECT_EQ(parsed.at("offers").size(), 45u);
    EXPECT_EQ(parsed.at("campaigns").size(), 6u);
    EXPECT_EQ(parsed.at("offers").at(0).at("links"), 0);
    EXPECT_FALSE(parsed.contains("days"));
    // A link and its answer, stored as the server stores them, show in the funnel on their UTC day
    // (written here with SQLite's own client; the admin API's funnel test covers PostgreSQL's days).
    if (GetParam() != StoreKind::sqlite) {
        return;
    }
    ASSERT_EQ(queryRows(db, "SELECT COUNT(*) FROM device_events"), std::vector<std::string>{"0"});
    {
        sqlite3* handle = nullptr;
        ASSERT_EQ(sqlite3_open(db.c_str(), &handle), SQLITE_OK);
        ASSERT_EQ(
            sqlite3_exec(
                handle,
                "INSERT INTO devices VALUES(1, 'D', 'iOS', 'x', 'demo-key', 0, 0);"
                "INSERT INTO device_events(id, device, offer, place, campaign, suppressed, created_at, "
                "cleared_at) "
                "SELECT 1, 1, o.id, p.place, o.campaign, 0, 1748779200, "
                "NULL FROM offers o JOIN place_offers p ON p.offer = o.id LIMIT 1;"
                "INSERT INTO device_event_status(device_event, status, at) VALUES(1, 'seen', 1748779300)",
                nullptr, nullptr, nullptr),
            SQLITE_OK);
        sqlite3_close(handle);
    }
    const CommandResult byDay = run("report --by-day --db " + db);
    EXPECT_NE(byDay.output.find("Offers by day (UTC)\n"), std::string::npos) << byDay.output;
    EXPECT_NE(byDay.output.find("2025-06-01"), std::string::npos) << byDay.output;
    const json days = json::parse(run("report --by-day --json --db " + db).output).at("days");
    ASSERT_EQ(days.at("offers").size(), 1u);
    EXPECT_EQ(days.at("offers").at(0).at("day"), "2025-06-01");
    EXPECT_EQ(days.at("offers").at(0).at("links"), 1);
    EXPECT_EQ(days.at("offers").at(0).at("seen"), 1);
    EXPECT_EQ(days.at("campaigns").at(0).at("links"), 1);

    // The device behind that link, with a log message kept in a file of their own, shown and erased; the
    // funnel keeps counting it.
    const std::string logs = " --log-db " + db + ".logs";
    const json shown = json::parse(run("devices show D --db " + db + logs).output);
    EXPECT_EQ(shown.at("links").at(0).at("statuses").size(), 1u);
    EXPECT_EQ(shown.at("logMessages").at("count"), 0);
    executeSql(db + ".logs",
               "INSERT INTO log_messages(device_id, event_name, message, received_at) VALUES('D', 'e', "
               "'{\"e\":1}', 1748779300)");
    EXPECT_EQ(json::parse(run("devices export D --db " + db + logs).output).at("logMessages").at("messages"),
              json::parse(R"([{"eventName": "e", "receivedAt": 1748779300.0, "message": {"e": 1}}])"));
    EXPECT_EQ(json::parse(run("report --json --db " + db + logs).output).at("log"), json({{"e", 1}}));
    const CommandResult erased = run("devices erase D --db " + db + logs);
    EXPECT_EQ(erased.exitCode, 0) << erased.output;
    EXPECT_EQ(json::parse(erased.output).at("erased").at("links"), 1);
    EXPECT_EQ(json::parse(erased.output).at("erased").at("logMessages"), 1);
    EXPECT_EQ(queryRows(db + ".logs", "SELECT COUNT(*) FROM log_messages"), std::vector<std::string>{"0"});
    EXPECT_EQ(json::parse(run("report --by-day --json --db " + db).output).at("days"), days);
    const CommandResult gone = run("devices export D --db " + db);
    EXPECT_EQ(gone.exitCode, 1);
    EXPECT_NE(gone.output.find("there is no device \"D\""), std::string::npos) << gone.output;

    // Tokens made and revoked here, and the erasure, are in the audit trail; the erased id only as its hash.
    const json token = json::parse(run("tokens add desk --role support --db " + db).output);
    EXPECT_EQ(token.at("token").get<std::string>().rfind("tvr_", 0), 0u);
    EXPECT_EQ(json::parse(run("tokens list --db " + db).output).at("tokens").at(0).at("role"), "support");
    EXPECT_EQ(run("tokens add desk --role owner --db " + db).exitCode, 2);
    EXPECT_EQ(run("tokens revoke desk --db " + db).exitCode, 0);
    EXPECT_EQ(run("tokens revoke desk --db " + db).exitCode, 1);
    const std::string hash = run("audit hash D --db " + db).output;
    std::vector<std::string> trail;
    const json audit = json::parse(run("audit list --db " + db).output);
    for (const json& e : audit.at("entries")) {
        trail.push_back(e.at("action").get<std::string>() + " " + e.at("item").get<std::string>() + " " +
                        std::to_string(e.at("status").get<int>()));
    }
    EXPECT_EQ(trail, (std::vector<std::string>{"tokens.revoke desk 404", "tokens.revoke desk 200",
                                               "tokens.add desk 201",
                                               "devices.erase " + hash.substr(0, hash.size() - 1) + " 200"}));
}

TEST_F(CommandLine, BadPlaceFilesNameTheFault) {
    const std::string file = dir.write("places.geojson", R"({"type": "FeatureCollection", "features": [
      {"type": "Feature", "geometry": {"type": "Point", "coordinates": [11.5, 48.1]},
       "properties": {"placeId": 1, "radius": 50, "offers": []}},
      {"type": "Feature", "geometry": {"type": "Point", "coordinates": [11.5, 48.1]},
       "properties": {"placeId": 2, "radius": 50}}]})");
    const CommandResult r = run("import " + file + " --db " + db);
    EXPECT_EQ(r.exitCode, 1);
    EXPECT_NE(r.output.find(file + ": feature 2: missing properties.offers"), std::string::npos) << r.output;
    EXPECT_FALSE(std::filesystem::exists(db));

    // validate lists every problem (here also the first feature's) and needs no database.
    const std::string twoFaults = dir.write("two.geojson", R"({"type": "FeatureCollection", "features": [
      {"type": "Feature", "geometry": {"type": "Point", "coordinates": [11.5, 48.1]},
       "properties": {"placeId": 1, "radius": 50, "offers": [], "colour": "red"}},
      {"type": "Feature", "geometry": {"type": "Point", "coordinates": [11.5, 48.1]},
       "properties": {"placeId": 2, "radius": 50}}]})");
    const CommandResult checked = run("places validate " + twoFaults);
    EXPECT_EQ(checked.exitCode, 1);
    EXPECT_EQ(checked.output, twoFaults + ": feature 1: unknown member \"colour\" in properties\n" +
                                  twoFaults + ": feature 2: missing properties.offers\n" + twoFaults +
                                  ": 2 problems\n");
    const CommandResult asJson = run("places validate --json " + twoFaults);
    EXPECT_EQ(asJson.exitCode, 1);
    EXPECT_EQ(json::parse(asJson.output).at("problems").at(1).at("member"), "/features/1/properties/offers");
    const CommandResult valid =
        run("places validate " + (examplesDir() / "places" / "munich.geojson").string());
    EXPECT_EQ(valid.exitCode, 0) << valid.output;
    EXPECT_NE(valid.output.find("valid: 43 places, 45 offers"), std::string::npos) << valid.output;
    EXPECT_EQ(run("places validate " + (dir / "nothing.geojson").string()).exitCode, 1);
    EXPECT_FALSE(std::filesystem::exists(db));

    const CommandResult missing = run("import " + (dir / "nothing.geojson").string() + " --db " + db);
    EXPECT_EQ(missing.exitCode, 1);
    EXPECT_NE(missing.output.find("nothing.geojson: cannot open the file"), std::string::npos)
        << missing.output;
    const CommandResult noDb = run("report --db " + (dir / "absent.db").string());
    EXPECT_EQ(noDb.exitCode, 1);
    EXPECT_NE(noDb.output.find("there is no database"), std::string::npos) << noDb.output;
}

TEST_F(CommandLine, ServeAnswersAndStopsOnSigterm) {
    ASSERT_EQ(
        run("import " + (examplesDir() / "places" / "munich.geojson").string() + " --db " + db).exitCode, 0);
    int out[2];
    ASSERT_EQ(pipe(out), 0);
    const std::string content = (examplesDir() / "content").string();
    const pid_t pid = fork();
    if (pid == 0) {
        dup2(out[1], STDOUT_FILENO);
        close(out[0]);
        execl(TOVREL_SERVER_BINARY, TOVREL_SERVER_BINARY, "serve", "--db", db.c_str(), "--listen",
              "127.0.0.1:0", "--admin-listen", "127.0.0.1:0", "--content", content.c_str(),
              static_cast<char*>(nullptr));
        _exit(127);
    }
    close(out[1]);
    std::string line;
    char c = 0;
    while (read(out[0], &c, 1) == 1 && c != '\n') {
        line += c;
    }
    // The first line says where it serves, as a JSON log line that scripts read the address from.
    const json serving = json::parse(line, nullptr, false);
    ASSERT_TRUE(serving.is_object()) << line;
    EXPECT_EQ(serving["event"], "serving");
    EXPECT_EQ(serving["level"], "info");
    std::smatch match;
    ASSERT_TRUE(std::regex_search(line, match, std::regex(R"(127\.0\.0\.1:(\d+))"))) << line;
    HttpClient client(static_cast<uint16_t>(std::stoi(match[1])));
    const std::string admin = serving["admin"];
    HttpClient probes(static_cast<uint16_t>(std::stoi(admin.substr(admin.rfind(':') + 1))));
    EXPECT_EQ(probes.get("/healthz").status, 200);
    EXPECT_EQ(client.get("/appcontent/help.html").status, 200);
    EXPECT_EQ(client.post("/v1/session", json{{"deviceId", "D"}, {"sdkkey", "demo-key"}}).status, 200);

    kill(pid, SIGTERM);
    int status = 0;
    pid_t done = 0;
    for (int i = 0; i < 200 && done == 0; ++i) {
        done = waitpid(pid, &status, WNOHANG);
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    if (done == 0) {
        kill(pid, SIGKILL);
        waitpid(pid, &status, 0);
        FAIL() << "serve did not stop on SIGTERM";
    }
    close(out[0]);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    EXPECT_EQ(queryRows(db, "SELECT COUNT(*) FROM sessions"), std::vector<std::string>{"1"});
}

// A `tovrel-server serve` of its own, reading the first lines it logs up to the one that says where it
// serves.
class ServeProcess {
  public:
    ServeProcess(std::vector<std::string> prefix, const std::vector<std::string>& args) {
        prefix.insert(prefix.end(), {TOVREL_SERVER_BINARY, "serve", "--listen", "127.0.0.1:0",
                                     "--admin-listen", "127.0.0.1:0", "--access-log", "off"});
        prefix.insert(prefix.end(), args.begin(), args.end());
        process_ = std::make_unique<tovrel::test::ChildProcess>(prefix, true);
        for (int i = 0; i < 10 && port_ == 0; ++i) {
            const std::string line = process_->readLine(std::chrono::seconds(10));
            lines_.push_back(line);
            const json parsed = json::parse(line, nullptr, false);
            if (parsed.is_object() && parsed.value("event", "") == "serving") {
                const std::string listen = parsed["listen"], admin = parsed["admin"];
                port_ = static_cast<uint16_t>(std::stoi(listen.substr(listen.rfind(':') + 1)));
                adminPort_ = static_cast<uint16_t>(std::stoi(admin.substr(admin.rfind(':') + 1)));
            }
        }
    }
    uint16_t port() const { return port_; }
    uint16_t adminPort() const { return adminPort_; }
    pid_t pid() const { return process_->pid(); }
    const std::vector<std::string>& lines() const { return lines_; }

  private:
    std::unique_ptr<tovrel::test::ChildProcess> process_;
    std::vector<std::string> lines_;
    uint16_t port_ = 0;
    uint16_t adminPort_ = 0;
};

long residentKiB(pid_t pid) {
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.rfind("VmRSS:", 0) == 0) {
            return std::stol(line.substr(6));
        }
    }
    return -1;
}

TEST_F(CommandLine, LongIdsAndKeysFromAnonymousClientsLeaveNoMemoryBehind) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "a sanitizer's quarantine keeps freed memory: resident size says nothing here";
#endif
    ServeProcess server({}, {"--db", db, "--log-rate-limit", "1", "--session-rate-limit", "1"});
    ASSERT_NE(server.port(), 0) << (server.lines().empty() ? "" : server.lines().back());
    HttpClient client(server.port());
    const auto attack = [&](int from, int to) {
        for (int i = from; i < to; ++i) {
            const std::string id = std::to_string(i) + std::string(250 * 1024, 'x');
            EXPECT_EQ(client.post("/v1/log", json{{"deviceid", id}, {"message", {{"e", 1}}}}).status, 400);
            EXPECT_EQ(client.post("/v1/session", json{{"deviceId", "D"}, {"sdkkey", id}}).status, 400);
            // Keys within the limits each take an entry of the limiters, bounded in bytes.
            client.post("/v1/session",
                        json{{"deviceId", "D"}, {"sdkkey", std::to_string(i) + std::string(100, 'k')}});
        }
    };
    attack(0, 30);
    const long before = residentKiB(server.pid());
    attack(30, 230);
    const long after = residentKiB(server.pid());
    ASSERT_GT(before, 0);
    // Kept, 200 such ids and keys would hold about 100 MiB.
    EXPECT_LT(after - before, 24 * 1024) << before << " KiB before, " << after << " KiB after";
}

TEST_F(CommandLine, ALowDescriptorLimitLowersTheConnectionCapInsteadOfLockingClientsOut) {
    if (std::system("command -v prlimit >/dev/null") != 0) {
        GTEST_SKIP() << "prlimit (util-linux) is not installed";
    }
    ServeProcess server({"prlimit", "--nofile=256:256"}, {"--db", db});
    ASSERT_NE(server.port(), 0);
    const auto warning = std::find_if(
        server.lines().begin(), server.lines().end(),
        [](const std::string& line) { return line.find("max-connections lowered") != std::string::npos; });
    ASSERT_NE(warning, server.lines().end());
    const json lowered = json::parse(*warning);
    EXPECT_EQ(lowered["level"], "warn");
    EXPECT_EQ(lowered["maxConnections"], 256 - Server::kAdminConnections - Server::kOtherDescriptors);
    // More clients than the cap: the extra ones are told to come back, and the probes still answer.
    std::vector<std::unique_ptr<HttpClient>> clients;
    int refused = 0;
    for (int i = 0; i < 160; ++i) {
        clients.push_back(std::make_unique<HttpClient>(server.port()));
        refused += clients.back()->get("/nothing").status == 503 ? 1 : 0;
    }
    EXPECT_GT(refused, 0);
    HttpClient probes(server.adminPort());
    EXPECT_EQ(probes.get("/healthz").status, 200);
}

TEST_P(CommandLineOnEachStore, AppsAndCampaignsAreManaged) {
    ASSERT_EQ(
        run("import " + (examplesDir() / "places" / "munich.geojson").string() + " --db " + db).exitCode, 0);
    EXPECT_NE(run("apps list --db " + db).output.find("demo-key  Demo  enabled"), std::string::npos);
    EXPECT_EQ(run("apps disable demo-key --db " + db).exitCode, 0);
    EXPECT_NE(run("apps list --db " + db).output.find("disabled"), std::string::npos);
    const CommandResult rotated = run("apps rotate demo-key --db " + db);
    ASSERT_EQ(rotated.exitCode, 0) << rotated.output;
    const std::string fresh = rotated.output.substr(0, rotated.output.find('\n'));
    EXPECT_EQ(fresh.size(), 32u);
    EXPECT_EQ(run("apps remove demo-key --db " + db).exitCode, 1);
    EXPECT_EQ(run("apps remove " + fresh + " --db " + db).exitCode, 0);

    const CommandResult campaigns = run("campaigns list --db " + db);
    EXPECT_NE(campaigns.output.find("Old Town Cafés"), std::string::npos) << campaigns.output;
    EXPECT_EQ(run("campaigns disable 'Old Town Cafés' --db " + db).exitCode, 0);
    EXPECT_EQ(queryRows(db, "SELECT disabled FROM campaigns WHERE name = 'Old Town Cafés'"),
              std::vector<std::string>{"1"});
    EXPECT_EQ(run("campaigns enable 6 --db " + db).exitCode, 0);
    EXPECT_EQ(queryRows(db, "SELECT disabled FROM campaigns WHERE id = 6"), std::vector<std::string>{"0"});
    const CommandResult unknown = run("campaigns disable Nowhere --db " + db);
    EXPECT_EQ(unknown.exitCode, 1);
    EXPECT_NE(unknown.output.find("no campaign"), std::string::npos);
    EXPECT_EQ(run("apps list --db " + (dir / "missing.db").string()).exitCode, 1);

    const CommandResult hook =
        run("webhooks add https://192.0.2.1/in --events visit.linked,offer.seen --db " + db);
    ASSERT_EQ(hook.exitCode, 0) << hook.output;
    const json added = json::parse(hook.output);
    const std::string secret = added.at("secret");
    EXPECT_EQ(added.at("eventTypes"), json::array({"visit.linked", "offer.seen"}));
    const std::string listed = run("webhooks list --db " + db).output;
    EXPECT_EQ(listed.find(secret), std::string::npos) << "a secret is shown once";
    EXPECT_NE(listed.find(secret.substr(secret.size() - 4)), std::string::npos) << listed;
    for (const char* refused :
         {"http://192.0.2.1/in", "https://127.0.0.1/in", "https://192.0.2.1/in --events nope"}) {
        const CommandResult r = run(std::string("webhooks add ") + refused + " --db " + db);
        EXPECT_EQ(r.exitCode, 1) << refused;
        EXPECT_NE(r.output.find("tovrel-server: "), std::string::npos) << r.output;
    }
    const std::string id = std::to_string(added.at("id").get<int64_t>());
    EXPECT_EQ(run("webhooks test " + id + " --db " + db).exitCode, 0);
    EXPECT_EQ(queryRows(db, "SELECT type, state FROM webhook_messages"),
              std::vector<std::string>{"webhook.test|pending"});
    EXPECT_EQ(run("webhooks remove " + id + " --db " + db).exitCode, 0);
    EXPECT_EQ(run("webhooks show " + id + " --db " + db).exitCode, 1);
    EXPECT_EQ(queryRows(db, "SELECT count(*) FROM webhook_messages"), std::vector<std::string>{"0"});
}

TOVREL_ON_BOTH_STORES(CommandLineOnEachStore);

TEST_F(CommandLine, SettingsComeFromAConfigFileAndTheEnvironmentToo) {
    const std::string config = dir.write("server.ini", "[serve]\ndb=" + db + "\nthreads=0\n");
    const CommandResult fromFile = run("--config " + config + " serve");
    EXPECT_EQ(fromFile.exitCode, 2);
    EXPECT_NE(fromFile.output.find("threads"), std::string::npos) << fromFile.output;
    const CommandResult fromEnvironment = run("serve --db " + db + " --log-level loud");
    EXPECT_EQ(fromEnvironment.exitCode, 2);
    const CommandResult env = [&] {
        setenv("TOVREL_DB", db.c_str(), 1);
        setenv("TOVREL_ACCESS_LOG", "maybe", 1);
        CommandResult r = run("serve");
        unsetenv("TOVREL_DB");
        unsetenv("TOVREL_ACCESS_LOG");
        return r;
    }();
    EXPECT_EQ(env.exitCode, 2);
    EXPECT_NE(env.output.find("maybe"), std::string::npos) << env.output;
    const auto serveWithToken = [&](const std::string& name, const std::string& token, bool private_) {
        const std::string file = dir.write(name, token);
        std::filesystem::permissions(
            file, private_ ? std::filesystem::perms::owner_read
                           : std::filesystem::perms::owner_read | std::filesystem::perms::others_read);
        return run("serve --db " + db + " --admin-token-file " + file +
                   " --listen 127.0.0.1:0 --admin-listen off");
    };
    const CommandResult shortToken = serveWithToken("short", "tiny\n", true);
    EXPECT_EQ(shortToken.exitCode, 1);
    EXPECT_NE(shortToken.output.find("shorter than 16"), std::string::npos) << shortToken.output;
    const CommandResult readable = serveWithToken("readable", "0123456789abcdef-long-enough\n", false);
    EXPECT_EQ(readable.exitCode, 1);
    EXPECT_NE(readable.output.find("--admin-token-insecure-permissions"), std::string::npos)
        << readable.output;
}

TEST_F(CommandLine, BadListenAddressesAreExplained) {
    for (const std::string address : {"localhost", "[::1]"}) {
        const CommandResult r = run("serve --db " + db + " --admin-listen off --listen " + address);
        EXPECT_EQ(r.exitCode, 2);
        EXPECT_NE(r.output.find("lacks a port"), std::string::npos) << r.output;
    }
    const CommandResult v6 = run("serve --db " + db + " --listen ::1:80");
    EXPECT_EQ(v6.exitCode, 2);
    EXPECT_NE(v6.output.find("brackets"), std::string::npos) << v6.output;
    EXPECT_NE(run("serve --db " + db + " --listen 127.0.0.1:70000").output.find("0 to 65535"),
              std::string::npos);
}

}  // namespace
}  // namespace tovrel::server::test
