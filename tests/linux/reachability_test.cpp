#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <map>
#include <mutex>
#include <thread>

#include "process_support.h"
#include "tovrel/linux/linux_application.h"
#include "tovrel/linux/netlink_reachability.h"
#include "tovrel/linux/netlink_routes.h"
#include "tovrel/linux/thread_background_work.h"

namespace tovrel::linuxbackend {
namespace {

using namespace std::chrono_literals;
using platform::kReachabilityIsDirect;
using platform::kReachabilityIsLocalAddress;
using platform::kReachabilityIsWWAN;
using platform::kReachabilityReachable;

TEST(ReachabilityFlagsTest, RouteFactsMapToTheFlagWord) {
    EXPECT_EQ(reachabilityFlagsFor(RouteLookup{}, true), 0u);
    RouteLookup viaGateway{true, false, true, 2, "eth0"};
    EXPECT_EQ(reachabilityFlagsFor(viaGateway, false), kReachabilityReachable);
    EXPECT_EQ(reachabilityFlagsFor(viaGateway, true), kReachabilityReachable | kReachabilityIsWWAN);
    RouteLookup onLink{true, false, false, 2, "eth0"};
    EXPECT_EQ(reachabilityFlagsFor(onLink, false), kReachabilityReachable | kReachabilityIsDirect);
    RouteLookup local{true, true, false, 1, "lo"};
    EXPECT_EQ(reachabilityFlagsFor(local, false),
              kReachabilityReachable | kReachabilityIsDirect | kReachabilityIsLocalAddress);
}

TEST(ReachabilityFlagsTest, HostIsTakenOutOfAUrl) {
    EXPECT_EQ(hostFromName("http://127.0.0.1:8080"), "127.0.0.1");
    EXPECT_EQ(hostFromName("https://user:pw@api.example.com/v1/session?x=1"), "api.example.com");
    EXPECT_EQ(hostFromName("[::1]:80"), "::1");
    EXPECT_EQ(hostFromName("localhost"), "localhost");
    EXPECT_EQ(hostFromName("fe80::1"), "fe80::1");
}

TEST(ReachabilityFlagsTest, WwanInterfacesByNameOrSysfs) {
    test::TempDir sys;
    std::filesystem::create_directories(sys.path() / "usb0");
    std::ofstream(sys.path() / "usb0" / "uevent") << "DEVTYPE=wwan\nINTERFACE=usb0\n";
    std::filesystem::create_directories(sys.path() / "mhi0" / "device" / "wwan");
    std::filesystem::create_directories(sys.path() / "eth0");
    std::ofstream(sys.path() / "eth0" / "uevent") << "INTERFACE=eth0\n";
    EXPECT_TRUE(isWwanInterface("wwan0", sys.path()));
    EXPECT_TRUE(isWwanInterface("wwp0s20u4", sys.path()));
    EXPECT_TRUE(isWwanInterface("usb0", sys.path()));
    EXPECT_TRUE(isWwanInterface("mhi0", sys.path()));
    EXPECT_FALSE(isWwanInterface("eth0", sys.path()));
    EXPECT_FALSE(isWwanInterface("../eth0", sys.path()));
    EXPECT_FALSE(isWwanInterface("", sys.path()));
}

/// A network namespace of the test's own, with a veth pair: v0 (192.0.2.1/24) and v1, both up.
/// The watcher runs on a thread that entered the namespace, so its netlink sockets live there.
class NamespaceReachabilityTest : public ::testing::Test {
  protected:
    void SetUp() override {
        if (findExecutable("ip").empty() && findExecutable("/usr/sbin/ip").empty() &&
            findExecutable("/sbin/ip").empty()) {
            GTEST_SKIP() << "iproute2's ip is not installed";
        }
        name_ = "tovrel-test-" + std::to_string(::getpid());
        if (test::runCommand("ip netns add " + name_ + " 2>/dev/null") != 0) {
            GTEST_SKIP() << "cannot create a network namespace (needs CAP_NET_ADMIN and CAP_SYS_ADMIN)";
        }
        created_ = true;
        ASSERT_EQ(ip("link set lo up"), 0);
        ASSERT_EQ(ip("link add v0 type veth peer name v1"), 0) << "veth pairs are needed";
        ASSERT_EQ(ip("addr add 192.0.2.1/24 dev v0"), 0);
        ASSERT_EQ(ip("link set v0 up"), 0);
        ASSERT_EQ(ip("link set v1 up"), 0);
        watcher_ = std::thread([this] { watch(); });
        ASSERT_TRUE(test::waitUntil([this] { return ready_.load(); }, 10s)) << setupError_;
        ASSERT_TRUE(setupError_.empty()) << setupError_;
    }

    void TearDown() override {
        stop_ = true;
        if (watcher_.joinable()) {
            watcher_.join();
        }
        if (created_) {
            test::runCommand("ip netns del " + name_ + " 2>/dev/null");
        }
    }

    int ip(const std::string& arguments) const {
        return test::runCommand("ip -n " + name_ + " " + arguments);
    }

    /// The last flags a handle's callback received, or nullopt.
    std::optional<std::uint32_t> lastChange(const std::string& label) {
        std::lock_guard lock(mutex_);
        for (auto it = changes_.rbegin(); it != changes_.rend(); ++it) {
            if (it->first == label) {
                return it->second;
            }
        }
        return std::nullopt;
    }
    bool waitForChange(const std::string& label, std::uint32_t flags) {
        return test::waitUntil([&] { return lastChange(label) == flags; }, 10s);
    }
    std::uint32_t initial(const std::string& label) {
        std::lock_guard lock(mutex_);
        return initial_.at(label);
    }

