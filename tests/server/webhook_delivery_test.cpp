// Events out: what the device does reaches webhook endpoints through the outbox, signed as a receiver
// with its own HMAC code checks, on the retry schedule of the server's clock, and never for a write that
// did not happen.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <map>
#include <memory>
#include <set>

#include "test_support.h"
#include "webhook_receiver.h"

namespace tovrel::server::test {
namespace {

constexpr const char* kToken = "0123456789abcdef-admin";

ServerFixture::Options hookOptions(bool allowPrivate = true) {
    ServerFixture::Options options;
    options.configure = [allowPrivate](ServerOptions& o) {
        o.adminAddress = "127.0.0.1";
        o.adminToken = kToken;
        o.webhookAllowPrivate = allowPrivate;
        o.webhookPollSeconds = 0;
    };
    return options;
}

class Webhooks : public StoreTest {
  protected:
    void SetUp() override {
        StoreTest::SetUp();
        if (IsSkipped()) {
            return;
        }
        fx = std::make_unique<ServerFixture>(fixtureOptions(hookOptions()));
        admin = std::make_unique<HttpClient>(fx->adminPort());
        receiver = std::make_unique<WebhookReceiver>(fx->dir());
        ASSERT_TRUE(receiver->started());
    }

    HttpResult call(const std::string& method, const std::string& path, const json& body = nullptr) {
        return admin->request(method, path, body.is_null() ? "" : body.dump(),
                              {std::string("Authorization: Bearer ") + kToken});
    }
    /// Adds an endpoint on the receiver (plain http) and returns it with its secret.
    json endpoint(json settings) {
        settings["allowHttp"] = true;
        const HttpResult r = call("POST", "/admin/v1/webhooks", settings);
        EXPECT_EQ(r.status, 201) << r.body;
        return r.parsed();
    }
    std::map<std::string, int> typesAt(const std::string& path) const {
        std::map<std::string, int> types;
        for (const json& r : receiver->received()) {
            if (r.at("path") == path) {
                ++types[r.at("body").at("type").get<std::string>()];
            }
        }
        return types;
    }

