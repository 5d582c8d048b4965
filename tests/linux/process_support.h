#pragma once

#include <sys/types.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "support/child_process.h"
#include "support/loopback_port.h"
#include "support/temp_dir.h"

namespace tovrel::linuxbackend::test {

/// Runs a command to completion with /bin/sh; returns its exit code.
int runCommand(const std::string& command);

using tovrel::test::ChildProcess;
using tovrel::test::freeLoopbackPort;
using tovrel::test::TempDir;

/// Polls `done` every few milliseconds until it holds or `timeout` passes.
bool waitUntil(const std::function<bool()>& done, std::chrono::milliseconds timeout);

}  // namespace tovrel::linuxbackend::test
