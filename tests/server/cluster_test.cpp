// A deployment on loopback: PostgreSQL, three tovrel-server replicas and HAProxy in front of them,
// under a bounded load of simulated devices for TOVREL_CLUSTER_SECONDS (30 by default). One replica
// is killed with SIGKILL mid-load and started again. Afterwards every write a device saw acknowledged
// must be in the database, live device events must be unique per (device, offer, place), and a place
// added through one replica's admin API must have been answered by the other two within a second. Every
// acknowledged link's visit.linked webhook must reach a receiver, signed, at least once and under one id,
// and no event may name a link the database does not hold.
#include <gtest/gtest.h>
#include <signal.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <map>
#include <mutex>
#include <set>
#include <thread>
#include <tuple>

#include "common/session_keys.h"
#include "support/child_process.h"
#include "support/loopback_port.h"
#include "support/wait_until.h"
#include "test_postgres.h"
#include "test_support.h"
#include "webhook_receiver.h"

namespace tovrel::server::test {
namespace {

using Clock = std::chrono::steady_clock;
using tovrel::test::ChildProcess;
using tovrel::test::freeLoopbackPort;
using tovrel::test::waitUntil;

constexpr const char* kToken = "cluster-admin-token-0123456789";
constexpr int kReplicas = 3;
constexpr int kThreads = 4;
constexpr int kDevicesPerThread = 4;

std::string haproxyBinary() {
    for (const char* path : {"/usr/sbin/haproxy", "/usr/local/sbin/haproxy", "/usr/bin/haproxy"}) {
        if (std::filesystem::exists(path)) {
            return path;
        }
    }
    return "";
}

double clusterSeconds() {
    const char* text = std::getenv("TOVREL_CLUSTER_SECONDS");
    return text != nullptr ? std::max(6.0, std::atof(text)) : 30.0;
}

/// One tovrel-server process on the shared database, on fixed ports so that it comes back where the
/// load balancer expects it.
class Replica {
  public:
    Replica(std::string db, std::string tokenFile)
        : db_(std::move(db)),
          tokenFile_(std::move(tokenFile)),
          port_(freeLoopbackPort()),
          adminPort_(freeLoopbackPort()) {}

    /// Starts it and waits until it reports ready; false when it does not within 20 s.
    bool start() {
        process_ =
            std::make_unique<ChildProcess>(std::vector<std::string>{TOVREL_SERVER_BINARY,
                                                                    "serve",
                                                                    "--db",
                                                                    db_,
                                                                    "--listen",
                                                                    "127.0.0.1:" + std::to_string(port_),
                                                                    "--admin-listen",
                                                                    "127.0.0.1:" + std::to_string(adminPort_),
                                                                    "--admin-token-file",
                                                                    tokenFile_,
                                                                    "--content",
                                                                    (examplesDir() / "content").string(),
                                                                    "--log-rate-limit",
                                                                    "0",
                                                                    "--log-level",
                                                                    "warn",
                                                                    "--threads",
                                                                    "2",
                                                                    "--webhook-allow-private",
                                                                    "--webhook-poll",
                                                                    "0.2",
                                                                    "--webhook-timeout",
                                                                    "1"});
        HttpClient probe(adminPort_);
        return process_->started() &&
               waitUntil([&] { return probe.get("/readyz").status == 200; }, std::chrono::seconds(20));
    }
    void kill(int signal) {
        if (process_) {
            process_->kill(signal);
            process_.reset();
        }
    }
    uint16_t port() const { return port_; }
    uint16_t adminPort() const { return adminPort_; }

