#include "admin/preview_process.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>
#include <vector>

#include "common/temporary_file.h"
#include "common/utc_time.h"
#include "tovrel_server/server.h"

extern char** environ;

namespace tovrel::server {

namespace {

// CPU seconds a child has used so far, from /proc (its user and system time); 0 when it cannot be read.
double cpuSecondsOf(pid_t child) {
    std::ifstream in("/proc/" + std::to_string(child) + "/stat");
    std::string stat;
    std::getline(in, stat);
    // The command name may hold spaces and parentheses: the fields after it start past the last ')'.
    const std::size_t close = stat.rfind(')');
    if (close == std::string::npos) {
        return 0;
    }
    std::istringstream fields(stat.substr(close + 2));
    std::string field;
    double ticks = 0;
    for (int i = 3; i <= 15 && fields >> field; ++i) {
        if (i == 14 || i == 15) {
            ticks += std::strtod(field.c_str(), nullptr);
        }
    }
    return ticks / static_cast<double>(::sysconf(_SC_CLK_TCK));
}

struct Ended {
    int status = 0;
    bool overBudget = false;  ///< killed for its CPU time
};

// Waits for the child, killing it once it has used `cpuSeconds` of CPU time or lived `wallSeconds`. The
// limit is watched from here rather than set with setrlimit, which a sandboxed service may not call.
Ended waitFor(pid_t child, double cpuSeconds, double wallSeconds) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(wallSeconds);
    Ended ended;
    for (;;) {
        const pid_t gone = ::waitpid(child, &ended.status, WNOHANG);
        if (gone == child || (gone < 0 && errno != EINTR)) {
            return ended;
        }
        ended.overBudget = cpuSecondsOf(child) >= cpuSeconds;
        if (ended.overBudget || std::chrono::steady_clock::now() > deadline) {
            ::kill(child, SIGKILL);
            ::waitpid(child, &ended.status, 0);
            return ended;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
}

std::string run(const PreviewProgram& program, const PreviewJob& job) {
    // The budget is in device-days: a longer preview runs fewer devices in the same time.
    const std::size_t days = std::max<std::size_t>(job.days, 1);
    const std::size_t devices = std::max<std::size_t>(program.devices / days, 1);
    const std::vector<std::string> arguments{program.path, "fleet",
                                             "--places",   job.draftFile,
                                             "--compare",  job.liveFile,
                                             "--devices",  std::to_string(devices),
                                             "--days",     std::to_string(days),
                                             "--seed",     std::to_string(program.seed),
                                             "--start",    isoTime(job.now),
                                             "--sdk-key",  std::string(kPreviewAppKey),
                                             "--jobs",     "1",
                                             "--quiet",    "--json"};
    std::vector<char*> argv;
    for (const std::string& a : arguments) {
        argv.push_back(const_cast<char*>(a.c_str()));
    }
    argv.push_back(nullptr);
    const TemporaryFile out("tovrel-preview-out", "");
    const TemporaryFile err("tovrel-preview-err", "");
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, out.fd(), STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, err.fd(), STDERR_FILENO);
    pid_t child = 0;
    const int spawned = ::posix_spawn(&child, program.path.c_str(), &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (spawned != 0) {
        throw std::runtime_error("cannot run " + program.path + ": " + std::strerror(spawned));
    }
    const auto [status, overBudget] = waitFor(child, program.cpuSeconds, 3 * program.cpuSeconds + 30);
    if (overBudget) {
        throw PreviewRefused(422, "the preview of " + std::to_string(devices) + " devices over " +
                                      std::to_string(days) + (days == 1 ? " day" : " days") +
                                      " needs more than " +
                                      std::to_string(static_cast<long long>(std::ceil(program.cpuSeconds))) +
                                      " s of CPU time");
    }
    if (WIFSIGNALED(status)) {
        throw std::runtime_error(program.path + " was stopped by signal " + std::to_string(WTERMSIG(status)) +
                                 " after " + std::to_string(static_cast<int>(3 * program.cpuSeconds + 30)) +
                                 " s at most");
    }
    if (WIFEXITED(status) && WEXITSTATUS(status) == 2) {
        std::string why = err.read();
        why.erase(0, why.starts_with("tovrel-sim: ") ? 12 : 0);
        why.erase(why.find_last_not_of("\n ") + 1);
        throw PreviewRefused(400, "the draft cannot be previewed: " + why.substr(0, 2000));
    }
    std::string answer = out.read();
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0 || answer.empty() || answer.front() != '{') {
        std::string why = err.read();
        throw std::runtime_error(program.path + " ended with status " + std::to_string(status) + ": " +
                                 why.substr(0, 2000));
    }
    answer.erase(answer.find_last_not_of('\n') + 1);
    return answer;
}

}  // namespace

std::string findSimulator() {
    std::error_code error;
    const std::filesystem::path self = std::filesystem::read_symlink("/proc/self/exe", error);
    if (!error) {
        const std::filesystem::path sibling = self.parent_path() / "tovrel-sim";
        if (::access(sibling.c_str(), X_OK) == 0) {
            return sibling.string();
        }
    }
    const char* path = std::getenv("PATH");
    for (std::string_view rest = path != nullptr ? path : ""; !rest.empty();) {
        const std::size_t colon = rest.find(':');
        const std::string_view folder = rest.substr(0, colon);
        rest = colon == std::string_view::npos ? std::string_view() : rest.substr(colon + 1);
        if (!folder.empty()) {
            const std::filesystem::path candidate = std::filesystem::path(folder) / "tovrel-sim";
            if (::access(candidate.c_str(), X_OK) == 0) {
                return candidate.string();
            }
        }
    }
    return {};
}

PreviewRunner::Preview previewInProcess(PreviewProgram program) {
    return [program = std::move(program)](const PreviewJob& job) { return run(program, job); };
}

}  // namespace tovrel::server
