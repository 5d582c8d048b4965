#include "run_guard.h"

#include <utility>

#include "tovrel/protocol.h"

namespace tovrel::sim {

namespace {

bool isSessionStart(const std::string& url) {
    constexpr std::string_view kPath = protocol::kSessionPath;
    return url.size() >= kPath.size() && url.compare(url.size() - kPath.size(), kPath.size(), kPath) == 0;
}

}  // namespace

RunGuard::RunGuard(std::shared_ptr<platform::HttpClient> inner, std::shared_ptr<platform::Clock> clock,
                   Limits limits)
    : inner_(std::move(inner)), clock_(std::move(clock)), limits_(limits) {}

bool RunGuard::admit() {
    if (stop_ != RunStop::kNone) {
        return false;
    }
    const double now = clock_->now();
    requestsAtInstant_ = now == instant_ ? requestsAtInstant_ + 1 : 1;
    instant_ = now;
    if (requestsAtInstant_ > limits_.requestsPerInstant) {
        stopWith(RunStop::kTimeStalled);
        return false;
    }
    return true;
}

void RunGuard::stopWith(RunStop reason) {
    stop_ = reason;
    stoppedAt_ = clock_->now();
}

void RunGuard::postJson(const std::string& url, std::string body, platform::JsonCompletion completion) {
    if (!admit()) {
        return;
    }
    if (!isSessionStart(url)) {
        inner_->postJson(url, std::move(body), std::move(completion));
        return;
    }
    inner_->postJson(url, std::move(body),
                     [this, completion = std::move(completion)](platform::JsonResult result) {
                         if (result.ok()) {
                             sessionStarted_ = true;
                             failedSessions_ = 0;
                         } else {
                             lastSessionError_ = result.error->localizedDescription;
                             if (!sessionStarted_ && ++failedSessions_ >= limits_.sessionAttempts) {
                                 stopWith(RunStop::kSessionNeverStarted);
                             }
                         }
                         if (completion) {
                             completion(std::move(result));
                         }
                     });
}

void RunGuard::send(platform::HttpRequest request, platform::ResponseCompletion completion) {
    if (admit()) {
        inner_->send(std::move(request), std::move(completion));
    }
}

std::string RunGuard::stopMessage() const {
    switch (stop_) {
        case RunStop::kNone:
            return {};
        case RunStop::kSessionNeverStarted:
            return "the session did not start: " + std::to_string(failedSessions_) +
                   " attempts in a row failed (the last: " + lastSessionError_ + ")";
        case RunStop::kTimeStalled:
            return "virtual time stopped advancing: more than " + std::to_string(limits_.requestsPerInstant) +
                   " requests at one instant";
    }
    return {};
}

}  // namespace tovrel::sim
