// The monitor on real threads: the periodic refresh and diagnostic upload run on fresh threads and
// motion updates on the background queue while positions stream in on the main loop. Built with
// ThreadSanitizer, this is the data-race check of the shared lists and the location settings.

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <map>
#include <thread>

#include "scenarios/real_thread_loop.h"
#include "scenarios/scenario_device.h"
#include "tovrel/virtual/virtual_services.h"

namespace tovrel::scenarios {
namespace {

using namespace std::chrono_literals;

/// Answers every request at once, on the main loop, as a friendly service would: the same places for
/// every places request, a fresh device event identifier for every link.
class AnsweringHttp final : public platform::HttpClient {
  public:
    AnsweringHttp(std::shared_ptr<platform::MainLoop> loop, Json places)
        : loop_(std::move(loop)), places_(std::move(places)) {}

    /// Any thread.
    void postJson(const std::string& url, std::string text, platform::JsonCompletion completion) override {
        const std::string path = url.substr(url.find("/v"));
        const Json body = Json::parse(text);
        Json answer = Json::object();
        {
            std::lock_guard lock(mutex_);
            ++counts_[path];
            if (path == "/v2/place") {
                answer = {{"places", places_}};
            } else if (path == "/v1/deviceevent/link") {
                answer = {{"places", Json::array({{{"deviceEventId", ++nextDeviceEventId_},
                                                   {"eventId", body.value("eventId", Json())},
                                                   {"mediaType", "html"},
                                                   {"mediaUrl", "http://m.test/x"},
                                                   {"suppressMessage", 0}}})}};
            } else if (path == "/v1/deviceevent/update") {
                answer = {{"status", 1}};
            }
        }
        loop_->post([completion = std::move(completion), answer = std::move(answer)] {
            platform::JsonResult result;
            result.status = 200;
            result.text = answer.dump();
            completion(std::move(result));
        });
    }
    /// Any thread. Not used by the monitor.
    void send(platform::HttpRequest /*request*/, platform::ResponseCompletion /*completion*/) override {}

    [[nodiscard]] int count(const std::string& path) const {
        std::lock_guard lock(mutex_);
        const auto it = counts_.find(path);
        return it == counts_.end() ? 0 : it->second;
    }

  private:
    std::shared_ptr<platform::MainLoop> loop_;
    const Json places_;
    mutable std::mutex mutex_;
    std::map<std::string, int> counts_;
    int nextDeviceEventId_ = 0;
};

TEST(RealThreads, RefreshAndDiagnosticsRunBesidePositionUpdates) {
    // 1800 s of virtual time pass in 0.36 s, so both half-hourly timers fire several times.
    auto loop = std::make_shared<RealThreadLoop>(2e-4);
    const platform::Coordinate start{48.137154, 11.575400};
    Json places = Json::array();
    for (int i = 0; i < 30; ++i) {
        PlaceSpec place{offset(start, i * 100.0, (i % 2) * 20.0)};
        place.radius = 60;
        place.eventId = "e" + std::to_string(i);
        place.eventTypeId = i % 10 == 5 ? 2 : 1 + 2 * (i % 2);
        place.dwellTime = i % 2;
        places.push_back(place.record());
    }
    auto http = std::make_shared<AnsweringHttp>(loop, places);
    auto location = std::make_shared<virtualbackend::VirtualLocationServices>(loop, loop);
    auto motion = std::make_shared<virtualbackend::VirtualMotionServices>(loop);
    auto application = std::make_shared<virtualbackend::VirtualApplication>();
    auto alerts = std::make_shared<virtualbackend::RecordingAlerts>();
    auto preferences = std::make_shared<virtualbackend::InMemoryPreferences>();
    preferences->setObject("sessionid", "sk");
    preferences->setObject("adid", ScenarioDevice::kAdid);

    platform::Platform platform;
    platform.mainLoop = loop;
    platform.background = loop;
    platform.clock = loop;
    platform.http = http;
    platform.preferences = preferences;
    platform.device = std::make_shared<virtualbackend::VirtualDevice>();
    platform.application = application;
    platform.notifications = std::make_shared<virtualbackend::VirtualNotifications>();
    platform.alerts = alerts;
    platform.log = std::make_shared<virtualbackend::RecordingLog>();
    platform.location = location;
    platform.motion = motion;

    Environment environment(platform, Configuration{"http://service.test", "http://content.test"});
    std::shared_ptr<LocationManager> lm;
    loop->runSync([&] {
        lm = LocationManager::create(environment, delivery::OfferDesk::create(environment));
        lm->presentNotifications = true;
        lm->presentOfferView = true;
        lm->initLocation();
    });

    const auto deadline = std::chrono::steady_clock::now() + 2s;
    for (int step = 0; std::chrono::steady_clock::now() < deadline; ++step) {
        // Back and forth along the line of places, 15 m a step.
        const int leg = step % 400;
        const double north = (leg < 200 ? leg : 400 - leg) * 15.0;
        const auto here = offset(start, north, (step % 3) * 2.0);
        location->moveTo(here.latitude, here.longitude);
        // Also straight to the monitor, past the source's distance filter.
        platform::Location fix;
        fix.coordinate = offset(here, 1.0, 1.0 + step % 5);
        loop->post([lm, fix] { lm->locationManagerDidUpdateLocations({fix}); });

        if (step % 10 == 0) {
            platform::MotionActivity activity;
            activity.stationary = step % 40 == 0;
            activity.walking = !activity.stationary;
            activity.confidence = platform::MotionConfidence::kMedium;
            motion->deliver(activity);
        }
        if (step % 100 == 50) {
            loop->post([application] { application->becomeActive(); });
        } else if (step % 100 == 0) {
            loop->post([application] { application->enterBackground(); });
        }
        if (step % 20 == 0) {
            loop->post([alerts, step] {
                for (const auto& shown : alerts->visible()) {
                    alerts->press(shown.id, step % 3);
                }
            });
        }
        std::this_thread::sleep_for(1ms);
    }

    std::size_t targets = 0;
    const auto drainStart = std::chrono::steady_clock::now();
    loop->runSync([&] { targets = lm->targets().size(); });
    std::printf("loop caught up in %.3f s; %d places, %d log, %d link requests; %zu fixes delivered\n",
                std::chrono::duration<double>(std::chrono::steady_clock::now() - drainStart).count(),
                http->count("/v2/place"), http->count("/v1/log"), http->count("/v1/deviceevent/link"),
                location->deliveredCount());
    loop->stop();
    lm.reset();

    EXPECT_GT(http->count("/v2/place"), 3);
    EXPECT_GT(http->count("/v1/log"), 3) << "the diagnostic timer ran";
    EXPECT_GT(http->count("/v1/deviceevent/link"), 0);
    EXPECT_GT(location->deliveredCount(), 10u);
    EXPECT_GT(motion->deliveredCount(), 5u);
    EXPECT_LE(targets, 30u);
}

}  // namespace
}  // namespace tovrel::scenarios
