#pragma once

#include <atomic>
#include <cstdint>

#if defined(__linux__)
#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>
#else
#include <semaphore>
#endif

namespace tovrel::server {

/// One thread sleeps until another wakes it, once. Unlike std::binary_semaphore, whose waiter spins with
/// sched_yield before it sleeps, the waiter goes straight to sleep on Linux: with dozens of threads
/// waiting for commits, those yields took a fifth of the server's CPU. The object may be destroyed as
/// soon as wait() returns, even while wake() is still running. One waiter, one waker.
class Wakeup {
  public:
    /// Returns once wake() was called. The waiting thread.
    void wait() {
#if defined(__linux__)
        while (state_.load(std::memory_order_acquire) == 0) {
            // A wake between the load and the sleep changed the word, and the kernel then returns at once.
            syscall(SYS_futex, &state_, FUTEX_WAIT_PRIVATE, 0, nullptr, nullptr, 0);
        }
#else
        semaphore_.acquire();
#endif
    }

    /// Any thread but the waiter's.
    void wake() {
#if defined(__linux__)
        state_.store(1, std::memory_order_release);
        // The waiter may have returned and freed the word already: a wake of an address nobody waits on
        // does nothing, and one that reaches a later waiter there only makes it look at its word again.
        syscall(SYS_futex, &state_, FUTEX_WAKE_PRIVATE, 1, nullptr, nullptr, 0);
#else
        semaphore_.release();
#endif
    }

  private:
#if defined(__linux__)
    // The kernel waits on the word itself.
    static_assert(sizeof(std::atomic<std::uint32_t>) == sizeof(std::uint32_t) &&
                  std::atomic<std::uint32_t>::is_always_lock_free);
    std::atomic<std::uint32_t> state_{0};
#else
    std::binary_semaphore semaphore_{0};
#endif
};

}  // namespace tovrel::server
