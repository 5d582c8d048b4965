#include "tovrel/linux/asio_main_loop.h"

#include <algorithm>
#include <asio.hpp>
#include <atomic>
#include <cmath>
#include <mutex>
#include <queue>
#include <thread>
#include <vector>

#include "tovrel/platform/thread_check.h"

namespace tovrel::linuxbackend {
namespace {

using SteadyClock = std::chrono::steady_clock;

constexpr double kMinimumRepeatSeconds = 0.0001;

SteadyClock::duration toDuration(double seconds) {
    if (!(seconds > 0)) {
        return SteadyClock::duration::zero();
    }
    // Longer than a century is "never" for a loop; clamping keeps the time point arithmetic finite.
    constexpr double kLongest = 100.0 * 365 * 24 * 3600;
    return std::chrono::duration_cast<SteadyClock::duration>(
        std::chrono::duration<double>(std::min(seconds, kLongest)));
}

}  // namespace

class LoopTimer;

class AsioMainLoop::Impl : public std::enable_shared_from_this<AsioMainLoop::Impl> {
  public:
    Impl() : work_(asio::make_work_guard(io_)), wake_(io_), mainThread_(std::this_thread::get_id()) {}

    // Handlers and timer actions may hold objects whose destructors touch the loop; they are dropped
    // while the loop is still whole.
    ~Impl() { dropTimers(); }

    /// Drops every scheduled timer and its action. An action may hold what holds the loop (a
    /// component object holding its ports): dropping it is what lets both go.
    void dropTimers();

    asio::io_context io_;
    asio::executor_work_guard<asio::io_context::executor_type> work_;

    void post(platform::Task task) { asio::post(io_, std::move(task)); }

    std::shared_ptr<platform::Timer> schedule(double seconds, bool repeats, platform::Task action);
    void timerInvalidated() {
        asio::post(io_, [this] { pruneInvalidTimers(); });
    }

    [[nodiscard]] bool onLoopThread() const { return std::this_thread::get_id() == mainThread_.load(); }
    void becomeMainThread() { mainThread_.store(std::this_thread::get_id()); }

  private:
    struct Entry {
        SteadyClock::time_point due;
        std::uint64_t sequence;
        std::shared_ptr<LoopTimer> timer;
    };
    struct Later {
        bool operator()(const Entry& a, const Entry& b) const {
            return a.due != b.due ? a.due > b.due : a.sequence > b.sequence;
        }
    };

    void push(SteadyClock::time_point due, std::shared_ptr<LoopTimer> timer);
    void rearm();
    void fireDue();
    void pruneInvalidTimers();

    asio::steady_timer wake_;
    std::atomic<std::thread::id> mainThread_;
    std::mutex mutex_;
    std::priority_queue<Entry, std::vector<Entry>, Later> heap_;
    std::uint64_t nextSequence_ = 0;
    SteadyClock::time_point armedFor_ = SteadyClock::time_point::max();
};

class LoopTimer final : public platform::Timer {
  public:
    LoopTimer(std::weak_ptr<AsioMainLoop::Impl> loop, bool repeats, SteadyClock::duration interval,
              platform::Task action)
        : loop_(std::move(loop)), repeats_(repeats), interval_(interval), action_(std::move(action)) {}

    void invalidate() override {
        if (valid_.exchange(false)) {
            if (const auto loop = loop_.lock()) {
                loop->timerInvalidated();
            }
        }
    }
    [[nodiscard]] bool isValid() const override { return valid_.load(); }

    // The loop thread alone touches the action.
    [[nodiscard]] bool repeats() const { return repeats_; }
    [[nodiscard]] SteadyClock::duration interval() const { return interval_; }
    /// Loop thread. Runs the action if the timer is still valid; a one-shot timer is spent first.
    void fire() {
        if (!valid_.load()) {
            return;
        }
        if (!repeats_) {
            valid_.store(false);
        }
        // A copy: the action may invalidate this timer, which must not destroy the running closure.
        const platform::Task action = action_;
        if (action) {
            action();
        }
        if (!valid_.load()) {
            action_ = nullptr;
        }
    }
    void dropAction() { action_ = nullptr; }
    /// Loop thread. The timer will never fire: it is spent, and its action released.
    void discard() {
        valid_.store(false);
        action_ = nullptr;
    }

