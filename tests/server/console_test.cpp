// The campaign console on the admin listener: its pages, the exchange of the admin token for a session
// cookie, what that cookie may do (reads; changes only with the anti-forgery token from the console's own
// origin), sign-out, idle expiry and the brake on guessed tokens.
#include <gtest/gtest.h>

#include <fstream>

#include "admin/console_sessions.h"
#include "test_support.h"

namespace tovrel::server::test {
namespace {

constexpr const char* kToken = "0123456789abcdef-console";

// A built console of two files, as Vite lays it out.
std::string writeConsole(const TempDir& dir) {
    const auto root = dir.path() / "console";
    std::filesystem::create_directories(root / "assets");
    std::ofstream(root / "index.html") << "<!doctype html><title>Console</title>"
                                          "<script type=module src=/console/assets/app-1a2b.js></script>";
    std::ofstream(root / "assets" / "app-1a2b.js") << "document.title = 'signed out';";
    return root.string();
}

class Console : public ::testing::Test {
  protected:
    ServerFixture::Options options() {
        ServerFixture::Options o;
        o.configure = [this](ServerOptions& s) {
            s.adminAddress = "127.0.0.1";
            s.adminToken = kToken;
            s.consoleDir = writeConsole(files);
        };
        return o;
    }

    std::string origin() const { return "Origin: http://127.0.0.1:" + std::to_string(fixture.adminPort()); }

    // Signs in; returns the Cookie header line and the anti-forgery token.
    std::pair<std::string, std::string> signIn() {
        const HttpResult answer =
            admin.request("POST", "/console/api/session", json{{"token", kToken}}.dump(), {origin()});
        EXPECT_EQ(answer.status, 200) << answer.body;
        const std::string cookie = answer.header("set-cookie");
        return {"Cookie: other=1; " + cookie.substr(0, cookie.find(';')), answer.parsed().value("csrf", "")};
    }

