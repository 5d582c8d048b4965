#include "test_support.h"

#include <curl/curl.h>
#include <gtest/gtest.h>
#include <libpq-fe.h>
#include <sqlite3.h>
#include <stdlib.h>
#include <sys/wait.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <stdexcept>
#include <thread>
#include <vector>

#include "test_postgres.h"

namespace tovrel::server::test {

namespace fs = std::filesystem;

namespace {

std::size_t collect(char* data, std::size_t size, std::size_t count, void* out) {
    static_cast<std::string*>(out)->append(data, size * count);
    return size * count;
}

std::size_t collectHeader(char* data, std::size_t size, std::size_t count, void* out) {
    const std::string line(data, size * count);
    auto* result = static_cast<HttpResult*>(out);
    const auto colon = line.find(':');
    if (colon != std::string::npos) {
        std::string name = line.substr(0, colon);
        for (char& c : name) {
            c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        }
        std::string value = line.substr(colon + 1);
        value.erase(0, value.find_first_not_of(' '));
        value.erase(value.find_last_not_of("\r\n ") + 1);
        if (name == "allow") {
            result->allow = value;
        }
        result->headers[name] = value;
    }
    return size * count;
}

}  // namespace

HttpClient::HttpClient(uint16_t port, std::string host)
    : port_(port), host_(std::move(host)), curl_(curl_easy_init()) {}

HttpClient::~HttpClient() {
    curl_easy_cleanup(static_cast<CURL*>(curl_));
}

HttpResult HttpClient::request(const std::string& method, const std::string& path, const std::string& body,
                               const std::vector<std::string>& headers) {
    CURL* curl = static_cast<CURL*>(curl_);
    curl_easy_reset(curl);
    HttpResult result;
    const std::string url = "http://" + host_ + ":" + std::to_string(port_) + path;
    curl_slist* list = nullptr;
    list = curl_slist_append(list, "Content-Type: application/json");
    for (const std::string& h : headers) {
        list = curl_slist_append(list, h.c_str());
    }
    curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
    curl_easy_setopt(curl, CURLOPT_PATH_AS_IS, 1L);
    curl_easy_setopt(curl, CURLOPT_HTTPHEADER, list);
    curl_easy_setopt(curl, CURLOPT_TIMEOUT, 20L);
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, collect);
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, &result.body);
    curl_easy_setopt(curl, CURLOPT_HEADERFUNCTION, collectHeader);
    curl_easy_setopt(curl, CURLOPT_HEADERDATA, &result);
    if (compressed_) {
        curl_easy_setopt(curl, CURLOPT_ACCEPT_ENCODING, "");
    }
    if (method == "HEAD") {
        curl_easy_setopt(curl, CURLOPT_NOBODY, 1L);
    } else if (method == "POST") {
        curl_easy_setopt(curl, CURLOPT_POSTFIELDS, body.c_str());
        curl_easy_setopt(curl, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(body.size()));
    } else {
        curl_easy_setopt(curl, CURLOPT_CUSTOMREQUEST, method.c_str());
        if (!body.empty()) {
            curl_easy_setopt(curl, CURLOPT_POSTFIELDS, body.c_str());
            curl_easy_setopt(curl, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(body.size()));
        }
    }
    result.curlCode = curl_easy_perform(curl);
    curl_slist_free_all(list);
    curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &result.status);
    curl_easy_getinfo(curl, CURLINFO_NUM_CONNECTS, &result.connects);
    const char* type = nullptr;
    curl_easy_getinfo(curl, CURLINFO_CONTENT_TYPE, &type);
    result.contentType = type ? type : "";
    return result;
}

double utc(int year, unsigned month, unsigned day) {
    using namespace std::chrono;
    const sys_days d =
        year_month_day{std::chrono::year{year}, std::chrono::month{month}, std::chrono::day{day}};
    return static_cast<double>(sys_seconds{d}.time_since_epoch().count());
}

const json& record(const json& answer, const std::string& eventId, const std::string& placeId) {
    for (const json& r : answer.at("places")) {
        if (r.at("eventId") == eventId && r.at("placeId") == placeId) {
            return r;
        }
    }
    static const json none;
    return none;
}

