// How fast the simulator runs: simulated seconds per wall second for one three-hour 1 Hz route, and
// device-hours per wall second for a fleet of devices on different routes in one process.
#include <unistd.h>

#include <chrono>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <iostream>

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
    tovrel_server::ServerOptions serverOptions;
    serverOptions.contentDir = options.contentDir.string();
    tovrel_server::Server server(serverOptions);
    server.importGeoJson(options.placesFile.string());
    options.serviceURL = "http://127.0.0.1:" + std::to_string(server.start());

    double simulated = 0;
    start = std::chrono::steady_clock::now();
    for (int device = 0; device < devices; ++device) {
        options.routeFile =
            writeLoopRoute(dir, 1800, device * 0.37, "device-" + std::to_string(device) + ".csv");
        simulated += tovrel::sim::runSimulation(options, nullptr, nullptr).simulatedSeconds;
    }
    const double fleetWall = secondsSince(start);
    std::cout << devices << " devices x 30 min: " << simulated / 3600 << " device-hours in " << fleetWall
              << " wall s = " << simulated / 3600 / fleetWall << " device-hours per wall s\n";
    server.stop();
    fs::remove_all(dir);
    return 0;
}
