#pragma once

// Thread rules that debug builds check. A member documented "Main thread." starts with
// TOVREL_ASSERT_MAIN_THREAD(loop): the loop knows its own thread (the Qt GUI thread, the thread running
// the asio loop, the thread driving the virtual scheduler), so no object has to guess it. An object
// without a loop keeps a ThreadChecker, which binds to the first thread that asks, and starts its
// members with TOVREL_ASSERT_CALLED_ON_VALID_THREAD(checker).
//
// Release builds (NDEBUG) compile both checks out; define TOVREL_THREAD_CHECKS to keep them. The
// expressions are still type-checked, never evaluated. A failed check names the call site on stderr and
// aborts. ThreadChecker's size does not depend on the build, so headers stay compatible either way.

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <thread>

#include "tovrel/platform/main_loop.h"

#if !defined(NDEBUG) || defined(TOVREL_THREAD_CHECKS)
#define TOVREL_THREAD_CHECKS_ON 1
#else
#define TOVREL_THREAD_CHECKS_ON 0
#endif

namespace tovrel::platform {

/// Remembers the first thread that asks and answers whether later callers are on it. Any thread.
class ThreadChecker {
  public:
    ThreadChecker() = default;
    ThreadChecker(const ThreadChecker&) = delete;
    ThreadChecker& operator=(const ThreadChecker&) = delete;

    /// Any thread. True on the bound thread; binds to the calling thread when none is bound.
    [[nodiscard]] bool calledOnValidThread() const {
        const std::thread::id self = std::this_thread::get_id();
        std::thread::id expected{};
        return owner_.compare_exchange_strong(expected, self) || expected == self;
    }
    /// Any thread. Forgets the bound thread: the next caller binds (an object handed to another thread).
    void detach() { owner_.store(std::thread::id{}); }

  private:
    mutable std::atomic<std::thread::id> owner_{};
};

namespace detail {

[[noreturn]] inline void threadCheckFailed(const char* file, int line, const char* function,
                                           const char* expected) {
    std::fprintf(stderr, "%s:%d: %s called off %s\n", file, line, function, expected);
    std::fflush(stderr);
    std::abort();
}

inline void checkMainThread(const MainLoop& loop, const char* file, int line, const char* function) {
    if (!loop.isMainThread()) {
        threadCheckFailed(file, line, function, "the main thread");
    }
}

inline void checkThread(const ThreadChecker& checker, const char* file, int line, const char* function) {
    if (!checker.calledOnValidThread()) {
        threadCheckFailed(file, line, function, "its bound thread");
    }
}

}  // namespace detail
}  // namespace tovrel::platform

#if TOVREL_THREAD_CHECKS_ON
/// Aborts unless called on the main thread of `loop` (a platform::MainLoop).
#define TOVREL_ASSERT_MAIN_THREAD(loop) \
    ::tovrel::platform::detail::checkMainThread((loop), __FILE__, __LINE__, __func__)
/// Aborts unless called on the thread `checker` (a platform::ThreadChecker) is bound to.
#define TOVREL_ASSERT_CALLED_ON_VALID_THREAD(checker) \
    ::tovrel::platform::detail::checkThread((checker), __FILE__, __LINE__, __func__)
#else
#define TOVREL_ASSERT_MAIN_THREAD(loop) \
    static_cast<void>(sizeof(static_cast<const ::tovrel::platform::MainLoop&>(loop)))
#define TOVREL_ASSERT_CALLED_ON_VALID_THREAD(checker) \
    static_cast<void>(sizeof(static_cast<const ::tovrel::platform::ThreadChecker&>(checker)))
#endif
