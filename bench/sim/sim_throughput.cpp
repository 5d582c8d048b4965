// How fast the simulator runs: simulated seconds per wall second for one three-hour 1 Hz route, and
// device-hours per wall second for a fleet of devices on different routes in one process: the old
// way (one device after another on one core, each over loopback HTTP to a shared embedded server,
// every event kept) against `tovrel-sim fleet`'s (the service in process, every core), in the same
// run so that the ratio holds on a busy machine.
#include <time.h>
#include <unistd.h>

#include <chrono>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <thread>

#include "fleet.h"
#include "simulation.h"
#include "tovrel_server/server.h"

namespace {

namespace fs = std::filesystem;

/// A loop around the old town at walking pace, `seconds` long, one position a second, shifted by
/// `phase` so that every device walks its own route.
fs::path writeLoopRoute(const fs::path& dir, int seconds, double phase, const std::string& name) {
    const fs::path file = dir / name;
    std::ofstream out(file);
    constexpr double kCentreLat = 48.1372;
    constexpr double kCentreLon = 11.5755;
    constexpr double kRadiusDegrees = 0.004;  // about 450 m
    constexpr double kLoopSeconds = 2000;     // 2.8 km at 1.4 m/s
    for (int t = 0; t <= seconds; ++t) {
        const double angle = phase + 2 * M_PI * t / kLoopSeconds;
        out << t << ',' << kCentreLat + kRadiusDegrees * std::sin(angle) << ','
            << kCentreLon + kRadiusDegrees * 1.5 * std::cos(angle) << ",walking\n";
    }
    return file;
}

double secondsSince(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

/// CPU seconds this process has used on all its threads: a measure a busy machine does not skew.
double cpuSeconds() {
    timespec now{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

}  // namespace

int main(int argc, char** argv) {
    const int devices = argc > 1 ? std::max(1, std::atoi(argv[1])) : 100;
    const fs::path dir = fs::temp_directory_path() / ("tovrel-bench-sim-" + std::to_string(::getpid()));
    fs::create_directories(dir);

    tovrel::sim::SimOptions options;
    options.placesFile = TOVREL_EXAMPLES_DIR "/places/munich.geojson";
    options.contentDir = TOVREL_EXAMPLES_DIR "/content";
    options.quiet = true;
    options.routeFile = writeLoopRoute(dir, 3 * 3600, 0, "three-hours.csv");

    auto start = std::chrono::steady_clock::now();
    const auto single = tovrel::sim::runSimulation(options, nullptr, nullptr);
    const double singleWall = secondsSince(start);
    std::cout << "three-hour route: " << single.simulatedSeconds << " simulated s in " << singleWall
              << " wall s = " << single.simulatedSeconds / singleWall << " simulated s per wall s ("
              << single.events.size() << " events)\n";

    // The fleet shares one service, as devices in the field do.
    tovrel::server::ServerOptions serverOptions;
    serverOptions.contentDir = options.contentDir.string();
    tovrel::server::Server server(serverOptions);
    server.importGeoJson(options.placesFile.string());
    options.serviceURL = "http://127.0.0.1:" + std::to_string(server.start());

    std::vector<tovrel::sim::Route> routes;
    for (int device = 0; device < devices; ++device) {
        routes.push_back(tovrel::sim::loadRoute(
            writeLoopRoute(dir, 1800, device * 0.37, "device-" + std::to_string(device) + ".csv")));
    }
    double simulated = 0;
    start = std::chrono::steady_clock::now();
    double cpuStart = cpuSeconds();
    for (int device = 0; device < devices; ++device) {
        options.route = &routes[static_cast<std::size_t>(device)];
        simulated += tovrel::sim::runSimulation(options, nullptr, nullptr).simulatedSeconds;
    }
    const double sequentialWall = secondsSince(start);
    const double sequentialCpu = cpuSeconds() - cpuStart;
    const double sequential = simulated / 3600 / sequentialWall;
    std::cout << devices << " devices x 30 min, one after another over loopback HTTP: " << simulated / 3600
              << " device-hours in " << sequentialWall << " wall s = " << sequential
              << " device-hours per wall s (" << simulated / 3600 / sequentialCpu << " per CPU s)\n";

    tovrel::sim::FleetOptions fleet;
    fleet.device = options;
    fleet.device.route = nullptr;
    fleet.device.serviceURL.reset();
    fleet.devices = static_cast<std::size_t>(devices);
    fleet.source = tovrel::sim::FleetRoutes::kFolder;
    fleet.routes = std::move(routes);
    start = std::chrono::steady_clock::now();
    cpuStart = cpuSeconds();
    const tovrel::sim::FleetAggregate totals = tovrel::sim::runFleet(fleet);
    const double fleetWall = secondsSince(start);
    const double fleetCpu = cpuSeconds() - cpuStart;
    const double parallel = totals.deviceHours() / fleetWall;
    std::cout << devices << " devices x 30 min, tovrel-sim fleet (in process, "
              << std::thread::hardware_concurrency() << " threads): " << totals.deviceHours()
              << " device-hours in " << fleetWall << " wall s = " << parallel << " device-hours per wall s ("
              << parallel / sequential << " times the above; " << totals.deviceHours() / fleetCpu
              << " per CPU s, " << sequentialCpu / fleetCpu << " times less CPU; " << totals.deliveries()
              << " deliveries)\n";
    server.stop();
    fs::remove_all(dir);
    return 0;
}
