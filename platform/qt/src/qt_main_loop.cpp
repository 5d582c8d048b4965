#include "tovrel/qt/qt_main_loop.h"

#include <QCoreApplication>
#include <QSocketNotifier>
#include <QThread>
#include <QTimer>
#include <atomic>
#include <chrono>
#include <map>
#include <mutex>

#include "tovrel/platform/thread_check.h"

namespace tovrel::qtbackend {

class QtMainLoop::Impl : public std::enable_shared_from_this<QtMainLoop::Impl> {
  public:
    Impl() : receiver(new QObject) {}
    ~Impl() { delete receiver; }
    Impl(const Impl&) = delete;
    Impl& operator=(const Impl&) = delete;

    void post(platform::Task task) {
        // Queued invocations of one receiver are delivered in the order they were posted.
        QMetaObject::invokeMethod(receiver, std::move(task), Qt::QueuedConnection);
    }

    QObject* receiver;
    std::map<std::uint64_t, QTimer*> timers;
    std::uint64_t nextTimer = 0;
};

namespace {

class LoopTimer final : public platform::Timer {
  public:
    [[nodiscard]] bool isValid() const override { return valid_.load(); }
    void invalidate() override {
        if (!valid_.exchange(false)) {
            return;
        }
        const auto impl = impl_.lock();
        if (!impl) {
            return;
        }
        const std::uint64_t id = id_.load();
        if (QThread::currentThread() == impl->receiver->thread()) {
            drop(*impl, id);
        } else {
            impl->post([weak = impl_, id] {
                if (const auto live = weak.lock()) {
                    drop(*live, id);
                }
            });
        }
    }

    static void drop(QtMainLoop::Impl& impl, std::uint64_t id) {
        const auto it = impl.timers.find(id);
        if (it != impl.timers.end()) {
            it->second->stop();
            it->second->deleteLater();
            impl.timers.erase(it);
        }
    }

    /// Main thread. Makes the QTimer, unless the timer was invalidated first.
    void start(const std::shared_ptr<QtMainLoop::Impl>& impl, double seconds, bool repeats,
               platform::Task action, const std::shared_ptr<LoopTimer>& self) {
        if (!valid_.load()) {
            return;
        }
        impl_ = impl;
        const std::uint64_t id = ++impl->nextTimer;
        id_ = id;
        auto* timer = new QTimer(impl->receiver);
        timer->setTimerType(Qt::PreciseTimer);
        timer->setSingleShot(!repeats);
        const auto millis = std::chrono::milliseconds(static_cast<long long>(seconds * 1000.0));
        timer->setInterval(repeats ? std::max(millis, std::chrono::milliseconds(1)) : millis);
        impl->timers[id] = timer;
        // The QTimer's connection holds the state: dropping every handle does not stop the timer.
        QObject::connect(timer, &QTimer::timeout, impl->receiver,
                         [self, action = std::move(action), repeats, id, weakImpl = impl_] {
                             if (!self->valid_.load()) {
                                 return;
                             }
                             if (!repeats) {
                                 self->valid_ = false;
                                 if (const auto loop = weakImpl.lock()) {
                                     drop(*loop, id);
                                 }
                             }
                             action();
                         });
        timer->start();
    }

  private:
    std::atomic<bool> valid_{true};
    std::atomic<std::uint64_t> id_{0};
    std::weak_ptr<QtMainLoop::Impl> impl_;
};

class NotifierWatch final : public linuxbackend::FdWatch {
  public:
    NotifierWatch(int fd, std::function<void()> onReadable)
        : notifier_(new QSocketNotifier(fd, QSocketNotifier::Read)) {
        QObject::connect(notifier_, &QSocketNotifier::activated, notifier_,
                         [callback = std::move(onReadable)] { callback(); });
    }
    ~NotifierWatch() override { NotifierWatch::cancel(); }
    NotifierWatch(const NotifierWatch&) = delete;
    NotifierWatch& operator=(const NotifierWatch&) = delete;

    void cancel() override {
        if (notifier_ != nullptr) {
            notifier_->setEnabled(false);
            // A callback may cancel its own watch: the notifier goes once the callback has returned.
            notifier_->deleteLater();
            notifier_ = nullptr;
        }
    }

  private:
    QSocketNotifier* notifier_;
};

}  // namespace

QtMainLoop::QtMainLoop() : impl_(std::make_shared<Impl>()) {}

QtMainLoop::~QtMainLoop() {
    TOVREL_ASSERT_MAIN_THREAD(*this);
    for (auto& [id, timer] : impl_->timers) {
        timer->stop();
    }
    impl_->timers.clear();
}

void QtMainLoop::post(platform::Task task) {
    impl_->post(std::move(task));
}

std::shared_ptr<platform::Timer> QtMainLoop::scheduleTimer(double seconds, bool repeats,
                                                           platform::Task action) {
    auto timer = std::make_shared<LoopTimer>();
    auto start = [weakImpl = std::weak_ptr<Impl>(impl_), timer, seconds, repeats,
                  action = std::move(action)]() mutable {
        if (const auto impl = weakImpl.lock()) {
            timer->start(impl, seconds, repeats, std::move(action), timer);
            // The start task no longer needs the state once the QTimer holds it.
            timer.reset();
        }
    };
    if (isMainThread()) {
        start();
    } else {
        impl_->post(std::move(start));
    }
    return timer;
}

bool QtMainLoop::isMainThread() const {
    return QThread::currentThread() == impl_->receiver->thread();
}

std::unique_ptr<linuxbackend::FdWatch> QtMainLoop::watchReadable(int fd, std::function<void()> onReadable) {
    TOVREL_ASSERT_MAIN_THREAD(*this);
    return std::make_unique<NotifierWatch>(fd, std::move(onReadable));
}

std::size_t QtMainLoop::timerCount() const {
    TOVREL_ASSERT_MAIN_THREAD(*this);
    return impl_->timers.size();
}

}  // namespace tovrel::qtbackend
