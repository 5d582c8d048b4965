// Error answers and connection handling over real HTTP on 127.0.0.1.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <thread>

#include "admin/admin_handler.h"
#include "common/routes.h"
#include "support/wait_until.h"
#include "test_support.h"

namespace tovrel::server::test {
namespace {

const std::vector<std::string> kSessionEndpoints = {"/v2/place",
                                                    "/v1/deviceevent/link",
                                                    "/v1/deviceevent/update",
                                                    "/v1/deviceevent/clear",
                                                    "/v1/devicetag/update",
                                                    "/v1/devicetag/delete"};

const std::vector<std::string> kAllEndpoints = {"/v1/session",           "/v2/place",
                                                "/v1/deviceevent/link",  "/v1/deviceevent/update",
                                                "/v1/deviceevent/clear", "/v1/devicetag/update",
                                                "/v1/devicetag/delete",  "/v1/log"};

void expectErrorBody(const HttpResult& r) {
    EXPECT_EQ(r.contentType, "application/json");
    const json body = r.parsed();
    ASSERT_TRUE(body.is_object()) << r.body;
    ASSERT_TRUE(body.contains("error")) << r.body;
    EXPECT_TRUE(body.at("error").is_string());
    EXPECT_GT(body.at("error").get<std::string>().size(), 10u) << r.body;
}

// A raw TCP connection, for what libcurl will not send.
class RawConnection {
  public:
    /// Connects to 127.0.0.1:port, from `from` (another loopback address) when given.
    explicit RawConnection(uint16_t port, const char* from = nullptr) : fd_(socket(AF_INET, SOCK_STREAM, 0)) {
        if (from != nullptr) {
            sockaddr_in local{};
            local.sin_family = AF_INET;
            inet_pton(AF_INET, from, &local.sin_addr);
            bind(fd_, reinterpret_cast<sockaddr*>(&local), sizeof local);
        }
        sockaddr_in addr{};
        addr.sin_family = AF_INET;
        addr.sin_port = htons(port);
        addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        connected_ = connect(fd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0;
    }
    ~RawConnection() { close(fd_); }
    bool connected() const { return connected_; }
    void send(const std::string& data) {
        ASSERT_EQ(::send(fd_, data.data(), data.size(), MSG_NOSIGNAL), (ssize_t)data.size());
    }
    /// Reads until the peer closes or timeoutMs passes; closed() tells which.
    std::string readAll(int timeoutMs) {
        std::string out;
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
        while (std::chrono::steady_clock::now() < deadline) {
            pollfd p{fd_, POLLIN, 0};
            if (poll(&p, 1, 50) <= 0) {
                continue;
            }
            char buf[4096];
            const ssize_t n = recv(fd_, buf, sizeof buf, 0);
            if (n <= 0) {
                closed_ = true;
                break;
            }
            out.append(buf, static_cast<std::size_t>(n));
        }
        return out;
    }
    bool closed() const { return closed_; }

  private:
    int fd_;
    bool connected_ = false;
    bool closed_ = false;
};

class HttpErrors : public ::testing::Test {
  protected:
    ServerFixture fx;
    std::string key = fx.startSession("DEVICE-A");
};

TEST_F(HttpErrors, MalformedJsonIsABadRequestEverywhere) {
    for (const std::string& path : kAllEndpoints) {
        for (const std::string body : {"", "{", "{\"sessionKey\":}", "not json", "{\"a\":1}}", "\xff\xfe",
                                       "{\"distanceThreshold\":1e999}", "[-12.5e312]"}) {
            const HttpResult r = fx.client().post(path, body);
            EXPECT_EQ(r.status, 400) << path << " " << body;
            expectErrorBody(r);
        }
        for (const std::string body : {"[]", "\"text\"", "42", "null"}) {
            EXPECT_EQ(fx.client().post(path, body).status, 400) << path << " " << body;
        }
    }
}

TEST_F(HttpErrors, DeepNestingIsABadRequest) {
    const std::string deep = std::string(100000, '[') + std::string(100000, ']');
    const HttpResult r = fx.client().post("/v1/log", "{\"deviceid\":\"D\",\"message\":{\"e\":" + deep + "}}");
    EXPECT_EQ(r.status, 400);
    expectErrorBody(r);
}

TEST_F(HttpErrors, UnknownOrMissingSessionKeys) {
    for (const std::string& path : kSessionEndpoints) {
        const HttpResult unknown = fx.client().post(path, json{{"sessionKey", "no-such-key"}});
        EXPECT_EQ(unknown.status, 401) << path;
        expectErrorBody(unknown);
        EXPECT_EQ(fx.client().post(path, json{{"sessionKey", 12}}).status, 400) << path;
        EXPECT_EQ(fx.client().post(path, json::object()).status, 400) << path;
    }
    // The log endpoint takes no session key.
    EXPECT_EQ(fx.client().post("/v1/log", json{{"deviceid", "D"}, {"message", {{"e", {}}}}}).status, 200);
}

TEST_F(HttpErrors, WrongMemberTypesAreBadRequests) {
    const json session{
        {"deviceId", 5}, {"deviceType", "iOS"}, {"deviceModel", "iPhone"}, {"sdkkey", "test-key"}};
    EXPECT_EQ(fx.client().post("/v1/session", session).status, 400);
    EXPECT_EQ(fx.client()
                  .post("/v1/session", json{{"deviceId", "D"}, {"sdkkey", "test-key"}, {"deviceModel", 1}})
                  .status,
              400);
    EXPECT_EQ(fx.client().post("/v1/session", json{{"deviceId", ""}, {"sdkkey", "test-key"}}).status, 400);
    EXPECT_EQ(fx.client().post("/v1/session", json{{"deviceId", "D"}}).status, 400);
    const HttpResult r = fx.client().post(
        "/v1/deviceevent/update", json{{"sessionKey", key}, {"deviceEventId", {1}}, {"statusCode", "seen"}});
    EXPECT_EQ(r.status, 400);
    expectErrorBody(r);
}

TEST_F(HttpErrors, BodiesOverOneMebibyteAreTooLarge) {
    const std::string filler(1024 * 1024 + 1, 'x');
    const HttpResult r = fx.client().post("/v1/log", filler);
    EXPECT_EQ(r.status, 413);
    expectErrorBody(r);
    // Just under the limit is fine, and the server keeps serving afterwards.
    const std::string text(1024 * 1024 - 200, 'y');
    const HttpResult big =
        fx.client().post("/v1/deviceevent/clear", json{{"sessionKey", key}, {"padding", text}}.dump());
    EXPECT_EQ(big.status, 200) << big.body.substr(0, 200);
    EXPECT_EQ(fx.places(key, 48.137, 11.575).status, 200);
}

TEST_F(HttpErrors, OversizedBodyWithExpectContinueIsRefusedBeforeItIsSent) {
    const std::string filler(2 * 1024 * 1024, 'x');
    const HttpResult r = fx.client().request("POST", "/v1/log", filler, {"Expect: 100-continue"});
    EXPECT_EQ(r.status, 413);
    const HttpResult ok = fx.client().request(
        "POST", "/v1/log", json{{"deviceid", "D"}, {"message", {{"e", std::string(200000, 'z')}}}}.dump(),
        {"Expect: 100-continue"});
    EXPECT_EQ(ok.status, 200);
}

TEST_F(HttpErrors, UnknownPathsAreNotFound) {
    for (const std::string path : {"/v1/nothing", "/v3/place", "/v1/session/extra", "/v1", "/v1/%ff\xfe"}) {
        const HttpResult r = fx.client().post(path, json{{"sessionKey", key}});
        EXPECT_EQ(r.status, 404) << path;
        expectErrorBody(r);
    }
}

TEST_F(HttpErrors, WrongMethodsAreNotAllowed) {
    for (const std::string& path : kAllEndpoints) {
        for (const std::string method : {"GET", "PUT", "DELETE", "PATCH"}) {
            const HttpResult r = fx.client().request(method, path, "{}");
            EXPECT_EQ(r.status, 405) << method << " " << path;
            EXPECT_EQ(r.allow, "POST");
            expectErrorBody(r);
        }
    }
    const HttpResult onPage = fx.client().post("/appcontent/about.html", "{}");
    EXPECT_EQ(onPage.status, 405);
    EXPECT_EQ(onPage.allow, "GET, HEAD");
}

TEST_F(HttpErrors, GarbageHttpIsABadRequest) {
    RawConnection raw(fx.port());
    ASSERT_TRUE(raw.connected());
    raw.send("THIS IS NOT HTTP\r\n\r\n");
    const std::string answer = raw.readAll(5000);
    EXPECT_EQ(answer.rfind("HTTP/1.1 400", 0), 0u) << answer;
    EXPECT_TRUE(raw.closed());
}

// The Content-Length of an answer's head, or -1.
long contentLength(const std::string& head) {
    const std::size_t at = head.find("\r\nContent-Length: ");
    return at == std::string::npos ? -1 : std::stol(head.substr(at + 18));
}

// HEAD gets the head GET would get and no body, whatever the answer: a body would be read as the start
// of the next answer on the connection.
TEST(HeadRequests, AreAnsweredWithoutABodyOnEveryRouteOfBothListeners) {
    ServerFixture::Options options;
    options.configure = [](ServerOptions& o) {
        o.adminAddress = "127.0.0.1";
        o.adminToken = "0123456789abcdef-admin";
    };
    ServerFixture fx(options);
    std::vector<std::pair<uint16_t, std::string>> targets;
    for (const ApiRoute& route : kApiRoutes) {
        targets.emplace_back(fx.port(), std::string(route.path));
    }
    for (const char* path : {"/appcontent/help.html", "/appcontent/missing.html", "/nothing", "/media/%zz"}) {
        targets.emplace_back(fx.port(), path);
    }
    for (const char* path : {"/healthz", "/readyz", "/metrics", "/admin/v1/apps", "/nothing"}) {
        targets.emplace_back(fx.adminPort(), path);
    }
    for (const auto& [port, path] : targets) {
        RawConnection raw(port);
        ASSERT_TRUE(raw.connected());
        raw.send("HEAD " + path + " HTTP/1.1\r\nHost: x\r\n\r\nGET /nothing HTTP/1.1\r\nHost: x\r\n\r\n");
        std::string both;
        for (int i = 0;
             i < 100 && !raw.closed() && both.find("\r\n\r\n", both.find("HTTP/1.1", 1)) == std::string::npos;
             ++i) {
            both += raw.readAll(50);
        }
        const std::size_t headEnd = both.find("\r\n\r\n");
        ASSERT_NE(headEnd, std::string::npos) << path;
        const std::string head = both.substr(0, headEnd);
        EXPECT_GE(contentLength(head), 0) << path << "\n" << head;
        if (head.find("Connection: close") != std::string::npos) {
            EXPECT_EQ(both.size(), headEnd + 4) << path << "\n" << both.substr(0, 400);
        } else {
            // The second answer starts right after the first head.
            EXPECT_EQ(both.compare(headEnd + 4, 9, "HTTP/1.1 "), 0) << path << "\n" << both.substr(0, 400);
        }
    }
}

TEST_F(HttpErrors, QueryStringsDoNotChangeTheEndpoint) {
    const HttpResult r =
        fx.client().post("/v1/log?x=1", json{{"deviceid", "D"}, {"message", {{"e", 1}}}}.dump());
    EXPECT_EQ(r.status, 200);
}

class Connections : public ::testing::Test {};

TEST_F(Connections, KeepAliveReusesTheConnection) {
    ServerFixture fx;
    const std::string key = fx.startSession("D");
    const HttpResult first = fx.places(key, 48.137, 11.575);
    const HttpResult second = fx.places(key, 48.137, 11.575);
    EXPECT_EQ(first.status, 200);
    EXPECT_EQ(second.status, 200);
    EXPECT_EQ(second.connects, 0);
    // An error answer does not cost the connection either.
    EXPECT_EQ(fx.client().post("/v1/nothing", "{}").status, 404);
    EXPECT_EQ(fx.client().post("/v1/log", "{").connects, 0);
}

TEST_F(Connections, SilentConnectionsAreClosedAfterTheTimeout) {
    ServerFixture::Options options;
    options.fileDatabase = false;
    options.requestTimeoutSeconds = 1;
    ServerFixture fx(options);
    RawConnection idle(fx.port());
    ASSERT_TRUE(idle.connected());
    idle.readAll(8000);
    EXPECT_TRUE(idle.closed());

    RawConnection slow(fx.port());
    slow.send("POST /v1/log HTTP/1.1\r\nHost: x\r\nContent-Length: 100\r\n\r\n{\"devi");
    slow.readAll(8000);
    EXPECT_TRUE(slow.closed());
    EXPECT_EQ(fx.client().post("/v1/log", json{{"deviceid", "D"}, {"message", {{"e", 1}}}}.dump()).status,
              200);
    // Each request moves the deadline: a connection that keeps asking outlives the first one's.
    for (int i = 0; i < 6; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        const HttpResult again =
            fx.client().post("/v1/log", json{{"deviceid", "D"}, {"message", {{"e", i}}}}.dump());
        EXPECT_EQ(again.status, 200);
        EXPECT_EQ(again.connects, 0) << "request " << i << " needed a new connection";
    }
}

TEST_F(Connections, PipelinedRequestsAreAnsweredInOrder) {
    ServerFixture fx;
    RawConnection raw(fx.port());
    const std::string body = R"({"deviceid":"D","message":{"e":1}})";
    const std::string request =
        "POST /v1/log HTTP/1.1\r\nHost: x\r\nContent-Type: application/json\r\nContent-Length: " +
        std::to_string(body.size()) + "\r\n\r\n" + body;
    raw.send(request + request + "GET /nothing HTTP/1.1\r\nHost: x\r\nConnection: close\r\n\r\n");
    const std::string answer = raw.readAll(5000);
    EXPECT_EQ(answer.rfind("HTTP/1.1 200", 0), 0u);
    EXPECT_NE(answer.find("HTTP/1.1 200", 10), std::string::npos);
    EXPECT_NE(answer.find("HTTP/1.1 404"), std::string::npos);
    EXPECT_TRUE(raw.closed());
}

TEST_F(Connections, StopClosesIdleConnectionsAndFreesThePort) {
    auto fx = std::make_unique<ServerFixture>();
    const std::string key = fx->startSession("D");
    RawConnection idle(fx->port());
    ASSERT_TRUE(idle.connected());
    EXPECT_EQ(fx->places(key, 48.137, 11.575).status, 200);
    const uint16_t port = fx->port();
    fx->server().stop();
    idle.readAll(5000);
    EXPECT_TRUE(idle.closed());
    EXPECT_EQ(fx->server().port(), 0);
    RawConnection refused(port);
    EXPECT_FALSE(refused.connected());
    // Stopping twice is harmless, and the server can serve again.
    fx->server().stop();
    HttpClient again(fx->server().start());
    EXPECT_EQ(again.post("/v1/log", json{{"deviceid", "D"}, {"message", {{"e", 1}}}}.dump()).status, 200);
}

TEST(ServerLifecycle, StartFailsClearlyWhenThePortIsTaken) {
    ServerFixture fx;
    ServerOptions options;
    options.port = fx.port();
    Server second(options);
    try {
        second.start();
        FAIL() << "start() succeeded on a taken port";
    } catch (const std::runtime_error& e) {
        EXPECT_NE(std::string(e.what()).find("cannot listen on 127.0.0.1:" + std::to_string(fx.port())),
                  std::string::npos)
            << e.what();
    }
}

}  // namespace
TEST(ConnectionLimits, OneClientCannotLockTheOthersOutAndTheTotalIsCapped) {
    ServerFixture::Options options;
    options.maxConnections = 5;
    options.maxConnectionsPerAddress = 3;
    ServerFixture fx(options);
    const auto refusedAt = [&](const char* from) {
        RawConnection extra(fx.port(), from);
        const std::string answer = extra.readAll(3000);
        return answer.rfind("HTTP/1.1 503", 0) == 0 && answer.find("Retry-After: 1") != std::string::npos &&
               answer.find("too many connections") != std::string::npos;
    };
    std::vector<std::unique_ptr<RawConnection>> idle;
    for (int i = 0; i < 3; ++i) {
        idle.push_back(std::make_unique<RawConnection>(fx.port(), "127.0.0.1"));
        ASSERT_TRUE(idle.back()->connected());
    }
    EXPECT_TRUE(refusedAt("127.0.0.1"));
    // Another client still gets in, up to the total.
    for (int i = 0; i < 2; ++i) {
        idle.push_back(std::make_unique<RawConnection>(fx.port(), "127.0.0.2"));
    }
    EXPECT_TRUE(refusedAt("127.0.0.3"));
    // A closed connection frees its place: a request is served again.
    idle.erase(idle.begin());
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    bool served = false;
    while (!served && std::chrono::steady_clock::now() < deadline) {
        RawConnection next(fx.port(), "127.0.0.1");
        next.send("GET /appcontent/help.html HTTP/1.1\r\nHost: x\r\nConnection: close\r\n\r\n");
        served = next.readAll(2000).rfind("HTTP/1.1 200", 0) == 0;
    }
    EXPECT_TRUE(served);
}

TEST(ConnectionLimits, ANetworkIsCappedAsAWholeWhenAskedTo) {
    ServerFixture::Options options;
    options.maxConnectionsPerAddress = 3;
    options.configure = [](ServerOptions& o) { o.maxConnectionsPerPrefix = 4; };
    ServerFixture fx(options);
    std::vector<std::unique_ptr<RawConnection>> idle;
    for (const char* from : {"127.0.0.1", "127.0.0.1", "127.0.0.1", "127.0.0.2"}) {
        idle.push_back(std::make_unique<RawConnection>(fx.port(), from));
        ASSERT_TRUE(idle.back()->connected());
    }
    const auto served = [&](const char* from) {
        RawConnection next(fx.port(), from);
        next.send("GET /appcontent/help.html HTTP/1.1\r\nHost: x\r\nConnection: close\r\n\r\n");
        return next.readAll(3000).rfind("HTTP/1.1 200", 0) == 0;
    };
    // A fifth address of the same /24 is refused; another network is not.
    EXPECT_FALSE(served("127.0.0.3"));
    EXPECT_TRUE(served("127.0.1.1"));
}

// The admin listener must answer probes whatever other clients hold: idle connections give way to new
// ones, a request without the token is refused before its body, and the token's holders are capped.
TEST(AdminListener, ProbesAnswerWhileItsConnectionsAreHeldIdleOrUploading) {
    constexpr const char* kToken = "0123456789abcdef-admin";
    ServerFixture::Options options;
    options.configure = [](ServerOptions& o) {
        o.adminAddress = "127.0.0.1";
        o.adminToken = kToken;
    };
    ServerFixture fx(options);
    std::vector<std::unique_ptr<RawConnection>> held;
    for (int i = 0; i < Server::kAdminConnections; ++i) {
        held.push_back(std::make_unique<RawConnection>(fx.adminPort()));
        // Half of them trickle a header that never ends.
        if (i % 2 == 0) {
            held.back()->send("GET /metrics HTTP/1.1\r\nHost: x\r\n");
        }
    }
    std::vector<std::unique_ptr<RawConnection>> uploads;
    for (int i = 0; i < AdminHandler::kMaxAdminRequests; ++i) {
        uploads.push_back(std::make_unique<RawConnection>(fx.adminPort()));
        uploads.back()->send(
            std::string("POST /admin/v1/places HTTP/1.1\r\nHost: x\r\nAuthorization: Bearer ") + kToken +
            "\r\nContent-Length: 100000\r\n\r\n{");
    }
    HttpClient probes(fx.adminPort());
    EXPECT_EQ(probes.get("/healthz").status, 200);
    EXPECT_EQ(probes.get("/metrics").status, 200);
    EXPECT_EQ(probes.get("/readyz").status, 200);

    const auto firstLine = [&](const std::string& request) {
        RawConnection raw(fx.adminPort());
        raw.send(request);
        const std::string answer = raw.readAll(3000);
        return answer.substr(0, answer.find("\r\n"));
    };
    // Over the cap of uploads at once, and without the token: refused before a byte of the body.
    EXPECT_EQ(firstLine(std::string("POST /admin/v1/places HTTP/1.1\r\nHost: x\r\nAuthorization: bearer ") +
                        kToken + "\r\nContent-Length: 1000000\r\n\r\n"),
              "HTTP/1.1 503 Service Unavailable");
    EXPECT_EQ(firstLine("POST /admin/v1/places HTTP/1.1\r\nHost: x\r\nContent-Length: 1000000\r\n\r\n"),
              "HTTP/1.1 401 Unauthorized");
    uploads.clear();
    EXPECT_TRUE(tovrel::test::waitUntil(
        [&] {
            return probes
                       .request("GET", "/admin/v1/apps", {}, {std::string("Authorization: Bearer ") + kToken})
                       .status == 200;
        },
        std::chrono::seconds(5)));
}

TEST(RateLimits, AClientOverItsBudgetIsToldToSlowDownAndOthersAreNot) {
    ServerFixture::Options options;
    options.rateLimit = 5;  // bursts of 10
    ServerFixture fx(options);
    int tooMany = 0;
    for (int i = 0; i < 30; ++i) {
        const HttpResult r = fx.client().get("/appcontent/help.html");
        tooMany += r.status == 429 ? 1 : 0;
        if (r.status == 429) {
            EXPECT_TRUE(r.parsed().contains("error")) << r.body;
        }
    }
    EXPECT_GE(tooMany, 15);
    // The refused requests still left the connection usable for the answer, and a second later the
    // budget is back.
    std::this_thread::sleep_for(std::chrono::milliseconds(1200));
    EXPECT_EQ(fx.client().get("/appcontent/help.html").status, 200);
    RawConnection other(fx.port(), "127.0.0.2");
    other.send("GET /appcontent/help.html HTTP/1.1\r\nHost: x\r\nConnection: close\r\n\r\n");
    EXPECT_EQ(other.readAll(2000).rfind("HTTP/1.1 200", 0), 0u);
}

}  // namespace tovrel::server::test
