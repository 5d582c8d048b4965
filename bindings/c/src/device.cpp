#include "device.h"

#include <mutex>
#include <set>
#include <system_error>
#include <utility>

#include "tovrel/linux/xdg_paths.h"
#include "tovrel/notification_names.h"
#include "tovrel/session_manager.h"

namespace tovrel::capi {

namespace {

/// The data folders of the devices that exist. Two devices on one folder would share one identity and
/// one preferences file, each overwriting what the other keeps.
class FoldersInUse {
  public:
    static FoldersInUse& instance() {
        static FoldersInUse folders;
        return folders;
    }
    /// Any thread. False when another device already uses `folder`.
    bool claim(const std::string& folder) {
        std::lock_guard lock(mutex_);
        return folders_.insert(folder).second;
    }
    /// Any thread.
    void release(const std::string& folder) {
        std::lock_guard lock(mutex_);
        folders_.erase(folder);
    }

  private:
    std::mutex mutex_;
    std::set<std::string> folders_;
};

/// The folder the device keeps its files in, spelled one way whatever path named it.
std::string dataFolderOf(const DeviceOptions& options) {
    std::filesystem::path folder = options.dataDirectory.empty()
                                       ? linuxbackend::applicationDataDirectory(options.applicationId)
                                       : options.dataDirectory;
    std::error_code error;
    if (auto resolved = std::filesystem::weakly_canonical(folder, error); !error) {
        folder = std::move(resolved);
    }
    folder = folder.lexically_normal();
    return (folder.has_filename() ? folder : folder.parent_path()).string();
}

/// The component's log lines, handed to the host as well as to the backend's log.
class TeeLogSink final : public platform::LogSink {
  public:
    TeeLogSink(std::shared_ptr<platform::LogSink> inner, tovrel_log_fn handler, void* user)
        : inner_(std::move(inner)), handler_(handler), user_(user) {}
    void write(std::string_view line) override {
        inner_->write(line);
        handler_(std::string(line).c_str(), user_);
    }