  private:
    std::weak_ptr<AsioMainLoop::Impl> loop_;
    const bool repeats_;
    const SteadyClock::duration interval_;
    platform::Task action_;
    std::atomic<bool> valid_{true};
};

void AsioMainLoop::Impl::dropTimers() {
    std::vector<Entry> dropped;
    {
        std::lock_guard lock(mutex_);
        while (!heap_.empty()) {
            dropped.push_back(heap_.top());
            heap_.pop();
        }
    }
    for (Entry& entry : dropped) {
        entry.timer->discard();
    }
}

std::shared_ptr<platform::Timer> AsioMainLoop::Impl::schedule(double seconds, bool repeats,
                                                              platform::Task action) {
    const auto interval = toDuration(repeats ? std::max(seconds, kMinimumRepeatSeconds) : seconds);
    auto timer = std::make_shared<LoopTimer>(weak_from_this(), repeats, interval, std::move(action));
    push(SteadyClock::now() + interval, timer);
    if (onLoopThread()) {
        rearm();
    } else {
        asio::post(io_, [this] { rearm(); });
    }
    return timer;
}

void AsioMainLoop::Impl::push(SteadyClock::time_point due, std::shared_ptr<LoopTimer> timer) {
    std::lock_guard lock(mutex_);
    heap_.push(Entry{due, nextSequence_++, std::move(timer)});
}

void AsioMainLoop::Impl::rearm() {
    SteadyClock::time_point earliest = SteadyClock::time_point::max();
    {
        std::lock_guard lock(mutex_);
        if (!heap_.empty()) {
            earliest = heap_.top().due;
        }
    }
    if (earliest == armedFor_) {
        return;
    }
    armedFor_ = earliest;
    if (earliest == SteadyClock::time_point::max()) {
        wake_.cancel();
        return;
    }
    wake_.expires_at(earliest);
    wake_.async_wait([this](const std::error_code& error) {
        if (error != asio::error::operation_aborted) {
            armedFor_ = SteadyClock::time_point::max();
            fireDue();
        }
    });
}

void AsioMainLoop::Impl::fireDue() {
    // Only what is due at the start fires now, so a fast repeating timer cannot starve posted tasks.
    const auto now = SteadyClock::now();
    for (;;) {
        std::shared_ptr<LoopTimer> timer;
        SteadyClock::time_point due;
        {
            std::lock_guard lock(mutex_);
            while (!heap_.empty() && !heap_.top().timer->isValid()) {
                heap_.pop();
            }
            if (heap_.empty() || heap_.top().due > now) {
                break;
            }
            timer = heap_.top().timer;
            due = heap_.top().due;
            heap_.pop();
        }
        timer->fire();
        if (timer->repeats() && timer->isValid()) {
            auto next = due + timer->interval();
            if (next <= now) {
                const auto behind = (now - next) / timer->interval() + 1;
                next += behind * timer->interval();
            }
            push(next, std::move(timer));
        }
    }
    rearm();
}

void AsioMainLoop::Impl::pruneInvalidTimers() {
    std::vector<Entry> kept;
    std::vector<std::shared_ptr<LoopTimer>> dead;
    {
        std::lock_guard lock(mutex_);
        while (!heap_.empty()) {
            const Entry& top = heap_.top();
            if (top.timer->isValid()) {
                kept.push_back(top);
            } else {
                dead.push_back(top.timer);
            }
            heap_.pop();
        }
        for (auto& entry : kept) {
            heap_.push(std::move(entry));
        }
    }
    for (const auto& timer : dead) {
        timer->dropAction();
    }
    rearm();
}

namespace {

class AsioFdWatch final : public FdWatch {
  public:
    struct State {
        State(asio::io_context& io, int fd, std::function<void()> callback)
            : descriptor(io, fd), onReadable(std::move(callback)) {}
        ~State() {
            if (descriptor.is_open()) {
                descriptor.release();
            }
        }
        State(const State&) = delete;
        State& operator=(const State&) = delete;

