#pragma once

// Locks the compiler checks: clang's -Wthread-safety proves that every member marked GUARDED_BY is
// touched only with its mutex held and that a function marked REQUIRES is called so. Other compilers
// see plain mutexes. std::mutex carries no annotations in libstdc++, hence the thin wrappers. Shared by
// the backends and tovrel-server (scripts/check-thread-safety.sh runs the analysis).

#include <condition_variable>
#include <mutex>
#include <shared_mutex>

#if defined(__clang__)
#define TOVREL_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define TOVREL_THREAD_ANNOTATION(x)
#endif

#define TOVREL_CAPABILITY(name) TOVREL_THREAD_ANNOTATION(capability(name))
#define TOVREL_SCOPED_CAPABILITY TOVREL_THREAD_ANNOTATION(scoped_lockable)
#define TOVREL_GUARDED_BY(m) TOVREL_THREAD_ANNOTATION(guarded_by(m))
#define TOVREL_PT_GUARDED_BY(m) TOVREL_THREAD_ANNOTATION(pt_guarded_by(m))
#define TOVREL_REQUIRES(...) TOVREL_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define TOVREL_REQUIRES_SHARED(...) TOVREL_THREAD_ANNOTATION(requires_shared_capability(__VA_ARGS__))
#define TOVREL_ACQUIRE(...) TOVREL_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define TOVREL_ACQUIRE_SHARED(...) TOVREL_THREAD_ANNOTATION(acquire_shared_capability(__VA_ARGS__))
#define TOVREL_RELEASE(...) TOVREL_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define TOVREL_RELEASE_SHARED(...) TOVREL_THREAD_ANNOTATION(release_shared_capability(__VA_ARGS__))
#define TOVREL_RELEASE_GENERIC(...) TOVREL_THREAD_ANNOTATION(release_generic_capability(__VA_ARGS__))
#define TOVREL_EXCLUDES(...) TOVREL_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
#define TOVREL_NO_THREAD_SAFETY_ANALYSIS TOVREL_THREAD_ANNOTATION(no_thread_safety_analysis)

namespace tovrel::platform {

/// A std::mutex the thread-safety analysis knows.
/// Any thread.
class TOVREL_CAPABILITY("mutex") Mutex {
  public:
    void lock() TOVREL_ACQUIRE() { mutex_.lock(); }
    void unlock() TOVREL_RELEASE() { mutex_.unlock(); }
    /// For a condition variable waiting under this mutex.
    std::mutex& native() { return mutex_; }

  private:
    std::mutex mutex_;
};

/// A std::shared_mutex the thread-safety analysis knows.
class TOVREL_CAPABILITY("mutex") SharedMutex {
  public:
    void lock() TOVREL_ACQUIRE() { mutex_.lock(); }
    void unlock() TOVREL_RELEASE() { mutex_.unlock(); }
    void lock_shared() TOVREL_ACQUIRE_SHARED() { mutex_.lock_shared(); }
    void unlock_shared() TOVREL_RELEASE_SHARED() { mutex_.unlock_shared(); }

  private:
    std::shared_mutex mutex_;
};

/// Holds a Mutex (or a SharedMutex exclusively) for its scope.
template <typename M>
class TOVREL_SCOPED_CAPABILITY Lock {
  public:
    explicit Lock(M& mutex) TOVREL_ACQUIRE(mutex) : mutex_(mutex) { mutex_.lock(); }
    ~Lock() TOVREL_RELEASE() { mutex_.unlock(); }
    Lock(const Lock&) = delete;
    Lock& operator=(const Lock&) = delete;

  private:
    M& mutex_;
};
Lock(Mutex&)->Lock<Mutex>;
Lock(SharedMutex&)->Lock<SharedMutex>;

/// Holds a SharedMutex shared for its scope.
class TOVREL_SCOPED_CAPABILITY ReaderLock {
  public:
    explicit ReaderLock(SharedMutex& mutex) TOVREL_ACQUIRE_SHARED(mutex) : mutex_(mutex) {
        mutex_.lock_shared();
    }
    ~ReaderLock() TOVREL_RELEASE_GENERIC() { mutex_.unlock_shared(); }
    ReaderLock(const ReaderLock&) = delete;
    ReaderLock& operator=(const ReaderLock&) = delete;

  private:
    SharedMutex& mutex_;
};

}  // namespace tovrel::platform
