// tovrel-server serving HTTPS, reached by the component's libcurl client with the server's public key
// pinned: the right key is accepted, a different one refused before any request reaches the server.
#include <gtest/gtest.h>

#include "client_fixture.h"
#include "test_certificate.h"
#include "tovrel_server/server.h"

namespace tovrel::curl::test {
namespace {

using platform::HttpErrorKind;

class ServerOverTls : public ClientFixture {
  protected:
    ServerOverTls() {
        tovrel::server::ServerOptions options;
        options.tlsCertificateFile = certificate.certificateFile();
        options.tlsKeyFile = certificate.keyFile();
        server = std::make_unique<tovrel::server::Server>(options);
        server->addApp("tls-key", "TLS");
        base = "https://127.0.0.1:" + std::to_string(server->start());
    }

    CurlOptions pinned(std::vector<std::string> pins) const {
        return CurlOptions{.connectTimeoutSeconds = 5,
                           .totalTimeoutSeconds = 5,
                           .caFile = certificate.certificateFile(),
                           .pinnedPublicKeys = std::move(pins)};
    }

    static nlohmann::json logMessage() { return {{"deviceid", "PINNED"}, {"message", {{"tls_check", 1}}}}; }

    TestCertificate certificate;
    std::unique_ptr<tovrel::server::Server> server;
    std::string base;
};

TEST_F(ServerOverTls, ThePinnedKeyStartsASession) {
    CurlHttpClient client(loop, pinned({unrelatedPin(), certificate.pin()}));
    auto result = post(client, base + "/v1/session", {{"deviceId", "PINNED"}, {"sdkkey", "tls-key"}});
    ASSERT_TRUE(result.ok()) << result.error->localizedDescription;
    EXPECT_EQ(result.value["sessionKey"].get<std::string>().size(), 32u);
}

TEST_F(ServerOverTls, AnotherKeyIsRefusedBeforeAnyRequestIsSent) {
    CurlHttpClient client(loop, pinned({unrelatedPin()}));
    auto result = post(client, base + "/v1/log", logMessage());
    ASSERT_FALSE(result.ok());
    EXPECT_EQ(result.error->kind, HttpErrorKind::kTls);
    EXPECT_EQ(result.error->code, 90);
    EXPECT_TRUE(server->report().logCounts.empty());

    CurlHttpClient trusting(loop, pinned({certificate.pin()}));
    ASSERT_TRUE(post(trusting, base + "/v1/log", logMessage()).ok());
    EXPECT_EQ(server->report().logCounts.at("tls_check"), 1);
}

TEST_F(ServerOverTls, PlainHttpIsNotServed) {
    CurlHttpClient client(loop, CurlOptions{.connectTimeoutSeconds = 5, .totalTimeoutSeconds = 5});
    std::string plain = base;
    plain.replace(0, 5, "http");
    EXPECT_FALSE(post(client, plain + "/v1/session", {{"deviceId", "X"}, {"sdkkey", "tls-key"}}).ok());
}

TEST(ServerTlsFiles, AKeyThatIsNotTheCertificatesIsRefusedAtStart) {
    TestCertificate one;
    TestCertificate other;
    tovrel::server::ServerOptions options;
    options.tlsCertificateFile = one.certificateFile();
    options.tlsKeyFile = other.keyFile();
    tovrel::server::Server server(options);
    try {
        server.start();
        FAIL() << "started with a key that does not match the certificate";
    } catch (const std::runtime_error& e) {
        EXPECT_NE(std::string(e.what()).find("does not match"), std::string::npos) << e.what();
    }
}

}  // namespace
}  // namespace tovrel::curl::test
