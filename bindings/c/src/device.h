#pragma once
// The C interface's device: the linux backend, the component's environment on it, and the loop that
// runs them, on the caller's thread or on a thread of its own.
#include <filesystem>
#include <functional>
#include <future>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <variant>

#include "call_guard.h"
#include "tovrel/environment.h"
#include "tovrel/linux/linux_platform.h"
#include "tovrel/linux/location_sources.h"
#include "tovrel/tovrel.h"

namespace tovrel::capi {

/// What tovrel_options collects.
struct DeviceOptions {
    std::string serviceURL;  ///< empty: the compiled-in default
    std::filesystem::path dataDirectory;
    std::string applicationId = "org.tovrel.host";
    std::variant<std::monostate, linuxbackend::GpsdOptions, linuxbackend::ReplayOptions> positions;
    tovrel_loop_mode loopMode = TOVREL_LOOP_CALLER;
    tovrel_log_fn logHandler = nullptr;
    void* logUser = nullptr;
};

/// One device. Built by make() and destroyed by the destructor under the threading rules of tovrel.h.
class Device {
  public:
    /// Any thread. Throws CallError (TOVREL_ERROR_STATE while another device uses the same data
    /// folder, TOVREL_ERROR_SYSTEM when the backend cannot be built). Devices share nothing else, so
    /// any number may exist at once.
    static std::unique_ptr<Device> make(const DeviceOptions& options);
    /// See tovrel_device_free: checks the thread first and throws CallError rather than end wrongly.
    static void destroy(std::unique_ptr<Device> device);
    ~Device();
    Device(const Device&) = delete;
    Device& operator=(const Device&) = delete;

    /// Home thread, caller's loop only.
    void run();
    void step(int milliseconds);
    /// Any thread.
    void stop();

    /// Any thread: at once on the home thread, else queued to the loop.
    void perform(std::function<void()> action);

    /// Any thread: at once on the home thread; queued and waited for while the library's thread runs
    /// the loop; CallError(TOVREL_ERROR_WRONG_THREAD) otherwise.
    template <typename Result>
    Result ask(std::function<Result()> question) {
        if (onHomeThread()) {
            return question();
        }
        if (!ownThread_) {
            throw CallError(TOVREL_ERROR_WRONG_THREAD, "call this on the thread that runs the device's loop");
        }
        auto task = std::make_shared<std::packaged_task<Result()>>(std::move(question));
        auto answer = task->get_future();
        perform([task] { (*task)(); });
        return answer.get();
    }

    /// The backend and the component's environment on it. Made, used and destroyed on the home thread.
    struct Parts {
        explicit Parts(const DeviceOptions& options);
        ~Parts();
        Parts(const Parts&) = delete;
        Parts& operator=(const Parts&) = delete;

        /// Home thread. Tells the component the application came to the foreground or left it.
        void setActive(bool active);
        /// Home thread. Stops the session and tells the component the application terminates.
        void end();

        linuxbackend::LinuxPlatform backend;
        Environment environment;
        bool active = false;
    };

    /// The component's side, for the operations. Home thread.
    Parts& parts() { return *parts_; }

  private:
    class LoopTurn;

    Device() = default;
    [[nodiscard]] bool onHomeThread() const;
    void shutDown();

    std::string dataFolder_;  ///< claimed for the device's lifetime
    std::unique_ptr<Parts> parts_;
    bool ownThread_ = false;
    bool running_ = false;
    std::thread thread_;
};

}  // namespace tovrel::capi
