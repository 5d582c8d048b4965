// tovrel-demo: the component in a desktop window. A location-enabled session runs against an embedded
// tovrel-server (the example places and pages) or a given service; positions come from gpsd or a
// replayed track; the window shows the place map, the settings menu and the offers.

#include <CLI/CLI.hpp>
#include <QApplication>
#include <QTimer>
#include <chrono>
#include <cstdio>
#include <iostream>
#include <system_error>

#include "demo_host.h"
#include "tovrel/linux/stop_signals.h"
#include "tovrel/notification_names.h"
#include "tovrel/paths/data_directory.h"
#include "tovrel/session_manager.h"
#include "tovrel/tools/command_line.h"
#ifdef TOVREL_DEMO_EMBEDDED_SERVER
#include "tovrel_server/server.h"
#endif

namespace {

/// The screenshot run: waits for places and a position, grabs the map, the settings menu and the
/// nearest place's offer, then quits. Each step has its own deadline; a missed one is reported.
class ScreenshotScript {
  public:
    ScreenshotScript(tovrel::demo::DemoHost& host, tovrel::qtbackend::QtPlatform& backend,
                     std::filesystem::path directory)
        : host_(host), backend_(backend), directory_(std::move(directory)) {
        timer_.setInterval(100);
        QObject::connect(&timer_, &QTimer::timeout, [this] { step(); });
        timer_.start();
        started_ = std::chrono::steady_clock::now();
    }
    [[nodiscard]] int failures() const { return failures_; }

  private:
    void step() {
        const double elapsed =
            std::chrono::duration<double>(std::chrono::steady_clock::now() - stepStarted()).count();
        switch (stage_) {
            case 0:
                if ((host_.placeCount() > 0 && host_.hasUserPosition()) || elapsed > 60) {
                    report(host_.placeCount() > 0, "places on the map");
                    next(1);
                }
                break;
            case 1:
                if (elapsed > 1.0) {
                    report(tovrel::demo::saveScreenshot(backend_, directory_, "map"), "map.png");
                    host_.openSettings();
                    next(2);
                }
                break;
            case 2:
                if (elapsed > 0.5) {
                    report(tovrel::demo::saveScreenshot(backend_, directory_, "settings"), "settings.png");
                    host_.closeSettings();
                    report(host_.openNearestOffer(), "an offer opened from the nearest pin");
                    next(3);
                }
                break;
            case 3:
                if (host_.offerShown() || elapsed > 30) {
                    report(host_.offerShown(), "the offer page loaded");
                    next(4);
                }
                break;
            case 4:
                if (elapsed > 1.5) {
                    report(tovrel::demo::saveScreenshot(backend_, directory_, "offer"), "offer.png");
                    timer_.stop();
                    QApplication::exit(failures_ == 0 ? 0 : 1);
                }
                break;
            default:
                break;
        }
    }
    void next(int stage) {
        stage_ = stage;
        started_ = std::chrono::steady_clock::now();
    }
    [[nodiscard]] std::chrono::steady_clock::time_point stepStarted() const { return started_; }
    void report(bool ok, const std::string& what) {
        std::cout << "tovrel-demo: " << (ok ? "ok   " : "FAIL ") << what << std::endl;
        failures_ += ok ? 0 : 1;
    }

    tovrel::demo::DemoHost& host_;
    tovrel::qtbackend::QtPlatform& backend_;
    std::filesystem::path directory_;
    QTimer timer_;
    int stage_ = 0;
    int failures_ = 0;
    std::chrono::steady_clock::time_point started_;
};

}  // namespace

