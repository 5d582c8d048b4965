#pragma once

#include <sys/types.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "support/child_process.h"
#include "support/loopback_port.h"

namespace tovrel::linuxbackend::test {

/// Runs a command to completion with /bin/sh; returns its exit code.
int runCommand(const std::string& command);

/// A fresh temporary directory, removed when dropped.
class TemporaryDirectory {
  public:
    TemporaryDirectory();
    ~TemporaryDirectory();
    TemporaryDirectory(const TemporaryDirectory&) = delete;
    TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;
    [[nodiscard]] const std::filesystem::path& path() const { return path_; }

  private:
    std::filesystem::path path_;
};

using tovrel::test::ChildProcess;
using tovrel::test::freeLoopbackPort;

/// Polls `done` every few milliseconds until it holds or `timeout` passes.
bool waitUntil(const std::function<bool()>& done, std::chrono::milliseconds timeout);

}  // namespace tovrel::linuxbackend::test
