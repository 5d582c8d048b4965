// Outgoing webhooks' parts: signatures checked against Python's hmac, the retry schedule and Retry-After,
// which addresses and URLs an endpoint may have, and the sender against a receiver on 127.0.0.1.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <chrono>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <limits>
#include <memory>
#include <nlohmann/json.hpp>
#include <set>
#include <string>
#include <vector>

#include "support/child_process.h"
#include "support/loopback_port.h"
#include "support/temp_dir.h"
#include "webhooks/address_policy.h"
#include "webhooks/retry_schedule.h"
#include "webhooks/sender.h"
#include "webhooks/signature.h"

namespace tovrel::server::webhooks {
namespace {

using nlohmann::json;
using tovrel::test::ChildProcess;
using tovrel::test::TempDir;

// Vectors computed with Python's hmac and base64, not with the code under test.
constexpr const char* kKeyOfBytes0To31 = "whsec_AAECAwQFBgcICQoLDA0ODxAREhMUFRYXGBkaGxwdHh8=";
constexpr const char* kOtherSecret = "whsec_MfKQ9r8GKYqrTwjUPD8ILPZIo2LaLaSw";

TEST(Signature, MatchesPythonHmacAndThePublishedExample) {
    EXPECT_EQ(sign(kKeyOfBytes0To31, "msg_0123456789abcdefghijKLMN", 1700000000,
                   "{\"type\":\"offer.shown\",\"data\":{\"place\":42,\"name\":\"Caf\xC3\xA9\"}}"),
              "v1,sjb5ikTuik8OuwrP5XJRqcHdNqPvzmLBU1VebNIzFBs=");
    EXPECT_EQ(sign(kOtherSecret, "msg_p5jXN8AQM9LWM0D4loKWxJek", 1614265330, "{\"test\": 2432232314}"),
              "v1,g0hM9SsE+OTPJTGt/tmIKtSyZlE3uFJELVlNIOLJ1OE=");
    // Padding is optional: the same key without its '='.
    EXPECT_EQ(sign("whsec_AAECAwQFBgcICQoLDA0ODxAREhMUFRYXGBkaGxwdHh8", "msg_x", 1, "{}"),
              sign(kKeyOfBytes0To31, "msg_x", 1, "{}"));
}

TEST(Signature, RefusesSecretsThatAreNotPrefixedBase64Keys) {
    for (const char* secret : {"MfKQ9r8GKYqrTwjUPD8ILPZIo2LaLaSw", "WHSEC_MfKQ9r8GKYqrTwjUPD8ILPZIo2LaLaSw",
                               "whsec_", "whsec_MfKQ9r8GKYqrTwjUPD8ILPZIo2LaLaS$", "whsec_A",
                               "whsec_QR==", "whsec_QQ==QQ==", "whsec_ MfKQ9r8GKYqrTwjUPD8ILPZIo2LaLaSw"}) {
        EXPECT_THROW(sign(secret, "msg_x", 1, "{}"), std::invalid_argument) << secret;
    }
}

TEST(Signature, NewSecretsAndIdsHaveTheirShapeAndDiffer) {
    const std::string secret = newSecret();
    ASSERT_TRUE(secret.starts_with("whsec_"));
    std::string key;
    ASSERT_TRUE(base64Decode(secret.substr(6), key));
    EXPECT_EQ(key.size(), 32U);
    EXPECT_NE(newSecret(), secret);
    EXPECT_EQ(sign(secret, "msg_x", 1, "{}").size(), 3U + 44U);

    std::set<std::string> ids;
    std::set<char> characters;
    for (int i = 0; i < 1000; ++i) {
        const std::string id = newMessageId();
        ASSERT_EQ(id.size(), 28U);
        ASSERT_TRUE(id.starts_with("msg_"));
        ids.insert(id);
        characters.insert(id.begin() + 4, id.end());
    }
    EXPECT_EQ(ids.size(), 1000U);
    // All 62 characters of [0-9a-zA-Z] come up, and nothing else.
    EXPECT_EQ(characters.size(), 62U);
    EXPECT_TRUE(
        std::all_of(characters.begin(), characters.end(), [](char c) { return std::isalnum(c) != 0; }));
}

TEST(Signature, HintShowsOnlyTheLastFourOfALongEnoughSecret) {
    EXPECT_EQ(secretHint(kOtherSecret), "\xE2\x80\xA6LaSw");
    EXPECT_EQ(secretHint("12345678"),
              "\xE2\x80\xA6"
              "5678");
    EXPECT_EQ(secretHint("1234567"), "\xE2\x80\xA6");
    EXPECT_EQ(secretHint(""), "\xE2\x80\xA6");
}

TEST(RetrySchedule, DelaysFollowTheScheduleWithinTenPercent) {
    EXPECT_EQ(retryDelay(0, 0.5), 0.0);
    EXPECT_EQ(retryDelay(-1, 0.5), 0.0);
    const double hour = 3600;
    const std::array<double, 9> expected{5,         300,       1800,      2 * hour, 5 * hour,
                                         10 * hour, 14 * hour, 20 * hour, 24 * hour};
    for (int failed = 1; failed <= 9; ++failed) {
        const double scheduled = expected[static_cast<std::size_t>(failed - 1)];
        ASSERT_TRUE(retryDelay(failed, 0.5)) << failed;
        EXPECT_NEAR(*retryDelay(failed, 0.5), scheduled, scheduled * 1e-12) << failed;
        EXPECT_NEAR(*retryDelay(failed, 0), scheduled * 0.9, scheduled * 1e-12) << failed;
        EXPECT_GT(*retryDelay(failed, 0.999), scheduled * 1.0995) << failed;
        EXPECT_LT(*retryDelay(failed, 0.999), scheduled * 1.1) << failed;
    }
    // Ten attempts in all: the tenth failure ends it.
    EXPECT_FALSE(retryDelay(10, 0.5));
    EXPECT_FALSE(retryDelay(11, 0));
    EXPECT_FALSE(retryDelay(std::numeric_limits<int>::max(), 0));
    // A bad draw stays inside the band.
    EXPECT_DOUBLE_EQ(*retryDelay(1, std::nan("")), 4.5);
    EXPECT_DOUBLE_EQ(*retryDelay(1, -3), 4.5);
    EXPECT_DOUBLE_EQ(*retryDelay(1, 7), 5.5);
}

TEST(RetrySchedule, RetryAfterReadsSecondsAndTheThreeDateForms) {
    const double now = 1700000000;  // Tue, 14 Nov 2023 22:13:20 GMT
    EXPECT_EQ(parseRetryAfter("120", now), 120.0);
    EXPECT_EQ(parseRetryAfter(" \t120 ", now), 120.0);
    EXPECT_EQ(parseRetryAfter("0", now), 0.0);
    EXPECT_EQ(parseRetryAfter("86400", now), 86400.0);
    EXPECT_EQ(parseRetryAfter("86401", now), 86400.0);
    EXPECT_EQ(parseRetryAfter("999999999999999999999999999999", now), 86400.0);

    EXPECT_EQ(parseRetryAfter("Tue, 14 Nov 2023 22:15:20 GMT", now), 120.0);
    EXPECT_EQ(parseRetryAfter("Tuesday, 14-Nov-23 22:15:20 GMT", now), 120.0);
    EXPECT_EQ(parseRetryAfter("Tue Nov 14 22:15:20 2023", now), 120.0);
    EXPECT_EQ(parseRetryAfter("Thu Nov  2 08:00:30 2023", 1698912000), 30.0);
    EXPECT_EQ(parseRetryAfter("Thu, 29 Feb 2024 00:01:00 GMT", 1709164800), 60.0);
    EXPECT_EQ(parseRetryAfter("Wed, 01 Mar 2000 00:00:10 GMT", 951868800), 10.0);
    // The past waits not at all; the far future at most a day; "99" is 1999, not 2099.
    EXPECT_EQ(parseRetryAfter("Tue, 14 Nov 2023 22:00:00 GMT", now), 0.0);
    EXPECT_EQ(parseRetryAfter("Thu, 31 Dec 2099 23:59:59 GMT", now), 86400.0);
    EXPECT_EQ(parseRetryAfter("Sunday, 14-Nov-99 22:15:20 GMT", now), 0.0);

    for (const char* unreadable :
         {"", "   ", "soon", "-5", "1.5", "12a", "+12", "Tue, 31 Nov 2023 22:15:20 GMT",
          "Wed, 29 Feb 2023 00:00:00 GMT", "Tue, 14 Nov 2023 24:00:00 GMT", "Tue, 14 Nov 2023 22:60:00 GMT",
          "Tue, 14 Nov 2023 22:15:20 UTC", "Tue, 14 Nov 2023 22:15:20", "Tue, 14 nov 2023 22:15:20 GMT",
          "Tue, 14 Nov 2023 22:15:20 GMT trailing", "Xyz, 14 Nov 2023 22:15:20 GMT",
          "Tue, 4 Nov 2023 22:15:20 GMT", "Tue Nov 14 22:15:20 23"}) {
        EXPECT_FALSE(parseRetryAfter(unreadable, now)) << unreadable;
    }
    EXPECT_FALSE(parseRetryAfter("Tue, 14 Nov 2023 22:15:20 GMT", std::nan("")));
}

bool privateText(const char* text) {
    sockaddr_storage storage{};
    if (std::string_view(text).find(':') != std::string_view::npos) {
        auto* v6 = reinterpret_cast<sockaddr_in6*>(&storage);
        v6->sin6_family = AF_INET6;
        EXPECT_EQ(inet_pton(AF_INET6, text, &v6->sin6_addr), 1) << text;
    } else {
        auto* v4 = reinterpret_cast<sockaddr_in*>(&storage);
        v4->sin_family = AF_INET;
        EXPECT_EQ(inet_pton(AF_INET, text, &v4->sin_addr), 1) << text;
    }
    return isPrivateAddress(reinterpret_cast<const sockaddr*>(&storage));
}

TEST(AddressPolicy, PrivateRangesAndTheirEdges) {
    for (const char* address : {"0.0.0.0",
                                "0.255.255.255",
                                "127.0.0.1",
                                "127.255.255.254",
                                "10.0.0.0",
                                "10.255.255.255",
                                "172.16.0.0",
                                "172.31.255.255",
                                "192.168.0.1",
                                "192.168.255.255",
                                "169.254.169.254",
                                "100.64.0.0",
                                "100.127.255.255",
                                "224.0.0.1",
                                "239.255.255.255",
                                "255.255.255.255",
                                "240.0.0.1",
                                "::",
                                "::1",
                                "fe80::1",
                                "febf:ffff::1",
                                "fec0::1",
                                "fc00::1",
                                "fdff:ffff::1",
                                "ff02::1",
                                "::ffff:127.0.0.1",
                                "::ffff:10.1.2.3",
                                "::ffff:169.254.169.254",
                                "::127.0.0.1",
                                "::10.0.0.1",
                                "64:ff9b::7f00:1",
                                "64:ff9b::a9fe:a9fe",
                                "2002:7f00:1::1",
                                "2002:c0a8:101::"}) {
        EXPECT_TRUE(privateText(address)) << address;
    }
    for (const char* address :
         {"8.8.8.8",          "1.1.1.1",           "9.255.255.255",   "11.0.0.0",        "172.15.255.255",
          "172.32.0.0",       "192.167.255.255",   "192.169.0.0",     "169.253.255.255", "169.255.0.0",
          "100.63.255.255",   "100.128.0.0",       "223.255.255.255", "1.0.0.0",         "2001:4860::8888",
          "2606:4700::1111",  "fe00::1",           "fbff::1",         "::ffff:8.8.8.8",  "::8.8.8.8",
          "64:ff9b::808:808", "64:ff9b:1::7f00:1", "2002:808:808::1"}) {
        EXPECT_FALSE(privateText(address)) << address;
    }
    sockaddr_un local{};
    local.sun_family = AF_UNIX;
    EXPECT_TRUE(isPrivateAddress(reinterpret_cast<const sockaddr*>(&local)));
    EXPECT_TRUE(isPrivateAddress(nullptr));
}

TEST(AddressPolicy, EndpointUrls) {
    for (const char* good : {"https://hooks.example.com/tovrel", "https://hooks.example.com:8443/a?b=c&d=e",
                             "HTTPS://Hooks.Example.com/", "https://[2001:db8::1]/x", "https://127.0.0.1/"}) {
        EXPECT_EQ(endpointUrlProblem(good, false), "") << good;
    }
    EXPECT_NE(endpointUrlProblem("http://hooks.example.com/", false), "");
    EXPECT_EQ(endpointUrlProblem("http://hooks.example.com/", true), "");

    const std::string prefix = "https://hooks.example.com/";
    EXPECT_EQ(endpointUrlProblem(prefix + std::string(2048 - prefix.size(), 'a'), false), "");
    EXPECT_NE(endpointUrlProblem(prefix + std::string(2049 - prefix.size(), 'a'), false), "");

    for (const char* bad :
         {"", "hooks.example.com/x", "/x", "//hooks.example.com/x", "ftp://hooks.example.com/",
          "https:/hooks.example.com/", "https://", "https:///x", "https://user@hooks.example.com/",
          "https://user:pw@hooks.example.com/", "https://hooks.example.com/#part",
          "https://hooks.example.com/a b", "https://hooks.example.com/\n", "https://hooks.example.com:99999/",
          "javascript:alert(1)", "https://[::1/"}) {
        EXPECT_NE(endpointUrlProblem(bad, true), "") << bad;
    }
}

TEST(AddressPolicy, ResolvedAddressesDecide) {
    EXPECT_TRUE(resolvesToPrivateAddress("http://127.0.0.1:9/x"));
    EXPECT_TRUE(resolvesToPrivateAddress("https://[::1]/"));
    EXPECT_TRUE(resolvesToPrivateAddress("http://localhost/"));
    // 127.0.0.1 written as one number is still loopback.
    EXPECT_TRUE(resolvesToPrivateAddress("http://2130706433/"));
    EXPECT_FALSE(resolvesToPrivateAddress("https://8.8.8.8/"));
    EXPECT_FALSE(resolvesToPrivateAddress("https://[2001:4860::8888]/"));
    EXPECT_FALSE(resolvesToPrivateAddress("not a url"));
}

/// tests/server/webhook_receiver.py on 127.0.0.1, one for the suite (Python starts slowly), with its record
/// and script in a temporary folder emptied before each test.
class SenderTest : public ::testing::Test {
  protected:
    static void SetUpTestSuite() {
        dir_ = std::make_unique<TempDir>();
        record_ = (*dir_ / "record.jsonl").string();
        receiver_ = std::make_unique<ChildProcess>(
            std::vector<std::string>{"python3", std::string(TOVREL_SERVER_TEST_DIR) + "/webhook_receiver.py",
                                     "--port", "0", "--record", record_},
            true);
        const std::string line = receiver_->readLine(std::chrono::seconds(10));
        port_ = line.starts_with("port ") ? std::stoi(line.substr(5)) : 0;
    }

