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
#include "support/wait_until.h"

namespace tovrel::linuxbackend::test {

/// Runs a command to completion with /bin/sh; returns its exit code.
int runCommand(const std::string& command);

using tovrel::test::ChildProcess;
using tovrel::test::freeLoopbackPort;
using tovrel::test::TempDir;
using tovrel::test::waitUntil;

}  // namespace tovrel::linuxbackend::test
