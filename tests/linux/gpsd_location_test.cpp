#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <mutex>
#include <thread>

#include "process_support.h"
#include "recording_delegate.h"
#include "tovrel/linux/fix_filter.h"
#include "tovrel/linux/linux_application.h"
#include "tovrel/linux/linux_location_services.h"
#include "tovrel/linux/system_clock.h"
#include "track_samples.h"

namespace tovrel::linuxbackend {
namespace {

using namespace std::chrono_literals;

/// A TCP NMEA feed on 127.0.0.1 that gpsd reads as its device ("tcp://127.0.0.1:<port>"). Sentences go
/// to the connection gpsd holds at the moment; a restarted gpsd is accepted again.
class NmeaFeed {
  public:
    NmeaFeed() {
        listener_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        const int yes = 1;
        ::setsockopt(listener_, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        ::bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof address);
        ::listen(listener_, 4);
        ::getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length);
        port_ = ntohs(address.sin_port);
        acceptor_ = std::thread([this] { acceptLoop(); });
    }
    ~NmeaFeed() {
        stopping_ = true;
        acceptor_.join();
        ::close(listener_);
        std::lock_guard lock(mutex_);
        if (client_ >= 0) {
            ::close(client_);
        }
    }
    NmeaFeed(const NmeaFeed&) = delete;
    NmeaFeed& operator=(const NmeaFeed&) = delete;

    [[nodiscard]] int port() const { return port_; }
    [[nodiscard]] int connections() const { return connections_.load(); }
    void send(const std::string& text) {
        std::lock_guard lock(mutex_);
        if (client_ >= 0 && ::send(client_, text.data(), text.size(), MSG_NOSIGNAL) < 0) {
            ::close(client_);
            client_ = -1;
        }
    }

  private:
    void acceptLoop() {
        while (!stopping_) {
            pollfd fd{listener_, POLLIN, 0};
            if (::poll(&fd, 1, 50) <= 0) {
                continue;
            }
            const int client = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
            if (client < 0) {
                continue;
            }
            std::lock_guard lock(mutex_);
            if (client_ >= 0) {
                ::close(client_);
            }
            client_ = client;
            ++connections_;
        }
    }

    int listener_ = -1;
    int port_ = 0;
    std::thread acceptor_;
    std::atomic<bool> stopping_{false};
    std::atomic<int> connections_{0};
    std::mutex mutex_;
    int client_ = -1;
};

class GpsdLocationTest : public ::testing::Test {
  protected:
    void SetUp() override {
        if (findExecutable("gpsd").empty() && findExecutable("/usr/sbin/gpsd").empty()) {
            GTEST_SKIP() << "gpsd is not installed (Debian package gpsd)";
        }
        gpsdPort = test::freeLoopbackPort();
    }

    void startGpsd() {
        const std::string gpsd = findExecutable("gpsd").empty() ? "/usr/sbin/gpsd" : "gpsd";
        const int before = feed.connections();
        daemon = std::make_unique<test::ChildProcess>(
            std::vector<std::string>{gpsd, "-N", "-n", "-S", std::to_string(gpsdPort),
                                     "tcp://127.0.0.1:" + std::to_string(feed.port())});
        ASSERT_TRUE(daemon->started());
        ASSERT_TRUE(test::waitUntil([&] { return feed.connections() > before; }, 10s))
            << "gpsd never read the feed";
    }

    std::shared_ptr<LinuxLocationServices> makeServices(GpsdOptions options = {}) {
        options.host = "127.0.0.1";
        options.port = std::to_string(gpsdPort);
        options.reconnectInitialDelaySeconds = 0.05;
        options.reconnectMaxDelaySeconds = 0.2;
        return std::make_shared<LinuxLocationServices>(loop, clock, makeGpsdSource(options, clock));
    }

    /// Feeds one fix `step * metresPerStep` north of 48 N every 40 ms from the loop until `done`.
    bool feedUntil(const std::function<bool()>& done, double metresPerStep,
                   std::chrono::milliseconds timeout) {
        auto timer = loop->scheduleTimer(0.04, true, [&, metresPerStep] {
            const double north = step * metresPerStep;
            feed.send(test::nmeaFix(48.0 + north / 111194.93, 11.0, step % 3600));
            ++step;
        });
        const bool reached = loop->runUntil(done, timeout);
        timer->invalidate();
        return reached;
    }

