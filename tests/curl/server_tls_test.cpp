// tovrel-server serving HTTPS, reached by the component's libcurl client with the server's public key
// pinned: the right key is accepted, a different one refused before any request reaches the server.
#include <gtest/gtest.h>
#include <openssl/bio.h>
#include <openssl/ssl.h>

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
    EXPECT_EQ(valueOf(result)["sessionKey"].get<std::string>().size(), 32u);
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

// Whether a TLS 1.2 handshake offering only `ciphers` completes with 127.0.0.1:port.
bool handshakeCompletes(uint16_t port, const char* ciphers) {
    SSL_CTX* context = SSL_CTX_new(TLS_client_method());
    SSL_CTX_set_max_proto_version(context, TLS1_2_VERSION);
    SSL_CTX_set_cipher_list(context, ciphers);
    BIO* connection = BIO_new_ssl_connect(context);
    BIO_set_conn_hostname(connection, ("127.0.0.1:" + std::to_string(port)).c_str());
    const bool done = BIO_do_handshake(connection) == 1;
    BIO_free_all(connection);
    SSL_CTX_free(context);
    return done;
}

TEST(ServerTlsSuites, TlsOneTwoOffersOnlyForwardSecretAeadSuitesOnBothListeners) {
    TestCertificate certificate;
    tovrel::server::ServerOptions options;
    options.tlsCertificateFile = options.adminTlsCertificateFile = certificate.certificateFile();
    options.tlsKeyFile = options.adminTlsKeyFile = certificate.keyFile();
    options.adminAddress = "127.0.0.1";
    tovrel::server::Server server(options);
    const uint16_t port = server.start();
    for (const uint16_t listener : {port, server.adminPort()}) {
        EXPECT_TRUE(handshakeCompletes(listener, "ECDHE-ECDSA-AES128-GCM-SHA256")) << listener;
        EXPECT_TRUE(handshakeCompletes(listener, "ECDHE-ECDSA-CHACHA20-POLY1305")) << listener;
        // CBC with SHA-1 or SHA-256: no authenticated encryption.
        EXPECT_FALSE(handshakeCompletes(listener, "ECDHE-ECDSA-AES128-SHA")) << listener;
        EXPECT_FALSE(handshakeCompletes(listener, "ECDHE-ECDSA-AES128-SHA256")) << listener;
    }
    server.stop();

    options.tlsCiphers = "ECDHE+AESGCM:ECDHE+AES";
    tovrel::server::Server widened(options);
    EXPECT_TRUE(handshakeCompletes(widened.start(), "ECDHE-ECDSA-AES128-SHA"));
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
