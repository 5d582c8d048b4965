// Runs the tovrel-sim binary on the example routes against its embedded service (or one that never
// answers) and checks what the component did, from the events file, and what the run said.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

namespace {

using nlohmann::json;
namespace fs = std::filesystem;

struct SimRun {
    int exitStatus = -1;
    std::vector<json> events;
    std::string stderrText;

    std::vector<json> ofType(const std::string& type) const {
        std::vector<json> out;
        for (const auto& event : events) {
            if (event.value("type", "") == type) {
                out.push_back(event);
            }
        }
        return out;
    }
    std::vector<json> requestsTo(const std::string& path) const {
        std::vector<json> out;
        for (const auto& event : ofType("request")) {
            if (event.value("path", "") == path) {
                out.push_back(event);
            }
        }
        return out;
    }
    /// Time of the first event matching `predicate`, or -1.
    double firstTime(const std::function<bool(const json&)>& predicate) const {
        for (const auto& event : events) {
            if (predicate(event)) {
                return event.value("t", 0.0);
            }
        }
        return -1;
    }
    std::vector<std::string> statusCodes() const {
        std::vector<std::string> out;
        for (const auto& request : requestsTo("/v1/deviceevent/update")) {
            out.push_back(request["body"].value("statusCode", ""));
        }
        return out;
    }
};

/// A service on 127.0.0.1 that takes every connection (the kernel completes it from the backlog) and
/// never answers.
class SilentService {
  public:
    SilentService() : fd_(::socket(AF_INET, SOCK_STREAM, 0)) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        if (fd_ >= 0 && ::bind(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 &&
            ::listen(fd_, 16) == 0 &&
            ::getsockname(fd_, reinterpret_cast<sockaddr*>(&address), &length) == 0) {
            port_ = ntohs(address.sin_port);
        }
    }
    ~SilentService() {
        if (fd_ >= 0) {
            ::close(fd_);
        }
    }
    SilentService(const SilentService&) = delete;
    SilentService& operator=(const SilentService&) = delete;

    [[nodiscard]] int port() const { return port_; }
    [[nodiscard]] std::string url() const { return "http://127.0.0.1:" + std::to_string(port_); }

  private:
    int fd_;
    int port_ = 0;
};

class SimScenario : public ::testing::Test {
  protected:
    fs::path dir =
        fs::temp_directory_path() / ("tovrel-sim-test-" + std::to_string(::getpid()) + "-" +
                                     ::testing::UnitTest::GetInstance()->current_test_info()->name());

    void SetUp() override { fs::create_directories(dir); }
    void TearDown() override { fs::remove_all(dir); }

    static std::string route(const std::string& name) {
        return std::string(TOVREL_EXAMPLES_DIR) + "/routes/" + name;
    }

