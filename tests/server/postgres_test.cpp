// What only the shared PostgreSQL store does: servers linking the same pair at the same instant, writes
// sharing commits, replicas following each other's changes (and operators' SQL), the database going away
// and coming back, migrations taken in turn and a schema newer than the program.
#include <gtest/gtest.h>
#include <libpq-fe.h>

#include <atomic>
#include <future>
#include <memory>
#include <set>
#include <stdexcept>
#include <thread>

#include "store/postgres/pg_bulk_load.h"
#include "store/postgres/pg_group_commit.h"
#include "store/postgres/pg_store.h"
#include "store/work_queue.h"
#include "support/wait_until.h"
#include "test_postgres.h"
#include "test_support.h"

namespace tovrel::server::test {
namespace {

using tovrel::test::waitUntil;

constexpr double kLat = 48.137;
constexpr double kLon = 11.575;

class Postgres : public ::testing::Test {
  protected:
    void SetUp() override {
        if (TestPostgres::shared() == nullptr) {
            GTEST_SKIP() << "PostgreSQL cases are skipped: " << TestPostgres::unavailableReason();
        }
    }
};

// Runs statements on the test server's maintenance database.
void administer(const std::string& sql) {
    const std::string address =
        "postgresql://postgres@127.0.0.1:" + std::to_string(TestPostgres::shared()->port()) + "/postgres";
    std::unique_ptr<PGconn, void (*)(PGconn*)> conn(PQconnectdb(address.c_str()), PQfinish);
    ASSERT_EQ(PQstatus(conn.get()), CONNECTION_OK) << PQerrorMessage(conn.get());
    std::unique_ptr<PGresult, void (*)(PGresult*)> r(PQexec(conn.get(), sql.c_str()), PQclear);
    ASSERT_TRUE(PQresultStatus(r.get()) == PGRES_COMMAND_OK || PQresultStatus(r.get()) == PGRES_TUPLES_OK)
        << PQresultErrorMessage(r.get());
}

ServerFixture::Options onPostgres(std::function<void(ServerOptions&)> configure = {}) {
    ServerFixture::Options options;
    options.store = StoreKind::postgresql;
    options.configure = std::move(configure);
    return options;
}

std::string databaseName(const std::string& address) {
    return address.substr(address.rfind('/') + 1);
}

// How long a change may take to reach another server before a test gives up.
constexpr std::chrono::milliseconds kWait{5000};

constexpr const char* kToken = "replica-admin-token-0123456789";

// Another server on the same database, with its admin listener.
ServerOptions replicaOf(const ServerFixture& fx, double changeCheckSeconds = 5) {
    ServerOptions options;
    options.dbPath = fx.dbPath();
    options.adminAddress = "127.0.0.1";
    options.adminToken = kToken;
    options.changeCheckSeconds = changeCheckSeconds;
    return options;
}

// Updates of a server's catalogue that read all of it (the others applied what changed in place).
int fullReads(uint16_t adminPort) {
    HttpClient admin(adminPort);
    const std::string body = admin.get("/metrics").body;
    const std::string name = "\ntovrel_catalog_full_reads ";
    const std::size_t at = body.find(name);
    return at == std::string::npos ? -1 : std::stoi(body.substr(at + name.size()));
}

void withAdmin(ServerOptions& o) {
    o.adminAddress = "127.0.0.1";
    o.adminToken = kToken;
}

TEST_F(Postgres, TwoServersLinkingThePairAtOnceReturnOneDeviceEvent) {
    ServerFixture first(onPostgres());
    ServerOptions options;
    options.dbPath = first.dbPath();
    Server second(options);
    HttpClient secondClient(second.start());
    const std::string key = first.startSession("TWIN");
    for (const auto& [offer, place] :
         {std::pair{"11", "1"}, {"12", "1"}, {"11", "2"}, {"21", "2"}, {"32", "3"}}) {
        auto fromSecond = std::async(std::launch::async, [&, offer = offer, place = place] {
            return secondClient.post("/v1/deviceevent/link",
                                     json{{"sessionKey", key}, {"eventId", offer}, {"placeId", place}});
        });
        const HttpResult a = first.link(key, offer, place);
        const HttpResult b = fromSecond.get();
        ASSERT_EQ(a.status, 200) << a.body;
        ASSERT_EQ(b.status, 200) << b.body;
        EXPECT_EQ(a.parsed()["places"][0]["deviceEventId"], b.parsed()["places"][0]["deviceEventId"]);
    }
    EXPECT_EQ(queryRows(first.dbPath(),
                        "SELECT count(*), count(DISTINCT (device, offer, place)) FROM "
                        "device_events WHERE cleared_at IS NULL"),
              std::vector<std::string>{"5|5"});
    second.stop();
}

TEST_F(Postgres, ReplicasServeWhatAnotherOrAnOperatorsSqlChangedWithoutWaitingForTheCheck) {
    // An hour between version checks: only notifications can bring the changes in time.
    ServerFixture first(onPostgres([](ServerOptions& o) {
        o.changeCheckSeconds = 3600;
        withAdmin(o);
    }));
    Server second(replicaOf(first, 3600));
    second.start();
    HttpClient admin(second.adminPort());
    const std::string key = first.startSession("FOLLOWER");
    const int reads = fullReads(first.adminPort());
    ASSERT_TRUE(record(first.places(key, kLat, kLon).parsed(), "771", "77").is_null());

    const json feature = placeFeature(77, 771, kLat, kLon, "Open");
    const HttpResult added = admin.request("POST", "/admin/v1/places", feature.dump(),
                                           {std::string("Authorization: Bearer ") + kToken});
    ASSERT_EQ(added.status, 200) << added.body;
    EXPECT_TRUE(waitUntil(
        [&] { return !record(first.places(key, kLat, kLon).parsed(), "771", "77").is_null(); }, kWait));

    queryRows(first.dbPath(), "UPDATE places SET disabled = true WHERE id = 77");
    EXPECT_TRUE(waitUntil(
        [&] { return record(first.places(key, kLat, kLon).parsed(), "771", "77").is_null(); }, kWait));
    queryRows(first.dbPath(), "UPDATE offers SET alert_text = 'Changed by hand' WHERE id = 11");
    EXPECT_TRUE(waitUntil(
        [&] {
            return record(first.places(key, kLat, kLon).parsed(), "11", "1").at("alertText") ==
                   "Changed by hand";
        },
        kWait));

    // A campaign disabled takes its offers everywhere; a place moved by hand, one removed by a replica.
    ASSERT_FALSE(record(first.places(key, kLat, kLon).parsed(), "12", "1").is_null());
    queryRows(first.dbPath(), "UPDATE campaigns SET disabled = true WHERE name = 'Capped'");
    EXPECT_TRUE(waitUntil([&] { return record(first.places(key, kLat, kLon).parsed(), "12", "1").is_null(); },
                          kWait));
    EXPECT_FALSE(record(first.places(key, kLat, kLon).parsed(), "11", "1").is_null());
    queryRows(first.dbPath(), "UPDATE places SET lat = lat + 1 WHERE id = 1");
    EXPECT_TRUE(waitUntil([&] { return record(first.places(key, kLat, kLon).parsed(), "11", "1").is_null(); },
                          kWait));
    EXPECT_FALSE(record(first.places(key, kLat + 1, kLon).parsed(), "11", "1").is_null());
    queryRows(first.dbPath(), "UPDATE places SET disabled = false WHERE id = 77");
    EXPECT_TRUE(waitUntil(
        [&] { return !record(first.places(key, kLat, kLon).parsed(), "771", "77").is_null(); }, kWait));
    EXPECT_EQ(
        admin.request("DELETE", "/admin/v1/places/77", {}, {std::string("Authorization: Bearer ") + kToken})
            .status,
        200);
    EXPECT_TRUE(waitUntil(
        [&] { return record(first.places(key, kLat, kLon).parsed(), "771", "77").is_null(); }, kWait));
    // None of it read the whole catalogue again.
    EXPECT_EQ(fullReads(first.adminPort()), reads);
    second.stop();
}

TEST_F(Postgres, AChangeWhoseNotificationWasLostIsServedAfterTheVersionCheckOrAReconnection) {
    ServerFixture checked(onPostgres([](ServerOptions& o) {
        o.changeCheckSeconds = 0.2;
        withAdmin(o);
    }));
    const std::string key = checked.startSession("CHECKED");
    const int reads = fullReads(checked.adminPort());
    // Without the triggers nothing is notified or recorded: only the periodic check sees the new
    // version, and with nothing recorded for it the whole catalogue is read.
    queryRows(checked.dbPath(), "ALTER TABLE places DISABLE TRIGGER ALL");
    queryRows(checked.dbPath(), "UPDATE places SET disabled = true WHERE id = 1");
    queryRows(checked.dbPath(), "UPDATE tovrel_catalog_state SET version = version + 1");
    EXPECT_TRUE(waitUntil(
        [&] { return record(checked.places(key, kLat, kLon).parsed(), "11", "1").is_null(); }, kWait));
    EXPECT_EQ(fullReads(checked.adminPort()), reads + 1);
    // A version recorded but never notified is applied in place on the next check.
    queryRows(checked.dbPath(), "UPDATE places SET disabled = true WHERE id = 2");
    queryRows(checked.dbPath(),
              "INSERT INTO tovrel_catalog_changes(version, kind, id) SELECT version + 1, 'version', 0 FROM "
              "tovrel_catalog_state UNION ALL SELECT version + 1, 'place', 2 FROM tovrel_catalog_state");
    queryRows(checked.dbPath(), "UPDATE tovrel_catalog_state SET version = version + 1");
    EXPECT_TRUE(waitUntil(
        [&] { return record(checked.places(key, kLat, kLon).parsed(), "21", "2").is_null(); }, kWait));
    EXPECT_EQ(fullReads(checked.adminPort()), reads + 1);
    queryRows(checked.dbPath(), "ALTER TABLE places ENABLE TRIGGER ALL");

    // A change made while the feed's connection was away is read when it reconnects.
    ServerFixture away(onPostgres([](ServerOptions& o) { o.changeCheckSeconds = 3600; }));
    const std::string awayKey = away.startSession("AWAY");
    const std::string name = databaseName(away.dbPath());
    administer("ALTER DATABASE " + name + " ALLOW_CONNECTIONS false");
    administer("SELECT pg_terminate_backend(pid) FROM pg_stat_activity WHERE datname = '" + name + "'");
    administer("ALTER DATABASE " + name + " ALLOW_CONNECTIONS true");
    queryRows(away.dbPath(), "UPDATE places SET disabled = true WHERE id = 1");
    EXPECT_TRUE(waitUntil(
        [&] { return record(away.places(awayKey, kLat, kLon).parsed(), "11", "1").is_null(); }, kWait));
}

TEST_F(Postgres, ATransactionChangingMoreThanTenThousandRowsIsReadWhole) {
    ServerFixture fx(onPostgres(withAdmin));
    const std::string key = fx.startSession("BULK");
    const int reads = fullReads(fx.adminPort());
    // Recorded as 'all' rather than row by row: replicas read the whole catalogue.
    queryRows(
        fx.dbPath(),
        "INSERT INTO places(id, name, lat, lon, radius) SELECT 1000 + i, 'Bulk', 10, 10 + i * 1e-4, 5 FROM "
        "generate_series(0, 10000) i");
    EXPECT_EQ(queryRows(fx.dbPath(),
                        "SELECT kind FROM tovrel_catalog_changes WHERE version = (SELECT version "
                        "FROM tovrel_catalog_state) ORDER BY kind"),
              (std::vector<std::string>{"all", "version"}));
    HttpClient admin(fx.adminPort());
    EXPECT_TRUE(waitUntil([&] { return admin.get("/readyz").parsed()["places"] == 4 + 10'001; }, kWait));
    EXPECT_EQ(fullReads(fx.adminPort()), reads + 1);
    // Fewer rows are recorded one by one.
    queryRows(fx.dbPath(), "UPDATE places SET disabled = true WHERE id BETWEEN 1000 AND 1002");
    EXPECT_EQ(queryRows(fx.dbPath(),
                        "SELECT kind || id FROM tovrel_catalog_changes WHERE version = (SELECT "
                        "version FROM tovrel_catalog_state) ORDER BY kind, id"),
              (std::vector<std::string>{"place1000", "place1001", "place1002", "version0"}));
    EXPECT_TRUE(waitUntil([&] { return admin.get("/readyz").parsed()["places"] == 4 + 10'001 - 3; }, kWait));
    EXPECT_EQ(fullReads(fx.adminPort()), reads + 1);
}

TEST_F(Postgres, LinksCapsAndClearsAgreeAcrossReplicas) {
    ServerFixture first(onPostgres());
    Server second(replicaOf(first));
    HttpClient secondClient(second.start());
    const std::string key = first.startSession("ROAMING");
    const auto linkThroughSecond = [&](const std::string& offer, const std::string& place) {
        return secondClient
            .post("/v1/deviceevent/link", json{{"sessionKey", key}, {"eventId", offer}, {"placeId", place}})
            .parsed()["places"][0];
    };

    // The campaign "Capped" allows one live offer a device: the second link, made through the other
    // replica, is suppressed.
    const json capped = first.link(key, "12", "1").parsed()["places"][0];
    EXPECT_EQ(capped["suppressMessage"], 0);
    EXPECT_EQ(linkThroughSecond("21", "2")["suppressMessage"], 1);
    EXPECT_EQ(linkThroughSecond("12", "1")["deviceEventId"], capped["deviceEventId"]);
    EXPECT_EQ(record(first.places(key, kLat, kLon).parsed(), "12", "1").at("isLinked"), 1);

    ASSERT_EQ(secondClient.post("/v1/deviceevent/clear", json{{"sessionKey", key}}).status, 200);
    EXPECT_TRUE(waitUntil(
        [&] { return record(first.places(key, kLat, kLon).parsed(), "12", "1").at("isLinked") == 0; },
        kWait));
    const json again = first.link(key, "12", "1").parsed()["places"][0];
    EXPECT_NE(again["deviceEventId"], capped["deviceEventId"]);
    EXPECT_EQ(again["suppressMessage"], 0);
    second.stop();
}

TEST_F(Postgres, TwoReplicasRacingOnOneDeviceKeepItsDailyCap) {
    ServerFixture first(onPostgres());
    auto now = std::make_shared<std::atomic<double>>(utc(2026, 1, 12) + 9 * 3600);
    first.setTime(*now);
    ServerOptions options = replicaOf(first, 1);
    options.clock = [now] { return now->load(); };
    Server second(options);
    HttpClient secondClient(second.start());
    first.server().importGeoJson(first.dir().write("daily.geojson", R"({"type": "FeatureCollection",
      "properties": {"campaigns": [{"name": "Daily", "caps": [{"count": 1, "per": "day"}]}]},
      "features": [
        {"type": "Feature", "geometry": {"type": "Point", "coordinates": [11.575, 48.137]},
         "properties": {"placeId": 1, "radius": 50, "offers": [{"eventId": 9201, "campaign": "Daily",
           "eventName": "A", "alertText": "A", "eventTypeId": 3}]}},
        {"type": "Feature", "geometry": {"type": "Point", "coordinates": [11.575, 48.1414966]},
         "properties": {"placeId": 2, "radius": 120, "offers": [{"eventId": 9202, "campaign": "Daily",
           "eventName": "B", "alertText": "B", "eventTypeId": 3}]}}]})"));
    const std::string key = first.startSession("RACER");
    const auto linkThroughSecond = [&] {
        return secondClient.post("/v1/deviceevent/link",
                                 json{{"sessionKey", key}, {"eventId", "9202"}, {"placeId", "2"}});
    };
    ASSERT_TRUE(waitUntil([&] { return linkThroughSecond().status == 200; }, kWait));
    ASSERT_EQ(secondClient.post("/v1/deviceevent/clear", json{{"sessionKey", key}}).status, 200);
    for (int day = 1; day <= 6; ++day) {
        *now = now->load() + 86400;
        first.setTime(*now);
        auto fromSecond = std::async(std::launch::async, linkThroughSecond);
        const HttpResult a = first.link(key, "9201", "1");
        const HttpResult b = fromSecond.get();
        ASSERT_EQ(a.status, 200) << a.body;
        ASSERT_EQ(b.status, 200) << b.body;
        // One of the two is delivered, whichever replica counted first; the other sees its row.
        EXPECT_EQ(a.parsed()["places"][0]["suppressMessage"].get<int>() +
                      b.parsed()["places"][0]["suppressMessage"].get<int>(),
                  1)
            << day;
        ASSERT_EQ(first.client().post("/v1/deviceevent/clear", json{{"sessionKey", key}}).status, 200);
    }
    EXPECT_EQ(
        queryRows(first.dbPath(),
                  "SELECT count(*) FILTER (WHERE NOT suppressed), count(*) FILTER (WHERE suppressed_by = "
                  "'frequency') FROM device_events WHERE created_at > " +
                      std::to_string(utc(2026, 1, 13)) + " - 1"),
        std::vector<std::string>{"6|6"});
    second.stop();
}

TEST_F(Postgres, LinksArrivingTogetherAreRecordedTogetherAndStillCountEachOther) {
    ServerFixture fx(onPostgres());
    fx.setTime(utc(2026, 1, 12) + 9 * 3600);
    json offers = json::array();
    for (int i = 0; i < 12; ++i) {
        offers.push_back({{"eventId", 9300 + i},
                          {"campaign", "Three a day"},
                          {"eventName", "O"},
                          {"alertText", "O"},
                          {"eventTypeId", 3}});
    }
    const json file = {
        {"type", "FeatureCollection"},
        {"properties",
         {{"campaigns", {{{"name", "Three a day"}, {"caps", {{{"count", 3}, {"per", "day"}}}}}}}}},
        {"features",
         {{{"type", "Feature"},
           {"geometry", {{"type", "Point"}, {"coordinates", {kLon, kLat}}}},
           {"properties", {{"placeId", 1}, {"radius", 50}, {"offers", offers}}}}}}};
    fx.server().importGeoJson(fx.dir().write("three.geojson", file.dump()));
    const std::vector<std::string> keys{fx.startSession("TOGETHER-A"), fx.startSession("TOGETHER-B")};
    std::vector<std::future<HttpResult>> links;
    for (int i = 0; i < 24; ++i) {
        links.push_back(std::async(std::launch::async, [&, i] {
            return HttpClient(fx.port()).post("/v1/deviceevent/link",
                                              json{{"sessionKey", keys[i % 2]},
                                                   {"eventId", std::to_string(9300 + i / 2)},
                                                   {"placeId", "1"}});
        }));
    }
    std::set<long long> ids;
    int delivered = 0;
    for (auto& link : links) {
        const HttpResult r = link.get();
        ASSERT_EQ(r.status, 200) << r.body;
        ids.insert(r.parsed()["places"][0]["deviceEventId"].get<long long>());
        delivered += 1 - r.parsed()["places"][0]["suppressMessage"].get<int>();
    }
    // Each device's links count the ones recorded before them, in the same transaction or not.
    EXPECT_EQ(ids.size(), 24U);
    EXPECT_EQ(delivered, 6);
    EXPECT_EQ(
        queryRows(fx.dbPath(),
                  "SELECT d.device_id, count(*) FILTER (WHERE NOT e.suppressed) FROM device_events e JOIN "
                  "devices d ON d.id = e.device GROUP BY d.device_id ORDER BY 1"),
        (std::vector<std::string>{"TOGETHER-A|3", "TOGETHER-B|3"}));
}

TEST_F(Postgres, ABatchOfLinksKeepsEachDevicesCountsAndAnErasedDeviceFailsAlone) {
    const std::string db = TestPostgres::shared()->newDatabase();
    PgStore store(db, StoreOptions{});
    queryRows(db,
              "INSERT INTO webhook_endpoints(url, event_types, secret, created_at) VALUES "
              "('https://hooks.example/visits', 'visit.linked', 'secret', 0)");
    constexpr double kNow = 1.8e9;
    std::vector<int64_t> devices;
    for (const char* id : {"BATCH-A", "BATCH-B", "BATCH-GONE"}) {
        devices.push_back(store.startSession(DeviceInfo{id, "iOS", "phone", "demo-key"}, id, kNow - 600));
    }
    ASSERT_TRUE(store.eraseDevice("BATCH-GONE"));
    CampaignRules twoADay;
    twoADay.caps.push_back(FrequencyCap{2, "day", 86400});
    std::vector<NewLink> asked;
    for (int offer = 1; offer <= 3; ++offer) {
        asked.push_back(NewLink{offer, 10, 5, std::nullopt, "Two a day", &twoADay, false});
    }
    const auto outcomes = [&](const std::vector<LinkRequest>& batch) {
        std::vector<std::string> out;
        for (const LinkResult& result : store.addLinks(batch, kNow)) {
            if (const auto* row = std::get_if<LinkRow>(&result)) {
                out.push_back(std::to_string(row->id) + (row->suppressed ? " held" : " shown"));
            } else {
                EXPECT_THROW(std::rethrow_exception(std::get<std::exception_ptr>(result)), DeviceGone);
                out.emplace_back("gone");
            }
        }
        return out;
    };
    // Out of order, a device's links count the ones before them in the batch.
    const std::vector<std::string> first = outcomes({{devices[1], &asked[0]},
                                                     {devices[0], &asked[0]},
                                                     {devices[1], &asked[1]},
                                                     {devices[0], &asked[1]},
                                                     {devices[1], &asked[2]}});
    ASSERT_EQ(first.size(), 5U);
    EXPECT_EQ(std::set<std::string>(first.begin(), first.end()).size(), 5U);
    for (const std::size_t shown : {0, 1, 2, 3}) {
        EXPECT_TRUE(first[shown].ends_with(" shown")) << first[shown];
    }
    EXPECT_TRUE(first[4].ends_with(" held")) << first[4];
    // A batch with an erased device fails that link alone; a pair linked again is the same link.
    const std::vector<std::string> second =
        outcomes({{devices[2], &asked[0]}, {devices[0], &asked[2]}, {devices[0], &asked[0]}});
    ASSERT_EQ(second.size(), 3U);
    EXPECT_EQ(second[0], "gone");
    EXPECT_TRUE(second[1].ends_with(" held")) << second[1];
    EXPECT_EQ(second[2], first[1]);
    // Each new link's webhook message names the link's own id.
    EXPECT_EQ(queryRows(db,
                        "SELECT count(*) FROM device_events e JOIN webhook_messages m ON m.type = "
                        "'visit.linked' AND CAST(m.data AS json)->>'deviceEventId' = CAST(e.id AS text)"),
              std::vector<std::string>{"6"});
}

TEST_F(Postgres, SessionStartsArrivingTogetherShareATransactionAndAWrongKeyFailsAlone) {
    ServerFixture fx(onPostgres([](ServerOptions& o) { o.databaseBusyTimeoutMs = 5000; }));
    queryRows(fx.dbPath(),
              "INSERT INTO webhook_endpoints(url, event_types, secret, created_at) VALUES "
              "('https://hooks.example/sessions', 'session.started', 'secret', 0)");
    // The first start waits for this lock, so that the others queue behind it and go together.
    PgConnection holder(fx.dbPath(), 5000);
    holder.exec("BEGIN");
    holder.exec("LOCK TABLE devices IN EXCLUSIVE MODE");
    std::vector<std::future<HttpResult>> starts;
    for (int i = 0; i < 24; ++i) {
        starts.push_back(std::async(std::launch::async, [&, i] {
            return HttpClient(fx.port()).post("/v1/session",
                                              json{{"deviceId", "TOGETHER-" + std::to_string(i % 12)},
                                                   {"sdkkey", i % 6 == 5 ? "not-an-app" : "test-key"}});
        }));
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    holder.exec("COMMIT");
    int refused = 0;
    for (auto& start : starts) {
        const HttpResult r = start.get();
        if (r.status == 401) {
            ++refused;
            continue;
        }
        ASSERT_EQ(r.status, 200) << r.body;
        // Each key is the device's own, and in memory already.
        const json places = {{"sessionKey", r.parsed()["sessionKey"]},
                             {"coordinatesList", json::array({{{"lat", "48.137"}, {"lon", "11.575"}}})},
                             {"distanceThreshold", "100"}};
        EXPECT_EQ(HttpClient(fx.port()).post("/v2/place", places).status, 200);
    }
    EXPECT_EQ(refused, 4);
    // Devices 5 and 11 always gave the wrong key; every other device started twice, maybe in one batch.
    EXPECT_EQ(queryRows(fx.dbPath(), "SELECT count(*), count(DISTINCT device) FROM sessions"),
              std::vector<std::string>{"20|10"});
    EXPECT_EQ(queryRows(fx.dbPath(),
                        "SELECT count(*), count(DISTINCT device) FROM webhook_messages WHERE "
                        "type = 'session.started'"),
              std::vector<std::string>{"20|10"});
}

TEST_F(Postgres, ADeviceErasedThroughOneReplicaIsUnknownToTheOthers) {
    ServerFixture first(onPostgres([](ServerOptions& o) {
        o.adminAddress = "127.0.0.1";
        o.adminToken = kToken;
    }));
    Server second(replicaOf(first));
    HttpClient secondClient(second.start());
    const std::string key = first.startSession("ERASED");
    const json places = {{"sessionKey", key},
                         {"coordinatesList", json::array({{{"lat", "48.137"}, {"lon", "11.575"}}})},
                         {"distanceThreshold", "8047"}};
    // The second replica holds the session and the device's links in memory.
    ASSERT_EQ(secondClient.post("/v2/place", places).status, 200);
    HttpClient admin(first.adminPort());
    ASSERT_EQ(admin
                  .request("DELETE", "/admin/v1/devices/ERASED", {},
                           {std::string("Authorization: Bearer ") + kToken})
                  .status,
              200);
    EXPECT_TRUE(waitUntil([&] { return secondClient.post("/v2/place", places).status == 401; }, kWait));
    EXPECT_EQ(
        secondClient
            .post("/v1/deviceevent/link", json{{"sessionKey", key}, {"eventId", "11"}, {"placeId", "1"}})
            .status,
        401);
    EXPECT_EQ(queryRows(first.dbPath(), "SELECT count(*) FROM device_events"), std::vector<std::string>{"0"});
    second.stop();
}

TEST_F(Postgres, ATokenRevokedThroughOneReplicaStopsWorkingOnTheOtherWithinASecond) {
    ServerFixture first(onPostgres([](ServerOptions& o) {
        o.adminAddress = "127.0.0.1";
        o.adminToken = kToken;
    }));
    Server second(replicaOf(first));
    second.start();
    HttpClient firstAdmin(first.adminPort());
    HttpClient secondAdmin(second.adminPort());
    const auto call = [](HttpClient& client, const std::string& method, const std::string& path,
                         const std::string& token, const std::string& body = {}) {
        return client.request(method, path, body, {"Authorization: Bearer " + token}).status;
    };
    const HttpResult made =
        firstAdmin.request("POST", "/admin/v1/tokens", R"({"name": "agent", "role": "read"})",
                           {std::string("Authorization: Bearer ") + kToken});
    ASSERT_EQ(made.status, 201) << made.body;
    const std::string token = made.parsed()["token"];
    EXPECT_TRUE(waitUntil([&] { return call(secondAdmin, "GET", "/admin/v1/funnel", token) == 200; },
                          std::chrono::seconds(1)));
    EXPECT_EQ(call(secondAdmin, "DELETE", "/admin/v1/places/1", token), 403);
    ASSERT_EQ(call(firstAdmin, "DELETE", "/admin/v1/tokens/agent", kToken), 200);
    EXPECT_TRUE(waitUntil([&] { return call(secondAdmin, "GET", "/admin/v1/funnel", token) == 401; },
                          std::chrono::seconds(1)));
    second.stop();
}

TEST_F(Postgres, WhileTheDatabaseIsAwayMemoryAnswersAndWritesAre503) {
    ServerFixture fx(onPostgres([](ServerOptions& o) { o.adminAddress = "127.0.0.1"; }));
    const std::string key = fx.startSession("AWAY");
    ASSERT_EQ(fx.link(key, "11", "1").status, 200);
    const std::string name = databaseName(fx.dbPath());
    const json tag = {{"sessionKey", key}, {"tag", "t"}, {"tagValue", "v"}};
    // Connections closed by the server while idle (a restart) are replaced without a refusal.
    administer("SELECT pg_terminate_backend(pid) FROM pg_stat_activity WHERE datname = '" + name + "'");
    for (int i = 0; i < 100 && !queryRows("postgresql://postgres@127.0.0.1:" +
                                              std::to_string(TestPostgres::shared()->port()) + "/postgres",
                                          "SELECT 1 FROM pg_stat_activity WHERE datname = '" + name + "'")
                                    .empty();
         ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    const HttpResult afterRestart = fx.client().post("/v1/devicetag/update", tag);
    EXPECT_EQ(afterRestart.status, 200) << afterRestart.body;

    administer("ALTER DATABASE " + name + " ALLOW_CONNECTIONS false");
    administer("SELECT pg_terminate_backend(pid) FROM pg_stat_activity WHERE datname = '" + name + "'");

    HttpClient probes(fx.adminPort());
    const HttpResult places = fx.places(key, kLat, kLon);
    ASSERT_EQ(places.status, 200) << places.body;
    for (int i = 0; i < 3; ++i) {
        const HttpResult write = fx.client().post("/v1/devicetag/update", tag);
        EXPECT_EQ(write.status, 503) << write.body;
        EXPECT_EQ(write.header("retry-after"), "1");
    }
    EXPECT_EQ(fx.link(key, "12", "1").status, 503);
    EXPECT_EQ(fx.client().post("/v1/session", json{{"deviceId", "NEW"}, {"sdkkey", "test-key"}}).status, 503);
    EXPECT_EQ(probes.get("/readyz").status, 503);
    EXPECT_EQ(fx.places(key, kLat, kLon).body, places.body);

    administer("ALTER DATABASE " + name + " ALLOW_CONNECTIONS true");
    // Connections come back after the back-off (at most a few seconds).
    long status = 0;
    for (int i = 0; i < 100 && status != 200; ++i) {
        status = fx.client().post("/v1/devicetag/update", tag).status;
        if (status != 200) {
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        }
    }
    EXPECT_EQ(status, 200);
    EXPECT_EQ(fx.link(key, "12", "1").status, 200);
    EXPECT_EQ(probes.get("/readyz").status, 200);
    EXPECT_EQ(queryRows(fx.dbPath(), "SELECT count(*) FROM device_tags"), std::vector<std::string>{"1"});
}

TEST_F(Postgres, WritesArrivingTogetherShareACommitWhetherTheirCallersWaitOrNotAndABadOneFailsAlone) {
    const std::string db = TestPostgres::shared()->newDatabase();
    PgPool pool(db, 5000, 3);
    PgGroupCommit group(pool);
    pool.acquire()->exec("CREATE TABLE grouped(n int PRIMARY KEY CHECK (n <> 13 AND n <> 14))");
    // Commits started for callers that do not wait run here; after a while it refuses, so that a waiting
    // caller whose write is done must go on committing theirs.
    std::atomic<int> launches{0};
    WorkQueue committers(2, 1000);
    const Launch launch = [&](std::function<void()> lead) {
        return ++launches % 7 != 0 && committers.post(std::move(lead));
    };
    constexpr int kThreads = 16;
    constexpr int kEach = 25;
    std::atomic<int> refused{0};
    std::atomic<int> unwritten{0};
    // The first commit waits for this lock, so that the other threads' first writes queue behind it.
    PgConnection holder(db, 5000);
    holder.exec("BEGIN");
    holder.exec("LOCK TABLE grouped IN EXCLUSIVE MODE");
    writeTogether(
        kThreads, kEach, [&] { holder.exec("COMMIT"); },
        [&](int n) {
            std::exception_ptr error;
            if (n % 2 == 0) {
                try {
                    group.execute(statement("INSERT INTO grouped VALUES($1)", n));
                } catch (...) {
                    error = std::current_exception();
                }
            } else {
                // A write that finds nothing to write says so, whether its batch committed or was retried.
                PgWrite write{statement("INSERT INTO grouped SELECT $1 WHERE $1 % 3 <> 0 RETURNING n", n),
                              std::make_exception_ptr(std::out_of_range("nothing written"))};
                std::promise<std::exception_ptr> written;
                while (!group.start(
                    write, [&](std::exception_ptr e) { written.set_value(std::move(e)); }, launch)) {
                }
                error = written.get_future().get();
            }
            try {
                if (error) {
                    std::rethrow_exception(error);
                }
            } catch (const PgError& e) {
                EXPECT_EQ(e.sqlState(), "23514") << e.what();
                ++refused;
            } catch (const std::out_of_range&) {
                EXPECT_EQ(n % 3, 0) << n;
                ++unwritten;
            }
        });
    committers.drain();
    // Every write is there but the two the check refuses (13 and 14) and the 67 odd multiples of 3 that
    // wrote nothing, though they shared transactions with them.
    EXPECT_EQ(refused, 2);
    EXPECT_EQ(unwritten, 67);
    EXPECT_EQ(queryRows(db, "SELECT count(*) FROM grouped"), std::vector<std::string>{"331"});
    const PgGroupCommit::Counts counts = group.counts();
    EXPECT_EQ(counts.writes, std::size_t{kThreads * kEach});
    EXPECT_LE(counts.commits, counts.writes - (kThreads - 2))
        << "writes queued together did not share a commit";
    // With no commit running and no thread to run one, nothing is started.
    bool heard = false;
    EXPECT_FALSE(group.start(
        PgWrite{statement("INSERT INTO grouped VALUES(1000)"), nullptr}, [&](auto) { heard = true; },
        [](auto) { return false; }));
    EXPECT_FALSE(heard);
    EXPECT_EQ(queryRows(db, "SELECT count(*) FROM grouped WHERE n = 1000"), std::vector<std::string>{"0"});
}

TEST_F(Postgres, ServersStartingTogetherMigrateInTurnAndANewerSchemaIsRefused) {
    const std::string address = TestPostgres::shared()->newDatabase();
    administer("CREATE DATABASE fresh_schema");
    const std::string fresh = address.substr(0, address.rfind('/') + 1) + "fresh_schema";
    std::vector<std::future<void>> starts;
    for (int i = 0; i < 3; ++i) {
        starts.push_back(std::async(std::launch::async, [&] { openStore(fresh); }));
    }
    for (auto& s : starts) {
        EXPECT_NO_THROW(s.get());
    }
    EXPECT_EQ(queryRows(fresh, "SELECT version FROM tovrel_schema"),
              std::vector<std::string>{std::to_string(currentPgSchemaVersion())});

    queryRows(address, "UPDATE tovrel_schema SET version = version + 1 RETURNING version");
    try {
        openStore(address);
        ADD_FAILURE() << "a newer schema was accepted";
    } catch (const std::runtime_error& e) {
        EXPECT_NE(std::string(e.what()).find("newer than this program"), std::string::npos) << e.what();
    }
}

TEST_F(Postgres, ImportedTextsKeepEveryCharacterAndNumbersEveryDigitAndAnImportAgainReplaces) {
    ServerFixture fx(onPostgres());
    // Quotes, braces and commas (array literals), tabs, line breaks and backslashes, one before N (the
    // text format of COPY; names hold no control characters, alert texts may hold tabs and newlines),
    // and a coordinate that only 16 digits tell from its neighbour.
    const auto place = [](const std::string& name, int offer) {
        return R"({"type": "FeatureCollection", "properties": {"campaigns": [{"name": "Open"}]},
          "features": [{"type": "Feature", "geometry": {"type": "Point", "coordinates": [11.5, 48.30000000000001]},
            "properties": {"placeId": 7, "name": ")" +
               name + R"(", "radius": 50, "offers": [{"eventId": )" + std::to_string(offer) +
               R"(, "campaign": "Open", "eventName": "E", "alertText": "A\tB\nC\\N", "eventTypeId": 3}]}}]})";
    };
    fx.server().importGeoJson(
        fx.dir().write("odd.geojson", place(R"(Caf\u00e9 \"Zum {Hirschen}\", Stra\\e \\N NULL)", 71)));
    EXPECT_EQ(queryRows(fx.dbPath(), "SELECT name, lat, lon, radius FROM places WHERE id = 7"),
              std::vector<std::string>{
                  "Caf\u00e9 \"Zum {Hirschen}\", Stra\\e \\N NULL|48.30000000000001|11.5|50.0"});
    EXPECT_EQ(queryRows(fx.dbPath(), "SELECT alert_text FROM offers WHERE id = 71"),
              std::vector<std::string>{"A\tB\nC\\N"});
    EXPECT_EQ(queryRows(fx.dbPath(), "SELECT offer FROM place_offers WHERE place = 7"),
              std::vector<std::string>{"71"});

    fx.server().importGeoJson(fx.dir().write("again.geojson", place("Renamed", 72)));
    EXPECT_EQ(queryRows(fx.dbPath(), "SELECT name FROM places WHERE id = 7"),
              std::vector<std::string>{"Renamed"});
    EXPECT_EQ(queryRows(fx.dbPath(), "SELECT offer FROM place_offers WHERE place = 7"),
              std::vector<std::string>{"72"});
}

TEST_F(Postgres, AnImportIntoAnEmptyCatalogueLoadsInBulkAndLeavesTheSchemaAsItWas) {
    const std::string db = TestPostgres::shared()->newDatabase();
    PgStore store(db, StoreOptions{});
    const auto schema = [&] {
        return queryRows(
            db,
            "SELECT conname || ' ' || pg_get_constraintdef(oid) FROM pg_constraint WHERE conrelid "
            "IN ('offers'::regclass, 'places'::regclass, 'place_offers'::regclass) UNION ALL "
            "SELECT indexdef FROM pg_indexes WHERE tablename IN ('offers', 'places', "
            "'place_offers') ORDER BY 1");
    };
    const auto spatialIndex = [&] { return queryRows(db, "SELECT 'places_location'::regclass::oid"); };
    const std::vector<std::string> before = schema();
    const std::vector<std::string> indexBefore = spatialIndex();
    const auto catalogue = [](int places, int64_t missingOffer) {
        CatalogData data;
        data.campaigns.emplace_back();
        data.campaigns.back().name = "Bulk";
        for (int i = 1; i <= places; ++i) {
            data.offers.push_back(OfferDef{i, "Bulk", "E", "A", "", "", "", 0, 3});
            data.places.push_back(PlaceDef{i, "P", 48 + i * 1e-5, 11.5, 50, {i}});
        }
        if (missingOffer != 0) {
            data.places.back().offers.push_back(missingOffer);
        }
        return data;
    };
    constexpr auto kPlaces = static_cast<int>(PgBulkLoad::kMinPlaces);

    // A link to an offer that is not there fails the whole load, and the schema is as it was.
    EXPECT_THROW(store.writeCatalog(catalogue(kPlaces, 999'999), 1.8e9), PgError);
    EXPECT_EQ(schema(), before);
    EXPECT_EQ(queryRows(db, "SELECT count(*) FROM places"), std::vector<std::string>{"0"});

    store.writeCatalog(catalogue(kPlaces, 0), 1.8e9);
    EXPECT_EQ(schema(), before);
    EXPECT_NE(spatialIndex(), indexBefore) << "the load did not go in bulk";
    EXPECT_EQ(queryRows(db,
                        "SELECT count(*) FROM places JOIN place_offers ON place = places.id JOIN offers "
                        "ON offers.id = offer"),
              std::vector<std::string>{std::to_string(kPlaces)});
    EXPECT_EQ(queryRows(db,
                        "SELECT count(*) FROM places WHERE ST_DWithin(location, ST_MakePoint(11.5, "
                        "48.00001)::geography, 1)"),
              std::vector<std::string>{"1"});
    // Into a catalogue in use, row by row: the index stays, and a place is replaced.
    const std::vector<std::string> indexAfter = spatialIndex();
    CatalogData again = catalogue(kPlaces, 0);
    again.places.front().name = "Renamed";
    store.writeCatalog(again, 1.8e9);
    EXPECT_EQ(spatialIndex(), indexAfter);
    EXPECT_EQ(queryRows(db, "SELECT name FROM places WHERE id = 1"), std::vector<std::string>{"Renamed"});
}

TEST_F(Postgres, PlacesCanBeAskedForBySpatialSql) {
    ServerFixture fx(onPostgres());
    EXPECT_EQ(queryRows(fx.dbPath(),
                        "SELECT id FROM places WHERE ST_DWithin(location, "
                        "ST_MakePoint(11.575, 48.137)::geography, 2000) ORDER BY id"),
              (std::vector<std::string>{"1", "2"}));
}

}  // namespace
}  // namespace tovrel::server::test
