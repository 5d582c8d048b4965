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

/// The map plots at load only when a position is stored; once the first fix has arrived the host asks
/// again, and fits the map to the places when they come.
class FirstPlaces {
  public:
    explicit FirstPlaces(tovrel::demo::DemoHost& host) : host_(host) {
        timer_.setInterval(250);
        QObject::connect(&timer_, &QTimer::timeout, [this] { check(); });
        timer_.start();
    }

  private:
    void check() {
        if (!plotted_ && host_.hasUserPosition()) {
            plotted_ = true;
            host_.mapManager()->plotLocations();
        }
        if (!fitted_ && host_.placeCount() > 0) {
            fitted_ = true;
            host_.mapManager()->refreshMap();
            timer_.stop();
        }
    }

    tovrel::demo::DemoHost& host_;
    QTimer timer_;
    bool plotted_ = false;
    bool fitted_ = false;
};

struct DemoOptions {
    std::string serviceURL;
    std::string sdkKey = "demo-key";
    std::string gpsd;
    std::string replay;
    double speed = 1;
    bool loopReplay = false;
    std::string places;
    std::string content;
    std::string tiles;
    std::string appId = "org.tovrel.demo";
    std::string screenshots;
    double quitAfter = 0;
};

void addOptions(CLI::App& app, DemoOptions& options) {
    app.add_option("--service", options.serviceURL,
                   "use this service (base URL, no trailing slash) instead of the embedded tovrel-server");
    app.add_option("--sdk-key", options.sdkKey, "the SDK key of the session (the embedded server knows it)")
        ->capture_default_str();
    auto* gpsdOption =
        app.add_option("--gpsd", options.gpsd, "read positions from gpsd at host:port (port 2947 by default)")
            ->check([](const std::string& value) { return tovrel::linuxbackend::gpsdAddressProblem(value); });
    app.add_option(
           "--replay", options.replay,
           "replay positions from a GPX or NMEA file (default: routes/drive-in.gpx of the installed data)")
        ->check(CLI::ExistingFile)
        ->excludes(gpsdOption);
    app.add_option("--speed", options.speed, "replay speed-up factor (1: the recorded pace)")
        ->check(CLI::PositiveNumber)
        ->capture_default_str();
    app.add_flag("--loop", options.loopReplay, "start the replay again after its last point");
    app.add_option(
           "--places", options.places,
           "GeoJSON places for the embedded server (default: places/munich.geojson of the installed data)")
        ->check(CLI::ExistingFile);
    app.add_option("--content", options.content,
                   "folder of pages (media, appcontent) the embedded server serves (default: content/ of the "
                   "installed data)")
        ->check(CLI::ExistingDirectory);
    app.add_option("--tiles", options.tiles,
                   "raster map tiles, e.g. https://tiles.example.org/{z}/{x}/{y}.png (none: a plain map)");
    app.add_option("--app-id", options.appId, "application id: names the preferences and the identifier")
        ->capture_default_str();
    app.add_option("--screenshot", options.screenshots,
                   "scripted run: grab map.png, settings.png and offer.png into this folder, then quit");
    app.add_option("--quit-after", options.quitAfter, "quit after this many seconds (0: run until closed)")
        ->check(CLI::NonNegativeNumber);
}

#ifdef TOVREL_DEMO_EMBEDDED_SERVER
/// A started tovrel-server on the demo's places and pages that knows its SDK key.
std::unique_ptr<tovrel::server::Server> startEmbeddedServer(const DemoOptions& options) {
    tovrel::server::ServerOptions serverOptions;
    serverOptions.dbPath = ":memory:";
    serverOptions.contentDir = options.content;
    serverOptions.threads = 2;
    auto server = std::make_unique<tovrel::server::Server>(serverOptions);
    server->importGeoJson(options.places);
    server->addApp(options.sdkKey, "tovrel-demo");
    server->start();
    return server;
}
#endif

tovrel::qtbackend::QtPlatformOptions platformOptions(const DemoOptions& options) {
    tovrel::qtbackend::QtPlatformOptions backendOptions;
    backendOptions.linuxParts.applicationId = options.appId;
    backendOptions.linuxParts.applicationName = "Tovrel demo";
    backendOptions.linuxParts.log.identity = "tovrel-demo";
    if (!options.gpsd.empty()) {
        backendOptions.linuxParts.locationSource = tovrel::linuxbackend::gpsdOptionsForAddress(options.gpsd);
    } else {
        tovrel::linuxbackend::ReplayOptions replayOptions;
        replayOptions.file = options.replay;
        replayOptions.speed = options.speed;
        replayOptions.loop = options.loopReplay;
        backendOptions.linuxParts.locationSource = replayOptions;
    }
    backendOptions.views.tileURLTemplate = options.tiles;
    backendOptions.views.windowTitle = "Tovrel demo";
    return backendOptions;
}

/// Runs the session in the window until the application quits; its exit status.
int runSession(const DemoOptions& options, tovrel::qtbackend::QtPlatform& backend,
               const tovrel::linuxbackend::StopSignals& stopSignals) {
    auto& parts = *backend.linuxParts;
    tovrel::Configuration configuration = tovrel::Configuration::defaults();
    configuration.serviceBaseURL = options.serviceURL;
    configuration.contentBaseURL = options.serviceURL;
    tovrel::Environment env(backend.platform(), configuration);
    tovrel::Environment::setDefault(&env);

    parts.notifications->setActivationHandler(
        [&env](const tovrel::platform::LocalNotification& notification) {
            env.notificationCenter().post(tovrel::kTovrelNotificationReceived, notification);
        });
    auto stopWatch = stopSignals.watch(*backend.loop, [] { QApplication::quit(); });
    parts.log->write("tovrel-demo: service " + options.serviceURL + ", positions from " +
                     (options.gpsd.empty() ? options.replay : "gpsd " + options.gpsd) + ", identifier " +
                     parts.device->advertisingIdentifier());
    parts.application->finishLaunching();
    parts.application->becomeActive();

    tovrel::demo::DemoHost host(env, backend);
    host.show();
    auto& session = tovrel::SessionManager::sharedInstance();
    session.setPresentNotifications(true);
    session.setPresentOfferView(true);
    session.startSessionUsingLocation(options.sdkKey);

    FirstPlaces firstPlaces(host);
    std::unique_ptr<ScreenshotScript> script;
    if (!options.screenshots.empty()) {
        script = std::make_unique<ScreenshotScript>(host, backend, options.screenshots);
    }
    if (options.quitAfter > 0) {
        QTimer::singleShot(static_cast<int>(options.quitAfter * 1000), [] { QApplication::quit(); });
    }
    const int status = QApplication::exec();
    stopWatch->cancel();
    session.stopSession();
    tovrel::Environment::setDefault(nullptr);
    return status;
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app{
        "Shows the Tovrel place map, settings menu and offers in a desktop window while a "
        "location-enabled session runs."};
    DemoOptions options;
    const auto data = tovrel::paths::dataDirectory();
    options.replay = (data / "routes" / "drive-in.gpx").string();
    options.places = (data / "places" / "munich.geojson").string();
    options.content = (data / "content").string();
    addOptions(app, options);
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
        if (options.serviceURL.empty()) {
            server = startEmbeddedServer(options);
            options.serviceURL = "http://127.0.0.1:" + std::to_string(server->port());
        }
#else
        if (options.serviceURL.empty()) {
            std::cerr << "tovrel-demo: this build has no embedded server; give --service\n";
            return 2;
        }
#endif
        tovrel::qtbackend::QtPlatform backend(platformOptions(options));
        status = runSession(options, backend, *stopSignals);
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
