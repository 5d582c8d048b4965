#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "support/temp_dir.h"
#include "tovrel_server/server.h"

namespace tovrel::server::test {

using nlohmann::json;

using tovrel::test::TempDir;

struct HttpResult {
    long status = 0;
    std::string body;
    std::string contentType;
    std::string allow;
    long connects = -1;  ///< new connections this transfer opened (0: an old one was reused)
    int curlCode = 0;
    std::map<std::string, std::string> headers;  ///< by lower-case name
    /// A header's value, "" when absent.
    std::string header(const std::string& lowerCaseName) const {
        const auto it = headers.find(lowerCaseName);
        return it == headers.end() ? std::string() : it->second;
    }
    /// The body as JSON (discarded value when it is not JSON).
    json parsed() const { return json::parse(body, nullptr, false); }
};

/// A libcurl client for one server on 127.0.0.1; keeps its connection alive between requests.
class HttpClient {
  public:
    explicit HttpClient(uint16_t port, std::string host = "127.0.0.1");
    ~HttpClient();
    HttpClient(const HttpClient&) = delete;
    HttpClient& operator=(const HttpClient&) = delete;

    HttpResult post(const std::string& path, const std::string& body) { return request("POST", path, body); }
    HttpResult post(const std::string& path, const json& body) { return request("POST", path, body.dump()); }
    HttpResult post(const std::string& path, const char* body) { return request("POST", path, body); }
    HttpResult get(const std::string& path) { return request("GET", path, {}); }
    /// Asks for compressed answers (libcurl then decodes them) from the next request on.
    void acceptCompression(bool on) { compressed_ = on; }
    /// Sends the path exactly as given (no "../" squashing), with extra header lines.
    HttpResult request(const std::string& method, const std::string& path, const std::string& body,
                       const std::vector<std::string>& headers = {});

  private:
    uint16_t port_;
    std::string host_;
    void* curl_;
    bool compressed_ = false;
};

/// Seconds since 1970 for a UTC date, for the fixtures' clocks.
double utc(int year, unsigned month, unsigned day);

/// The record of (eventId, placeId) in a /v2/place answer; a null value when it has none.
const json& record(const json& answer, const std::string& eventId, const std::string& placeId);

/// A GeoJSON Feature of one place with one offer, as the admin API adds it: place `placeId` at (lat,
/// lon), radius 50 m, offer `offerId` of `campaign`.
json placeFeature(int64_t placeId, int64_t offerId, double lat, double lon, const std::string& campaign);

/// A place file with a few places and campaigns chosen for the tests (see test_support.cpp).
std::string testPlacesGeoJson();

/// The store a server test runs against.
enum class StoreKind { sqlite, postgresql };

/// An in-process server on an ephemeral port with the test places, app key "test-key", the
/// example content folder and a clock the test sets (starts at 2025-06-01).
class ServerFixture {
  public:
    struct Options {
        /// PostgreSQL: a new database on the test program's own server (see TestPostgres).
        StoreKind store = StoreKind::sqlite;
        bool fileDatabase = true;  ///< SQLite: a file, or else ":memory:"
        std::string contentDir;    ///< default: the example content
        std::string mediaBaseUrl;
        int requestTimeoutSeconds = 30;
        int maxConnections = 1000;
        int maxConnectionsPerAddress = 256;
        double rateLimit = 0;
        /// Any other setting, applied last.
        std::function<void(ServerOptions&)> configure;
    };
    ServerFixture();
    explicit ServerFixture(const Options& options);
    ~ServerFixture();

    Server& server() { return *server_; }
    uint16_t port() const { return port_; }
    uint16_t adminPort() const { return server_->adminPort(); }
    HttpClient& client() { return *client_; }
    /// The SQLite file, or the postgresql:// address of the test's database.
    const std::string& dbPath() const { return dbPath_; }
    const TempDir& dir() const { return dir_; }
    void setTime(double seconds) { now_->store(seconds); }

    /// Starts a session for deviceId and returns its key (fails the test otherwise).
    std::string startSession(const std::string& deviceId);
    /// POST /v2/place at (lat, lon) with the component's 8047 m, as strings.
    HttpResult places(const std::string& key, double lat, double lon, const std::string& threshold = "8047");
    HttpResult link(const std::string& key, const std::string& eventId, const std::string& placeId);

  private:
    TempDir dir_;
    std::string dbPath_;
    std::shared_ptr<std::atomic<double>> now_;
    std::unique_ptr<Server> server_;
    uint16_t port_ = 0;
    std::unique_ptr<HttpClient> client_;
};

/// Rows of a query on an SQLite file or a postgresql:// database (PostgreSQL: any statement), each row's
/// columns joined by '|' (numbers and booleans written as SQLite writes them, so that one expectation serves
/// both stores).
std::vector<std::string> queryRows(const std::string& dbPath, const std::string& sql);
/// Starts `threads` threads that wait for one another, then each makes `each` writes, write(n) for n
/// from thread * each; after 300 ms calls release() (which lets the first write's commit go on), and
/// joins them. Writes that share commits then queue together however the machine schedules them.
void writeTogether(int threads, int each, const std::function<void()>& release,
                   const std::function<void(int)>& write);
/// Runs SQL that writes (one or more statements) on the database at dbPath; throws when it fails.
void executeSql(const std::string& dbPath, const std::string& sql);

/// A test of the JSON endpoints run once per store: `fixtureOptions()` picks this run's store; the
/// PostgreSQL runs are skipped, saying why, where PostgreSQL is not installed.
class StoreTest : public ::testing::TestWithParam<StoreKind> {
  protected:
    /// `options` with this run's store (SQLite when PostgreSQL is missing: the test is then skipped).
    ServerFixture::Options fixtureOptions(ServerFixture::Options options = {}) const;
    /// A new database of this run's store with no data: a file in `dir`, or a PostgreSQL database.
    std::string newDatabase(const TempDir& dir) const;
    void SetUp() override;
};

/// "SQLite" or "PostgreSQL", for test names.
std::string storeName(const ::testing::TestParamInfo<StoreKind>& info);
/// Prints the store's name in GoogleTest's messages.
void PrintTo(StoreKind kind, std::ostream* out);

/// Runs the StoreTest suite `suite` against both stores.
#define TOVREL_ON_BOTH_STORES(suite)                                                           \
    INSTANTIATE_TEST_SUITE_P(Stores, suite,                                                    \
                             ::testing::Values(::tovrel::server::test::StoreKind::sqlite,      \
                                               ::tovrel::server::test::StoreKind::postgresql), \
                             ::tovrel::server::test::storeName)

/// The repository's examples folder.
std::filesystem::path examplesDir();

/// What a command printed and how it ended.
struct CommandResult {
    int exitCode = -1;
    std::string output;  ///< its standard output (the command line redirects the rest as it likes)
};
/// Runs a shell command line to its end. Test thread.
CommandResult runCommand(const std::string& commandLine);

}  // namespace tovrel::server::test