int main(int argc, char** argv) {
    CLI::App app{
        "Shows the Tovrel place map, settings menu and offers in a desktop window while a "
        "location-enabled session runs."};
    std::string serviceURL;
    std::string sdkKey = "demo-key";
    std::string gpsd;
    const auto data = tovrel::paths::dataDirectory();
    std::string replay = (data / "routes" / "drive-in.gpx").string();
    double speed = 1;
    bool loopReplay = false;
    std::string places = (data / "places" / "munich.geojson").string();
    std::string content = (data / "content").string();
    std::string tiles;
    std::string appId = "org.tovrel.demo";
    std::string screenshots;
    double quitAfter = 0;
    app.add_option("--service", serviceURL,
                   "use this service (base URL, no trailing slash) instead of the embedded tovrel-server");
    app.add_option("--sdk-key", sdkKey, "the SDK key of the session (the embedded server knows it)")
        ->capture_default_str();
    auto* gpsdOption =
        app.add_option("--gpsd", gpsd, "read positions from gpsd at host:port (port 2947 by default)")
            ->check([](const std::string& value) { return tovrel::linuxbackend::gpsdAddressProblem(value); });
    app.add_option(
           "--replay", replay,
           "replay positions from a GPX or NMEA file (default: routes/drive-in.gpx of the installed data)")
        ->check(CLI::ExistingFile)
        ->excludes(gpsdOption);
    app.add_option("--speed", speed, "replay speed-up factor (1: the recorded pace)")
        ->check(CLI::PositiveNumber)
        ->capture_default_str();
    app.add_flag("--loop", loopReplay, "start the replay again after its last point");
    app.add_option(
           "--places", places,
           "GeoJSON places for the embedded server (default: places/munich.geojson of the installed data)")
        ->check(CLI::ExistingFile);
    app.add_option("--content", content,
                   "folder of pages (media, appcontent) the embedded server serves (default: content/ of the "
                   "installed data)")
        ->check(CLI::ExistingDirectory);
    app.add_option("--tiles", tiles,
                   "raster map tiles, e.g. https://tiles.example.org/{z}/{x}/{y}.png (none: a plain map)");
    app.add_option("--app-id", appId, "application id: names the preferences and the identifier")
        ->capture_default_str();
    app.add_option("--screenshot", screenshots,
                   "scripted run: grab map.png, settings.png and offer.png into this folder, then quit");
    app.add_option("--quit-after", quitAfter, "quit after this many seconds (0: run until closed)")
        ->check(CLI::NonNegativeNumber);
    tovrel::tools::addVersionFlag(app, "tovrel-demo");
    if (const auto status = tovrel::tools::parseCommandLine(app, argc, argv)) {
        return *status;
    }

    // SIGINT and SIGTERM close the window in order (the session stops, the server shuts down). They
    // are blocked before Qt starts any thread, so that no thread dies of them.
    std::unique_ptr<tovrel::linuxbackend::StopSignals> stopSignals;
    try {
        stopSignals = std::make_unique<tovrel::linuxbackend::StopSignals>();
    } catch (const std::system_error& error) {
        std::cerr << "tovrel-demo: " << error.what() << '\n';
        return 1;
    }

    // Qt gets only the program name: its own options come from the environment (QT_QPA_PLATFORM=...).
    int qtArgc = 1;
    char* qtArgv[] = {argv[0], nullptr};
    QCoreApplication::setAttribute(Qt::AA_ShareOpenGLContexts);
    QApplication application(qtArgc, qtArgv);
    QApplication::setApplicationName("tovrel-demo");

    int status = 0;
    try {
#ifdef TOVREL_DEMO_EMBEDDED_SERVER
        std::unique_ptr<tovrel::server::Server> server;
        if (serviceURL.empty()) {
            tovrel::server::ServerOptions serverOptions;
            serverOptions.dbPath = ":memory:";
            serverOptions.contentDir = content;
            serverOptions.threads = 2;
            server = std::make_unique<tovrel::server::Server>(serverOptions);
            server->importGeoJson(places);
            server->addApp(sdkKey, "tovrel-demo");
            serviceURL = "http://127.0.0.1:" + std::to_string(server->start());
        }
#else
        if (serviceURL.empty()) {
            std::cerr << "tovrel-demo: this build has no embedded server; give --service\n";
            return 2;
        }
#endif

        tovrel::qtbackend::QtPlatformOptions options;
        options.linuxParts.applicationId = appId;
        options.linuxParts.applicationName = "Tovrel demo";
        options.linuxParts.log.identity = "tovrel-demo";
        if (!gpsd.empty()) {
            options.linuxParts.locationSource = tovrel::linuxbackend::gpsdOptionsForAddress(gpsd);
        } else {
            tovrel::linuxbackend::ReplayOptions replayOptions;
            replayOptions.file = replay;
            replayOptions.speed = speed;
            replayOptions.loop = loopReplay;
            options.linuxParts.locationSource = replayOptions;
        }
        options.views.tileURLTemplate = tiles;
        options.views.windowTitle = "Tovrel demo";
        tovrel::qtbackend::QtPlatform backend(options);
        auto& parts = *backend.linuxParts;
        {
            tovrel::Configuration configuration = tovrel::Configuration::defaults();
            configuration.serviceBaseURL = serviceURL;
            configuration.contentBaseURL = serviceURL;
            tovrel::Environment env(backend.platform(), configuration);
            tovrel::Environment::setDefault(&env);

            parts.notifications->setActivationHandler(
                [&env](const tovrel::platform::LocalNotification& notification) {
                    env.notificationCenter().post(tovrel::kTovrelNotificationReceived, notification);
                });
            auto stopWatch = stopSignals->watch(*backend.loop, [] { QApplication::quit(); });
            parts.log->write("tovrel-demo: service " + serviceURL + ", positions from " +
                             (gpsd.empty() ? replay : "gpsd " + gpsd) + ", identifier " +
                             parts.device->advertisingIdentifier());
            parts.application->finishLaunching();
            parts.application->becomeActive();

            tovrel::demo::DemoHost host(env, backend);
            host.show();
            auto& session = tovrel::SessionManager::sharedInstance();
            session.setPresentNotifications(true);
            session.setPresentOfferView(true);
            session.startSessionUsingLocation(sdkKey);

            // The map plots at load only when a position is stored; once the first fix has arrived the
            // host asks again, and fits the map to the places when they come.
            bool plotted = false;
            bool fitted = false;
            QTimer firstPlaces;
            firstPlaces.setInterval(250);
            QObject::connect(&firstPlaces, &QTimer::timeout, [&] {
                if (!plotted && host.hasUserPosition()) {
                    plotted = true;
                    host.mapManager()->plotLocations();
                }
                if (!fitted && host.placeCount() > 0) {
                    fitted = true;
                    host.mapManager()->refreshMap();
                    firstPlaces.stop();
                }
            });
            firstPlaces.start();

            std::unique_ptr<ScreenshotScript> script;
            if (!screenshots.empty()) {
                script = std::make_unique<ScreenshotScript>(host, backend, screenshots);
            }
            if (quitAfter > 0) {
                QTimer::singleShot(static_cast<int>(quitAfter * 1000), [] { QApplication::quit(); });
            }
            status = QApplication::exec();
            stopWatch->cancel();
            session.stopSession();
            tovrel::Environment::setDefault(nullptr);
        }
#ifdef TOVREL_DEMO_EMBEDDED_SERVER
        if (server) {
            server->stop();
        }
#endif
    } catch (const std::exception& error) {
        std::cerr << "tovrel-demo: " << error.what() << '\n';
        status = 1;
    }
    return status;
}