json placeFeature(int64_t placeId, int64_t offerId, double lat, double lon, const std::string& campaign) {
    return {{"type", "Feature"},
            {"geometry", {{"type", "Point"}, {"coordinates", {lon, lat}}}},
            {"properties",
             {{"placeId", placeId},
              {"name", "Pop-up " + std::to_string(placeId)},
              {"radius", 50},
              {"offers",
               {{{"eventId", offerId},
                 {"campaign", campaign},
                 {"eventName", "New"},
                 {"alertText", "Just opened"},
                 {"eventTypeId", 3}}}}}}};
}

std::string testPlacesGeoJson() {
    // Place 1 at the query point, place 2 500 m north, place 3 5 km east, place 4 30 km north.
    return R"({
  "type": "FeatureCollection",
  "properties": {
    "apps": [{"key": "test-key", "name": "Tests"}],
    "campaigns": [
      {"name": "Open"},
      {"name": "Capped", "startDate": "2020-01-01", "endDate": "2035-12-31", "perDeviceCap": 1},
      {"name": "Past", "startDate": "2019-01-01", "endDate": "2019-12-31"},
      {"name": "Future", "startDate": "2040-01-01"}
    ]
  },
  "features": [
    {"type": "Feature", "geometry": {"type": "Point", "coordinates": [11.575, 48.137]},
     "properties": {"placeId": 1, "name": "Square", "radius": 50, "offers": [
       {"eventId": 11, "campaign": "Open", "eventName": "Coffee", "alertText": "Free coffee",
        "mediaUrl": "/media/offer-1001.html", "tags": ["coffee", "food"], "dwellTime": 0, "eventTypeId": 3},
       {"eventId": 12, "campaign": "Capped", "eventName": "Tower", "alertText": "Climb it",
        "mediaType": "web", "mediaUrl": "https://media.example.test/tower.html", "dwellTime": 1, "eventTypeId": 2}]}},
    {"type": "Feature", "geometry": {"type": "Point", "coordinates": [11.575, 48.1414966]},
     "properties": {"placeId": "2", "name": "Church", "radius": 120, "offers": [
       {"eventId": 11, "campaign": "Open", "eventName": "Coffee", "alertText": "Free coffee",
        "mediaUrl": "/media/offer-1001.html", "tags": ["coffee", "food"], "dwellTime": 0, "eventTypeId": 3},
       {"eventId": 21, "campaign": "Capped", "eventName": "Crypt", "alertText": "Tour at 2", "eventTypeId": 1},
       {"eventId": 22, "campaign": "Past", "eventName": "Old sale", "alertText": "Gone", "eventTypeId": 3}]}},
    {"type": "Feature", "geometry": {"type": "Point", "coordinates": [11.64235, 48.137]},
     "properties": {"placeId": 3, "radius": 40, "offers": [
       {"eventId": 31, "campaign": "Future", "eventName": "Later", "alertText": "Not yet", "eventTypeId": 3},
       {"eventId": 32, "campaign": "Open", "eventName": "Park", "alertText": "Picnic", "dwellTime": 2,
        "eventTypeId": 3}]}},
    {"type": "Feature", "geometry": {"type": "Point", "coordinates": [11.575, 48.4068]},
     "properties": {"placeId": 4, "radius": 150, "offers": [
       {"eventId": 41, "campaign": "Open", "eventName": "Far", "alertText": "Too far", "eventTypeId": 3}]}}
  ]
})";
}

fs::path examplesDir() {
    return fs::path(TOVREL_EXAMPLES_DIR);
}

ServerFixture::ServerFixture() : ServerFixture(Options{}) {}

