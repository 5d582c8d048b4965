// A minimal Linux host: wires the Linux backend into an environment, starts a location-enabled
// session, forwards activated desktop notifications to the component and prints what it logs.

#include <CLI/CLI.hpp>
#include <cstdio>
#include <iostream>

#include "tovrel/environment.h"
#include "tovrel/linux/linux_platform.h"
#include "tovrel/linux/stop_signals.h"
#include "tovrel/notification_names.h"
#include "tovrel/session_manager.h"
#include "tovrel/tools/command_line.h"

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
        app.add_option("--gpsd", gpsd, "read positions from gpsd at host:port (port 2947 by default)")
            ->check([](const std::string& value) { return tovrel::linuxbackend::gpsdAddressProblem(value); });
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
    tovrel::tools::addVersionFlag(app, "tovrel-linux-host");
    if (const auto status = tovrel::tools::parseCommandLine(app, argc, argv)) {
        return *status;
    }

    tovrel::linuxbackend::LinuxPlatformOptions options;
    options.applicationId = appId;
    options.applicationName = "Tovrel host";
    options.log.identity = "tovrel-linux-host";
    if (!gpsd.empty()) {
        options.locationSource = tovrel::linuxbackend::gpsdOptionsForAddress(gpsd);
    } else if (!replay.empty()) {
        tovrel::linuxbackend::ReplayOptions replayOptions;
        replayOptions.file = replay;
        replayOptions.speed = speed;
        replayOptions.loop = loopReplay;
        options.locationSource = replayOptions;
    }

    try {
        // SIGINT and SIGTERM end the loop in order (the component then hears will-terminate).
        const tovrel::linuxbackend::StopSignals stopSignals;
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
            auto stopWatch = stopSignals.watch(*backend.loop, [&] {
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
    return 0;
}
