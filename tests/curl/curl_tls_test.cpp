#include <gtest/gtest.h>

#include "client_fixture.h"
#include "test_certificate.h"

namespace tovrel::curl::test {
namespace {

using platform::HttpErrorKind;

class TlsTest : public ClientFixture {
  protected:
    CurlOptions trusting(std::vector<std::string> pins = {}) const {
        return CurlOptions{.connectTimeoutSeconds = 5,
                           .totalTimeoutSeconds = 5,
                           .caFile = certificate.certificateFile(),
                           .pinnedPublicKeys = std::move(pins)};
    }

    static TestCertificate& sharedCertificate() {
        static TestCertificate instance;
        return instance;
    }

    TestCertificate& certificate = sharedCertificate();
    FaultServer server{certificate.serverContext()};
};

TEST_F(TlsTest, TrustedCertificateWithoutPinsIsAccepted) {
    CurlHttpClient client(loop, trusting());
    auto result = post(client, server.url("/json"), {{"secure", true}});
    ASSERT_TRUE(result.ok()) << result.error->localizedDescription;
    EXPECT_EQ(valueOf(result)["secure"], true);
}

TEST_F(TlsTest, MatchingPinIsAccepted) {
    CurlHttpClient client(loop, trusting({certificate.pin()}));
    auto result = post(client, server.url("/json"));
    ASSERT_TRUE(result.ok()) << result.error->localizedDescription;
}

TEST_F(TlsTest, WrongPinIsRejectedBeforeTheRequestIsSent) {
    CurlHttpClient client(loop, trusting({unrelatedPin()}));
    auto result = post(client, server.url("/json"));
    ASSERT_FALSE(result.ok());
    EXPECT_EQ(result.error->kind, HttpErrorKind::kTls);
    EXPECT_EQ(result.error->code, 90);
    EXPECT_EQ(result.error->localizedDescription, "The server's public key does not match any pinned key.");
    EXPECT_TRUE(server.received().empty());
}

TEST_F(TlsTest, BackupPinMatchingTheServerIsAccepted) {
    CurlHttpClient client(loop, trusting({unrelatedPin(), certificate.pin()}));
    auto result = post(client, server.url("/json"));
    ASSERT_TRUE(result.ok()) << result.error->localizedDescription;
}

TEST_F(TlsTest, SelfSignedServerIsRejectedWithoutItsCaFile) {
    CurlHttpClient client(loop, CurlOptions{.connectTimeoutSeconds = 5, .totalTimeoutSeconds = 5});
    auto result = post(client, server.url("/json"));
    ASSERT_FALSE(result.ok());
    EXPECT_EQ(result.error->kind, HttpErrorKind::kTls);
    EXPECT_TRUE(server.received().empty());
}

TEST_F(TlsTest, RightPinDoesNotReplaceCertificateVerification) {
    CurlHttpClient client(loop,
                          CurlOptions{.totalTimeoutSeconds = 5, .pinnedPublicKeys = {certificate.pin()}});
    auto result = post(client, server.url("/json"));
    ASSERT_FALSE(result.ok());
    EXPECT_EQ(result.error->kind, HttpErrorKind::kTls);
}

TEST_F(TlsTest, ConnectionIsReusedAcrossRequests) {
    CurlHttpClient client(loop, trusting({certificate.pin()}));
    ASSERT_TRUE(post(client, server.url("/json")).ok());
    ASSERT_TRUE(post(client, server.url("/json")).ok());
    auto received = server.received();
    ASSERT_EQ(received.size(), 2U);
    EXPECT_EQ(received[0].connection, received[1].connection);
}

}  // namespace
}  // namespace tovrel::curl::test
