#include "child_process.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

extern char** environ;  // NOLINT: the POSIX environment for posix_spawn

namespace tovrel::test {

ChildProcess::ChildProcess(std::vector<std::string> argv, bool captureStdout, bool feedStdin) {
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    int out[2] = {-1, -1};
    int in[2] = {-1, -1};
    if (captureStdout && ::pipe2(out, O_CLOEXEC) == 0) {
        posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
    }
    if (feedStdin && ::pipe2(in, O_CLOEXEC) == 0) {
        posix_spawn_file_actions_adddup2(&actions, in[0], STDIN_FILENO);
    }
    std::vector<char*> args;
    for (auto& arg : argv) {
        args.push_back(arg.data());
    }
    args.push_back(nullptr);
    if (::posix_spawnp(&pid_, args[0], &actions, nullptr, args.data(), environ) != 0) {
        pid_ = -1;
    }
    posix_spawn_file_actions_destroy(&actions);
    if (out[1] >= 0) {
        ::close(out[1]);
        stdoutFd_ = out[0];
    }
    if (in[0] >= 0) {
        ::close(in[0]);
        stdinFd_ = in[1];
    }
}

ChildProcess::~ChildProcess() {
    if (pid_ > 0) {
        kill(SIGKILL);
    }
    if (stdoutFd_ >= 0) {
        ::close(stdoutFd_);
    }
    if (stdinFd_ >= 0) {
        ::close(stdinFd_);
    }
}

std::string ChildProcess::readLine(std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        if (const auto newline = buffered_.find('\n'); newline != std::string::npos) {
            std::string line = buffered_.substr(0, newline);
            buffered_.erase(0, newline + 1);
            return line;
        }
        if (stdoutFd_ < 0) {
            return "";
        }
        // One poll even when the time is up, so a short timeout still picks up what is waiting.
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        pollfd fd{stdoutFd_, POLLIN, 0};
        const int ready = ::poll(&fd, 1, static_cast<int>(std::max<long long>(left.count(), 0)));
        if (ready < 0 && errno == EINTR) {
            continue;
        }
        if (ready <= 0) {
            return "";
        }
        char chunk[4096];
        const ssize_t got = ::read(stdoutFd_, chunk, sizeof chunk);
        if (got <= 0) {
            return "";
        }
        buffered_.append(chunk, static_cast<std::size_t>(got));
    }
}

void ChildProcess::writeLine(const std::string& line) {
    const std::string text = line + "\n";
    if (stdinFd_ >= 0) {
        [[maybe_unused]] const auto written = ::write(stdinFd_, text.data(), text.size());
    }
}

int ChildProcess::kill(int signal) {
    if (pid_ <= 0) {
        return -1;
    }
    ::kill(pid_, signal);
    int status = 0;
    while (::waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
    }
    pid_ = -1;
    return status;
}

}  // namespace tovrel::test
