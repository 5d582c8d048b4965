#include "tovrel/qt/qt_platform.h"

namespace tovrel::qtbackend {

QtPlatform::QtPlatform(QtPlatformOptions options)
    : loop(std::make_shared<QtMainLoop>()),
      linuxParts(std::make_unique<linuxbackend::LinuxPlatform>(std::move(options.linuxParts), loop, loop)),
      views(std::make_shared<QtViewSystem>(loop, std::move(options.views))),
      alerts(std::make_shared<QtAlertPresenter>(views)) {}

QtPlatform::~QtPlatform() {
    // The alerts and views go before the Linux parts, and those before the loop they post to.
    alerts.reset();
    views.reset();
    linuxParts.reset();
}

platform::Platform QtPlatform::platform() const {
    platform::Platform p = linuxParts->platform();
    p.mainLoop = loop;
    p.views = views;
    p.alerts = alerts;
    return p;
}

}  // namespace tovrel::qtbackend
