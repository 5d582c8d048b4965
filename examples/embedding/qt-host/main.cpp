// A complete Qt host: the place map in a window while a location-enabled session runs, with the
// component's screens on Qt widgets and the rest on the Linux parts, all on Qt's event loop.
//
//   qt-host SERVICE_URL SDK_KEY ROUTE_FILE [SECONDS]
//
// Without SECONDS it runs until the window closes. Exit status 0 when the service gave a session
// key, 1 when it did not, 2 on bad arguments. Offscreen: QT_QPA_PLATFORM=offscreen.
#include <QApplication>
#include <QTimer>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string>

#include "tovrel/environment.h"
#include "tovrel/map_manager.h"
#include "tovrel/notification_names.h"
#include "tovrel/qt/qt_platform.h"
#include "tovrel/session_manager.h"

int main(int argc, char** argv) {
    QApplication application(argc, argv);  // first: the Qt parts need it
    if (argc < 4 || argc > 5) {
        std::fprintf(stderr, "usage: %s SERVICE_URL SDK_KEY ROUTE_FILE [SECONDS]\n", argv[0]);
        return 2;
    }
    tovrel::qtbackend::QtPlatformOptions options;
    options.linuxParts.applicationId = "org.example.qt-host";
    tovrel::linuxbackend::ReplayOptions replay;
    replay.file = argv[3];
    options.linuxParts.locationSource = replay;

    try {
        tovrel::qtbackend::QtPlatform backend(options);
        tovrel::Configuration configuration = tovrel::Configuration::defaults();
        configuration.serviceBaseURL = argv[1];
        tovrel::Environment environment(backend.platform(), configuration);
        tovrel::Environment::setDefault(&environment);
        backend.linuxParts->notifications->setActivationHandler(
            [&environment](const tovrel::platform::LocalNotification& n) {
                environment.notificationCenter().post(tovrel::kTovrelNotificationReceived, n);
            });

        // The map is a controller on the view ports: put its view on the key window.
        auto map = tovrel::MapManager::create(environment);
        backend.views->keyWindow()->addSubview(map->view());
        backend.views->window()->show();

        backend.linuxParts->application->finishLaunching();
        backend.linuxParts->application->becomeActive();
        auto& session = tovrel::SessionManager::sharedInstance();
        session.setPresentNotifications(true);
        session.setPresentOfferView(true);
        session.startSessionUsingLocation(argv[2]);

        if (argc == 5) {
            QTimer::singleShot(static_cast<int>(std::atof(argv[4]) * 1000), &application,
                               &QApplication::quit);
        }
        application.exec();

        backend.linuxParts->application->terminate();
        const bool started = backend.linuxParts->preferences->objectForKey("sessionid").has_value();
        session.stopSession();
        map.reset();
        tovrel::Environment::setDefault(nullptr);
        std::printf("qt-host: %s\n", started ? "session started" : "no session");
        return started ? 0 : 1;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "qt-host: %s\n", error.what());
        return 1;
    }
}