  private:
    std::string db_;
    std::string tokenFile_;
    uint16_t port_;
    uint16_t adminPort_;
    std::unique_ptr<ChildProcess> process_;
};

/// What the devices saw acknowledged (2xx), to be found in the database afterwards.
struct Acknowledged {
    std::mutex mutex;
    std::vector<std::string> sessionKeyHashes;
    std::set<std::tuple<std::string, int64_t, int64_t, int64_t>> links;  ///< device, offer, place, id
    std::map<int64_t, int> statusUpdates;                                ///< by device event
    std::map<std::string, int> lastTag;                                  ///< by device: step
    std::map<std::string, int> logs;                                     ///< by device
    std::atomic<int> requests{0};
    std::atomic<int> refused{0};    ///< answered with an error or not at all (the killed replica)
    std::atomic<int> idChanges{0};  ///< a live pair linked again and given another id
};

/// A device of the load: a session, places near a point on its beat, links, answers, tags, logs.
struct LoadDevice {
    std::string id;
    std::string key;
    std::map<std::pair<std::string, std::string>, int64_t> live;  ///< (offer, place) → device event
    int step = 0;
};

void step(LoadDevice& device, HttpClient& client, Acknowledged& acked) {
    const auto post = [&](const std::string& path, const json& body) {
        ++acked.requests;
        HttpResult r = client.post(path, body);
        if (r.status != 200) {
            ++acked.refused;
        }
        return r;
    };
    if (device.key.empty()) {
        const HttpResult started = post("/v1/session", json{{"deviceId", device.id},
                                                            {"sdkkey", "demo-key"},
                                                            {"deviceType", "cluster"},
                                                            {"deviceModel", "load"}});
        if (started.status == 200) {
            device.key = started.parsed()["sessionKey"];
            std::lock_guard lock(acked.mutex);
            acked.sessionKeyHashes.push_back(sessionKeyHash(device.key));
        }
        return;
    }
    const int n = device.step++;
    // Walks over the old town, where the example places are.
    const double lat = 48.1374 + 0.002 * ((n % 5) - 2);
    const double lon = 11.5755 + 0.003 * ((n % 3) - 1);
    const HttpResult places =
        post("/v2/place", json{{"sessionKey", device.key},
                               {"coordinatesList", json::array({json{{"lat", lat}, {"lon", lon}}})},
                               {"distanceThreshold", 1000}});
    const json records = places.status == 200 ? places.parsed()["places"] : json::array();
    if (!records.empty()) {
        const json& record = records[static_cast<std::size_t>(n) % records.size()];
        const std::string offer = record["eventId"];
        const std::string place = record["placeId"];
        const HttpResult linked = post(
            "/v1/deviceevent/link", json{{"sessionKey", device.key}, {"eventId", offer}, {"placeId", place}});
        if (linked.status == 200) {
            const int64_t id = linked.parsed()["places"][0]["deviceEventId"];
            const auto known = device.live.find({offer, place});
            if (known != device.live.end() && known->second != id) {
                ++acked.idChanges;
            }
            device.live[{offer, place}] = id;
            {
                std::lock_guard lock(acked.mutex);
                acked.links.emplace(device.id, std::stoll(offer), std::stoll(place), id);
            }
            if (post("/v1/deviceevent/update",
                     json{{"sessionKey", device.key}, {"deviceEventId", id}, {"statusCode", "ack"}})
                    .status == 200) {
                std::lock_guard lock(acked.mutex);
                ++acked.statusUpdates[id];
            }
        }
    }
    if (post("/v1/devicetag/update", json{{"sessionKey", device.key},
                                          {"groupTag", "cluster"},
                                          {"tag", "step"},
                                          {"tagValue", std::to_string(n)}})
            .status == 200) {
        std::lock_guard lock(acked.mutex);
        acked.lastTag[device.id] = n;
    }
    if (post("/v1/log", json{{"deviceid", device.id}, {"message", {{"cluster", {{"step", n}}}}}}).status ==
        200) {
        std::lock_guard lock(acked.mutex);
        ++acked.logs[device.id];
    }
    if (n % 7 == 6) {
        // Cleared or perhaps cleared (no answer): either way the next link may bring a new id.
        post("/v1/deviceevent/clear", json{{"sessionKey", device.key}});
        device.live.clear();
    }
}

bool answers(HttpClient& client, const std::string& key, int64_t placeId, double lat, double lon) {
    const HttpResult r =
        client.post("/v2/place", json{{"sessionKey", key},
                                      {"coordinatesList", json::array({json{{"lat", lat}, {"lon", lon}}})},
                                      {"distanceThreshold", 500}});
    const json parsed = r.parsed();
    for (const json& record : parsed["places"]) {
        if (record["placeId"] == std::to_string(placeId)) {
            return true;
        }
    }
    return false;
}

std::string sqlTextArray(const std::vector<std::string>& values) {
    std::string out = "'{";
    for (const std::string& v : values) {
        out += (out.size() > 2 ? "," : "") + v;
    }
    return out + "}'";
}

TEST(Cluster, ThreeReplicasBehindHaproxyLoseNoAcknowledgedWriteWhenOneIsKilled) {
    if (TestPostgres::shared() == nullptr) {
        GTEST_SKIP() << "PostgreSQL is needed: " << TestPostgres::unavailableReason();
    }
    const std::string haproxy = haproxyBinary();
    if (haproxy.empty()) {
        GTEST_SKIP() << "HAProxy is needed (Debian: haproxy)";
    }
    TempDir dir;
    const std::string db = TestPostgres::shared()->newDatabase();
    const std::string munich = (examplesDir() / "places" / "munich.geojson").string();
    ASSERT_EQ(
        std::system((std::string(TOVREL_SERVER_BINARY) + " import " + munich + " --db " + db + " >/dev/null")
                        .c_str()),
        0);
    const std::string tokenFile = dir.write("admin-token", kToken);
    std::filesystem::permissions(tokenFile,
                                 std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);

    std::vector<std::unique_ptr<Replica>> replicas;
    for (int i = 0; i < kReplicas; ++i) {
        replicas.push_back(std::make_unique<Replica>(db, tokenFile));
        ASSERT_TRUE(replicas.back()->start()) << "replica " << i << " did not become ready";
    }
    const uint16_t front = freeLoopbackPort();
    std::string config =
        "global\n  maxconn 512\n"
        "defaults\n  mode http\n  timeout connect 1s\n  timeout client 10s\n  timeout server 10s\n"
        // A request that never reached a replica goes to another; one that did is not sent twice.
        "  retries 3\n  option redispatch\n"
        "frontend api\n  bind 127.0.0.1:" +
        std::to_string(front) +
        "\n  default_backend replicas\n"
        "backend replicas\n  balance roundrobin\n  option httpchk GET /readyz\n"
        "  http-check expect status 200\n  default-server inter 200ms fall 2 rise 2\n";
    for (int i = 0; i < kReplicas; ++i) {
        config += "  server r" + std::to_string(i) + " 127.0.0.1:" + std::to_string(replicas[i]->port()) +
                  " check port " + std::to_string(replicas[i]->adminPort()) + "\n";
    }
    ChildProcess balancer({haproxy, "-f", dir.write("haproxy.cfg", config), "-db"});
    ASSERT_TRUE(balancer.started());
    HttpClient probe(front);
    ASSERT_TRUE(waitUntil([&] { return probe.get("/healthz").status != 0; }, std::chrono::seconds(10)));

    WebhookReceiver receiver(dir);
    ASSERT_TRUE(receiver.started());
    const HttpResult hook =
        HttpClient(replicas[0]->adminPort())
            .request(
                "POST", "/admin/v1/webhooks",
                json{{"url", receiver.url("/visits")}, {"eventTypes", {"visit.linked"}}, {"allowHttp", true}}
                    .dump(),
                {std::string("Authorization: Bearer ") + kToken});
    ASSERT_EQ(hook.status, 201) << hook.body;
    receiver.trust({hook.parsed().at("secret").get<std::string>()});

    const double seconds = clusterSeconds();
    const auto begin = Clock::now();
    const auto at = [&](double fraction) {
        return begin + std::chrono::milliseconds(static_cast<int64_t>(seconds * fraction * 1000));
    };
    Acknowledged acked;
    std::vector<std::thread> load;
    for (int t = 0; t < kThreads; ++t) {
        load.emplace_back([&, t] {
            HttpClient client(front);
            std::vector<LoadDevice> devices(kDevicesPerThread);
            for (int d = 0; d < kDevicesPerThread; ++d) {
                devices[static_cast<std::size_t>(d)].id =
                    "CLUSTER-" + std::to_string(t) + "-" + std::to_string(d);
            }
            for (std::size_t i = 0; Clock::now() < at(1); ++i) {
                step(devices[i % devices.size()], client, acked);
            }
        });
    }

    std::this_thread::sleep_until(at(0.35));
    replicas[1]->kill(SIGKILL);
    const int refusedBeforeKill = acked.refused.load();
    std::this_thread::sleep_until(at(0.5));
    EXPECT_TRUE(replicas[1]->start()) << "the killed replica did not come back";

    std::this_thread::sleep_until(at(0.65));
    // Each replica is asked directly, not through the balancer.
    std::vector<std::unique_ptr<HttpClient>> direct;
    std::vector<std::string> keys;
    for (int i = 0; i < kReplicas; ++i) {
        direct.push_back(std::make_unique<HttpClient>(replicas[i]->port()));
        const HttpResult started = direct.back()->post(
            "/v1/session", json{{"deviceId", "WATCHER-" + std::to_string(i)}, {"sdkkey", "demo-key"}});
        ASSERT_EQ(started.status, 200) << started.body;
        keys.push_back(started.parsed()["sessionKey"]);
    }
    constexpr int64_t kPopUp = 990001;
    const double popLat = 48.1391;
    const double popLon = 11.5802;
    HttpClient admin(replicas[0]->adminPort());
    const auto added = Clock::now();
    const HttpResult add = admin.request(
        "POST", "/admin/v1/places", placeFeature(kPopUp, kPopUp, popLat, popLon, "City Walk Welcome").dump(),
        {std::string("Authorization: Bearer ") + kToken});
    ASSERT_EQ(add.status, 200) << add.body;
    for (int i = 1; i < kReplicas; ++i) {
        ASSERT_TRUE(waitUntil(
            [&] {
                return answers(*direct[static_cast<std::size_t>(i)], keys[static_cast<std::size_t>(i)],
                               kPopUp, popLat, popLon);
            },
            std::chrono::seconds(10)))
            << "replica " << i << " never answered the new place";
        const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - added).count();
        std::cout << "cluster: replica " << i << " answered the place added through replica 0 after " << ms
                  << " ms\n";
        EXPECT_LT(ms, 1000);
    }