    static void TearDownTestSuite() {
        receiver_.reset();
        dir_.reset();
    }

    void SetUp() override {
        ASSERT_NE(port_, 0) << "the receiver did not start";
        std::filesystem::remove(record_);
        std::filesystem::remove(record_ + ".script");
    }

    static std::string url(const std::string& path) {
        return "http://127.0.0.1:" + std::to_string(port_) + path;
    }

    /// How the receiver answers from now on.
    static void script(const json& answer) { dir_->write("record.jsonl.script", answer.dump()); }

    static std::vector<json> records() {
        std::vector<json> lines;
        std::ifstream in(record_);
        for (std::string line; std::getline(in, line);) {
            lines.push_back(json::parse(line));
        }
        return lines;
    }

    static Outgoing post(int64_t message, int64_t endpoint, std::string url, std::string body = "{\"n\":1}") {
        Outgoing out;
        out.message = message;
        out.endpoint = endpoint;
        out.url = std::move(url);
        out.body = std::move(body);
        return out;
    }

    static SenderOptions allowingLoopback() {
        SenderOptions options;
        options.allowPrivate = true;
        options.timeoutMs = 5000;
        return options;
    }

    /// The one result of a batch of one.
    static SendResult sendOne(Sender& sender, Outgoing request) {
        std::vector<Outgoing> batch;
        batch.push_back(std::move(request));
        auto results = sender.send(std::move(batch));
        EXPECT_EQ(results.size(), 1U);
        return results.empty() ? SendResult{} : results.front();
    }