    NmeaFeed feed;
    int gpsdPort = 0;
    int step = 0;
    std::unique_ptr<test::ChildProcess> daemon;
    std::shared_ptr<AsioMainLoop> loop = std::make_shared<AsioMainLoop>();
    std::shared_ptr<SystemClock> clock = std::make_shared<SystemClock>();
    std::shared_ptr<test::RecordingDelegate> delegate = std::make_shared<test::RecordingDelegate>(*loop);
};

TEST_F(GpsdLocationTest, FixesFromGpsdPassTheDistanceFilter) {
    startGpsd();
    auto services = makeServices();
    auto manager = services->createLocationManager();
    manager->setDistanceFilter(20);
    manager->setDelegate(delegate);
    manager->startUpdatingLocation();
    ASSERT_TRUE(feedUntil([&] { return delegate->fixes.size() >= 6; }, 4, 30s))
        << "published " << services->publishedCount() << ", delivered " << delegate->fixes.size();
    EXPECT_TRUE(delegate->errors.empty());
    EXPECT_EQ(delegate->offLoopCalls, 0);
    for (std::size_t i = 1; i < delegate->fixes.size(); ++i) {
        // NMEA keeps 1/10000 of a minute (0.19 m); the filter itself allows nothing shorter than 20 m.
        EXPECT_GE(metresBetween(delegate->fixes[i - 1].coordinate, delegate->fixes[i].coordinate), 20 - 0.4);
    }
    EXPECT_GT(services->publishedCount(), 3 * delegate->fixes.size()) << "4 m steps: most fixes are filtered";
    const auto& last = delegate->fixes.back();
    EXPECT_NEAR(last.coordinate.longitude, 11.0, 1e-6);
    EXPECT_GT(last.horizontalAccuracy, 0);
    EXPECT_NEAR(last.speed, 5.0 * 0.514444, 0.05) << "5 knots as the feed says";
    EXPECT_NEAR(last.altitude, 520, 0.01);
}

TEST_F(GpsdLocationTest, LosingGpsdReportsLocationUnknownOnceAndFixesResumeWhenItReturns) {
    startGpsd();
    auto services = makeServices();
    auto manager = services->createLocationManager();
    manager->setDelegate(delegate);
    manager->startUpdatingLocation();
    ASSERT_TRUE(feedUntil([&] { return !delegate->fixes.empty(); }, 30, 30s));

    daemon->kill(SIGTERM);
    ASSERT_TRUE(loop->runUntil([&] { return !delegate->errors.empty(); }, 10s));
    EXPECT_EQ(delegate->errors[0].code, 0);
    EXPECT_NE(delegate->errors[0].description.find(std::to_string(gpsdPort)), std::string::npos);

    // The component restarts its manager on an error; the fresh one must not hear the same outage again.
    auto restarted = services->createLocationManager();
    auto restartedDelegate = std::make_shared<test::RecordingDelegate>(*loop);
    restarted->setDelegate(restartedDelegate);
    restarted->startUpdatingLocation();
    loop->runFor(600ms);
    EXPECT_EQ(delegate->errors.size(), 1u) << "one report per outage, whatever the number of retries";
    EXPECT_TRUE(restartedDelegate->errors.empty());

    startGpsd();
    const auto before = restartedDelegate->fixes.size();
    EXPECT_TRUE(feedUntil([&] { return restartedDelegate->fixes.size() > before + 1; }, 30, 30s))
        << "no fix after gpsd came back";
    EXPECT_TRUE(restartedDelegate->errors.empty());
}

TEST_F(GpsdLocationTest, BoundedReconnectsGiveUpUntilUpdatesStartAgain) {
    GpsdOptions options;
    options.maxReconnectAttempts = 3;
    auto services = makeServices(options);  // nothing listens on the port
    auto manager = services->createLocationManager();
    manager->setDelegate(delegate);
    manager->startUpdatingLocation();
    ASSERT_TRUE(loop->runUntil([&] { return delegate->errors.size() >= 2; }, 10s));
    EXPECT_EQ(delegate->errors[0].code, 0);
    EXPECT_EQ(delegate->errors[1].code, kLocationErrorSourceGaveUp);
    loop->runFor(500ms);
    EXPECT_EQ(delegate->errors.size(), 2u) << "no attempts after giving up";

    manager->startUpdatingLocation();  // already running: no wake-up needed to keep quiet
    auto another = services->createLocationManager();
    another->setDelegate(delegate);
    another->startUpdatingLocation();
    EXPECT_TRUE(loop->runUntil([&] { return delegate->errors.size() >= 4; }, 10s))
        << "a new start tries again";
}

}  // namespace
}  // namespace tovrel::linuxbackend
