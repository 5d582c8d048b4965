// Runs tovrel-sim on an example route with a place whose offer name is hostile HTML, then loads the
// report in headless Chromium (Debian's package; nothing but the file is fetched: every host name
// fails to resolve) and checks the page after its scripts ran: the Leaflet map with one SVG path per
// place circle, the timeline filter, the escaped name. Keeps a screenshot under the build folder.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace {

using nlohmann::json;
namespace fs = std::filesystem;

constexpr const char* kHostileName =
    "Caf\xC3\xA9 \"Quote\" </script><script>document.title='injected'</script>";

std::optional<fs::path> findChromium() {
    if (const char* given = std::getenv("TOVREL_CHROMIUM"); given != nullptr && *given != '\0') {
        return ::access(given, X_OK) == 0 ? std::optional<fs::path>(given) : std::nullopt;
    }
    const char* path = std::getenv("PATH");
    std::istringstream folders(path != nullptr ? path : "/usr/bin:/bin");
    for (std::string folder; std::getline(folders, folder, ':');) {
        for (const char* name : {"chromium", "chromium-browser"}) {
            const fs::path candidate = fs::path(folder) / name;
            if (::access(candidate.c_str(), X_OK) == 0) {
                return candidate;
            }
        }
    }
    return std::nullopt;
}

struct Finished {
    bool timedOut = false;
    int status = -1;
};

