#include "curl_error.h"

#include <gtest/gtest.h>

#include "curl_transfer.h"
#include "tovrel/curl/curl_options.h"

namespace tovrel::curl {
namespace {

using platform::HttpErrorKind;

constexpr std::string_view kHost = "127.0.0.1:8080";

TEST(TransferFailure, TimeoutSaysWhetherTheConnectionWasEverMade) {
    TransferFailure f;
    f.code = CURLE_OPERATION_TIMEDOUT;
    f.hostPort = kHost;
    f.timeoutSeconds = 30;
    f.connectTimeoutSeconds = 10;
    EXPECT_EQ(describeTransferFailure(f).localizedDescription,
              "Could not connect to 127.0.0.1:8080 within 10.0 s.");
    f.timeoutSeconds = 2.5;
    EXPECT_EQ(describeTransferFailure(f).localizedDescription,
              "Could not connect to 127.0.0.1:8080 within 2.5 s.");
    f.connected = true;
    auto error = describeTransferFailure(f);
    EXPECT_EQ(error.kind, HttpErrorKind::kTimeout);
    EXPECT_EQ(error.code, 28);
    EXPECT_EQ(error.localizedDescription, "The request to 127.0.0.1:8080 timed out after 2.5 s.");
}

TEST(TransferFailure, CodesThatLoopbackCannotProduceStillReadWell) {
    TransferFailure f;
    f.hostPort = "example.invalid:443";
    f.code = CURLE_COULDNT_RESOLVE_HOST;
    EXPECT_EQ(describeTransferFailure(f).localizedDescription,
              "Could not find the server example.invalid:443 (name not resolved).");
    f.code = CURLE_PEER_FAILED_VERIFICATION;
    f.detail = "SSL certificate problem: certificate has expired";
    auto tls = describeTransferFailure(f);
    EXPECT_EQ(tls.kind, HttpErrorKind::kTls);
    EXPECT_EQ(tls.localizedDescription,
              "The certificate of example.invalid:443 could not be verified (certificate has expired).");
    f.code = CURLE_PARTIAL_FILE;
    f.receivedBytes = 7;
    EXPECT_EQ(describeTransferFailure(f).localizedDescription,
              "The response from example.invalid:443 ended early (received 7 bytes).");
    f.code = CURLE_WRITE_ERROR;
    f.responseTooLarge = true;
    f.maxResponseBytes = 8 * 1024 * 1024;
    EXPECT_EQ(describeTransferFailure(f).localizedDescription,
              "The response from example.invalid:443 is larger than the limit of 8 MiB.");
}

TEST(PinnedPublicKeyOption, JoinsPinsWithOnePrefixEach) {
    EXPECT_EQ(pinnedPublicKeyOption({}), "");
    EXPECT_EQ(pinnedPublicKeyOption({"AAA=", " sha256//BBB= ", ""}), "sha256//AAA=;sha256//BBB=");
}

TEST(ParseTarget, NamesHostAndPortWithTheSchemesDefault) {
    EXPECT_EQ(parseTarget("http://example.com/a?b=1")->hostPort, "example.com:80");
    EXPECT_EQ(parseTarget("https://example.com")->hostPort, "example.com:443");
    EXPECT_TRUE(parseTarget("https://example.com")->https);
    EXPECT_EQ(parseTarget("https://[::1]:8443/x")->hostPort, "[::1]:8443");
    EXPECT_EQ(parseTarget("HTTP://127.0.0.1:9/")->hostPort, "127.0.0.1:9");
    for (const char* url : {"", "example.com/a", "ftp://example.com/", "http://", "mailto:a@b.c"}) {
        EXPECT_FALSE(parseTarget(url)) << url;
    }
}

}  // namespace
}  // namespace tovrel::curl