    std::unique_ptr<ServerFixture> fx;
    std::unique_ptr<HttpClient> admin;
    std::unique_ptr<WebhookReceiver> receiver;
};

TEST_P(Webhooks, EveryEventArrivesOnceSignedAndWithTheDeviceOnlyWhereAsked) {
    const json all = endpoint({{"url", receiver->url("/all")}, {"includeDevice", true}});
    const json links = endpoint({{"url", receiver->url("/links")}, {"eventTypes", {"visit.linked"}}});
    ASSERT_TRUE(all.at("secret").get<std::string>().starts_with("whsec_"));
    receiver->trust({all.at("secret"), links.at("secret")});
    EXPECT_FALSE(call("GET", "/admin/v1/webhooks").body.find(all.at("secret").get<std::string>()) !=
                 std::string::npos);

    const std::string key = fx->startSession("HOOKED");
    const int64_t event =
        fx->link(key, "11", "1").parsed().at("places").at(0).at("deviceEventId").get<int64_t>();
    for (const char* code : {"ack", "seen", "saved", "declined"}) {
        ASSERT_EQ(fx->client()
                      .post("/v1/deviceevent/update",
                            json{{"sessionKey", key}, {"deviceEventId", event}, {"statusCode", code}})
                      .status,
                  200);
    }
    // Refused writes report nothing: a status for a link that is not the device's, a tag without a session.
    EXPECT_NE(fx->client()
                  .post("/v1/deviceevent/update",
                        json{{"sessionKey", key}, {"deviceEventId", event + 1000}, {"statusCode", "ack"}})
                  .status,
              200);
    EXPECT_NE(fx->client().post("/v1/devicetag/update", json{{"sessionKey", "nobody"}, {"tag", "t"}}).status,
              200);
    ASSERT_EQ(fx->client()
                  .post("/v1/devicetag/update", json{{"sessionKey", key}, {"tag", "t"}, {"tagValue", "v"}})
                  .status,
              200);
    ASSERT_EQ(fx->client().post("/v1/deviceevent/clear", json{{"sessionKey", key}}).status, 200);
    EXPECT_EQ(
        call("POST", "/admin/v1/webhooks/" + std::to_string(all.at("id").get<int64_t>()) + "/test").status,
        202);

    const WebhookPass pass = fx->server().deliverWebhooks();
    EXPECT_EQ(pass.delivered, 10);
    EXPECT_EQ(fx->server().deliverWebhooks().attempts, 0) << "a delivered message is sent once";
    EXPECT_EQ(typesAt("/all"), (std::map<std::string, int>{{"session.started", 1},
                                                           {"visit.linked", 1},
                                                           {"offer.acknowledged", 1},
                                                           {"offer.seen", 1},
                                                           {"offer.saved", 1},
                                                           {"offer.declined", 1},
                                                           {"device.tagged", 1},
                                                           {"device.cleared", 1},
                                                           {"webhook.test", 1}}));
    EXPECT_EQ(typesAt("/links"), (std::map<std::string, int>{{"visit.linked", 1}}));
    std::set<std::string> ids;
    for (const json& r : receiver->received()) {
        const bool toAll = r.at("path") == "/all";
        EXPECT_EQ(r.at("validWith"), json::array({toAll ? 0 : 1})) << r.dump();
        ids.insert(r.at("id").get<std::string>() + r.at("path").get<std::string>());
        const json& data = r.at("body").at("data");
        if (r.at("body").at("type") != "webhook.test") {
            EXPECT_EQ(data.contains("deviceId"), toAll) << r.dump();
            EXPECT_EQ(data.value("deviceId", "HOOKED"), "HOOKED");
        }
        if (r.at("body").at("type") == "visit.linked") {
            EXPECT_EQ(data.at("deviceEventId"), event);
            EXPECT_EQ(data.at("offerId"), 11);
            EXPECT_EQ(data.at("placeId"), 1);
            EXPECT_EQ(data.at("suppressed"), false);
        }
    }
    EXPECT_EQ(ids.size(), receiver->received().size()) << "every message has an id of its own";

    // An erased device's events that are still waiting go with it.
    receiver->answer({{"status", 500}});
    ASSERT_EQ(fx->client()
                  .post("/v1/devicetag/update", json{{"sessionKey", key}, {"tag", "t"}, {"tagValue", "w"}})
                  .status,
              200);
    EXPECT_EQ(fx->server().deliverWebhooks().retried, 1);
    ASSERT_EQ(call("DELETE", "/admin/v1/devices/HOOKED").status, 200);
    EXPECT_EQ(queryRows(fx->dbPath(), "SELECT count(*) FROM webhook_messages WHERE state = 'pending'"),
              std::vector<std::string>{"0"});
}

TEST_P(Webhooks, ARotatedSecretSignsBesideTheOldOneForItsGraceAndSecretsNeverShowAgain) {
    const json e = endpoint({{"url", receiver->url("/r")}});
    const std::string path = "/admin/v1/webhooks/" + std::to_string(e.at("id").get<int64_t>());
    const HttpResult rotated = call("POST", path + "/rotate", {{"graceSeconds", 3600}});
    ASSERT_EQ(rotated.status, 200) << rotated.body;
    const std::string fresh = rotated.parsed().at("secret");
    EXPECT_NE(fresh, e.at("secret"));
    receiver->trust({e.at("secret"), fresh});
    EXPECT_EQ(call("GET", path).parsed().at("secretHint"), "…" + fresh.substr(fresh.size() - 4));
    EXPECT_EQ(call("GET", path).body.find(fresh), std::string::npos);

    ASSERT_EQ(call("POST", path + "/test").status, 202);
    fx->server().deliverWebhooks();
    fx->setTime(utc(2025, 6, 1) + 3601);
    ASSERT_EQ(call("POST", path + "/test").status, 202);
    fx->server().deliverWebhooks();
    const auto got = receiver->received();
    ASSERT_EQ(got.size(), 2U);
    EXPECT_EQ(got[0].at("validWith"), json::array({0, 1})) << "both secrets sign during the grace";
    EXPECT_EQ(got[1].at("validWith"), json::array({1})) << "only the new one after it";
}

TOVREL_ON_BOTH_STORES(Webhooks);

class WebhookSchedule : public Webhooks {
  protected:
    double t0 = utc(2025, 6, 1);
    json e;
    std::string path;