  private:
    void watch() {
        const int ns = ::open(("/run/netns/" + name_).c_str(), O_RDONLY | O_CLOEXEC);
        if (ns < 0 || ::setns(ns, CLONE_NEWNET) != 0) {
            setupError_ = "cannot enter the namespace";
            ready_ = true;
            return;
        }
        ::close(ns);
        auto loop = std::make_shared<AsioMainLoop>();
        auto background = std::make_shared<ThreadBackgroundWork>(1);
        {
            NetlinkReachability source(loop, background);
            std::vector<std::unique_ptr<platform::ReachabilityHandle>> handles;
            const std::vector<std::pair<std::string, std::array<std::uint8_t, 4>>> targets = {
                {"internet", {0, 0, 0, 0}},
                {"self", {192, 0, 2, 1}},
                {"neighbour", {192, 0, 2, 7}},
                {"remote", {198, 51, 100, 1}},
                {"link-local", {169, 254, 0, 0}}};
            for (const auto& [label, address] : targets) {
                platform::Ipv4SocketAddress socketAddress;
                socketAddress.address = address;
                handles.push_back(source.createWithAddress(socketAddress));
                addHandle(label, *handles.back());
            }
            handles.push_back(source.createWithName("http://localhost:8080"));
            addHandle("named", *handles.back());
            ready_ = true;
            loop->runUntil([this] { return stop_.load(); }, 600s);
            handles.clear();
        }
        background->shutdown();
    }

    void addHandle(const std::string& label, platform::ReachabilityHandle& handle) {
        std::uint32_t flags = 0xffffffff;
        handle.getFlags(flags);
        {
            std::lock_guard lock(mutex_);
            initial_[label] = flags;
        }
        handle.setCallback([this, label](std::uint32_t value) {
            std::lock_guard lock(mutex_);
            changes_.emplace_back(label, value);
        });
        handle.scheduleWithMainLoop();
    }

    std::string name_;
    bool created_ = false;
    std::thread watcher_;
    std::atomic<bool> ready_{false};
    std::atomic<bool> stop_{false};
    std::string setupError_;
    std::mutex mutex_;
    std::map<std::string, std::uint32_t> initial_;
    std::vector<std::pair<std::string, std::uint32_t>> changes_;
};

TEST_F(NamespaceReachabilityTest, FlagsFollowTheNamespacesRoutingTable) {
    EXPECT_EQ(initial("internet"), 0u) << "no default route yet";
    EXPECT_EQ(initial("self"), kReachabilityReachable | kReachabilityIsDirect | kReachabilityIsLocalAddress);
    EXPECT_EQ(initial("neighbour"), kReachabilityReachable | kReachabilityIsDirect);
    EXPECT_EQ(initial("remote"), 0u);
    EXPECT_EQ(initial("link-local"), 0u);

    ASSERT_EQ(ip("route add default via 192.0.2.254"), 0);
    EXPECT_TRUE(waitForChange("internet", kReachabilityReachable)) << "a default route through a gateway";
    EXPECT_TRUE(waitForChange("remote", kReachabilityReachable));
    EXPECT_TRUE(waitForChange("link-local", kReachabilityReachable)) << "reachable, but not on-link";

    ASSERT_EQ(ip("route del default"), 0);
    EXPECT_TRUE(waitForChange("internet", 0));
    EXPECT_TRUE(waitForChange("remote", 0));

    ASSERT_EQ(ip("route add 169.254.0.0/16 dev v0"), 0);
    EXPECT_TRUE(waitForChange("link-local", kReachabilityReachable | kReachabilityIsDirect));
}

TEST_F(NamespaceReachabilityTest, DefaultRouteThroughAWwanInterfaceIsCellular) {
    ASSERT_EQ(ip("link add wwan0 type veth peer name wwpeer"), 0);
    ASSERT_EQ(ip("link set wwan0 up"), 0);
    ASSERT_EQ(ip("link set wwpeer up"), 0);
    ASSERT_EQ(ip("addr add 203.0.113.1/24 dev wwan0"), 0);
    ASSERT_EQ(ip("route add default dev wwan0"), 0);
    EXPECT_TRUE(
        waitForChange("internet", kReachabilityReachable | kReachabilityIsDirect | kReachabilityIsWWAN));
    EXPECT_TRUE(
        waitForChange("remote", kReachabilityReachable | kReachabilityIsDirect | kReachabilityIsWWAN));
    ASSERT_EQ(ip("link set wwan0 down"), 0);
    EXPECT_TRUE(waitForChange("internet", 0)) << "a downed link takes its routes with it";
}

TEST_F(NamespaceReachabilityTest, HostNamesAreResolvedAndThenWatched) {
    EXPECT_EQ(initial("named"), 0u) << "not resolved yet when created";
    EXPECT_TRUE(
        waitForChange("named", kReachabilityReachable | kReachabilityIsDirect | kReachabilityIsLocalAddress))
        << "localhost resolves to 127.0.0.1, one of our addresses";
}

}  // namespace
}  // namespace tovrel::linuxbackend