    for (std::thread& t : load) {
        t.join();
    }
    // The killed replica's claims lapse after a batch's longest delivery (16 requests of 1 s, 4 at a time).
    std::set<int64_t> storedIds;
    for (const std::string& row : queryRows(db, "SELECT id FROM device_events")) {
        storedIds.insert(std::stoll(row));
    }
    std::map<int64_t, std::set<std::string>> idsOfLink;
    int received = 0;
    int unsigned_ = 0;
    const auto deliveredAll = [&] {
        idsOfLink.clear();
        received = 0;
        unsigned_ = 0;
        for (const json& r : receiver.received()) {
            ++received;
            unsigned_ += r.at("validWith") == json::array({0}) ? 0 : 1;
            idsOfLink[r.at("body").at("data").at("deviceEventId").get<int64_t>()].insert(r.at("id"));
        }
        return std::all_of(storedIds.begin(), storedIds.end(),
                           [&](int64_t link) { return idsOfLink.contains(link); });
    };
    EXPECT_TRUE(waitUntil(deliveredAll, std::chrono::seconds(40)));
    for (auto& r : replicas) {
        r->kill(SIGTERM);
    }
    balancer.kill(SIGTERM);

    std::cout << "cluster: " << acked.requests << " requests in " << seconds << " s, "
              << acked.refused - refusedBeforeKill << " refused or unanswered from the kill on ("
              << refusedBeforeKill << " before); acknowledged: " << acked.sessionKeyHashes.size()
              << " sessions, " << acked.links.size() << " links, " << acked.statusUpdates.size()
              << " device events answered, " << acked.lastTag.size() << " devices tagged, ";
    int logs = 0;
    for (const auto& [device, count] : acked.logs) {
        logs += count;
    }
    std::cout << logs << " log messages\n";
    EXPECT_GT(acked.links.size(), 10u);
    EXPECT_EQ(acked.idChanges.load(), 0) << "a live pair was given a second device event id";

