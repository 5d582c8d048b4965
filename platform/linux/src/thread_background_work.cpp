#include "tovrel/linux/thread_background_work.h"

#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <deque>
#include <list>
#include <mutex>
#include <thread>
#include <vector>

namespace tovrel::linuxbackend {
namespace {

constexpr int kBackgroundNice = 10;

void lowerThisThreadsPriority() {
    // On Linux the nice value belongs to the thread, so this leaves the main thread alone.
    const auto tid = static_cast<id_t>(::syscall(SYS_gettid));
    ::setpriority(PRIO_PROCESS, tid, kBackgroundNice);
}

}  // namespace

class ThreadBackgroundWork::Impl {
  public:
    explicit Impl(std::size_t queueThreads) {
        const std::size_t count = std::max<std::size_t>(queueThreads, 1);
        workers_.reserve(count);
        for (std::size_t i = 0; i < count; ++i) {
            workers_.emplace_back([this] { workerLoop(); });
        }
    }

    void detach(platform::Task task) {
        std::lock_guard lock(mutex_);
        if (stopping_) {
            return;
        }
        reapFinished();
        auto& slot = detached_.emplace_back();
        slot.done = std::make_shared<std::atomic<bool>>(false);
        slot.thread = std::thread([task = std::move(task), done = slot.done] {
            task();
            done->store(true);
        });
    }

    void dispatch(platform::Task task) {
        {
            std::lock_guard lock(mutex_);
            if (stopping_) {
                return;
            }
            queue_.push_back(std::move(task));
        }
        queued_.notify_one();
    }

    void shutdown() {
        std::list<Detached> detached;
        std::vector<std::thread> workers;
        {
            std::lock_guard lock(mutex_);
            if (stopping_) {
                return;
            }
            stopping_ = true;
            detached.swap(detached_);
            workers.swap(workers_);
        }
        queued_.notify_all();
        for (auto& slot : detached) {
            slot.thread.join();
        }
        for (auto& worker : workers) {
            worker.join();
        }
    }

    [[nodiscard]] std::size_t running() const {
        std::lock_guard lock(mutex_);
        return static_cast<std::size_t>(std::count_if(
            detached_.begin(), detached_.end(), [](const Detached& slot) { return !slot.done->load(); }));
    }

  private:
    struct Detached {
        std::thread thread;
        std::shared_ptr<std::atomic<bool>> done;
    };

    void reapFinished() {
        for (auto it = detached_.begin(); it != detached_.end();) {
            if (it->done->load()) {
                it->thread.join();
                it = detached_.erase(it);
            } else {
                ++it;
            }
        }
    }

    void workerLoop() {
        lowerThisThreadsPriority();
        for (;;) {
            platform::Task task;
            {
                std::unique_lock lock(mutex_);
                queued_.wait(lock, [this] { return stopping_ || !queue_.empty(); });
                if (queue_.empty()) {
                    return;
                }
                task = std::move(queue_.front());
                queue_.pop_front();
            }
            task();
        }
    }

    mutable std::mutex mutex_;
    std::condition_variable queued_;
    std::deque<platform::Task> queue_;
    std::vector<std::thread> workers_;
    std::list<Detached> detached_;
    bool stopping_ = false;
};

ThreadBackgroundWork::ThreadBackgroundWork(std::size_t queueThreads)
    : impl_(std::make_unique<Impl>(queueThreads)) {}

ThreadBackgroundWork::~ThreadBackgroundWork() {
    impl_->shutdown();
}

void ThreadBackgroundWork::detachNewThread(platform::Task task) {
    impl_->detach(std::move(task));
}

void ThreadBackgroundWork::dispatchBackground(platform::Task task) {
    impl_->dispatch(std::move(task));
}

void ThreadBackgroundWork::shutdown() {
    impl_->shutdown();
}

std::size_t ThreadBackgroundWork::runningThreadCount() const {
    return impl_->running();
}

}  // namespace tovrel::linuxbackend