ServerFixture::ServerFixture(const Options& options)
    : now_(std::make_shared<std::atomic<double>>(utc(2025, 6, 1))) {
    if (options.store == StoreKind::postgresql) {
        TestPostgres* postgres = TestPostgres::shared();
        if (postgres == nullptr) {
            throw std::runtime_error("PostgreSQL is not available: " + TestPostgres::unavailableReason());
        }
        dbPath_ = postgres->newDatabase();
    } else {
        dbPath_ = options.fileDatabase ? (dir_ / "server.db").string() : ":memory:";
    }
    ServerOptions so;
    so.dbPath = dbPath_;
    so.port = 0;
    so.contentDir = options.contentDir.empty() ? (examplesDir() / "content").string() : options.contentDir;
    so.mediaBaseUrl = options.mediaBaseUrl;
    so.requestTimeoutSeconds = options.requestTimeoutSeconds;
    so.maxConnections = options.maxConnections;
    so.maxConnectionsPerAddress = options.maxConnectionsPerAddress;
    so.rateLimit = options.rateLimit;
    so.clock = [now = now_] { return now->load(); };
    if (options.configure) {
        options.configure(so);
    }
    server_ = std::make_unique<Server>(so);
    server_->importGeoJson(dir_.write("places.geojson", testPlacesGeoJson()));
    port_ = server_->start();
    client_ = std::make_unique<HttpClient>(port_);
}

ServerFixture::~ServerFixture() {
    client_.reset();
    server_->stop();
}

std::string ServerFixture::startSession(const std::string& deviceId) {
    const HttpResult r = client_->post("/v1/session", json{{"deviceId", deviceId},
                                                           {"deviceType", "iOS"},
                                                           {"deviceModel", "iPhone"},
                                                           {"sdkkey", "test-key"}});
    EXPECT_EQ(r.status, 200) << r.body;
    const json j = r.parsed();
    return j.is_object() && j.contains("sessionKey") ? j["sessionKey"].get<std::string>() : std::string();
}

HttpResult ServerFixture::places(const std::string& key, double lat, double lon,
                                 const std::string& threshold) {
    char latText[32];
    char lonText[32];
    std::snprintf(latText, sizeof latText, "%f", lat);
    std::snprintf(lonText, sizeof lonText, "%f", lon);
    return client_->post("/v2/place",
                         json{{"sessionKey", key},
                              {"coordinatesList", json::array({{{"lat", latText}, {"lon", lonText}}})},
                              {"distanceThreshold", threshold}});
}

HttpResult ServerFixture::link(const std::string& key, const std::string& eventId,
                               const std::string& placeId) {
    return client_->post("/v1/deviceevent/link",
                         json{{"sessionKey", key}, {"eventId", eventId}, {"placeId", placeId}});
}

namespace {

std::vector<std::string> queryPostgres(const std::string& address, const std::string& sql) {
    std::unique_ptr<PGconn, void (*)(PGconn*)> conn(PQconnectdb(address.c_str()), PQfinish);
    if (PQstatus(conn.get()) != CONNECTION_OK) {
        throw std::runtime_error("cannot open " + address + ": " + PQerrorMessage(conn.get()));
    }
    std::unique_ptr<PGresult, void (*)(PGresult*)> r(PQexec(conn.get(), sql.c_str()), PQclear);
    if (PQresultStatus(r.get()) != PGRES_TUPLES_OK && PQresultStatus(r.get()) != PGRES_COMMAND_OK) {
        throw std::runtime_error(std::string("bad query: ") + PQresultErrorMessage(r.get()));
    }
    constexpr Oid kBool = 16;
    constexpr Oid kFloat8 = 701;
    std::vector<std::string> rows;
    for (int row = 0; row < PQntuples(r.get()); ++row) {
        std::string line;
        for (int col = 0; col < PQnfields(r.get()); ++col) {
            std::string cell = PQgetisnull(r.get(), row, col) ? "NULL" : PQgetvalue(r.get(), row, col);
            if (PQftype(r.get(), col) == kBool && cell != "NULL") {
                cell = cell == "t" ? "1" : "0";
            }
            if (PQftype(r.get(), col) == kFloat8 && cell.find_first_of(".eEnN") == std::string::npos) {
                cell += ".0";
            }
            line += (col ? "|" : "") + cell;
        }
        rows.push_back(line);
    }
    return rows;
}

}  // namespace

