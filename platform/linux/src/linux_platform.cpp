#include "tovrel/linux/linux_platform.h"

#include <stdexcept>

#include "tovrel/curl/curl_http_client.h"
#include "tovrel/linux/netlink_reachability.h"
#include "tovrel/linux/xdg_paths.h"

namespace tovrel::linuxbackend {
namespace {

class LoopBoundHttpClient final : public platform::HttpClient {
  public:
    LoopBoundHttpClient(std::shared_ptr<platform::MainLoop> loop, curl::CurlOptions options)
        : loop_(std::move(loop)), client_(*loop_, std::move(options)) {}

    void postJson(const std::string& url, std::string body, platform::JsonCompletion completion) override {
        client_.postJson(url, std::move(body), std::move(completion));
    }
    void send(platform::HttpRequest request, platform::ResponseCompletion completion) override {
        client_.send(std::move(request), std::move(completion));
    }

  private:
    std::shared_ptr<platform::MainLoop> loop_;
    curl::CurlHttpClient client_;
};

std::unique_ptr<FixSource> makeSource(const LinuxPlatformOptions& options,
                                      const std::shared_ptr<SystemClock>& clock) {
    if (const auto* gpsd = std::get_if<GpsdOptions>(&options.locationSource)) {
        return makeGpsdSource(*gpsd, clock);
    }
    if (const auto* replay = std::get_if<ReplayOptions>(&options.locationSource)) {
        return makeReplaySource(*replay, clock);
    }
    return nullptr;
}

}  // namespace

std::shared_ptr<platform::HttpClient> makeHttpClient(std::shared_ptr<platform::MainLoop> loop,
                                                     curl::CurlOptions options) {
    return std::make_shared<LoopBoundHttpClient>(std::move(loop), std::move(options));
}

LinuxPlatform::LinuxPlatform(LinuxPlatformOptions options)
    : loop(std::make_shared<AsioMainLoop>()), mainLoop(loop) {
    build(std::move(options), loop);
}

LinuxPlatform::LinuxPlatform(LinuxPlatformOptions options, std::shared_ptr<platform::MainLoop> hostLoop,
                             std::shared_ptr<DescriptorWatcher> watcher)
    : mainLoop(std::move(hostLoop)) {
    if (!mainLoop || !watcher) {
        throw std::invalid_argument("LinuxPlatform: a host loop needs a descriptor watcher");
    }
    build(std::move(options), watcher);
}

void LinuxPlatform::build(LinuxPlatformOptions options, const std::shared_ptr<DescriptorWatcher>& watcher) {
    background = std::make_shared<ThreadBackgroundWork>(options.backgroundThreads);
    clock = std::make_shared<SystemClock>();
    log = std::make_shared<StreamLogSink>(options.log);
    const auto directory = options.dataDirectory.empty() ? applicationDataDirectory(options.applicationId)
                                                         : options.dataDirectory;
    http = makeHttpClient(mainLoop, options.http);
    if (!options.preferences.onError) {
        options.preferences.onError = [sink = std::weak_ptr<StreamLogSink>(log)](const std::string& message) {
            if (const auto live = sink.lock()) {
                live->write(message);
            }
        };
    }
    preferences = std::make_shared<SqlitePreferences>(directory / "preferences.sqlite", options.preferences);

    options.device.applicationId = options.applicationId;
    if (options.device.dataDirectory.empty()) {
        options.device.dataDirectory = directory;
    }
    device = std::make_shared<LinuxDevice>(options.device);

    LinuxApplicationOptions applicationOptions;
    applicationOptions.applicationId = options.applicationId;
    application = std::make_shared<LinuxApplication>(mainLoop, applicationOptions);

    if (options.notifications.applicationName == DbusNotificationsOptions{}.applicationName) {
        options.notifications.applicationName = options.applicationName;
    }
    notifications = std::make_shared<DbusNotifications>(mainLoop, clock, log, options.notifications);
    notifications->setBadgeHandler([app = std::weak_ptr<LinuxApplication>(application)](long badge) {
        if (const auto live = app.lock()) {
            live->setApplicationIconBadgeNumber(badge);
        }
    });

    try {
        reachability = std::make_shared<NetlinkReachability>(mainLoop, watcher, background);
    } catch (const std::exception& error) {
        if (options.requireReachability) {
            throw;
        }
        log->write(std::string("Reachability: rtnetlink unavailable (") + error.what() + ")");
    }
    alerts = std::make_shared<LogAlertPresenter>(mainLoop, log);
    location = std::make_shared<LinuxLocationServices>(mainLoop, clock, makeSource(options, clock),
                                                       options.locationServices);
    motion = std::make_shared<SpeedMotionServices>(location, options.motion);
    ports_ = {.mainLoop = mainLoop,
              .background = background,
              .clock = clock,
              .http = http,
              .preferences = preferences,
              .device = device,
              .application = application,
              .notifications = notifications,
              .reachability = reachability,
              .alerts = alerts,
              .log = log,
              .location = location,
              .motion = motion,
              .views = nullptr};
}

LinuxPlatform::~LinuxPlatform() {
    // Timers still scheduled (a component object's, holding its ports and so this loop) go first.
    if (loop) {
        loop->discardTimers();
    }
    // Sources and threads stop before the loop they post to goes away.
    ports_ = {};
    motion.reset();
    location.reset();
    background->shutdown();
}

}  // namespace tovrel::linuxbackend
