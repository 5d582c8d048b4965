// A complete Linux host: starts a location-enabled session on the linux backend, prints the
// component's in-process notifications and stops after a given time or on Ctrl-C.
//
//   cpp-host SERVICE_URL SDK_KEY ROUTE_FILE [SECONDS] [SPEED]
//
// Exit status 0 when the service gave a session key, 1 when it did not, 2 on bad arguments.
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string>

#include "tovrel/environment.h"
#include "tovrel/linux/linux_platform.h"
#include "tovrel/linux/stop_signals.h"
#include "tovrel/notification_names.h"
#include "tovrel/session_manager.h"
#include "tovrel/version.h"

int main(int argc, char** argv) {
    if (argc < 4 || argc > 6) {
        std::fprintf(stderr, "usage: %s SERVICE_URL SDK_KEY ROUTE_FILE [SECONDS] [SPEED]\n", argv[0]);
        return 2;
    }
    const std::string serviceURL = argv[1];
    const std::string sdkKey = argv[2];
    const double seconds = argc > 4 ? std::atof(argv[4]) : 60;
    const double speed = argc > 5 ? std::atof(argv[5]) : 1;

    // 1. The backend: every port on real parts. Positions come from a replayed track here; gpsd
    //    (GpsdOptions) is the other source. Make and destroy it on the thread that runs its loop.
    tovrel::linuxbackend::LinuxPlatformOptions options;
    options.applicationId = "org.example.cpp-host";
    tovrel::linuxbackend::ReplayOptions replay;
    replay.file = argv[3];
    replay.speed = speed;
    options.locationSource = replay;

    try {
        const tovrel::linuxbackend::StopSignals stopSignals;  // before any thread starts
        tovrel::linuxbackend::LinuxPlatform backend(options);

        // 2. One environment per device, installed as the default the shared instances resolve in.
        tovrel::Configuration configuration = tovrel::Configuration::defaults();
        configuration.serviceBaseURL = serviceURL;
        tovrel::Environment environment(backend.platform(), configuration);
        tovrel::Environment::setDefault(&environment);

        // 3. Observe what the component posts (every name: an empty name matches all), and hand
        //    it the desktop notifications the user opens.
        const auto observer = environment.notificationCenter().addObserver(
            "", nullptr,
            [](const tovrel::Notification& n) { std::printf("notification: %s\n", n.name.c_str()); });
        backend.notifications->setActivationHandler(
            [&environment](const tovrel::platform::LocalNotification& n) {
                environment.notificationCenter().post(tovrel::kTovrelNotificationReceived, n);
            });

        // 4. The application life cycle the component listens to, then the session itself.
        backend.application->finishLaunching();
        backend.application->becomeActive();
        auto& session = tovrel::SessionManager::sharedInstance();
        session.setPresentNotifications(true);
        session.setPresentOfferView(true);
        session.startSessionUsingLocation(sdkKey);

        // 5. Run the loop on this thread until the time is up or a signal comes.
        auto stop = [&backend] {
            backend.application->terminate();
            backend.loop->post([&backend] { backend.loop->stop(); });
        };
        auto stopWatch = stopSignals.watch(*backend.loop, stop);
        auto timer = backend.loop->scheduleTimer(seconds, false, stop);
        std::printf("cpp-host: Tovrel %s, service %s\n", tovrel::kVersion, serviceURL.c_str());
        backend.loop->run();

        // 6. Stop in order: the session, the observers, then the environment and the backend.
        stopWatch->cancel();
        const bool started = backend.preferences->objectForKey("sessionid").has_value();
        session.stopSession();
        environment.notificationCenter().removeObserver(observer);
        tovrel::Environment::setDefault(nullptr);
        std::printf("cpp-host: %s\n", started ? "session started" : "no session");
        return started ? 0 : 1;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "cpp-host: %s\n", error.what());
        return 1;
    }
}
