// A minimal Linux host: wires the Linux backend into an environment, starts a location-enabled
// session, forwards activated desktop notifications to the component and prints what it logs.

#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <iostream>

#include "tovrel/environment.h"
#include "tovrel/linux/linux_platform.h"
#include "tovrel/notification_names.h"
#include "tovrel/session_manager.h"

namespace {

/// "host:port" or "host" (port 2947).
tovrel::linuxbackend::GpsdOptions gpsdFrom(const std::string& address) {
    tovrel::linuxbackend::GpsdOptions options;
    const auto colon = address.rfind(':');
    if (colon == std::string::npos) {
        options.host = address;
    } else {
        options.host = address.substr(0, colon);
        options.port = address.substr(colon + 1);
    }
    return options;
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app{"Runs a location-enabled Tovrel session on this Linux machine."};
    std::string serviceURL = tovrel::Configuration::defaults().serviceBaseURL;
    std::string sdkKey;
    std::string gpsd;
    std::string replay;
    double speed = 1;
    bool loopReplay = false;
    std::string appId = "org.tovrel.linux-host";
    app.add_option("--service", serviceURL, "service base URL, scheme and host without a trailing slash")
        ->capture_default_str();
    app.add_option("--sdk-key", sdkKey, "the SDK key of this application")->required();
    auto* gpsdOption =
        app.add_option("--gpsd", gpsd, "read positions from gpsd at host:port (port 2947 by default)");
    auto* replayOption = app.add_option("--replay", replay, "replay positions from a GPX or NMEA file")
                             ->check(CLI::ExistingFile)
                             ->excludes(gpsdOption);
    app.add_option("--speed", speed, "replay speed-up factor (1: the recorded pace)")
        ->check(CLI::PositiveNumber)
        ->needs(replayOption)
        ->capture_default_str();
    app.add_flag("--loop", loopReplay, "start the replay again after its last point")->needs(replayOption);
    app.add_option("--app-id", appId, "application id: names the preferences and the identifier")
        ->capture_default_str();
    CLI11_PARSE(app, argc, argv);

    tovrel::linuxbackend::LinuxPlatformOptions options;
    options.applicationId = appId;
    options.applicationName = "Tovrel host";
    options.log.identity = "tovrel-linux-host";
    if (!gpsd.empty()) {
        options.locationSource = gpsdFrom(gpsd);
    } else if (!replay.empty()) {
        tovrel::linuxbackend::ReplayOptions replayOptions;
        replayOptions.file = replay;
        replayOptions.speed = speed;
        replayOptions.loop = loopReplay;
        options.locationSource = replayOptions;
    }

    // SIGINT and SIGTERM end the loop in an orderly way (the component then hears will-terminate).
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGINT);
    sigaddset(&stopSignals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);
    const int signalFd = signalfd(-1, &stopSignals, SFD_CLOEXEC | SFD_NONBLOCK);

    try {
        tovrel::linuxbackend::LinuxPlatform backend(options);
        {
            tovrel::Configuration configuration = tovrel::Configuration::defaults();
            configuration.serviceBaseURL = serviceURL;
            tovrel::Environment env(backend.platform(), configuration);
            tovrel::Environment::setDefault(&env);

            backend.notifications->setActivationHandler(
                [&env](const tovrel::platform::LocalNotification& notification) {
                    env.notificationCenter().post(tovrel::kTovrelNotificationReceived, notification);
                });
            auto stopWatch = backend.loop->watchReadable(signalFd, [&] {
                signalfd_siginfo info{};
                while (read(signalFd, &info, sizeof info) == sizeof info) {
                }
                backend.log->write("tovrel-linux-host: stopping");
                backend.application->terminate();
                backend.loop->post([&] { backend.loop->stop(); });
            });

            backend.log->write(
                "tovrel-linux-host: service " + serviceURL + ", positions from " +
                (gpsd.empty() ? (replay.empty() ? std::string("nowhere") : replay) : "gpsd " + gpsd) +
                ", identifier " + backend.device->advertisingIdentifier());
            backend.application->finishLaunching();
            backend.application->becomeActive();

            auto& session = tovrel::SessionManager::sharedInstance();
            session.setPresentNotifications(true);
            session.setPresentOfferView(true);
            session.startSessionUsingLocation(sdkKey);

            backend.loop->run();
            stopWatch->cancel();
            session.stopSession();
            tovrel::Environment::setDefault(nullptr);
        }
    } catch (const std::exception& error) {
        std::cerr << "tovrel-linux-host: " << error.what() << '\n';
        return 1;
    }
    close(signalFd);
    return 0;
}
