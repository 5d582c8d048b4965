#include "tovrel/qt/qt_platform.h"

namespace tovrel::qtbackend {

QtPlatform::QtPlatform(QtPlatformOptions options)
    : loop(std::make_shared<QtMainLoop>()),
      linuxParts(std::make_unique<linuxbackend::LinuxPlatform>(std::move(options.linuxParts), loop, loop)),
      views(std::make_shared<QtViewSystem>(loop, std::move(options.views))),
      alerts(std::make_shared<QtAlertPresenter>(views)),
      ports_(linuxParts->platform()) {
    ports_.mainLoop = loop;
    ports_.views = views;
    ports_.alerts = alerts;
}

QtPlatform::~QtPlatform() {
    // The alerts and views go before the Linux parts, and those before the loop they post to.
    ports_ = {};
    alerts.reset();
    views.reset();
    linuxParts.reset();
}

}  // namespace tovrel::qtbackend
