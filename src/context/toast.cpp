#include "context/toast.h"

#include "tovrel/environment.h"
#include "tovrel/platform/thread_check.h"

namespace tovrel {
namespace {

constexpr double kToastSeconds = 2.0;

}  // namespace

void showToast(Environment& environment, const std::string& message) {
    const auto& platform = environment.platform();
    TOVREL_ASSERT_MAIN_THREAD(*platform.mainLoop);
    const platform::AlertId id =
        platform.alerts->show(platform::AlertSpec{std::nullopt, message, std::nullopt, {}, 0, nullptr});
    // The alerts port is held by the timer: the toast is dismissed even if the environment went first.
    platform.mainLoop->scheduleTimer(kToastSeconds, false,
                                     [alerts = platform.alerts, id] { alerts->dismiss(id, 0, true); });
}

void showMessageAlert(platform::AlertPresenter& alerts, const std::string& message) {
    alerts.show(platform::AlertSpec{"Message", message, "OK", {}, 0, nullptr});
}

}  // namespace tovrel