    int lost = 0;
    const auto sessions = queryRows(db, "SELECT count(*) FROM sessions WHERE key_hash = ANY(" +
                                            sqlTextArray(acked.sessionKeyHashes) + "::text[])");
    lost += static_cast<int>(acked.sessionKeyHashes.size()) - std::stoi(sessions.at(0));

    std::set<std::string> storedLinks;
    for (const std::string& row :
         queryRows(db,
                   "SELECT d.device_id, e.offer, e.place, e.id FROM device_events e JOIN devices d ON d.id = "
                   "e.device")) {
        storedLinks.insert(row);
    }
    for (const auto& [device, offer, place, id] : acked.links) {
        const std::string row =
            device + "|" + std::to_string(offer) + "|" + std::to_string(place) + "|" + std::to_string(id);
        lost += storedLinks.contains(row) ? 0 : 1;
    }
    std::map<int64_t, int> storedUpdates;
    for (const std::string& row :
         queryRows(db, "SELECT device_event, count(*) FROM device_event_status GROUP BY 1")) {
        storedUpdates[std::stoll(row.substr(0, row.find('|')))] = std::stoi(row.substr(row.find('|') + 1));
    }
    for (const auto& [id, count] : acked.statusUpdates) {
        lost += std::max(0, count - storedUpdates[id]);
    }
    std::map<std::string, int> storedTags;
    for (const std::string& row :
         queryRows(db,
                   "SELECT d.device_id, t.value FROM device_tags t JOIN devices d ON "
                   "d.id = t.device WHERE t.tag = 'step'")) {
        storedTags[row.substr(0, row.find('|'))] = std::stoi(row.substr(row.find('|') + 1));
    }
    for (const auto& [device, step] : acked.lastTag) {
        // A later step may have been written without its answer arriving; an earlier one means a loss.
        lost += storedTags.contains(device) && storedTags[device] >= step ? 0 : 1;
    }
    std::map<std::string, int> storedLogs;
    for (const std::string& row : queryRows(
             db, "SELECT device_id, count(*) FROM log_messages WHERE event_name = 'cluster' GROUP BY 1")) {
        storedLogs[row.substr(0, row.find('|'))] = std::stoi(row.substr(row.find('|') + 1));
    }
    for (const auto& [device, count] : acked.logs) {
        lost += std::max(0, count - storedLogs[device]);
    }
    std::cout << "cluster: acknowledged writes missing from the database: " << lost << "\n";
    int missingEvents = 0;
    for (const auto& link : acked.links) {
        missingEvents += idsOfLink.contains(std::get<3>(link)) ? 0 : 1;
    }
    int twiceUnderTwoIds = 0;
    int withoutLink = 0;
    for (const auto& [link, ids] : idsOfLink) {
        withoutLink += storedIds.contains(link) ? 0 : 1;
        twiceUnderTwoIds += ids.size() > 1 ? 1 : 0;
    }
    const int twice = received - static_cast<int>(idsOfLink.size());
    std::cout << "cluster: webhooks: " << received << " visit.linked requests for " << idsOfLink.size()
              << " links (" << storedIds.size() << " stored), " << twice << " sent again, " << missingEvents
              << " acknowledged links without their event, " << withoutLink << " events of no stored link, "
              << unsigned_ << " without a valid signature\n";
    EXPECT_EQ(missingEvents, 0);
    EXPECT_EQ(withoutLink, 0);
    EXPECT_EQ(twiceUnderTwoIds, 0) << "a link's event went out under two ids";
    EXPECT_EQ(unsigned_, 0);
    EXPECT_EQ(idsOfLink.size(), storedIds.size()) << "every stored link's event went out";
    EXPECT_EQ(lost, 0);
    EXPECT_EQ(
        queryRows(
            db,
            "SELECT count(*) FROM (SELECT 1 FROM device_events WHERE cleared_at IS NULL GROUP BY device, "
            "offer, place HAVING count(*) > 1) twice"),
        std::vector<std::string>{"0"});
}

}  // namespace
}  // namespace tovrel::server::test
