#include "screen_fixture.h"

#include <cstdlib>

#include "qt_test_support.h"
#include "tovrel/location_archive.h"
#include "tovrel/session_manager.h"

namespace tovrel::qttest {

using namespace std::chrono_literals;

void ScreenFixture::SetUp() {
    std::string pattern = (std::filesystem::temp_directory_path() / "tovrel-qt-XXXXXX").string();
    ASSERT_NE(::mkdtemp(pattern.data()), nullptr);
    directory = pattern;

    tovrel::server::ServerOptions serverOptions;
    serverOptions.dbPath = ":memory:";
    serverOptions.contentDir = TOVREL_QT_TEST_CONTENT_DIR;
    serverOptions.threads = 1;
    server = std::make_unique<tovrel::server::Server>(serverOptions);
    server->importGeoJson(std::string(TOVREL_EXAMPLES_DIR) + "/places/munich.geojson");
    server->addApp(kSdkKey, "Qt screen tests");
    baseURL = "http://127.0.0.1:" + std::to_string(server->start());

    log = std::tmpfile();
    qtbackend::QtPlatformOptions options;
    options.linuxParts.applicationId = "org.tovrel.qt-screen-test";
    options.linuxParts.dataDirectory = directory;
    options.linuxParts.log.stream = log;
    backend = std::make_unique<qtbackend::QtPlatform>(options);
    Configuration configuration = Configuration::defaults();
    configuration.serviceBaseURL = baseURL;
    configuration.contentBaseURL = baseURL;
    env = std::make_unique<Environment>(makePlatform(), configuration);
    Environment::setDefault(env.get());
    backend->views->window()->show();
}

void ScreenFixture::TearDown() {
    if (backend) {
        backend->views->window()->hide();
    }
    // Replies still on their way land before the environment goes.
    pump(50ms);
    Environment::setDefault(nullptr);
    env.reset();
    backend.reset();
    if (server) {
        server->stop();
    }
    if (log != nullptr) {
        std::fclose(log);
    }
    std::error_code ignored;
    std::filesystem::remove_all(directory, ignored);
}

void ScreenFixture::startSession() {
    SessionManager::sharedInstance().startSession(kSdkKey);
    ASSERT_TRUE(
        waitFor([&] { return backend->platform().preferences->objectForKey("sessionid").has_value(); }, 10s))
        << "no session key from " << baseURL;
}

void ScreenFixture::storePosition(const platform::Coordinate& coordinate) {
    platform::Location location;
    location.coordinate = coordinate;
    location.horizontalAccuracy = 10;
    location.timestamp = 1.7e9;
    backend->platform().preferences->setObject("currentLocation", archiveLocation(location));
}

}  // namespace tovrel::qttest
