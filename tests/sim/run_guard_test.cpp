#include "run_guard.h"

#include <gtest/gtest.h>

#include <functional>
#include <memory>

#include "tovrel/virtual/recording_http_client.h"
#include "tovrel/virtual/virtual_scheduler.h"

namespace tovrel::sim {
namespace {

using virtualbackend::RecordedRequest;
using virtualbackend::Reply;

/// A client that retries at once whatever fails, as the component's session start does.
struct Retrier {
    std::shared_ptr<platform::HttpClient> http;
    std::string url;
    int attempts = 0;
    void start() {
        ++attempts;
        http->postJson(url, "{}", [this](const platform::JsonResult& result) {
            if (!result.ok()) {
                start();
            }
        });
    }
};

class RunGuardTest : public ::testing::Test {
  protected:
    std::shared_ptr<virtualbackend::VirtualScheduler> scheduler =
        std::make_shared<virtualbackend::VirtualScheduler>();
    std::shared_ptr<virtualbackend::RecordingHttpClient> recording =
        std::make_shared<virtualbackend::RecordingHttpClient>(scheduler);

    void answerEverything(int status) {
        recording->setResponder([status](const RecordedRequest&) {
            return Reply::json(status, {{"error", "unknown sdkkey"}});
        });
    }
};

TEST_F(RunGuardTest, ASessionThatNeverStartsEndsAfterTheLimitWithTheLastError) {
    answerEverything(401);
    auto guard = std::make_shared<RunGuard>(recording, scheduler, RunGuard::Limits{5, 10'000});
    Retrier session{guard, "http://127.0.0.1:1/v1/session"};
    session.start();
    scheduler->runUntilIdle();  // returns: the fifth failure is not followed by a sixth request
    EXPECT_EQ(session.attempts, 6);
    EXPECT_EQ(recording->requestsTo("/v1/session").size(), 5u);
    EXPECT_EQ(guard->stop(), RunStop::kSessionNeverStarted);
    EXPECT_NE(guard->stopMessage().find("5 attempts in a row failed"), std::string::npos)
        << guard->stopMessage();
    EXPECT_NE(guard->stopMessage().find("401"), std::string::npos) << guard->stopMessage();

    // Nothing is answered any more, whatever the path.
    bool answered = false;
    guard->postJson("http://127.0.0.1:1/v2/place", "{}",
                    [&](const platform::JsonResult&) { answered = true; });
    scheduler->runUntilIdle();
    EXPECT_FALSE(answered);
}

TEST_F(RunGuardTest, FailuresAfterASessionStartedDoNotEndTheRun) {
    int calls = 0;
    recording->setResponder([&calls](const RecordedRequest&) {
        return ++calls == 1 ? Reply::json(200, {{"sessionKey", "k"}}) : Reply::json(500, {{"error", "busy"}});
    });
    auto guard = std::make_shared<RunGuard>(recording, scheduler, RunGuard::Limits{2, 10'000});
    for (int i = 0; i < 5; ++i) {
        guard->postJson("http://127.0.0.1:1/v1/session", "{}", nullptr);
        scheduler->fastForwardBy(60);
    }
    EXPECT_EQ(guard->stop(), RunStop::kNone);
    EXPECT_EQ(recording->requestsTo("/v1/session").size(), 5u);
}

TEST_F(RunGuardTest, RequestsWithoutEndAtOneInstantAreAStall) {
    answerEverything(503);
    auto guard = std::make_shared<RunGuard>(recording, scheduler, RunGuard::Limits{5, 100});
    Retrier places{guard, "http://127.0.0.1:1/v2/place"};
    places.start();
    scheduler->runUntilIdle();
    EXPECT_EQ(guard->stop(), RunStop::kTimeStalled);
    EXPECT_EQ(recording->requestsTo("/v2/place").size(), 100u);
    EXPECT_DOUBLE_EQ(guard->stoppedAt(), scheduler->now());

    // The same number spread over time is no stall.
    auto spread = std::make_shared<RunGuard>(recording, scheduler, RunGuard::Limits{5, 100});
    for (int i = 0; i < 300; ++i) {
        spread->postJson("http://127.0.0.1:1/v2/place", "{}", nullptr);
        scheduler->fastForwardBy(1);
    }
    EXPECT_EQ(spread->stop(), RunStop::kNone);
}

}  // namespace
}  // namespace tovrel::sim