        asio::posix::stream_descriptor descriptor;
        std::function<void()> onReadable;
        bool cancelled = false;
    };

    AsioFdWatch(asio::io_context& io, int fd, std::function<void()> onReadable)
        : state_(std::make_shared<State>(io, fd, std::move(onReadable))) {
        arm(state_);
    }
    ~AsioFdWatch() override { AsioFdWatch::cancel(); }
    AsioFdWatch(const AsioFdWatch&) = delete;
    AsioFdWatch& operator=(const AsioFdWatch&) = delete;

    void cancel() override {
        if (state_->cancelled) {
            return;
        }
        state_->cancelled = true;
        std::error_code ignored;
        state_->descriptor.cancel(ignored);
        state_->descriptor.release();
        state_->onReadable = nullptr;
    }

  private:
    static void arm(const std::shared_ptr<State>& state) {
        state->descriptor.async_wait(asio::posix::stream_descriptor::wait_read,
                                     [state](const std::error_code& error) {
                                         if (error || state->cancelled) {
                                             return;
                                         }
                                         const auto callback = state->onReadable;
                                         callback();
                                         if (!state->cancelled) {
                                             arm(state);
                                         }
                                     });
    }

    std::shared_ptr<State> state_;
};

}  // namespace

AsioMainLoop::AsioMainLoop() : impl_(std::make_shared<Impl>()) {}

AsioMainLoop::~AsioMainLoop() = default;

void AsioMainLoop::post(platform::Task task) {
    impl_->post(std::move(task));
}

std::shared_ptr<platform::Timer> AsioMainLoop::scheduleTimer(double seconds, bool repeats,
                                                             platform::Task action) {
    return impl_->schedule(seconds, repeats, std::move(action));
}

bool AsioMainLoop::isMainThread() const {
    return impl_->onLoopThread();
}

std::unique_ptr<FdWatch> AsioMainLoop::watchReadable(int fd, std::function<void()> onReadable) {
    TOVREL_ASSERT_MAIN_THREAD(*this);
    return std::make_unique<AsioFdWatch>(impl_->io_, fd, std::move(onReadable));
}

void AsioMainLoop::run() {
    impl_->becomeMainThread();
    if (!impl_->io_.stopped()) {
        impl_->io_.run();
    }
    impl_->io_.restart();
}

void AsioMainLoop::stop() {
    impl_->io_.stop();
}

bool AsioMainLoop::runUntil(const std::function<bool()>& done, std::chrono::milliseconds timeout) {
    impl_->becomeMainThread();
    if (impl_->io_.stopped()) {
        impl_->io_.restart();
    }
    // `done` may turn true through another thread, with no handler to run: it is polled as well.
    constexpr auto kPollInterval = std::chrono::milliseconds(10);
    const auto deadline = SteadyClock::now() + timeout;
    while (!done()) {
        const auto now = SteadyClock::now();
        if (now >= deadline) {
            break;
        }
        impl_->io_.run_one_until(std::min(deadline, now + kPollInterval));
        if (impl_->io_.stopped()) {
            impl_->io_.restart();
            break;
        }
    }
    return done();
}

void AsioMainLoop::runFor(std::chrono::milliseconds duration) {
    runUntil([] { return false; }, duration);
}

void AsioMainLoop::discardTimers() {
    impl_->dropTimers();
}

std::size_t AsioMainLoop::runReady() {
    impl_->becomeMainThread();
    if (impl_->io_.stopped()) {
        impl_->io_.restart();
    }
    return impl_->io_.poll();
}

}  // namespace tovrel::linuxbackend