    static const SendResult& resultOf(const std::vector<SendResult>& results, int64_t message) {
        const auto it = std::find_if(results.begin(), results.end(),
                                     [&](const SendResult& r) { return r.message == message; });
        EXPECT_NE(it, results.end()) << "no result for " << message;
        static const SendResult kNone;
        return it == results.end() ? kNone : *it;
    }

    static inline std::unique_ptr<TempDir> dir_;
    static inline std::string record_;
    static inline std::unique_ptr<ChildProcess> receiver_;
    static inline int port_ = 0;
};

TEST_F(SenderTest, StatusesAndRetryAfterComeBackAsAnswered) {
    Sender sender(allowingLoopback());
    const SendResult ok = sendOne(sender, post(1, 1, url("/hook"), "{\"event\":\"offer.shown\"}"));
    EXPECT_EQ(ok.status, 204);
    EXPECT_EQ(ok.error, "");
    EXPECT_FALSE(ok.retryAfter);
    EXPECT_GT(ok.seconds, 0);

    script({{"status", 500}});
    const SendResult failed = sendOne(sender, post(2, 1, url("/hook")));
    EXPECT_EQ(failed.status, 500);
    EXPECT_EQ(failed.error, "");
    EXPECT_FALSE(failed.retryAfter);

    script({{"status", 503}, {"retryAfter", "120"}});
    const SendResult busy = sendOne(sender, post(3, 1, url("/hook")));
    EXPECT_EQ(busy.status, 503);
    EXPECT_EQ(busy.retryAfter, "120");

    const auto lines = records();
    ASSERT_EQ(lines.size(), 3U);
    EXPECT_EQ(lines[0]["method"], "POST");
    EXPECT_EQ(lines[0]["path"], "/hook");
    EXPECT_EQ(lines[0]["body"], json({{"event", "offer.shown"}}));
    EXPECT_EQ(lines[1]["status"], 500);
}

TEST_F(SenderTest, ARedirectIsAnsweredNotFollowed) {
    script({{"status", 302}, {"location", url("/elsewhere")}});
    Sender sender(allowingLoopback());
    const SendResult moved = sendOne(sender, post(1, 1, url("/hook")));
    EXPECT_EQ(moved.status, 302);
    EXPECT_EQ(moved.error, "");
    // The receiver writes its line before answering: anything that followed would be recorded by now.
    const auto lines = records();
    ASSERT_EQ(lines.size(), 1U);
    EXPECT_EQ(lines[0]["path"], "/hook");
}

TEST_F(SenderTest, PrivateAddressesAreRefusedUnlessAllowed) {
    Sender guarded(SenderOptions{});
    std::vector<Outgoing> batch;
    batch.push_back(post(1, 1, url("/hook")));
    batch.push_back(post(2, 2, "http://localhost:" + std::to_string(port_) + "/hook"));
    batch.push_back(post(3, 3, "http://[::ffff:127.0.0.1]:" + std::to_string(port_) + "/hook"));
    const auto results = guarded.send(std::move(batch));
    ASSERT_EQ(results.size(), 3U);
    for (const auto& result : results) {
        EXPECT_EQ(result.status, 0) << result.message;
        EXPECT_EQ(result.error, "refused private address") << result.message;
    }
    EXPECT_TRUE(records().empty());

    Sender open(allowingLoopback());
    EXPECT_EQ(sendOne(open, post(4, 1, url("/hook"))).status, 204);
    EXPECT_EQ(records().size(), 1U);
}

TEST_F(SenderTest, NetworkFailuresEndWithAnErrorWithoutHoldingOthersUp) {
    // A socket that listens and never accepts: the handshake completes, no answer ever comes.
    const int silent = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    ASSERT_EQ(::bind(silent, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    ASSERT_EQ(::listen(silent, 8), 0);
    ASSERT_EQ(::getsockname(silent, reinterpret_cast<sockaddr*>(&address), &length), 0);
    const std::string silentUrl = "http://127.0.0.1:" + std::to_string(ntohs(address.sin_port)) + "/hook";

    SenderOptions options = allowingLoopback();
    options.timeoutMs = 300;
    Sender sender(options);
    std::vector<Outgoing> batch;
    batch.push_back(post(1, 1, silentUrl));
    batch.push_back(post(2, 2, "http://127.0.0.1:" + std::to_string(tovrel::test::freeLoopbackPort()) + "/"));
    batch.push_back(post(3, 3, "ftp://127.0.0.1:" + std::to_string(port_) + "/"));
    Outgoing injected = post(4, 4, url("/hook"));
    injected.headers = {{"webhook-id", "msg_1\r\nX-Injected: yes"}};
    batch.push_back(std::move(injected));
    Outgoing badName = post(5, 4, url("/hook"));
    badName.headers = {{"webhook id", "msg_1"}};
    batch.push_back(std::move(badName));
    batch.push_back(post(6, 5, url("/hook")));
    const auto results = sender.send(std::move(batch));
    ::close(silent);

    ASSERT_EQ(results.size(), 6U);
    const SendResult& timedOut = resultOf(results, 1);
    EXPECT_EQ(timedOut.status, 0);
    EXPECT_TRUE(timedOut.error.starts_with("timeout: ")) << timedOut.error;
    EXPECT_GE(timedOut.seconds, 0.25);
    EXPECT_LT(timedOut.seconds, 3.0);
    EXPECT_TRUE(resultOf(results, 2).error.starts_with("connection: ")) << resultOf(results, 2).error;
    EXPECT_TRUE(resultOf(results, 3).error.starts_with("url: ")) << resultOf(results, 3).error;
    EXPECT_TRUE(resultOf(results, 4).error.starts_with("header: ")) << resultOf(results, 4).error;
    EXPECT_TRUE(resultOf(results, 5).error.starts_with("header: ")) << resultOf(results, 5).error;
    const SendResult& delivered = resultOf(results, 6);
    EXPECT_EQ(delivered.status, 204);
    EXPECT_LT(delivered.seconds, timedOut.seconds);
    // Only the good request reached the receiver.
    EXPECT_EQ(records().size(), 1U);
}

TEST_F(SenderTest, OneEndpointAtATimeKeepsItsOrder) {
    SenderOptions options = allowingLoopback();
    options.perEndpoint = 1;
    Sender sender(options);
    std::vector<Outgoing> batch;
    for (int i = 0; i < 5; ++i) {
        batch.push_back(post(10 + i, 1, url("/a/" + std::to_string(i))));
        batch.push_back(post(20 + i, 2, url("/b/" + std::to_string(i))));
    }
    ASSERT_EQ(sender.send(std::move(batch)).size(), 10U);
    std::vector<std::string> a;
    std::vector<std::string> b;
    for (const auto& line : records()) {
        const std::string path = line["path"];
        (path.starts_with("/a/") ? a : b).push_back(path.substr(3));
    }
    EXPECT_EQ(a, (std::vector<std::string>{"0", "1", "2", "3", "4"}));
    EXPECT_EQ(b, (std::vector<std::string>{"0", "1", "2", "3", "4"}));
}

int mostAtOnce(const std::vector<json>& lines) {
    int most = 0;
    for (const auto& line : lines) {
        most = std::max(most, line["concurrent"].get<int>());
    }
    return most;
}

TEST_F(SenderTest, RequestsAtOnceStayWithinTheLimits) {
    script({{"delayMs", 100}});
    SenderOptions options = allowingLoopback();
    options.perEndpoint = 2;
    Sender perEndpoint(options);
    std::vector<Outgoing> batch;
    for (int i = 0; i < 4; ++i) {
        batch.push_back(post(i, 7, url("/one")));
    }
    ASSERT_EQ(perEndpoint.send(std::move(batch)).size(), 4U);
    EXPECT_EQ(mostAtOnce(records()), 2);

    std::filesystem::remove(record_);
    options.perEndpoint = 4;
    options.total = 2;
    Sender total(options);
    std::vector<Outgoing> spread;
    for (int i = 0; i < 6; ++i) {
        spread.push_back(post(i, i % 3, url("/many")));
    }
    ASSERT_EQ(total.send(std::move(spread)).size(), 6U);
    EXPECT_EQ(records().size(), 6U);
    EXPECT_EQ(mostAtOnce(records()), 2);
}

TEST_F(SenderTest, ConnectionsAreKeptForTheNextBatch) {
    Sender sender(allowingLoopback());
    EXPECT_EQ(sendOne(sender, post(1, 1, url("/hook"))).status, 204);
    EXPECT_EQ(sendOne(sender, post(2, 1, url("/hook"))).status, 204);
    const auto lines = records();
    ASSERT_EQ(lines.size(), 2U);
    EXPECT_EQ(lines[0]["peer"], lines[1]["peer"]);
}

TEST_F(SenderTest, EverySignatureInTheHeaderIsCheckedAgainstEverySecret) {
    const std::string id = "msg_2b7sQp0VdJm4YkRrW9xLcNaE";
    const int64_t timestamp = 1700000000;
    const std::string body = "{\"type\":\"offer.shown\",\"data\":{\"offer\":7}}";
    const auto signed_ = [&](const std::string& signature) {
        Outgoing out = post(0, 1, url("/hook"), body);
        out.headers = {{"webhook-id", id},
                       {"webhook-timestamp", std::to_string(timestamp)},
                       {"webhook-signature", signature}};
        return out;
    };
    const std::string first = sign(kKeyOfBytes0To31, id, timestamp, body);
    const std::string second = sign(kOtherSecret, id, timestamp, body);
    const std::string stale = sign(kKeyOfBytes0To31, id, timestamp + 1, body);

    Sender sender(allowingLoopback());
    const auto secrets = [&](const json& list) {
        EXPECT_EQ(sendOne(sender, post(0, 1, url("/_secrets"), list.dump())).status, 204);
    };
    secrets(json::array({kKeyOfBytes0To31, kOtherSecret}));
    for (const auto& signature :
         {first + " " + second, second, stale + " " + second, stale, std::string("v1,")}) {
        EXPECT_EQ(sendOne(sender, signed_(signature)).status, 204);
    }
    // A rotation: the receiver now holds one new secret only.
    const std::string rotated = newSecret();
    secrets(json::array({rotated}));
    EXPECT_EQ(sendOne(sender, signed_(second + " " + sign(rotated, id, timestamp, body))).status, 204);

    const auto lines = records();
    ASSERT_EQ(lines.size(), 6U);
    EXPECT_EQ(lines[0]["validWith"], json({0, 1}));
    EXPECT_EQ(lines[1]["validWith"], json({1}));
    EXPECT_EQ(lines[2]["validWith"], json({1}));
    EXPECT_EQ(lines[3]["validWith"], json::array());
    EXPECT_EQ(lines[4]["validWith"], json::array());
    EXPECT_EQ(lines[5]["validWith"], json({0}));
    EXPECT_EQ(lines[0]["id"], id);
    EXPECT_EQ(lines[0]["timestamp"], "1700000000");
}

}  // namespace
}  // namespace tovrel::server::webhooks
