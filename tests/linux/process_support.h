#pragma once

#include <sys/types.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "support/loopback_port.h"

namespace tovrel::linuxbackend::test {

/// A child process started with posix_spawn; killed (SIGKILL) and reaped when dropped.
class ChildProcess {
  public:
    /// Starts `argv` (argv[0] looked up in PATH). With `captureStdout`, its standard output is a pipe
    /// read by readLine(); with `feedStdin`, writeLine() feeds its standard input.
    ChildProcess(std::vector<std::string> argv, bool captureStdout = false, bool feedStdin = false);
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    [[nodiscard]] bool started() const { return pid_ > 0; }
    [[nodiscard]] pid_t pid() const { return pid_; }
    /// One line of its output without the newline, or "" after `timeout` / at its end.
    std::string readLine(std::chrono::milliseconds timeout);
    void writeLine(const std::string& line);
    /// Sends `signal` and waits for the exit; returns the wait status.
    int kill(int signal);

  private:
    pid_t pid_ = -1;
    int stdoutFd_ = -1;
    int stdinFd_ = -1;
    std::string buffered_;
};

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

using tovrel::test::freeLoopbackPort;

/// Polls `done` every few milliseconds until it holds or `timeout` passes.
bool waitUntil(const std::function<bool()>& done, std::chrono::milliseconds timeout);

}  // namespace tovrel::linuxbackend::test
