#include "tovrel/linux/linux_application.h"

#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <sstream>
#include <vector>

extern char** environ;  // NOLINT: the POSIX environment for posix_spawn

namespace tovrel::linuxbackend {

using platform::ApplicationEvent;
using platform::ApplicationState;

std::string findExecutable(const std::string& program) {
    if (program.empty()) {
        return "";
    }
    if (program.find('/') != std::string::npos) {
        return ::access(program.c_str(), X_OK) == 0 ? program : "";
    }
    const char* path = std::getenv("PATH");
    std::stringstream directories(path != nullptr ? path : "/usr/local/bin:/usr/bin:/bin");
    std::string directory;
    while (std::getline(directories, directory, ':')) {
        const std::string candidate = (directory.empty() ? std::string(".") : directory) + "/" + program;
        if (::access(candidate.c_str(), X_OK) == 0) {
            return candidate;
        }
    }
    return "";
}

LinuxApplication::LinuxApplication(std::shared_ptr<platform::MainLoop> loop, LinuxApplicationOptions options)
    : loop_(std::move(loop)), options_(std::move(options)), state_(options_.initialState) {}

ApplicationState LinuxApplication::applicationState() const {
    std::lock_guard lock(mutex_);
    return state_;
}

long LinuxApplication::applicationIconBadgeNumber() const {
    std::lock_guard lock(mutex_);
    return badge_;
}

void LinuxApplication::setApplicationIconBadgeNumber(long number) {
    std::function<void(long)> observer;
    {
        std::lock_guard lock(mutex_);
        badge_ = number;
        observer = badgeObserver_;
    }
    if (observer) {
        observer(number);
    }
}

std::string LinuxApplication::bundleIdentifier() const {
    return options_.applicationId;
}

bool LinuxApplication::openURL(const std::string& url) {
    const std::string opener = findExecutable(options_.urlOpener);
    if (opener.empty() || url.empty()) {
        return false;
    }
    // A shell that starts the opener in the background and exits at once: it is reaped here without
    // waiting for the opener, and the opener is adopted by init when it ends. The URL is an argument,
    // never part of the script.
    const std::string script = "\"$0\" \"$1\" >/dev/null 2>&1 </dev/null &";
    std::vector<std::string> args = {"/bin/sh", "-c", script, opener, url};
    std::vector<char*> argv;
    argv.reserve(args.size() + 1);
    for (auto& arg : args) {
        argv.push_back(arg.data());
    }
    argv.push_back(nullptr);
    pid_t pid = 0;
    if (::posix_spawn(&pid, "/bin/sh", nullptr, nullptr, argv.data(), environ) != 0) {
        return false;
    }
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

std::string LinuxApplication::openSettingsURLString() const {
    return "app-settings:";
}

void LinuxApplication::setEventHandler(platform::ApplicationEventHandler handler) {
    std::lock_guard lock(mutex_);
    handler_ = std::move(handler);
}

void LinuxApplication::setBadgeObserver(std::function<void(long)> observer) {
    std::lock_guard lock(mutex_);
    badgeObserver_ = std::move(observer);
}

void LinuxApplication::setState(ApplicationState state) {
    std::lock_guard lock(mutex_);
    state_ = state;
}

void LinuxApplication::deliverEvent(ApplicationEvent event, const nlohmann::json& launchOptions) {
    const auto handlerNow = [this] {
        std::lock_guard lock(mutex_);
        return handler_;
    };
    if (loop_->isMainThread()) {
        if (const auto handler = handlerNow()) {
            handler(event, launchOptions);
        }
        return;
    }
    loop_->post([weak = weak_from_this(), event, launchOptions] {
        if (const auto self = weak.lock()) {
            std::unique_lock lock(self->mutex_);
            const auto handler = self->handler_;
            lock.unlock();
            if (handler) {
                handler(event, launchOptions);
            }
        }
    });
}

}  // namespace tovrel::linuxbackend