ServerFixture::Options StoreTest::fixtureOptions(ServerFixture::Options options) const {
    options.store = GetParam() == StoreKind::postgresql && TestPostgres::shared() != nullptr
                        ? GetParam()
                        : StoreKind::sqlite;
    return options;
}

std::string StoreTest::newDatabase(const TempDir& dir) const {
    if (GetParam() == StoreKind::postgresql && TestPostgres::shared() != nullptr) {
        return TestPostgres::shared()->newDatabase();
    }
    return (dir / "test.db").string();
}

void StoreTest::SetUp() {
    if (GetParam() == StoreKind::postgresql && TestPostgres::shared() == nullptr) {
        GTEST_SKIP() << "PostgreSQL cases are skipped: " << TestPostgres::unavailableReason();
    }
}

std::string storeName(const ::testing::TestParamInfo<StoreKind>& info) {
    return info.param == StoreKind::postgresql ? "PostgreSQL" : "SQLite";
}

void PrintTo(StoreKind kind, std::ostream* out) {
    *out << (kind == StoreKind::postgresql ? "PostgreSQL" : "SQLite");
}

void writeTogether(int threads, int each, const std::function<void()>& release,
                   const std::function<void(int)>& write) {
    std::atomic<int> ready{0};
    std::vector<std::thread> started;
    for (int t = 0; t < threads; ++t) {
        started.emplace_back([&, t] {
            ++ready;
            while (ready < threads) {
                std::this_thread::yield();
            }
            for (int i = 0; i < each; ++i) {
                write(t * each + i);
            }
        });
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    release();
    for (std::thread& thread : started) {
        thread.join();
    }
}

void executeSql(const std::string& dbPath, const std::string& sql) {
    if (dbPath.rfind("postgresql://", 0) == 0) {
        queryPostgres(dbPath, sql);
        return;
    }
    sqlite3* db = nullptr;
    char* error = nullptr;
    const bool done = sqlite3_open(dbPath.c_str(), &db) == SQLITE_OK &&
                      sqlite3_exec(db, sql.c_str(), nullptr, nullptr, &error) == SQLITE_OK;
    const std::string message = error != nullptr ? error : (db != nullptr ? sqlite3_errmsg(db) : "no memory");
    sqlite3_free(error);
    sqlite3_close(db);
    if (!done) {
        throw std::runtime_error("cannot run SQL on " + dbPath + ": " + message);
    }
}

std::vector<std::string> queryRows(const std::string& dbPath, const std::string& sql) {
    if (dbPath.rfind("postgresql://", 0) == 0) {
        return queryPostgres(dbPath, sql);
    }
    sqlite3* db = nullptr;
    std::vector<std::string> rows;
    if (sqlite3_open_v2(dbPath.c_str(), &db, SQLITE_OPEN_READONLY, nullptr) != SQLITE_OK) {
        sqlite3_close(db);
        throw std::runtime_error("cannot open " + dbPath);
    }
    sqlite3_stmt* st = nullptr;
    if (sqlite3_prepare_v2(db, sql.c_str(), -1, &st, nullptr) != SQLITE_OK) {
        const std::string message = sqlite3_errmsg(db);
        sqlite3_close(db);
        throw std::runtime_error("bad query: " + message);
    }
    while (sqlite3_step(st) == SQLITE_ROW) {
        std::string row;
        for (int i = 0; i < sqlite3_column_count(st); ++i) {
            const auto* text = sqlite3_column_text(st, i);
            row += (i ? "|" : "") + std::string(text ? reinterpret_cast<const char*>(text) : "NULL");
        }
        rows.push_back(row);
    }
    sqlite3_finalize(st);
    sqlite3_close(db);
    return rows;
}

CommandResult runCommand(const std::string& commandLine) {
    CommandResult result;
    FILE* pipe = popen(commandLine.c_str(), "r");
    if (pipe == nullptr) {
        return result;
    }
    char buffer[4096];
    std::size_t n = 0;
    while ((n = std::fread(buffer, 1, sizeof buffer, pipe)) > 0) {
        result.output.append(buffer, n);
    }
    const int status = pclose(pipe);
    result.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return result;
}

}  // namespace tovrel::server::test
