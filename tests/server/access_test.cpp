// Named admin tokens and their roles over the admin API's whole route table, the tokens' life (made,
// listed, revoked, kept only as hashes), console sessions that follow their token, and the audit trail
// every change goes into.
#include <gtest/gtest.h>

#include "admin/admin_routes.h"
#include "common/session_keys.h"
#include "store/access_store.h"
#include "store/store.h"
#include "support/wait_until.h"
#include "test_support.h"

namespace tovrel::server::test {
namespace {

constexpr const char* kFileToken = "0123456789abcdef-access";

class Access : public ::testing::Test {
  protected:
    static ServerFixture::Options options() {
        ServerFixture::Options o;
        o.configure = [](ServerOptions& s) {
            s.adminAddress = "127.0.0.1";
            s.adminToken = kFileToken;
        };
        return o;
    }

    HttpResult call(const std::string& token, const std::string& method, const std::string& path,
                    const std::string& body = {}, std::vector<std::string> headers = {}) {
        headers.push_back("Authorization: Bearer " + token);
        return admin.request(method, "/admin/v1/" + path, body, headers);
    }
    // A new token of `role`, made with the file's token.
    std::string add(const std::string& name, const std::string& role) {
        const HttpResult made =
            call(kFileToken, "POST", "tokens", json{{"name", name}, {"role", role}}.dump());
        EXPECT_EQ(made.status, 201) << made.body;
        return made.parsed().value("token", "");
    }

