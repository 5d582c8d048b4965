#include <gtest/gtest.h>

#include <memory>
#include <thread>
#include <vector>

#include "client_fixture.h"

namespace tovrel::curl::test {
namespace {

using platform::HttpErrorKind;

class ClientLifecycleTest : public ClientFixture {
  protected:
    FaultServer server;
    std::unique_ptr<CurlHttpClient> client = std::make_unique<CurlHttpClient>(loop);
};

TEST_F(ClientLifecycleTest, ConcurrentRequestsFromSeveralThreadsEachCompleteOnce) {
    constexpr int kThreads = 4;
    constexpr int kPerThread = 16;
    constexpr int kTotal = kThreads * kPerThread;
    std::vector<int> calls(kTotal, 0);
    int completed = 0;
    int failures = 0;
    std::vector<std::thread> callers;
    for (int t = 0; t < kThreads; ++t) {
        callers.emplace_back([&, t] {
            for (int i = t * kPerThread; i < (t + 1) * kPerThread; ++i) {
                const bool fails = i % 5 == 0;
                client->postJson(server.url(fails ? "/503" : "/json"), nlohmann::json{{"id", i}}.dump(),
                                 [&, i, fails](platform::JsonResult result) {
                                     EXPECT_TRUE(loop.isMainThread());
                                     ++calls[static_cast<std::size_t>(i)];
                                     ++completed;
                                     if (fails) {
                                         failures += result.ok() ? 0 : 1;
                                         EXPECT_EQ(result.status, 503);
                                     } else {
                                         ASSERT_TRUE(result.ok()) << result.error->localizedDescription;
                                         EXPECT_EQ(valueOf(result)["id"], i);
                                     }
                                 });
            }
        });
    }
    for (auto& caller : callers) {
        caller.join();
    }
    ASSERT_TRUE(loop.runUntil([&] { return completed >= kTotal; }, 15s)) << completed << " of " << kTotal;
    loop.runFor(50ms);
    EXPECT_EQ(completed, kTotal);
    EXPECT_EQ(failures, (kTotal + 4) / 5);
    for (int i = 0; i < kTotal; ++i) {
        EXPECT_EQ(calls[static_cast<std::size_t>(i)], 1) << "request " << i;
    }
    EXPECT_EQ(server.received().size(), static_cast<std::size_t>(kTotal));
}

TEST_F(ClientLifecycleTest, DestroyingTheClientCancelsRequestsInFlight) {
    int cancelled = 0;
    int calls = 0;
    for (int i = 0; i < 3; ++i) {
        client->postJson(
            server.url("/hang"), nlohmann::json{{"i", i}}.dump(), [&](platform::JsonResult result) {
                EXPECT_TRUE(loop.isMainThread());
                ++calls;
                ASSERT_FALSE(result.ok());
                cancelled += result.error->kind == HttpErrorKind::kCancelled ? 1 : 0;
                EXPECT_EQ(
                    result.error->localizedDescription,
                    "The request to " + server.hostPort() + " was cancelled because the client shut down.");
            });
    }
    client->send(requestTo(server.url("/hang")), [&](platform::HttpResponse response) {
        ++calls;
        ASSERT_TRUE(response.error);
        cancelled += response.error->kind == HttpErrorKind::kCancelled ? 1 : 0;
    });
    ASSERT_TRUE(server.waitForRequests(4, 5s));

    client.reset();
    EXPECT_TRUE(loop.runUntil([&] { return calls >= 4; }, 5s));
    loop.runFor(50ms);
    EXPECT_EQ(calls, 4);
    EXPECT_EQ(cancelled, 4);
    EXPECT_TRUE(server.waitForNoConnections(5s)) << "cancelled transfers left connections open";
}

TEST_F(ClientLifecycleTest, DestroyingRightAfterQueueingCancelsEveryRequestOnce) {
    constexpr int kRequests = 20;
    int calls = 0;
    int cancelled = 0;
    for (int i = 0; i < kRequests; ++i) {
        client->postJson(server.url("/hang"), "{}", [&](platform::JsonResult result) {
            ++calls;
            cancelled += !result.ok() && result.error->kind == HttpErrorKind::kCancelled ? 1 : 0;
        });
    }
    client.reset();
    EXPECT_TRUE(loop.runUntil([&] { return calls >= kRequests; }, 5s));
    loop.runFor(50ms);
    EXPECT_EQ(calls, kRequests);
    EXPECT_EQ(cancelled, kRequests);
}

TEST_F(ClientLifecycleTest, ACompletionMayDestroyTheClient) {
    int hangingCalls = 0;
    bool hangingCancelled = false;
    client->postJson(server.url("/hang"), "{}", [&](platform::JsonResult result) {
        ++hangingCalls;
        hangingCancelled = !result.ok() && result.error->kind == HttpErrorKind::kCancelled;
    });
    ASSERT_TRUE(server.waitForRequests(1, 5s));
    bool answered = false;
    client->postJson(server.url("/json"), "{}", [&](platform::JsonResult result) {
        EXPECT_TRUE(result.ok());
        answered = true;
        client.reset();
    });
    EXPECT_TRUE(loop.runUntil([&] { return answered && hangingCalls > 0; }, 5s));
    loop.runFor(50ms);
    EXPECT_EQ(client, nullptr);
    EXPECT_EQ(hangingCalls, 1);
    EXPECT_TRUE(hangingCancelled);
}

TEST_F(ClientLifecycleTest, IdleClientShutsDownPromptly) {
    ASSERT_TRUE(post(*client, server.url("/json")).ok());
    client.reset();
    loop.runFor(20ms);
    EXPECT_TRUE(server.waitForNoConnections(5s)) << "the pooled connection was not closed";
}

}  // namespace
}  // namespace tovrel::curl::test
