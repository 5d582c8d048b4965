#include <gtest/gtest.h>

#include "client_fixture.h"

namespace tovrel::curl::test {
namespace {

using platform::HttpErrorKind;
using platform::HttpRequest;

class SendTest : public ClientFixture {
  protected:
    FaultServer server;
    CurlHttpClient client{loop};
};

TEST_F(SendTest, GetCarriesHeadersAndCacheBypass) {
    HttpRequest request = requestTo(server.url("/text"));
    request.headers = {{"X-Trace", "abc 1"}, {"X-Empty", ""}};
    request.ignoreCache = true;
    auto response = send(client, request);

    ASSERT_FALSE(response.error) << response.error->localizedDescription;
    EXPECT_EQ(response.status, 200);
    EXPECT_EQ(response.contentType, "text/html; charset=utf-8");
    EXPECT_EQ(response.body, "<html>hello</html>");
    auto received = server.received();
    ASSERT_EQ(received.size(), 1U);
    EXPECT_EQ(received[0].method, "GET");
    EXPECT_EQ(received[0].header("x-trace"), "abc 1");
    EXPECT_EQ(received[0].headers.count("x-empty"), 1U);
    EXPECT_EQ(received[0].header("cache-control"), "no-cache");
    EXPECT_EQ(received[0].header("pragma"), "no-cache");
    EXPECT_EQ(received[0].header("user-agent"), "Tovrel/1.2.4");
    EXPECT_TRUE(received[0].body.empty());
}

TEST_F(SendTest, WithoutIgnoreCacheNoCacheHeadersAreSent) {
    auto response = send(client, requestTo(server.url("/text")));
    ASSERT_FALSE(response.error);
    auto received = server.received();
    ASSERT_EQ(received.size(), 1U);
    EXPECT_EQ(received[0].headers.count("cache-control"), 0U);
    EXPECT_EQ(received[0].headers.count("pragma"), 0U);
}

TEST_F(SendTest, PostSendsTheBodyAndHeadersAsGiven) {
    HttpRequest request = requestTo(server.url("/json"), "POST");
    request.headers = {{"Content-Type", "application/x-www-form-urlencoded"}, {"User-Agent", "HostApp/3"}};
    request.body = "a=1&b=two";
    auto response = send(client, request);
    ASSERT_FALSE(response.error);
    EXPECT_EQ(response.body, "a=1&b=two");
    auto received = server.received();
    ASSERT_EQ(received.size(), 1U);
    EXPECT_EQ(received[0].method, "POST");
    EXPECT_EQ(received[0].header("content-type"), "application/x-www-form-urlencoded");
    EXPECT_EQ(received[0].header("user-agent"), "HostApp/3");
    EXPECT_EQ(received[0].body, "a=1&b=two");
}

TEST_F(SendTest, AnyStatusIsAResponseNotAnError) {
    for (auto [path, status] : {std::pair{"/404", 404}, std::pair{"/503", 503}, std::pair{"/empty", 200}}) {
        auto response = send(client, requestTo(server.url(path)));
        EXPECT_FALSE(response.error) << path;
        EXPECT_EQ(response.status, status) << path;
    }
    EXPECT_EQ(send(client, requestTo(server.url("/404"))).body, "no such page");
}

TEST_F(SendTest, RedirectsAreFollowed) {
    auto response = send(client, requestTo(server.url("/redirect")));
    ASSERT_FALSE(response.error);
    EXPECT_EQ(response.status, 200);
    EXPECT_EQ(response.body, "<html>hello</html>");
}

TEST_F(SendTest, RequestTimeoutIsItsOwn) {
    HttpRequest request = requestTo(server.url("/hang"));
    request.timeoutSeconds = 0.5;
    auto response = send(client, request);
    ASSERT_TRUE(response.error);
    EXPECT_EQ(response.error->kind, HttpErrorKind::kTimeout);
    EXPECT_EQ(response.error->localizedDescription,
              "The request to " + server.hostPort() + " timed out after 0.5 s.");
}

TEST_F(SendTest, TransportFailuresFillTheError) {
    auto reset = send(client, requestTo(server.url("/reset")));
    ASSERT_TRUE(reset.error);
    EXPECT_EQ(reset.error->kind, HttpErrorKind::kTransport);
    auto truncated = send(client, requestTo(server.url("/truncated")));
    ASSERT_TRUE(truncated.error);
    EXPECT_EQ(truncated.error->code, 18);
    EXPECT_EQ(truncated.status, 200);
}

TEST_F(SendTest, HeaderThatWouldSplitTheRequestIsRefused) {
    for (auto header :
         {std::pair<std::string, std::string>{"X-A", "1\r\nX-Injected: yes"},
          std::pair<std::string, std::string>{"", "v"}, std::pair<std::string, std::string>{"X:B", "v"}}) {
        HttpRequest request = requestTo(server.url("/text"));
        request.headers = {header};
        auto response = send(client, request);
        ASSERT_TRUE(response.error);
        EXPECT_EQ(response.error->kind, HttpErrorKind::kTransport);
    }
    EXPECT_TRUE(server.received().empty());
}

}  // namespace
}  // namespace tovrel::curl::test