    void SetUp() override {
        Webhooks::SetUp();
        e = endpoint({{"url", receiver->url("/s")}});
        receiver->trust({e.at("secret")});
        path = "/admin/v1/webhooks/" + std::to_string(e.at("id").get<int64_t>());
    }
    void at(double seconds) {
        fx->setTime(t0 + seconds);
        fx->server().deliverWebhooks();
    }
    std::vector<std::string> tagValues() const {
        std::vector<std::string> values;
        for (const json& r : receiver->received()) {
            values.push_back(r.at("body").at("data").value("value", "") + ":" +
                             std::to_string(r.at("status").get<int>()));
        }
        return values;
    }
};

TEST_P(WebhookSchedule, AReceiverDownForAnHourGetsEverythingOnceBackInOrder) {
    receiver->answer({{"status", 500}});
    const std::string key = fx->startSession("D");
    for (const char* v : {"a", "b", "c"}) {
        ASSERT_EQ(fx->client()
                      .post("/v1/devicetag/update", json{{"sessionKey", key}, {"tag", "t"}, {"tagValue", v}})
                      .status,
                  200);
    }
    at(0);        // first attempts
    at(4);        // 5 s ± 10% is not due yet
    at(6);        // second attempts
    at(6 + 330);  // 5 min ± 10% later: third
    at(3600);     // 30 min later: fourth; then 2 h
    receiver->answer({{"status", 204}});
    at(3700);  // still waiting for its 2 h
    EXPECT_EQ(tagValues().size(), 4U * 4) << "the session's start and three tags, four times";
    at(3600 + 2 * 3600 * 1.1 + 1);
    const auto values = tagValues();
    ASSERT_EQ(values.size(), 5U * 4);
    // Up to four requests at once go to one endpoint: the last round arrives in any order within itself.
    EXPECT_EQ(std::multiset<std::string>(values.end() - 4, values.end()),
              (std::multiset<std::string>{":204", "a:204", "b:204", "c:204"}));
    for (std::size_t round = 0; round < 4; ++round) {
        EXPECT_EQ(std::count_if(values.begin() + static_cast<long>(round * 4),
                                values.begin() + static_cast<long>(round * 4 + 4),
                                [](const std::string& v) { return v.ends_with(":500"); }),
                  4)
            << "round " << round;
    }
    const json attempts = call("GET", path + "/attempts?limit=3").parsed().at("attempts");
    ASSERT_EQ(attempts.size(), 3U);
    EXPECT_EQ(attempts[0].at("status"), 204);
}

TEST_P(WebhookSchedule, RetryAfterIsHonouredGoneDisablesAndASpentScheduleCanBeReplayed) {
    receiver->answer({{"status", 503}, {"retryAfter", "7200"}});
    ASSERT_EQ(call("POST", path + "/test").status, 202);
    at(0);
    at(3600);
    EXPECT_EQ(receiver->received().size(), 1U) << "Retry-After holds it for two hours";
    at(7200);
    EXPECT_EQ(receiver->received().size(), 2U);

    // Three days of 500s spend the schedule: ten attempts, then the message is kept as failed.
    receiver->answer({{"status", 500}});
    for (double t = 7200; t < 4 * 86400; t += 1800) {
        at(t);
    }
    EXPECT_EQ(receiver->received().size(), 10U);
    EXPECT_EQ(queryRows(fx->dbPath(), "SELECT state, attempts FROM webhook_messages"),
              std::vector<std::string>{"failed|10"});
    receiver->answer({{"status", 200}});
    EXPECT_EQ(call("POST", path + "/replay?since=0").parsed().at("queued"), 1);
    at(4 * 86400);
    EXPECT_EQ(receiver->received().size(), 11U);
    EXPECT_EQ(receiver->received().back().at("id"), receiver->received().front().at("id"))
        << "one message keeps its id on every attempt";

    receiver->answer({{"status", 410}});
    ASSERT_EQ(call("POST", path + "/test").status, 202);
    at(4 * 86400 + 1);
    const json gone = call("GET", path).parsed();
    EXPECT_EQ(gone.at("enabled"), false);
    EXPECT_EQ(gone.at("disabledReason"), "gone");
    EXPECT_EQ(call("POST", path + "/test").status, 409);
    EXPECT_EQ(call("PATCH", path, {{"enabled", true}}).parsed().at("disabledReason"), nullptr);
}

TOVREL_ON_BOTH_STORES(WebhookSchedule);

TEST(WebhookEndpoints, AddressesAndSettingsAreCheckedWhenSaved) {
    ServerFixture fx(hookOptions(false));
    HttpClient admin(fx.adminPort());
    const auto post = [&](const json& body) {
        return admin.request("POST", "/admin/v1/webhooks", body.dump(),
                             {std::string("Authorization: Bearer ") + kToken});
    };
    for (const json& bad :
         {json{{"url", "http://127.0.0.1:9/x"}, {"allowHttp", true}}, json{{"url", "https://localhost/x"}},
          json{{"url", "https://[::1]/x"}}, json{{"url", "https://10.1.2.3/x"}},
          json{{"url", "http://example.com/x"}}, json{{"url", "ftp://example.com/x"}},
          json{{"url", "https://user:pw@example.com/x"}},
          json{{"url", "https://example.com/x"}, {"eventTypes", {"visit.linked", "nope"}}},
          json{{"url", "https://example.com/x"}, {"eventTypes", json::array()}},
          json{{"url", "https://example.com/x"}, {"includeDevice", "yes"}}, json{{"url", 5}}}) {
        const HttpResult r = post(bad);
        EXPECT_EQ(r.status, 400) << bad.dump() << " " << r.body;
    }
    EXPECT_EQ(queryRows(fx.dbPath(), "SELECT count(*) FROM webhook_endpoints"),
              std::vector<std::string>{"0"});
    // A documentation address: saved, and its attempt fails without an answer (the sender's own suite
    // refuses private addresses at connection time).
    const HttpResult ok = post({{"url", "https://192.0.2.1:9/x"}, {"eventTypes", {"webhook.test"}}});
    ASSERT_EQ(ok.status, 201) << ok.body;
    const std::string id = std::to_string(ok.parsed().at("id").get<int64_t>());
    const std::string auth = std::string("Authorization: Bearer ") + kToken;
    EXPECT_EQ(admin.request("POST", "/admin/v1/webhooks/" + id + "/test", {}, {auth}).status, 202);
    EXPECT_EQ(fx.server().deliverWebhooks().retried, 1);
    const json attempts = admin.request("GET", "/admin/v1/webhooks/" + id + "/attempts", {}, {auth}).parsed();
    ASSERT_EQ(attempts.at("attempts").size(), 1U);
    EXPECT_EQ(attempts.at("attempts")[0].at("status"), 0);
    EXPECT_FALSE(attempts.at("attempts")[0].at("error").get<std::string>().empty());
    const HttpResult metrics = admin.get("/metrics");
    EXPECT_NE(metrics.body.find("tovrel_webhook_attempts_total{answer=\"error\",endpoint=\"" + id + "\"} 1"),
              std::string::npos);
    EXPECT_NE(metrics.body.find("tovrel_webhook_queue_messages 1"), std::string::npos);
}

}  // namespace
}  // namespace tovrel::server::test
