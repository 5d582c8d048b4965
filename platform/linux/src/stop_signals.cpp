#include "tovrel/linux/stop_signals.h"

#include <pthread.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <system_error>

namespace tovrel::linuxbackend {

StopSignals::StopSignals() {
    TOVREL_ASSERT_CALLED_ON_VALID_THREAD(thread_);
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    if (const int error = pthread_sigmask(SIG_BLOCK, &signals, nullptr); error != 0) {
        throw std::system_error(error, std::generic_category(), "blocking SIGINT and SIGTERM");
    }
    fd_ = signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK);
    if (fd_ < 0) {
        throw std::system_error(errno, std::generic_category(), "signalfd for SIGINT and SIGTERM");
    }
}

StopSignals::~StopSignals() {
    TOVREL_ASSERT_CALLED_ON_VALID_THREAD(thread_);
    close(fd_);
}

std::unique_ptr<FdWatch> StopSignals::watch(DescriptorWatcher& loop, std::function<void()> onStop) const {
    TOVREL_ASSERT_CALLED_ON_VALID_THREAD(thread_);
    return loop.watchReadable(fd_, [fd = fd_, onStop = std::move(onStop)] {
        signalfd_siginfo info{};
        bool stopped = false;
        while (read(fd, &info, sizeof info) == static_cast<ssize_t>(sizeof info)) {
            stopped = true;
        }
        if (stopped) {
            onStop();
        }
    });
}

}  // namespace tovrel::linuxbackend
