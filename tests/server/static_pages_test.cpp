// Static pages from the content folder over real HTTP on 127.0.0.1.
#include <gtest/gtest.h>

#include <filesystem>

#include "test_support.h"

namespace tovrel::server::test {
namespace {

namespace fs = std::filesystem;

// Larger than several of the chunks a file is sent in, and not a multiple of one.
std::string bigFile() {
    std::string bytes(200'001, '\0');
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        bytes[i] = static_cast<char>('a' + (i * 7 + i / 4096) % 26);
    }
    return bytes;
}

class StaticPages : public ::testing::Test {
  protected:
    StaticPages() {
        content.write("appcontent/about.html", "<p>about</p>");
        content.write("media/offer-1.html", "<p>offer</p>");
        content.write("media/style.CSS", "p{}");
        content.write("media/logo.png", std::string("\x89PNG\r\n", 6));
        content.write("index.html", "<p>home</p>");
        content.write("media/map.js", bigFile());
        content.write("docs/index.html", "<p>docs</p>");
        content.write(".secret", "hidden-file-content");
        content.write("media/.hidden.html", "hidden-file-content");
        outside.write("secret.txt", "outside the content folder");
        fs::create_symlink(outside / "secret.txt", content / "media/link.txt");
        fs::create_symlink(outside.path(), content / "escape");
        ServerFixture::Options options;
        options.fileDatabase = false;
        options.contentDir = content.path().string();
        fx = std::make_unique<ServerFixture>(options);
    }
    TempDir content;
    TempDir outside;
    std::unique_ptr<ServerFixture> fx;
};

TEST_F(StaticPages, FilesAreServedWithTheirContentTypes) {
    const HttpResult about = fx->client().get("/appcontent/about.html");
    EXPECT_EQ(about.status, 200);
    EXPECT_EQ(about.body, "<p>about</p>");
    EXPECT_EQ(about.contentType, "text/html; charset=utf-8");
    EXPECT_EQ(fx->client().get("/media/style.CSS").contentType, "text/css; charset=utf-8");
    const HttpResult png = fx->client().get("/media/logo.png");
    EXPECT_EQ(png.contentType, "image/png");
    EXPECT_EQ(png.body.size(), 6u);
    EXPECT_EQ(fx->client().get("/media/offer-1.html?utm=x#top").body, "<p>offer</p>");
    EXPECT_EQ(fx->client().get("/media/offer%2D1.html").body, "<p>offer</p>");
    HttpClient& client = fx->client();
    for (int round = 0; round < 2; ++round) {
        const HttpResult big = client.get("/media/map.js");
        EXPECT_EQ(big.status, 200);
        EXPECT_TRUE(big.body == bigFile()) << "round " << round << ": " << big.body.size() << " bytes";
    }
    EXPECT_EQ(client.request("HEAD", "/media/map.js", "").body, "");
    EXPECT_EQ(client.get("/media/offer-1.html").body, "<p>offer</p>");
}

TEST_F(StaticPages, FoldersServeTheirIndexPage) {
    EXPECT_EQ(fx->client().get("/").body, "<p>home</p>");
    EXPECT_EQ(fx->client().get("/docs/").body, "<p>docs</p>");
    EXPECT_EQ(fx->client().get("/docs").body, "<p>docs</p>");
    EXPECT_EQ(fx->client().get("/media/").status, 404);
}

TEST_F(StaticPages, HeadSendsTheLengthWithoutTheBody) {
    const HttpResult head = fx->client().request("HEAD", "/appcontent/about.html", "");
    EXPECT_EQ(head.status, 200);
    EXPECT_TRUE(head.body.empty());
    EXPECT_EQ(head.contentType, "text/html; charset=utf-8");
}

TEST_F(StaticPages, MissingPagesAreNotFoundWithAJsonError) {
    const HttpResult r = fx->client().get("/appcontent/nothing.html");
    EXPECT_EQ(r.status, 404);
    EXPECT_EQ(r.contentType, "application/json");
    EXPECT_TRUE(r.parsed().at("error").is_string());
}

TEST_F(StaticPages, TraversalAndHiddenFilesAreRefused) {
    const std::vector<std::string> attempts = {
        "/../" + outside.path().filename().string() + "/secret.txt",
        "/media/../../" + outside.path().filename().string() + "/secret.txt",
        "/%2e%2e/%2e%2e/etc/passwd",
        "/media/%2E%2E/%2E%2E/%2E%2E/etc/passwd",
        "/..%2f..%2f..%2fetc%2fpasswd",
        "/media/..%5c..%5cetc%5cpasswd",
        "/media/link.txt",
        "/escape/secret.txt",
        "/.secret",
        "/media/.hidden.html",
        "/media/offer-1.html%00.png",
        "//etc/passwd",
    };
    for (const std::string& path : attempts) {
        const HttpResult r = fx->client().get(path);
        EXPECT_TRUE(r.status == 404 || r.status == 400) << path << " -> " << r.status;
        EXPECT_EQ(r.body.find("outside the content folder"), std::string::npos) << path;
        EXPECT_EQ(r.body.find("root:"), std::string::npos) << path;
        EXPECT_EQ(r.body.find("hidden-file-content"), std::string::npos) << path;
    }
    EXPECT_EQ(fx->client().get("/media/%zz.html").status, 400);
    // Bytes that are not UTF-8, raw or escaped, are a bad path (and a JSON error), never a failure.
    for (const std::string path :
         {"/media/%ff.html", "/media/%c0%af.html", "/media/%ed%a0%80.html", "/\xff"}) {
        const HttpResult r = fx->client().get(path);
        EXPECT_EQ(r.status, 400) << path;
        EXPECT_TRUE(r.parsed().is_object()) << path << ": " << r.body;
    }
    EXPECT_EQ(fx->client().get("/media/caf%C3%A9.html").status, 404);
}

TEST(ExampleContent, TheSettingsPagesAndEveryOfferPageExist) {
    ServerFixture fx;
    for (const std::string page : {"about", "terms", "privacy", "help"}) {
        const HttpResult r = fx.client().get("/appcontent/" + page + ".html");
        EXPECT_EQ(r.status, 200) << page;
        EXPECT_EQ(r.contentType, "text/html; charset=utf-8");
        EXPECT_NE(r.body.find("<html"), std::string::npos);
    }
    ServerOptions options;
    options.contentDir = (examplesDir() / "content").string();
    Server server(options);
    server.importGeoJson((examplesDir() / "places" / "munich.geojson").string());
    HttpClient client(server.start());
    const json session =
        client.post("/v1/session", json{{"deviceId", "D"}, {"deviceModel", "x"}, {"sdkkey", "demo-key"}})
            .parsed();
    ASSERT_TRUE(session.contains("sessionKey"));
    const json answer =
        client
            .post("/v2/place", json{{"sessionKey", session["sessionKey"]},
                                    {"coordinatesList", {{{"lat", "48.137154"}, {"lon", "11.575400"}}}},
                                    {"distanceThreshold", "50000"}})
            .parsed();
    ASSERT_GE(answer.at("places").size(), 40u);
    for (const json& r : answer.at("places")) {
        const std::string url = r.at("mediaUrl").get<std::string>();
        const std::string prefix = "http://127.0.0.1:" + std::to_string(server.port());
        ASSERT_EQ(url.rfind(prefix, 0), 0u) << url;
        EXPECT_EQ(client.get(url.substr(prefix.size())).status, 200) << url;
    }
}

}  // namespace
}  // namespace tovrel::server::test
