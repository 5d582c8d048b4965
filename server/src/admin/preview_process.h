#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "admin/preview_runner.h"

namespace tovrel::server {

/// A preview run by tovrel-sim in a process of its own: a fault in it cannot reach the server, and it is
/// killed once it has used its CPU time.
struct PreviewProgram {
    std::string path;            ///< tovrel-sim
    std::size_t devices = 1000;  ///< device-days
    double cpuSeconds = 10;
    std::uint64_t seed = 1;
};

/// tovrel-sim next to the running program, else the first on PATH; "" when there is none. Any thread.
std::string findSimulator();

/// A ServerOptions::preview that runs `tovrel-sim fleet --places DRAFT --compare LIVE --json` with the
/// program's seed, devices starting at the job's now, on one core. `devices` is a budget of device-days:
/// a preview of D days runs devices / D devices (one at least). It throws
/// PreviewRefused 400 with the simulator's words for an unusable draft, 422 when the run needs more CPU
/// time than allowed, std::runtime_error when the program cannot run. Called on the preview's thread.
PreviewRunner::Preview previewInProcess(PreviewProgram program);

}  // namespace tovrel::server