    TempDir files;
    ServerFixture fixture{options()};
    HttpClient admin{fixture.adminPort()};
};

TEST_F(Console, PagesAreServedOnTheAdminListenerOnlyWithAStrictPolicy) {
    const HttpResult page = admin.get("/console/");
    ASSERT_EQ(page.status, 200) << page.body;
    EXPECT_EQ(page.contentType, "text/html; charset=utf-8");
    EXPECT_EQ(page.header("content-security-policy").rfind("default-src 'self';", 0), 0u);
    EXPECT_NE(page.header("content-security-policy").find("frame-ancestors 'none'"), std::string::npos);
    EXPECT_EQ(page.header("x-content-type-options"), "nosniff");
    EXPECT_EQ(page.header("cache-control"), "no-cache");
    EXPECT_EQ(admin.get("/console").status, 200);

    // The server's content folder (the example content here), for the offers' previews.
    const HttpResult media = admin.get("/console/content/media/offer-1001.html");
    EXPECT_EQ(media.status, 200) << media.body;
    EXPECT_NE(media.header("content-security-policy").find("; sandbox"), std::string::npos);
    EXPECT_EQ(admin.get("/console/content/../index.html").status, 404);

    const HttpResult script = admin.get("/console/assets/app-1a2b.js");
    EXPECT_EQ(script.status, 200);
    EXPECT_EQ(script.header("cache-control"), "max-age=31536000, immutable");

    EXPECT_EQ(admin.request("GET", "/console/../console/index.html", {}).status, 404);
    EXPECT_EQ(admin.request("GET", "/console/%2e%2e/%2e%2e/etc/passwd", {}).status, 404);
    EXPECT_EQ(admin.get("/console/api/unknown").status, 404);
    EXPECT_EQ(admin.request("POST", "/console/", "{}").status, 405);
    EXPECT_EQ(fixture.client().get("/console/").status, 404);
    EXPECT_EQ(fixture.client().post("/console/api/session", json{{"token", kToken}}).status, 404);

    ServerFixture::Options withoutConsole;
    withoutConsole.configure = [](ServerOptions& s) {
        s.adminAddress = "127.0.0.1";
        s.adminToken = kToken;
    };
    ServerFixture bare(withoutConsole);
    HttpClient other(bare.adminPort());
    const HttpResult missing = other.get("/console/");
    EXPECT_EQ(missing.status, 404);
    EXPECT_NE(missing.body.find("not installed"), std::string::npos) << missing.body;
}

TEST_F(Console, TheSessionCookieReadsFreelyButChangesOnlyWithItsTokenFromItsOrigin) {
    EXPECT_EQ(admin.get("/console/api/session").status, 401);
    const auto [cookie, csrf] = signIn();
    ASSERT_EQ(csrf.size(), 32u);
    const HttpResult again = admin.request("POST", "/console/api/session", json{{"token", kToken}}.dump());
    const std::string setCookie = again.header("set-cookie");
    EXPECT_NE(setCookie.find("HttpOnly"), std::string::npos) << setCookie;
    EXPECT_NE(setCookie.find("SameSite=Strict"), std::string::npos) << setCookie;
    EXPECT_EQ(setCookie.find("Secure"), std::string::npos) << "no TLS on this listener: " << setCookie;

    const HttpResult resumed = admin.request("GET", "/console/api/session", {}, {cookie});
    EXPECT_EQ(resumed.parsed()["csrf"], csrf);
    EXPECT_EQ(admin.request("GET", "/admin/v1/apps", {}, {cookie}).status, 200);

    const std::string app = json{{"name", "Console app"}}.dump();
    EXPECT_EQ(admin.request("POST", "/admin/v1/apps", app, {cookie}).status, 403);
    EXPECT_EQ(admin.request("POST", "/admin/v1/apps", app, {cookie, "X-CSRF-Token: " + csrf.substr(1) + "0"})
                  .status,
              403);
    EXPECT_EQ(admin
                  .request("POST", "/admin/v1/apps", app,
                           {cookie, "X-CSRF-Token: " + csrf, "Origin: https://attacker.example"})
                  .status,
              403);
    EXPECT_EQ(
        admin.request("POST", "/admin/v1/apps", app, {cookie, "X-CSRF-Token: " + csrf, origin()}).status,
        201);
    EXPECT_EQ(admin
                  .request("POST", "/console/api/session", json{{"token", kToken}}.dump(),
                           {"Origin: https://attacker.example"})
                  .status,
              403);

    EXPECT_EQ(admin.request("DELETE", "/console/api/session", {}, {cookie}).status, 403);
    const HttpResult out =
        admin.request("DELETE", "/console/api/session", {}, {cookie, "X-CSRF-Token: " + csrf});
    EXPECT_EQ(out.status, 200);
    EXPECT_NE(out.header("set-cookie").find("Max-Age=0"), std::string::npos);
    EXPECT_EQ(admin.request("GET", "/admin/v1/apps", {}, {cookie}).status, 401);
    EXPECT_EQ(admin.request("GET", "/console/api/session", {}, {cookie}).status, 401);
}

TEST_F(Console, WrongTokensGetOneMessageAndTooManyLockTheAddressOut) {
    EXPECT_EQ(admin.post("/console/api/session", json{{"token", 7}}).status, 400);
    EXPECT_EQ(admin.post("/console/api/session", "not json").status, 400);
    std::string message;
    for (int i = 0; i < ConsoleSessions::kMaxFailures; ++i) {
        const HttpResult wrong = admin.request(
            "POST", "/console/api/session", json{{"token", std::string(kToken) + std::to_string(i)}}.dump());
        EXPECT_EQ(wrong.status, 401);
        EXPECT_TRUE(message.empty() || message == wrong.body) << wrong.body;
        message = wrong.body;
        EXPECT_TRUE(wrong.header("set-cookie").empty());
    }
    const HttpResult locked = admin.post("/console/api/session", json{{"token", kToken}});
    EXPECT_EQ(locked.status, 429) << locked.body;
    EXPECT_EQ(locked.header("retry-after"), "60");
    EXPECT_EQ(
        admin.request("GET", "/admin/v1/apps", {}, {std::string("Authorization: Bearer ") + kToken}).status,
        200)
        << "scripts keep their bearer token";
}

TEST(ConsoleSessions, IdleSessionsEndTheOldestMakeRoomAndFailuresAgeOut) {
    ConsoleSessions sessions;
    const auto first = sessions.open(0);
    EXPECT_EQ(sessions.touch(first.id, ConsoleSessions::kIdleSeconds)->csrf, first.csrf);
    EXPECT_EQ(sessions.touch(first.id, 2 * ConsoleSessions::kIdleSeconds)->csrf, first.csrf)
        << "each use restarts the idle time";
    EXPECT_FALSE(sessions.touch(first.id, 3 * ConsoleSessions::kIdleSeconds + 1));
    EXPECT_FALSE(sessions.touch("", 0));

    const auto oldest = sessions.open(1);
    for (std::size_t i = 1; i < ConsoleSessions::kMaxSessions; ++i) {
        sessions.open(2);
    }
    const auto newest = sessions.open(3);
    EXPECT_EQ(sessions.size(), ConsoleSessions::kMaxSessions);
    EXPECT_FALSE(sessions.touch(oldest.id, 4));
    EXPECT_TRUE(sessions.touch(newest.id, 4));

    for (int i = 0; i < ConsoleSessions::kMaxFailures; ++i) {
        EXPECT_EQ(sessions.signInDelay("10.0.0.1", 100), 0);
        sessions.signInFailed("10.0.0.1", 100 + i);
    }
    EXPECT_DOUBLE_EQ(sessions.signInDelay("10.0.0.1", 110), ConsoleSessions::kFailureWindowSeconds - 10);
    EXPECT_EQ(sessions.signInDelay("10.0.0.2", 110), 0);
    EXPECT_EQ(sessions.signInDelay("10.0.0.1", 100 + ConsoleSessions::kFailureWindowSeconds), 0);
    for (int i = 0; i < 10'000; ++i) {
        sessions.signInFailed("192.0.2." + std::to_string(i), 200);
    }
}

TEST(ConsoleSessions, CookieHeadersAreReadByName) {
    EXPECT_EQ(cookieValue("tovrel_console=abc", "tovrel_console"), "abc");
    EXPECT_EQ(cookieValue("a=1;tovrel_console=abc ; b=2", "tovrel_console"), "abc");
    EXPECT_EQ(cookieValue("xtovrel_console=abc; tovrel_console=def", "tovrel_console"), "def");
    EXPECT_EQ(cookieValue("tovrel_console", "tovrel_console"), "");
    EXPECT_EQ(cookieValue("", "tovrel_console"), "");
    EXPECT_EQ(cookieValue("tovrel_console=", "tovrel_console"), "");
}

}  // namespace
}  // namespace tovrel::server::test