  private:
    std::shared_ptr<platform::LogSink> inner_;
    tovrel_log_fn handler_;
    void* user_;
};

linuxbackend::LinuxPlatformOptions backendOptions(const DeviceOptions& options) {
    linuxbackend::LinuxPlatformOptions out;
    out.applicationId = options.applicationId;
    out.dataDirectory = options.dataDirectory;
    out.log.identity = options.applicationId;
    std::visit(
        [&out](const auto& source) {
            if constexpr (!std::is_same_v<std::decay_t<decltype(source)>, std::monostate>) {
                out.locationSource = source;
            }
        },
        options.positions);
    return out;
}

platform::Platform componentPlatform(const linuxbackend::LinuxPlatform& backend,
                                     const DeviceOptions& options) {
    platform::Platform platform = backend.platform();
    if (options.logHandler != nullptr) {
        platform.log = std::make_shared<TeeLogSink>(platform.log, options.logHandler, options.logUser);
    }
    return platform;
}

Configuration configuration(const DeviceOptions& options) {
    Configuration out = Configuration::defaults();
    if (!options.serviceURL.empty()) {
        out.serviceBaseURL = options.serviceURL;
        out.contentBaseURL = options.serviceURL;
    }
    return out;
}

}  // namespace

Device::Parts::Parts(const DeviceOptions& options)
    : backend(backendOptions(options)),
      environment(componentPlatform(backend, options), configuration(options)) {
    backend.notifications->setActivationHandler([this](const platform::LocalNotification& notification) {
        environment.notificationCenter().post(kTovrelNotificationReceived, notification);
    });
    backend.application->finishLaunching();
    backend.application->becomeActive();
    active = true;
}

Device::Parts::~Parts() {
    backend.notifications->setActivationHandler(nullptr);
}

void Device::Parts::setActive(bool value) {
    if (value == active) {
        return;
    }
    active = value;
    if (active) {
        backend.application->enterForeground();
        backend.application->becomeActive();
    } else {
        backend.application->resignActive();
        backend.application->enterBackground();
    }
}

void Device::Parts::end() {
    environment.sessionManager().stopSession();
    backend.application->terminate();
}

std::unique_ptr<Device> Device::make(const DeviceOptions& options) {
    std::string folder = dataFolderOf(options);
    if (!FoldersInUse::instance().claim(folder)) {
        throw CallError(TOVREL_ERROR_STATE, "another device of this process keeps its data in " + folder);
    }
    std::unique_ptr<Device> device(new Device);
    device->dataFolder_ = std::move(folder);
    try {
        if (options.loopMode == TOVREL_LOOP_CALLER) {
            device->parts_ = std::make_unique<Parts>(options);
            return device;
        }
        device->ownThread_ = true;
        auto built = std::make_shared<std::promise<void>>();
        auto ready = built->get_future();
        Device* self = device.get();
        device->thread_ = std::thread([self, options, built] {
            try {
                self->parts_ = std::make_unique<Parts>(options);
            } catch (...) {
                built->set_exception(std::current_exception());
                return;
            }
            built->set_value();
            self->parts_->backend.loop->run();
            self->parts_.reset();
        });
        try {
            ready.get();
        } catch (...) {
            device->thread_.join();
            throw;
        }
        return device;
    } catch (const CallError&) {
        throw;
    } catch (const std::system_error& error) {
        throw CallError(TOVREL_ERROR_SYSTEM, error.what());
    } catch (const std::runtime_error& error) {
        throw CallError(TOVREL_ERROR_SYSTEM, error.what());
    }
}

void Device::destroy(std::unique_ptr<Device> device) {
    if (!device) {
        return;
    }
    if (device->ownThread_) {
        if (device->onHomeThread()) {
            throw CallError(TOVREL_ERROR_WRONG_THREAD,
                            "a device on the library's thread is freed from another thread");
        }
        Device* self = device.get();
        self->perform([self] {
            self->parts_->end();
            self->parts_->backend.loop->post([self] { self->parts_->backend.loop->stop(); });
        });
        self->thread_.join();
        return;
    }
    if (!device->onHomeThread()) {
        throw CallError(TOVREL_ERROR_WRONG_THREAD, "free the device on the thread that made it");
    }
    if (device->running_) {
        throw CallError(TOVREL_ERROR_STATE,
                        "the device's loop is running: stop it and free the device after "
                        "tovrel_device_run returns");
    }
    auto& loop = *device->parts_->backend.loop;
    device->parts_->end();
    // What terminating queued (the component's last requests, observers) runs before the loop ends.
    loop.post([&loop] { loop.stop(); });
    loop.run();
    device->parts_.reset();
}

Device::~Device() {
    if (thread_.joinable()) {
        thread_.join();
    }
    FoldersInUse::instance().release(dataFolder_);
}

bool Device::onHomeThread() const {
    return parts_ != nullptr && parts_->backend.loop->isMainThread();
}

/// Marks the caller's loop as running for a scope: run() and step() refuse a loop the library
/// owns, another thread and a loop already running (a callback calling them again).
class Device::LoopTurn {
  public:
    LoopTurn(Device& device, const char* verb) : running_(device.running_) {
        if (device.ownThread_) {
            throw CallError(TOVREL_ERROR_STATE, "the library's thread runs this device's loop");
        }
        if (!device.onHomeThread()) {
            throw CallError(TOVREL_ERROR_WRONG_THREAD,
                            std::string(verb) + " the loop on the thread that made the device");
        }
        if (running_) {
            throw CallError(TOVREL_ERROR_STATE, "the loop is already running");
        }
        running_ = true;
    }
    ~LoopTurn() { running_ = false; }
    LoopTurn(const LoopTurn&) = delete;
    LoopTurn& operator=(const LoopTurn&) = delete;

  private:
    bool& running_;
};

void Device::run() {
    const LoopTurn turn(*this, "run");
    parts_->backend.loop->run();
}

void Device::step(int milliseconds) {
    if (milliseconds < 0) {
        throw CallError(TOVREL_ERROR_INVALID_ARGUMENT, "a step lasts 0 milliseconds or more");
    }
    const LoopTurn turn(*this, "step");
    auto& loop = *parts_->backend.loop;
    if (milliseconds == 0) {
        loop.runReady();
    } else {
        loop.runFor(std::chrono::milliseconds(milliseconds));
    }
}

void Device::stop() {
    if (ownThread_) {
        throw CallError(TOVREL_ERROR_STATE,
                        "the library's thread runs this device's loop until the device is freed");
    }
    parts_->backend.loop->stop();
}

void Device::perform(std::function<void()> action) {
    if (onHomeThread()) {
        action();
        return;
    }
    parts_->backend.loop->post(std::move(action));
}

}  // namespace tovrel::capi
