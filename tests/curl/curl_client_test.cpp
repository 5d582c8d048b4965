#include <gtest/gtest.h>

#include "client_fixture.h"

namespace tovrel::curl::test {
namespace {

using platform::HttpErrorKind;

class PostJsonTest : public ClientFixture {
  protected:
    FaultServer server;
    CurlHttpClient client{loop, CurlOptions{.totalTimeoutSeconds = 1}};
};

TEST_F(PostJsonTest, SendsAJsonPostAndReturnsTheParsedAnswer) {
    const nlohmann::json body = {{"sdkKey", "k-1"}, {"lat", 40.5}, {"tags", {"a", "ü"}}};
    auto result = post(client, server.url("/json?v=1"), body);

    ASSERT_TRUE(result.ok()) << result.error->localizedDescription;
    EXPECT_EQ(result.status, 200);
    EXPECT_EQ(valueOf(result), body);
    auto received = server.received();
    ASSERT_EQ(received.size(), 1U);
    const auto& request = received[0];
    EXPECT_EQ(request.method, "POST");
    EXPECT_EQ(request.path, "/json?v=1");
    EXPECT_EQ(request.header("content-type"), "application/json");
    EXPECT_EQ(request.header("accept"), "application/json");
    EXPECT_EQ(request.header("user-agent"), "Tovrel/1.2.4");
    EXPECT_EQ(request.header("expect"), "");
    EXPECT_EQ(nlohmann::json::parse(request.body), body);
}

TEST_F(PostJsonTest, JsonFragmentsAreSuccessfulAnswers) {
    auto number = post(client, server.url("/number"));
    ASSERT_TRUE(number.ok());
    EXPECT_EQ(valueOf(number), 1);
    auto text = post(client, server.url("/string"));
    ASSERT_TRUE(text.ok());
    EXPECT_EQ(valueOf(text), "x");
}

TEST_F(PostJsonTest, ServiceUnavailableIsAStatusErrorQuotingTheServer) {
    auto result = post(client, server.url("/503"));
    ASSERT_FALSE(result.ok());
    EXPECT_EQ(result.error->kind, HttpErrorKind::kStatus);
    EXPECT_EQ(result.error->code, 503);
    EXPECT_EQ(result.status, 503);
    EXPECT_EQ(result.error->localizedDescription,
              R"(The server answered 503 Service Unavailable: "maintenance window".)");
}

TEST_F(PostJsonTest, NotFoundWithAPlainBodyIsAStatusError) {
    auto result = post(client, server.url("/404"));
    ASSERT_FALSE(result.ok());
    EXPECT_EQ(result.error->kind, HttpErrorKind::kStatus);
    EXPECT_EQ(result.status, 404);
    EXPECT_EQ(result.error->localizedDescription, "The server answered 404 Not Found.");
}

TEST_F(PostJsonTest, MalformedAndEmptyBodiesAreBadBodies) {
    auto malformed = post(client, server.url("/malformed"));
    ASSERT_FALSE(malformed.ok());
    EXPECT_EQ(malformed.error->kind, HttpErrorKind::kBadBody);
    EXPECT_EQ(malformed.status, 200);
    EXPECT_EQ(malformed.error->localizedDescription,
              "The server's answer is not valid JSON (parse error at byte 9).");

    auto empty = post(client, server.url("/empty"));
    ASSERT_FALSE(empty.ok());
    EXPECT_EQ(empty.error->kind, HttpErrorKind::kBadBody);
    EXPECT_EQ(empty.error->localizedDescription,
              "The server at " + server.hostPort() + " sent an empty answer where JSON was expected.");
}

TEST_F(PostJsonTest, ResetConnectionIsATransportError) {
    auto result = post(client, server.url("/reset"));
    ASSERT_FALSE(result.ok());
    EXPECT_EQ(result.error->kind, HttpErrorKind::kTransport);
    EXPECT_EQ(result.error->localizedDescription,
              "The connection to " + server.hostPort() + " was reset by the server.");
    EXPECT_EQ(server.received().size(), 1U);
}

TEST_F(PostJsonTest, TruncatedBodySaysHowMuchArrived) {
    auto result = post(client, server.url("/truncated"));
    ASSERT_FALSE(result.ok());
    EXPECT_EQ(result.error->kind, HttpErrorKind::kTransport);
    EXPECT_EQ(result.error->code, 18);
    EXPECT_EQ(result.error->localizedDescription,
              "The response from " + server.hostPort() + " ended early (received 12 of 100 bytes).");
}

TEST_F(PostJsonTest, SilentServerTimesOutAfterTheTotalTimeout) {
    auto result = post(client, server.url("/hang"));
    ASSERT_FALSE(result.ok());
    EXPECT_EQ(result.error->kind, HttpErrorKind::kTimeout);
    EXPECT_EQ(result.error->code, 28);
    EXPECT_EQ(result.error->localizedDescription,
              "The request to " + server.hostPort() + " timed out after 1.0 s.");
    EXPECT_TRUE(server.waitForNoConnections(2s)) << "the timed-out connection was left open";
}

TEST_F(PostJsonTest, RefusedConnectionNamesHostAndPort) {
    const std::string hostPort = "127.0.0.1:" + std::to_string(closedPort());
    auto result = post(client, "http://" + hostPort + "/json");
    ASSERT_FALSE(result.ok());
    EXPECT_EQ(result.error->kind, HttpErrorKind::kTransport);
    EXPECT_EQ(result.error->code, 7);
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.error->localizedDescription,
              "Could not connect to " + hostPort + ": connection refused.");
}

TEST_F(PostJsonTest, UnusableAddressesFailWithoutTouchingTheNetwork) {
    for (const char* url : {"", "not a url", "ftp://127.0.0.1/x", "file:///etc/passwd"}) {
        auto result = post(client, url);
        ASSERT_FALSE(result.ok()) << url;
        EXPECT_EQ(result.error->kind, HttpErrorKind::kTransport);
        EXPECT_NE(result.error->localizedDescription.find("is not a valid http or https URL."),
                  std::string::npos);
    }
}

TEST_F(PostJsonTest, SequentialRequestsReuseOneConnection) {
    ASSERT_TRUE(post(client, server.url("/json")).ok());
    ASSERT_TRUE(post(client, server.url("/503")).error.has_value());
    ASSERT_TRUE(post(client, server.url("/json")).ok());
    auto received = server.received();
    ASSERT_EQ(received.size(), 3U);
    EXPECT_EQ(received[0].connection, received[1].connection);
    EXPECT_EQ(received[1].connection, received[2].connection);
}

class ResponseLimitTest : public ClientFixture {
  protected:
    FaultServer server;
};

TEST_F(ResponseLimitTest, AnswerOfExactlyTheLimitIsRead) {
    CurlHttpClient client(loop, CurlOptions{.maxResponseBytes = FaultServer::kBigBodyBytes});
    for (const char* path : {"/big", "/big-unsized"}) {
        auto result = post(client, server.url(path));
        ASSERT_TRUE(result.ok()) << path << ": " << result.error->localizedDescription;
        EXPECT_EQ(valueOf(result).get_ref<const std::string&>().size(), FaultServer::kBigBodyBytes - 2);
    }
}

TEST_F(ResponseLimitTest, AnswerOverTheLimitIsAnErrorWithOrWithoutContentLength) {
    CurlHttpClient client(loop, CurlOptions{.maxResponseBytes = FaultServer::kBigBodyBytes - 1});
    for (const char* path : {"/big", "/big-unsized"}) {
        auto result = post(client, server.url(path));
        ASSERT_FALSE(result.ok()) << path;
        EXPECT_EQ(result.error->kind, HttpErrorKind::kTransport);
        EXPECT_EQ(result.error->localizedDescription,
                  "The response from " + server.hostPort() + " is larger than the limit of 65535 bytes.");
    }
}

}  // namespace
}  // namespace tovrel::curl::test
