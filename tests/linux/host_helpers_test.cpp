#include <gtest/gtest.h>
#include <pthread.h>

#include <csignal>
#include <stdexcept>
#include <thread>

#include "tovrel/linux/asio_main_loop.h"
#include "tovrel/linux/location_sources.h"
#include "tovrel/linux/stop_signals.h"

namespace tovrel::linuxbackend {
namespace {

TEST(GpsdAddressTest, HostsPortsAndIPv6Literals) {
    struct Case {
        const char* address;
        const char* host;
        const char* port;
    };
    for (const auto& [address, host, port] :
         {Case{"gps.local", "gps.local", "2947"}, Case{"127.0.0.1:4000", "127.0.0.1", "4000"},
          Case{"[::1]:2948", "::1", "2948"}, Case{"[fe80::1%eth0]", "fe80::1%eth0", "2947"},
          Case{"::1", "::1", "2947"}, Case{"localhost:65535", "localhost", "65535"}}) {
        SCOPED_TRACE(address);
        const auto options = gpsdOptionsForAddress(address);
        EXPECT_EQ(options.host, host);
        EXPECT_EQ(options.port, port);
        EXPECT_EQ(gpsdAddressProblem(address), "");
    }
}

TEST(GpsdAddressTest, BadAddressesAreRefusedWithTheReason) {
    struct Case {
        const char* address;
        const char* reason;
    };
    for (const auto& [address, reason] :
         {Case{"", "no host"}, Case{":2947", "no host"}, Case{"host:", "the port '' is not"},
          Case{"host:0", "the port '0' is not"}, Case{"host:65536", "the port '65536' is not"},
          Case{"host:29x", "the port '29x' is not"}, Case{"host:-1", "the port '-1' is not"},
          Case{"[::1", "no ']'"}, Case{"[::1]2947", "':port' expected"}, Case{"[]:2947", "no host"}}) {
        SCOPED_TRACE(address);
        EXPECT_THROW(gpsdOptionsForAddress(address), std::invalid_argument);
        const auto problem = gpsdAddressProblem(address);
        EXPECT_NE(problem.find(reason), std::string::npos) << problem;
        EXPECT_NE(problem.find(std::string("'") + address + "'"), std::string::npos) << problem;
    }
}

// The signals go to a thread of the test's own, so the test process keeps its mask.
TEST(StopSignalsTest, SignalsArrivingTogetherEndTheLoopOnceThroughTheWatch) {
    int stops = 0;
    bool timedOut = false;
    std::thread host([&] {
        AsioMainLoop loop;
        const StopSignals signals;
        auto watch = signals.watch(loop, [&] {
            ++stops;
            loop.stop();
        });
        auto deadline = loop.scheduleTimer(10, false, [&] {
            timedOut = true;
            loop.stop();
        });
        pthread_kill(pthread_self(), SIGTERM);
        pthread_kill(pthread_self(), SIGINT);
        loop.run();
        deadline->invalidate();
    });
    host.join();
    EXPECT_FALSE(timedOut);
    EXPECT_EQ(stops, 1);
}

TEST(StopSignalsTest, WithoutASignalTheWatchStaysQuiet) {
    int stops = 0;
    std::thread host([&] {
        AsioMainLoop loop;
        const StopSignals signals;
        auto watch = signals.watch(loop, [&] { ++stops; });
        auto deadline = loop.scheduleTimer(0.05, false, [&] { loop.stop(); });
        loop.run();
    });
    host.join();
    EXPECT_EQ(stops, 0);
}

}  // namespace
}  // namespace tovrel::linuxbackend