    ServerFixture fixture{options()};
    HttpClient admin{fixture.adminPort()};
};

// Every route of the table, with "*" as a name no item has: the handlers answer it (a 404 of a missing
// item, a 400 of an empty body) exactly when the role allows it, and 403 otherwise.
TEST_F(Access, EachRoleReachesTheRoutesItAllowsAndIsRefusedEveryOther) {
    for (const Role role : {Role::read, Role::support, Role::campaigns, Role::admin}) {
        const std::string name(roleName(role));
        const std::string token = add("as-" + name, name);
        for (const AdminRoute& route : kAdminRoutes) {
            std::string path(route.pattern);
            for (std::size_t star = path.find('*'); star != std::string::npos; star = path.find('*')) {
                path.replace(star, 1, "999");
            }
            const HttpResult answer = call(token, std::string(route.method), path);
            const std::string what = name + " " + std::string(route.method) + " " + path;
            if (allows(role, route.need)) {
                EXPECT_NE(answer.status, 403) << what << ": " << answer.body;
                EXPECT_EQ(answer.body.find("no admin endpoint"), std::string::npos)
                    << what << ": " << answer.body;
            } else {
                EXPECT_EQ(answer.status, 403) << what << ": " << answer.body;
                EXPECT_NE(answer.body.find(std::string(route.action)), std::string::npos) << answer.body;
            }
        }
    }
    // Paths the table does not have are 404, methods a path does not take 405 with the ones it does.
    EXPECT_EQ(call(kFileToken, "GET", "nothing").status, 404);
    const HttpResult wrong = call(kFileToken, "PUT", "places/1");
    EXPECT_EQ(wrong.status, 405);
    EXPECT_EQ(wrong.header("allow"), "GET, DELETE");
    EXPECT_EQ(call(kFileToken, "GET", "places%2").status, 400);

    // The audit trail has every change tried, refused ones included, and no read.
    const json entries = call(kFileToken, "GET", "audit?limit=1000").parsed()["entries"];
    std::size_t changes = 0;
    for (const AdminRoute& route : kAdminRoutes) {
        changes += changesState(route.method) ? 1 : 0;
    }
    EXPECT_EQ(entries.size(), 4 * changes + 4) << "four tokens added, and each role's tries";
    EXPECT_TRUE(
        std::any_of(entries.begin(), entries.end(), [](const json& e) { return e["status"] == 403; }));
    const json page = call(kFileToken, "GET", "audit?limit=2").parsed();
    ASSERT_EQ(page["entries"].size(), 2u);
    EXPECT_EQ(
        call(kFileToken, "GET", "audit?limit=1&before=" + page["next"].dump()).parsed()["entries"][0]["id"],
        page["next"].get<int64_t>() - 1);
    EXPECT_EQ(call(kFileToken, "GET", "audit?limit=0").status, 400);
}

TEST_F(Access, TokensAreShownOnceKeptAsHashesAndStopWorkingWhenRevoked) {
    const std::string reader = add("support-desk", "read");
    ASSERT_EQ(reader.size(), 68u);
    EXPECT_EQ(call(reader, "GET", "funnel").status, 200);
    const json listed = call(kFileToken, "GET", "tokens").parsed()["tokens"];
    ASSERT_EQ(listed.size(), 1u);
    EXPECT_EQ(listed[0]["name"], "support-desk");
    EXPECT_EQ(listed[0]["role"], "read");
    EXPECT_EQ(listed[0]["createdBy"], "admin-token-file");
    EXPECT_EQ(listed.dump().find(reader), std::string::npos);
    EXPECT_EQ(queryRows(fixture.dbPath(), "SELECT token_hash FROM admin_tokens"),
              std::vector<std::string>{sessionKeyHash(reader)});

    EXPECT_EQ(call(kFileToken, "POST", "tokens", R"({"name": "support-desk", "role": "admin"})").status, 409);
    EXPECT_EQ(call(kFileToken, "POST", "tokens", R"({"name": "x", "role": "owner"})").status, 400);
    EXPECT_EQ(call(kFileToken, "POST", "tokens", R"({"name": "a b", "role": "read"})").status, 400);
    EXPECT_EQ(call(kFileToken, "POST", "tokens", R"({"name": "admin-token-file", "role": "read"})").status,
              400);
    EXPECT_EQ(call(kFileToken, "DELETE", "tokens/admin-token-file").status, 409);
    EXPECT_EQ(call(reader, "DELETE", "tokens/support-desk").status, 403) << "a read token revokes nothing";

    // A console session opened with the token has its role, and ends with it.
    const std::string origin = "Origin: http://127.0.0.1:" + std::to_string(fixture.adminPort());
    const HttpResult signedIn =
        admin.request("POST", "/console/api/session", json{{"token", reader}}.dump(), {origin});
    ASSERT_EQ(signedIn.status, 200) << signedIn.body;
    EXPECT_EQ(signedIn.parsed()["role"], "read");
    const std::string setCookie = signedIn.header("set-cookie");
    const std::string cookie = "Cookie: " + setCookie.substr(0, setCookie.find(';'));
    const std::string csrf = "X-CSRF-Token: " + signedIn.parsed().value("csrf", "");
    EXPECT_EQ(admin.request("GET", "/admin/v1/places", {}, {cookie}).status, 200);
    EXPECT_EQ(admin.request("POST", "/admin/v1/places/1/disable", {}, {cookie, csrf, origin}).status, 403);

    EXPECT_EQ(call(kFileToken, "DELETE", "tokens/support-desk").status, 200);
    EXPECT_EQ(call(reader, "GET", "funnel").status, 401) << "revoked on the replica that revoked it at once";
    EXPECT_EQ(admin.request("GET", "/admin/v1/places", {}, {cookie}).status, 401);
    EXPECT_EQ(admin.request("GET", "/console/api/session", {}, {cookie}).status, 401);
    EXPECT_EQ(call(kFileToken, "DELETE", "tokens/support-desk").status, 404);

    const json entries = call(kFileToken, "GET", "audit").parsed()["entries"];
    std::vector<std::string> trail;
    for (const json& e : entries) {
        trail.push_back(e["token"].get<std::string>() + " " + e["action"].get<std::string>() + " " +
                        e["item"].get<std::string>() + " " + std::to_string(e["status"].get<int>()));
    }
    EXPECT_EQ(trail, (std::vector<std::string>{
                         "admin-token-file tokens.revoke support-desk 404",
                         "admin-token-file tokens.revoke support-desk 200",
                         "support-desk places.disable 1 403",
                         "support-desk console.signin  200",
                         "support-desk tokens.revoke support-desk 403",
                         "admin-token-file tokens.revoke admin-token-file 409",
                         "admin-token-file tokens.add admin-token-file 400",
                         "admin-token-file tokens.add a b 400",
                         "admin-token-file tokens.add x 400",
                         "admin-token-file tokens.add support-desk 409",
                         "admin-token-file tokens.add support-desk 201",
                     }));
}

TEST(AccessWithoutAFile, ATokenStoredByAnotherConnectionTurnsTheAdminApiOnWithinASecond) {
    ServerFixture::Options o;
    o.configure = [](ServerOptions& s) { s.adminAddress = "127.0.0.1"; };
    ServerFixture fixture(o);
    HttpClient admin(fixture.adminPort());
    const std::string token = "tvr_0123456789abcdef0123456789abcdef";
    const auto status = [&] {
        return admin.request("GET", "/admin/v1/funnel", {}, {"Authorization: Bearer " + token}).status;
    };
    EXPECT_EQ(status(), 403) << "no token at all: the admin API is off";
    const auto other = openStore(fixture.dbPath());
    other->transact([&](const SqlSource& db) {
        insertToken(db, {"ops", "campaigns", sessionKeyHash(token), 0, ""});
    });
    EXPECT_TRUE(tovrel::test::waitUntil([&] { return status() == 200; }, std::chrono::seconds(1)))
        << admin.request("GET", "/admin/v1/funnel", {}, {"Authorization: Bearer " + token}).body;
    other->transact([&](const SqlSource& db) { deleteToken(db, "ops"); });
    EXPECT_TRUE(tovrel::test::waitUntil([&] { return status() == 403; }, std::chrono::seconds(1)));
}

}  // namespace
}  // namespace tovrel::server::test
