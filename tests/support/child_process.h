#pragma once

#include <sys/types.h>

#include <chrono>
#include <string>
#include <vector>

namespace tovrel::test {

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

}  // namespace tovrel::test