/// Runs `argv` in its own process group with stdout to `output` and stderr to `errors`; kills the whole
/// group when it has not finished after `limit`.
Finished runBounded(const std::vector<std::string>& argv, const fs::path& output, const fs::path& errors,
                    std::chrono::seconds limit) {
    const pid_t child = ::fork();
    if (child == 0) {
        ::setpgid(0, 0);
        if (std::freopen(output.c_str(), "w", stdout) == nullptr ||
            std::freopen(errors.c_str(), "w", stderr) == nullptr) {
            ::_exit(126);
        }
        std::vector<char*> args;
        for (const auto& arg : argv) {
            args.push_back(const_cast<char*>(arg.c_str()));
        }
        args.push_back(nullptr);
        ::execv(args[0], args.data());
        ::_exit(127);
    }
    Finished finished;
    if (child < 0) {
        return finished;
    }
    ::setpgid(child, child);
    const auto deadline = std::chrono::steady_clock::now() + limit;
    for (;;) {
        int status = 0;
        if (::waitpid(child, &status, WNOHANG) == child) {
            finished.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
            break;
        }
        if (std::chrono::steady_clock::now() > deadline) {
            finished.timedOut = true;
            ::kill(-child, SIGKILL);
            ::waitpid(child, &status, 0);
            break;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    ::kill(-child, SIGKILL);  // helpers a browser leaves behind
    return finished;
}

std::string readAll(const fs::path& file) {
    std::ifstream in(file, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

std::size_t countMatches(const std::string& text, const std::regex& pattern) {
    return static_cast<std::size_t>(
        std::distance(std::sregex_iterator(text.begin(), text.end(), pattern), std::sregex_iterator()));
}

class ReportInBrowser : public ::testing::Test {
  protected:
    fs::path dir = fs::temp_directory_path() / ("tovrel-sim-browser-" + std::to_string(::getpid()));

    void SetUp() override { fs::create_directories(dir); }
    void TearDown() override { fs::remove_all(dir); }

    /// The example places with the first offer renamed to kHostileName.
    fs::path hostilePlaces() {
        json places = json::parse(readAll(fs::path(TOVREL_EXAMPLES_DIR) / "places" / "munich.geojson"));
        places["features"][0]["properties"]["offers"][0]["eventName"] = kHostileName;
        const fs::path file = dir / "places.geojson";
        std::ofstream(file) << places.dump();
        return file;
    }

    std::vector<std::string> chromium(const fs::path& binary, const std::string& what,
                                      const std::string& fragment = "") const {
        std::vector<std::string> args{binary.string(),
                                      "--headless",
                                      "--disable-gpu",
                                      "--user-data-dir=" + (dir / "profile").string(),
                                      "--no-first-run",
                                      "--no-default-browser-check",
                                      "--disable-background-networking",
                                      "--disable-component-update",
                                      "--disable-default-apps",
                                      "--disable-extensions",
                                      "--disable-sync",
                                      "--disable-domain-reliability",
                                      "--metrics-recording-only",
                                      "--no-proxy-server",
                                      "--host-resolver-rules=MAP * ~NOTFOUND",
                                      "--hide-scrollbars",
                                      "--window-size=1100,2900",
                                      "--virtual-time-budget=5000",
                                      what};
        if (::geteuid() == 0) {
            args.insert(args.begin() + 1, "--no-sandbox");
        }
        args.push_back("file://" + (dir / "report.html").string() + fragment);
        return args;
    }
};

#if TOVREL_SIM_HAVE_LEAFLET
/// A 1×1 PNG in a light tan, for tiles read from a file.
constexpr unsigned char kTilePng[] = {0x89, 0x50, 0x4e, 0x47, 0x0d, 0x0a, 0x1a, 0x0a, 0x00, 0x00, 0x00, 0x0d,
                                      0x49, 0x48, 0x44, 0x52, 0x00, 0x00, 0x00, 0x01, 0x00, 0x00, 0x00, 0x01,
                                      0x08, 0x02, 0x00, 0x00, 0x00, 0x90, 0x77, 0x53, 0xde, 0x00, 0x00, 0x00,
                                      0x0c, 0x49, 0x44, 0x41, 0x54, 0x78, 0x9c, 0x63, 0xf8, 0xf0, 0xec, 0x04,
                                      0x00, 0x05, 0x68, 0x02, 0x9f, 0x2f, 0x6f, 0xb0, 0xa5, 0x00, 0x00, 0x00,
                                      0x00, 0x49, 0x45, 0x4e, 0x44, 0xae, 0x42, 0x60, 0x82};

TEST_F(ReportInBrowser, TilesFromTheTemplateLieUnderTheCircles) {
    const auto browser = findChromium();
    if (!browser) {
        GTEST_SKIP()
            << "Chromium not found (the Debian package chromium; scripts/setup.sh installs it, or set "
               "TOVREL_CHROMIUM): the report is not loaded in a browser";
    }
    const fs::path tile = dir / "tile.png";
    std::ofstream(tile, std::ios::binary).write(reinterpret_cast<const char*>(kTilePng), sizeof kTilePng);
    // A file URL ignores its query: every tile is the same file.
    const Finished sim =
        runBounded({TOVREL_SIM_BINARY, "run", "--quiet", "--route",
                    std::string(TOVREL_EXAMPLES_DIR) + "/routes/held-offer-walk.csv", "--tiles",
                    "file://" + tile.string() + "?{z}/{x}/{y}", "--report", (dir / "report.html").string()},
                   dir / "sim.out", dir / "sim.err", std::chrono::seconds(60));
    ASSERT_FALSE(sim.timedOut);
    ASSERT_EQ(sim.status, 0) << readAll(dir / "sim.err");
    const Finished dump = runBounded(chromium(*browser, "--dump-dom"), dir / "dom.html", dir / "dump.err",
                                     std::chrono::seconds(90));
    ASSERT_FALSE(dump.timedOut) << "Chromium did not finish within 90 s";
    ASSERT_EQ(dump.status, 0) << readAll(dir / "dump.err");
    const std::string dom = readAll(dir / "dom.html");
    EXPECT_GE(countMatches(dom, std::regex(R"(<img [^>]*class="leaflet-tile leaflet-tile-loaded")")), 1u);
    EXPECT_NE(dom.find("<span id=\"map-note\"></span>"), std::string::npos)
        << "no plain background when tiles load";
    EXPECT_GE(countMatches(dom, std::regex(R"(<path class="place [a-z]+ leaflet-interactive")")), 1u);
}
#endif

TEST_F(ReportInBrowser, MapCirclesAndTimelineFilterExistAfterScriptsRan) {
    const auto browser = findChromium();
    if (!browser) {
        GTEST_SKIP()
            << "Chromium not found (the Debian package chromium; scripts/setup.sh installs it, or set "
               "TOVREL_CHROMIUM): the report is not loaded in a browser";
    }
    const fs::path events = dir / "events.jsonl";
    const Finished sim = runBounded(
        {TOVREL_SIM_BINARY, "run", "--quiet", "--route",
         std::string(TOVREL_EXAMPLES_DIR) + "/routes/city-walk.csv", "--places", hostilePlaces().string(),
         "--events", events.string(), "--report", (dir / "report.html").string()},
        dir / "sim.out", dir / "sim.err", std::chrono::seconds(60));
    ASSERT_FALSE(sim.timedOut);
    ASSERT_EQ(sim.status, 0) << readAll(dir / "sim.err");

    std::set<std::string> placeIds;
    std::ifstream in(events);
    for (std::string line; std::getline(in, line);) {
        const json event = json::parse(line);
        if (event["type"] == "response" && event.value("path", "") == "/v2/place" &&
            event["body"].is_object()) {
            for (const auto& place : event["body"].value("places", json::array())) {
                placeIds.insert(place["placeId"].get<std::string>());
            }
        }
    }
    ASSERT_GT(placeIds.size(), 3u);

    const Finished dump = runBounded(chromium(*browser, "--dump-dom"), dir / "dom.html", dir / "dump.err",
                                     std::chrono::seconds(90));
    ASSERT_FALSE(dump.timedOut) << "Chromium did not finish within 90 s";
    ASSERT_EQ(dump.status, 0) << readAll(dir / "dump.err");
    const std::string dom = readAll(dir / "dom.html");

#if TOVREL_SIM_HAVE_LEAFLET
    EXPECT_TRUE(std::regex_search(dom, std::regex(R"(<div id="map" class="map[^"]*leaflet-container)")))
        << "Leaflet did not take the map container";
    EXPECT_EQ(countMatches(dom, std::regex(R"(<path class="place [a-z]+ leaflet-interactive")")),
              placeIds.size())
        << "one circle per place the service named";
    EXPECT_GE(countMatches(dom, std::regex(R"(<path class="route-line)")), 1u);
    EXPECT_GE(countMatches(dom, std::regex(R"(<path class="mark delivered)")), 1u) << "a delivery point";
    EXPECT_NE(dom.find("leaflet-control-scale"), std::string::npos) << "a scale bar";
    EXPECT_NE(dom.find("leaflet-control-zoom-in"), std::string::npos) << "zoom buttons";
    EXPECT_NE(dom.find("<span id=\"map-note\">Map tiles did not load"), std::string::npos)
        << "offline, the failed tiles leave a plain background and say so";

#else
    // A build without Leaflet draws the plain map and says so.
    EXPECT_NE(dom.find("This build has no Leaflet"), std::string::npos);
    EXPECT_EQ(countMatches(dom, std::regex(R"(<circle cx="[^"]*" cy="[^"]*" r="[^"]*" class="place )")),
              placeIds.size())
        << "one circle per place the service named";
#endif
    EXPECT_NE(dom.find("<select id=\"filter-kind\">"), std::string::npos);
    EXPECT_NE(dom.find("<select id=\"filter-offer\">"), std::string::npos);
    EXPECT_TRUE(
        std::regex_search(dom, std::regex(R"(<span id="filter-count">[0-9]+ of [0-9]+ events shown</span>)")))
        << "the filter's script ran";

    // The offers table links each offer to its events: the fragment selects them in the timeline.
    const Finished filtered =
        runBounded(chromium(*browser, "--dump-dom", "#offer=1001"), dir / "filtered.html",
                   dir / "filtered.err", std::chrono::seconds(90));
    ASSERT_FALSE(filtered.timedOut) << "Chromium did not finish within 90 s";
    const std::string selected = readAll(dir / "filtered.html");
    std::smatch shown;
    ASSERT_TRUE(std::regex_search(
        selected, shown, std::regex(R"(<span id="filter-count">([0-9]+) of ([0-9]+) events shown</span>)")));
    EXPECT_GT(std::stoi(shown[1]), 0) << "the link request, notification and outcome of offer 1001";
    EXPECT_LT(std::stoi(shown[1]), std::stoi(shown[2]));
    EXPECT_EQ(countMatches(selected, std::regex(R"(<tr data-kind="[^"]*" data-offer="1001">)")),
              static_cast<std::size_t>(std::stoi(shown[1])))
        << "the rows of other offers are hidden";
    EXPECT_EQ(countMatches(selected, std::regex(R"(<tr data-kind="[^"]*" data-offer="(?!1001")[^"]*">)")),
              0u);

    EXPECT_NE(dom.find("<title>Tovrel simulation: city-walk.csv</title>"), std::string::npos)
        << "a name from the places file ran as script";
    EXPECT_EQ(dom.find("<script>document.title"), std::string::npos)
        << "a name from the places file became a script";
    EXPECT_NE(dom.find("Café \"Quote\" &lt;/script&gt;"), std::string::npos) << "the name shown as text";
#if TOVREL_SIM_HAVE_LEAFLET
    EXPECT_NE(dom.find("<span>Marienplatz: Café \"Quote\" &lt;/script&gt;"), std::string::npos)
        << "the circle's label: the place's name from the place file, its offers";
#endif

    const fs::path screenshots = TOVREL_SCREENSHOT_DIR;
    fs::create_directories(screenshots);
    const fs::path png = screenshots / "sim-report.png";
    fs::remove(png);
    const Finished shot = runBounded(chromium(*browser, "--screenshot=" + png.string()), dir / "shot.out",
                                     dir / "shot.err", std::chrono::seconds(90));
    ASSERT_FALSE(shot.timedOut) << "Chromium did not finish within 90 s";
    ASSERT_EQ(shot.status, 0) << readAll(dir / "shot.err");
    const std::string image = readAll(png);
    ASSERT_GT(image.size(), 20000u) << "a screenshot of a whole page, not a blank one";
    EXPECT_EQ(image.substr(0, 8), std::string("\x89PNG\r\n\x1a\n", 8));
}

}  // namespace