    SimRun sim(const std::string& arguments) {
        const fs::path events = dir / "events.jsonl";
        const fs::path errors = dir / "stderr.txt";
        fs::remove(events);
        const std::string command = std::string(TOVREL_SIM_BINARY) + " run --quiet --events " +
                                    events.string() + " " + arguments + " > /dev/null 2> " + errors.string();
        const int status = std::system(command.c_str());
        SimRun run;
        run.exitStatus = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        std::ifstream in(events);
        for (std::string line; std::getline(in, line);) {
            run.events.push_back(json::parse(line));
        }
        std::ifstream err(errors);
        std::ostringstream text;
        text << err.rdbuf();
        run.stderrText = text.str();
        return run;
    }
};

TEST_F(SimScenario, BackgroundVisitGoesFromSessionToNotification) {
    const SimRun run = sim("--route " + route("city-walk.csv"));
    ASSERT_EQ(run.exitStatus, 0) << run.stderrText;

    const double session = run.firstTime([](const json& e) {
        return e["type"] == "response" && e["path"] == "/v1/session" && e["status"] == 200;
    });
    const double places = run.firstTime([](const json& e) {
        return e["type"] == "response" && e["path"] == "/v2/place" && e["status"] == 200;
    });
    const double entry = run.firstTime([](const json& e) {
        return e["type"] == "log" &&
               e["line"].get<std::string>().find("Inside the target bounds!") != std::string::npos;
    });
    const double link = run.firstTime(
        [](const json& e) { return e["type"] == "request" && e["path"] == "/v1/deviceevent/link"; });
    const double ack = run.firstTime([](const json& e) {
        return e["type"] == "request" && e["path"] == "/v1/deviceevent/update" &&
               e["body"]["statusCode"] == "ack";
    });
    const double notification = run.firstTime([](const json& e) { return e["type"] == "notification"; });
    ASSERT_GE(session, 0);
    EXPECT_GT(places, session - 1e-9);
    EXPECT_GE(entry, places);
    EXPECT_GE(link, entry);
    EXPECT_GE(ack, link);
    EXPECT_GE(notification, link);
    EXPECT_TRUE(run.ofType("alert").empty()) << "no alerts while in the background";

    const auto notifications = run.ofType("notification");
    ASSERT_FALSE(notifications.empty());
    EXPECT_EQ(notifications[0]["alertAction"], "Resume");
    EXPECT_TRUE(notifications[0]["userInfo"].contains("deviceeventId"));
    EXPECT_EQ(run.requestsTo("/v1/session").size(), 1u);
    EXPECT_FALSE(run.requestsTo("/v1/log").empty());
}

TEST_F(SimScenario, ForegroundAlertAnswersReachTheService) {
    const struct {
        const char* answer;
        const char* button;
        const char* status;
    } cases[] = {{"later", "Later", "saved"}, {"never", "Never", "declined"}, {"view", "View", "seen"}};
    for (const auto& c : cases) {
        const SimRun run =
            sim("--route " + route("held-offer-walk.csv") + " --app-state active --answer " + c.answer);
        ASSERT_EQ(run.exitStatus, 0) << run.stderrText;
        const auto alerts = run.ofType("alert");
        ASSERT_FALSE(alerts.empty()) << c.answer;
        EXPECT_EQ(alerts[0]["buttons"], json::array({"Never", "View", "Later"}));
        const auto answers = run.ofType("alert_answer");
        ASSERT_FALSE(answers.empty()) << c.answer;
        EXPECT_EQ(answers[0]["button"], c.button);
        EXPECT_NEAR(answers[0]["t"].get<double>() - alerts[0]["t"].get<double>(), 1.0, 1e-6);
        const auto codes = run.statusCodes();
        EXPECT_NE(std::find(codes.begin(), codes.end(), c.status), codes.end()) << c.answer;
        EXPECT_TRUE(run.ofType("notification").empty()) << "no local notifications in the foreground";
        const auto views = run.ofType("offer_view");
        if (std::string(c.answer) == "view") {
            ASSERT_FALSE(views.empty());
            EXPECT_GE(views[0]["t"].get<double>(), answers[0]["t"].get<double>());
            EXPECT_NE(views[0]["mediaURL"].get<std::string>().find("/media/"), std::string::npos);
        } else {
            EXPECT_TRUE(views.empty()) << c.answer;
        }
    }
}

TEST_F(SimScenario, HeldOfferIsDeliveredAfterTheDeviceLeaves) {
    const SimRun run = sim("--route " + route("held-offer-walk.csv") + " --linger 30");
    ASSERT_EQ(run.exitStatus, 0) << run.stderrText;
    const double link = run.firstTime(
        [](const json& e) { return e["type"] == "request" && e["path"] == "/v1/deviceevent/link"; });
    ASSERT_GE(link, 0);
    double exitAfterLink = -1;
    for (const auto& event : run.ofType("log")) {
        if (event["t"].get<double>() >= link &&
            event["line"].get<std::string>().find("Outside the target bounds!") != std::string::npos) {
            exitAfterLink = event["t"].get<double>();
            break;
        }
    }
    ASSERT_GE(exitAfterLink, 0);
    const auto notifications = run.ofType("notification");
    ASSERT_FALSE(notifications.empty());
    EXPECT_GE(notifications[0]["t"].get<double>(), exitAfterLink);
    EXPECT_LE(notifications[0]["t"].get<double>(), exitAfterLink + 5.0 + 1e-6);
}

TEST_F(SimScenario, StateDirectoryContinuesTheDevice) {
    const std::string state = (dir / "state").string();
    const SimRun first = sim("--route " + route("held-offer-walk.csv") + " --linger 30 --state " + state);
    ASSERT_EQ(first.exitStatus, 0) << first.stderrText;
    ASSERT_FALSE(first.ofType("notification").empty());
    std::ifstream saved(dir / "state" / "preferences.json");
    const json prefs = json::parse(saved);
    ASSERT_TRUE(prefs.contains("deviceEventId"));
    ASSERT_TRUE(prefs.contains("adid"));

    const SimRun second = sim("--route " + route("held-offer-walk.csv") + " --linger 30 --state " + state);
    ASSERT_EQ(second.exitStatus, 0) << second.stderrText;
    EXPECT_EQ(second.requestsTo("/v1/session")[0]["body"]["deviceId"], prefs["adid"]);
    for (const auto& notification : second.ofType("notification")) {
        EXPECT_NE(notification["userInfo"]["deviceeventId"].get<std::string>(),
                  prefs["deviceEventId"].is_string() ? prefs["deviceEventId"].get<std::string>()
                                                     : prefs["deviceEventId"].dump())
            << "the stored device event must not be delivered again";
    }
}

TEST_F(SimScenario, BadInputExitsWithStatusTwoNamingTheProblem) {
    SimRun run = sim("--route /nonexistent/walk.csv");
    EXPECT_EQ(run.exitStatus, 2);
    EXPECT_NE(run.stderrText.find("/nonexistent/walk.csv: cannot be read"), std::string::npos)
        << run.stderrText;

    const fs::path bad = dir / "bad.csv";
    std::ofstream(bad) << "0,48.1,11.5\n1,48.1,east\n";
    run = sim("--route " + bad.string());
    EXPECT_EQ(run.exitStatus, 2);
    EXPECT_NE(run.stderrText.find("bad.csv:2: longitude 'east' is not a number"), std::string::npos)
        << run.stderrText;

    run = sim("--route " + route("held-offer-walk.csv") + " --app-state dozing");
    EXPECT_EQ(run.exitStatus, 2);
    run = sim("--route " + route("held-offer-walk.csv") + " --answer maybe");
    EXPECT_EQ(run.exitStatus, 2);
    for (const char* timeout : {"0", "0.09", "3601", "soon"}) {
        run = sim("--route " + route("held-offer-walk.csv") + " --http-timeout " + timeout);
        EXPECT_EQ(run.exitStatus, 2) << timeout;
        EXPECT_NE(run.stderrText.find("--http-timeout"), std::string::npos) << run.stderrText;
    }
    run = sim("");
    EXPECT_EQ(run.exitStatus, 2);
    run = sim("--route " + route("held-offer-walk.csv") + " --places /nonexistent/places.geojson");
    EXPECT_EQ(run.exitStatus, 2);
    EXPECT_NE(run.stderrText.find("/nonexistent/places.geojson"), std::string::npos) << run.stderrText;
}

TEST_F(SimScenario, ASessionThatNeverStartsEndsTheRunWithStatusThree) {
    // A key the service does not know, then a service nobody listens on: the component retries at
    // once without end; the run stops after the attempts it allows and says why.
    SimRun run = sim("--route " + route("city-walk.csv") + " --sdk-key no-such-key");
    EXPECT_EQ(run.exitStatus, 3) << run.stderrText;
    EXPECT_NE(run.stderrText.find("the session did not start: 5 attempts in a row failed"), std::string::npos)
        << run.stderrText;
    EXPECT_EQ(run.requestsTo("/v1/session").size(), 5u);
    ASSERT_EQ(run.ofType("run_end").size(), 1u);
    EXPECT_EQ(run.ofType("run_end")[0]["reason"], "session");

    run = sim("--route " + route("city-walk.csv") + " --service http://127.0.0.1:1 --session-attempts 2");
    EXPECT_EQ(run.exitStatus, 3) << run.stderrText;
    EXPECT_EQ(run.requestsTo("/v1/session").size(), 2u);
    EXPECT_NE(run.stderrText.find("127.0.0.1:1"), std::string::npos) << run.stderrText;
}

TEST_F(SimScenario, ASilentServiceIsReportedWhileTheRunWaitsForItsAnswer) {
    // The virtual clock stands still while a request is in flight: the run waits out --http-timeout in
    // wall time, and says so every 5 s.
    const SilentService service;
    ASSERT_GT(service.port(), 0);
    const auto timed = [this](const std::string& arguments, double& seconds) {
        const auto start = std::chrono::steady_clock::now();
        SimRun run = sim(arguments);
        seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        return run;
    };
    const std::string silent = "--route " + route("city-walk.csv") + " --service " + service.url();
    double seconds = 0;

    SimRun run = timed(silent + " --http-timeout 6 --session-attempts 1", seconds);
    EXPECT_EQ(run.exitStatus, 3) << run.stderrText;
    EXPECT_GE(seconds, 5.5);
    EXPECT_LT(seconds, 20);
    const std::string waiting = "tovrel-sim: waiting 5 s for POST " + service.url() +
                                "/v1/session (gives up after 6 s, --http-timeout)\n";
    const auto first = run.stderrText.find(waiting);
    ASSERT_NE(first, std::string::npos) << run.stderrText;
    EXPECT_EQ(run.stderrText.find(waiting, first + 1), std::string::npos) << run.stderrText;
    EXPECT_EQ(run.stderrText.find("waiting 10 s"), std::string::npos) << run.stderrText;
    EXPECT_NE(run.stderrText.find("timed out after 6.0 s"), std::string::npos) << run.stderrText;

    // Requests that give up within the interval are never reported.
    run = timed(silent + " --http-timeout 1 --session-attempts 2", seconds);
    EXPECT_EQ(run.exitStatus, 3) << run.stderrText;
    EXPECT_GE(seconds, 1.8);
    EXPECT_LT(seconds, 20);
    EXPECT_EQ(run.requestsTo("/v1/session").size(), 2u);
    EXPECT_EQ(run.stderrText.find("waiting"), std::string::npos) << run.stderrText;
    EXPECT_NE(run.stderrText.find("timed out after 1.0 s"), std::string::npos) << run.stderrText;
}

TEST_F(SimScenario, MaxDurationCutsTheRouteAndHeadersAreRead) {
    const fs::path walk = dir / "header.csv";
    {
        std::ofstream out(walk);
        out << "t,lat,lon\n";
        std::ifstream in(route("city-walk.csv"));
        out << in.rdbuf();
    }
    const SimRun whole = sim("--route " + walk.string());
    ASSERT_EQ(whole.exitStatus, 0) << whole.stderrText;
    const SimRun cut = sim("--route " + walk.string() + " --max-duration 120");
    ASSERT_EQ(cut.exitStatus, 0) << cut.stderrText;
    ASSERT_FALSE(cut.events.empty());
    EXPECT_LE(cut.events.back().value("t", 0.0), 120.0);
    EXPECT_LT(cut.ofType("position").size(), whole.ofType("position").size());
    EXPECT_EQ(sim("--route " + walk.string() + " --max-duration 0").exitStatus, 2);
}

TEST_F(SimScenario, ExpectationsGuardACampaignWithTheirExitStatus) {
    // On the city walk the fountain offer is delivered and the market offer is suppressed by its cap.
    SimRun run = sim(
        "--route " + route("city-walk.csv") +
        " --expect offer:1010=delivered --expect offer:1006=not-delivered --expect offer:1006=suppressed:cap"
        " --expect offer:1010=not-suppressed --expect 'deliveries>=5'");
    EXPECT_EQ(run.exitStatus, 0) << run.stderrText;
    const auto outcomes = run.ofType("outcome");
    ASSERT_FALSE(outcomes.empty());
    const auto market =
        std::find_if(outcomes.begin(), outcomes.end(), [](const json& o) { return o["eventId"] == "1006"; });
    ASSERT_NE(market, outcomes.end());
    EXPECT_EQ((*market)["delivered"], false);
    EXPECT_NE((*market)["reason"].get<std::string>().find(", suppressed: campaign cap of 3"),
              std::string::npos)
        << (*market)["reason"];
    EXPECT_EQ((*market)["heldBy"], "cap");
    EXPECT_EQ(
        sim("--route " + route("city-walk.csv") + " --expect offer:1006=suppressed:sometimes").exitStatus, 2);
    EXPECT_EQ(sim("--route " + route("city-walk.csv") + " --start 2026-03-29T25:00:00Z").exitStatus, 2);

    const fs::path rules = dir / "campaign.rules";
    std::ofstream(rules) << "# the market offer must reach the user\noffer:1006=delivered\n\ndeliveries<=2\n";
    run = sim("--route " + route("city-walk.csv") + " --expect-file " + rules.string());
    EXPECT_EQ(run.exitStatus, 1);
    EXPECT_NE(run.stderrText.find("expectation failed: offer:1006=delivered (offer 1006 at place 105: not "
                                  "delivered: linked at"),
              std::string::npos)
        << run.stderrText;
    EXPECT_NE(run.stderrText.find("expectation failed: deliveries<=2 (deliveries = "), std::string::npos)
        << run.stderrText;

    run = sim("--route " + route("city-walk.csv") + " --expect offer:1006=arrived");
    EXPECT_EQ(run.exitStatus, 2);
    EXPECT_NE(run.stderrText.find("expectation 'offer:1006=arrived'"), std::string::npos) << run.stderrText;
    std::ofstream(rules) << "offer:1006=delivered\nplace:105 entered\n";
    EXPECT_EQ(sim("--route " + route("city-walk.csv") + " --expect-file " + rules.string()).exitStatus, 2);
}

TEST_F(SimScenario, AFleetSumsUpItsDevicesAndGuardsACampaignToo) {
    const fs::path routes = dir / "routes";
    fs::create_directories(routes);
    fs::copy_file(route("city-walk.csv"), routes / "a.csv");
    fs::copy_file(route("drive-in.gpx"), routes / "b.gpx");
    const fs::path events = dir / "fleet.jsonl";
    const fs::path report = dir / "fleet.html";
    const std::string fleet = std::string(TOVREL_SIM_BINARY) + " fleet --quiet --devices 4 --routes " +
                              routes.string() + " --events " + events.string() + " --report " +
                              report.string() + " > /dev/null 2> " + (dir / "stderr.txt").string();
    const auto status = [](const std::string& command) {
        const int raw = std::system(command.c_str());
        return WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
    };
    ASSERT_EQ(status(fleet + " --expect offer:1010=delivered --expect 'deliveries>=2'"), 0);
    std::ifstream in(events);
    std::vector<json> lines;
    for (std::string line; std::getline(in, line);) {
        lines.push_back(json::parse(line));
    }
    ASSERT_EQ(lines.size(), 5u);  // four devices, then the totals
    EXPECT_EQ(lines.back()["type"], "fleet");
    EXPECT_EQ(lines.back()["devices"], 4);
    EXPECT_GT(lines.back()["requestsPerDeviceHour"]["/v2/place"].get<double>(), 0);
    std::ifstream html(report);
    std::ostringstream page;
    page << html.rdbuf();
    // The trigger points are marks on the same map as a single run's report.
    EXPECT_NE(page.str().find("\"kind\":\"delivered\""), std::string::npos);
    EXPECT_LT(page.str().find("</style>"), page.str().find("<body>"))
        << "the map's style is outside the head";
    EXPECT_NE(page.str().find("id=\"requests\""), std::string::npos);

    EXPECT_EQ(status(fleet + " --expect 'deliveries>1000'"), 1);
    EXPECT_EQ(status(fleet + " --sdk-key no-such-key"), 3);
    EXPECT_EQ(status(fleet + " --generate walks"), 2);  // --routes and --generate exclude each other
    EXPECT_EQ(status(std::string(TOVREL_SIM_BINARY) + " fleet --quiet --routes " + (dir / "none").string() +
                     " 2> /dev/null"),
              2);
}

}  // namespace
