#include "simulation.h"

#include <unistd.h>

#include <chrono>
#include <cmath>
#include <fstream>
#include <iostream>
#include <limits>
#include <random>
#include <sstream>
#include <thread>

#include "html_report.h"
#include "in_process_service.h"
#include "observed_ports.h"
#include "request_watch.h"
#include "tovrel/curl/curl_http_client.h"
#include "tovrel/environment.h"
#include "tovrel/location_manager.h"
#include "tovrel/notification_names.h"
#include "tovrel/protocol.h"
#include "tovrel/session_manager.h"
#include "tovrel/virtual/virtual_location.h"
#include "tovrel/virtual/virtual_motion.h"
#include "tovrel/virtual/virtual_platform.h"
#include "tovrel_server/server.h"

namespace tovrel::sim {

std::optional<double> parseInstant(std::string_view text) {
    const auto digits = [&](std::size_t at, std::size_t count) -> std::optional<int> {
        if (at + count > text.size()) {
            return std::nullopt;
        }
        int value = 0;
        for (std::size_t i = at; i < at + count; ++i) {
            if (text[i] < '0' || text[i] > '9') {
                return std::nullopt;
            }
            value = value * 10 + (text[i] - '0');
        }
        return value;
    };
    const auto y = digits(0, 4);
    const auto mo = digits(5, 2);
    const auto d = digits(8, 2);
    const auto h = digits(11, 2);
    const auto mi = digits(14, 2);
    if (!y || !mo || !d || !h || !mi || text.size() < 17 || text[4] != '-' || text[7] != '-' ||
        text[10] != 'T' || text[13] != ':') {
        return std::nullopt;
    }
    std::size_t at = 16;
    std::optional<int> s = 0;
    if (text[at] == ':') {
        s = digits(at + 1, 2);
        at += 3;
    }
    const std::chrono::year_month_day day{std::chrono::year(*y),
                                          std::chrono::month(static_cast<unsigned>(*mo)),
                                          std::chrono::day(static_cast<unsigned>(*d))};
    if (!s || !day.ok() || *h > 23 || *mi > 59 || *s > 59 || at >= text.size()) {
        return std::nullopt;
    }
    int offset = 0;
    if (text.substr(at) != "Z") {
        const auto oh = digits(at + 1, 2);
        const auto om = digits(at + 4, 2);
        if (text.size() != at + 6 || (text[at] != '+' && text[at] != '-') || text[at + 3] != ':' || !oh ||
            !om || *oh > 23 || *om > 59) {
            return std::nullopt;
        }
        offset = (text[at] == '-' ? -1 : 1) * (*oh * 3600 + *om * 60);
    }
    const auto days = std::chrono::sys_days(day).time_since_epoch().count();
    return static_cast<double>(days) * 86400 + *h * 3600 + *mi * 60 + *s - offset;
}
namespace {

using nlohmann::json;
using platform::ApplicationState;

constexpr double kAlertAnswerDelay = 1.0;
constexpr double kNotificationTapDelay = 10.0;

std::string advertisingIdentifier(std::optional<std::uint64_t> seed) {
    std::mt19937_64 random(seed ? mixSeed(*seed) : std::random_device()());
    std::uniform_int_distribution<int> hexDigit(0, 15);
    std::string id;
    for (int i = 0; i < 32; ++i) {
        if (i == 8 || i == 12 || i == 16 || i == 20) {
            id += '-';
        }
        int digit = hexDigit(random);
        if (i == 12) {
            digit = 4;  // version 4
        } else if (i == 16) {
            digit = 8 | (digit & 3);  // RFC 4122 variant
        }
        id += "0123456789ABCDEF"[digit];
    }
    return id;
}

json readJsonFile(const std::filesystem::path& file) {
    std::ifstream in(file);
    if (!in) {
        return json();
    }
    json value;
    try {
        value = json::parse(in, nullptr, false);
    } catch (const json::exception&) {
        value = json(json::value_t::discarded);
    }
    if (value.is_discarded()) {
        throw SimInputError(file.string() + ": not valid JSON (delete it to start afresh)");
    }
    return value;
}

void writeJsonFile(const std::filesystem::path& file, const json& value) {
    const auto temporary = file.string() + ".tmp";
    {
        std::ofstream out(temporary, std::ios::trunc);
        out << value.dump(2) << '\n';
        if (!out) {
            throw SimInputError(temporary + ": cannot be written");
        }
    }
    std::filesystem::rename(temporary, file);
}

platform::MotionActivity motionFor(Activity activity, double time) {
    platform::MotionActivity motion;
    motion.stationary = activity == Activity::kStationary;
    motion.walking = activity == Activity::kWalking;
    motion.running = activity == Activity::kRunning;
    motion.automotive = activity == Activity::kAutomotive;
    motion.cycling = activity == Activity::kCycling;
    motion.unknown = activity == Activity::kUnknown;
    motion.confidence = platform::MotionConfidence::kHigh;
    motion.startDate = time;
    return motion;
}

std::string describeForTimeline(const json& event) {
    const std::string type = event.value("type", "");
    std::ostringstream line;
    line.setf(std::ios::fixed);
    line.precision(1);
    line << std::setw(9) << event.value("t", 0.0) << " s  ";
    if (type == "request") {
        line << "→ " << event.value("path", "");
        const json& body = event["body"];
        if (body.is_object()) {
            for (const char* key : {"eventId", "placeId", "deviceEventId", "statusCode"}) {
                if (body.contains(key)) {
                    line << ' ' << key << '='
                         << (body[key].is_string() ? body[key].get<std::string>() : body[key].dump());
                }
            }
            if (body.contains("message") && body["message"].is_object() && !body["message"].empty()) {
                line << ' ' << body["message"].begin().key();
            }
        }
    } else if (type == "response") {
        line << "← " << event.value("path", "") << ' ' << event.value("status", 0);
        if (event.contains("error")) {
            line << ' ' << event["error"].get<std::string>();
        } else if (event.value("path", "") == protocol::kPlacePath && event["body"].is_object() &&
                   event["body"].contains("places") && event["body"]["places"].is_array()) {
            line << ' ' << event["body"]["places"].size() << " places";
        }
    } else if (type == "notification") {
        line << "notification \"" << event.value("alertBody", "") << '"';
    } else if (type == "alert") {
        line << "alert \"" << event.value("message", "") << "\" " << event["buttons"].dump();
    } else if (type == "alert_answer") {
        line << "user pressed \"" << event.value("button", "") << '"';
    } else if (type == "badge") {
        line << "badge " << event.value("value", 0);
    } else if (type == "app_state") {
        line << "application " << event.value("state", "");
    } else if (type == "notification_tap") {
        line << "user opened the notification";
    } else if (type == "offer_view") {
        line << "offer view " << event.value("mediaURL", json()).dump();
    } else if (type == "location_error") {
        line << "location error " << event.value("code", 0);
    } else if (type == "outcome") {
        line << "offer " << event.value("eventId", "") << " at place " << event.value("placeId", "") << ": "
             << event.value("reason", "");
    } else {
        return {};
    }
    return line.str();
}

/// The libcurl client as the virtual backend forwards to it. Page loads (send) get the run's
/// whole-request limit too: the forwarded request carries only the default one.
class TimedForwarding final : public platform::HttpClient {
  public:
    TimedForwarding(std::shared_ptr<platform::HttpClient> inner, double timeoutSeconds)
        : inner_(std::move(inner)), timeoutSeconds_(timeoutSeconds) {}
    /// The scheduler's thread. Passed on as it is: the client's own limit applies.
    void postJson(const std::string& url, const json& body, platform::JsonCompletion completion) override {
        inner_->postJson(url, body, std::move(completion));
    }
    /// The scheduler's thread. Passed on with the run's limit.
    void send(platform::HttpRequest request, platform::ResponseCompletion completion) override {
        request.timeoutSeconds = timeoutSeconds_;
        inner_->send(std::move(request), std::move(completion));
    }

  private:
    std::shared_ptr<platform::HttpClient> inner_;
    double timeoutSeconds_;
};

/// Records every request and answer; tells `watch` (when given) which requests are open. The
/// scheduler's thread: requests are made there and forwarded answers are posted to it.
class HttpEvents final : public virtualbackend::HttpListener {
  public:
    HttpEvents(EventLog& events, std::map<std::string, std::size_t>& requestsByPath, RequestWatch* watch)
        : events_(events), requestsByPath_(requestsByPath), watch_(watch) {}
    void onRequest(const virtualbackend::RecordedRequest& request) override {
        if (watch_ != nullptr) {
            watch_->begin(request.id, request.method + " " + request.url);
        }
        // The endpoints one by one; pages (the offer view's GETs) all together.
        ++requestsByPath_[request.method == "POST" ? request.path : request.method + " pages"];
        if (!events_.wantsEvents()) {
            events_.count("request");
            if (request.json && events_.tracker() != nullptr) {
                events_.tracker()->addRequest(request.path, request.body);
            }
            return;
        }
        events_.record("request", {{"url", request.url},
                                   {"path", request.path},
                                   {"body", request.json ? request.body : json(request.rawBody)}});
    }
    void onResponse(const virtualbackend::RecordedRequest& request, int status, const std::string& body,
                    const std::optional<platform::HttpError>& error, const json* parsed) override {
        if (watch_ != nullptr) {
            watch_->end(request.id);
        }
        if (!events_.wantsEvents()) {
            events_.count("response");
            if (parsed != nullptr && events_.tracker() != nullptr) {
                events_.tracker()->addResponse(events_.secondsSinceStart(), request.path, *parsed);
            }
            return;
        }
        json fields{{"path", request.path}, {"status", status}};
        if (error) {
            fields["error"] = error->localizedDescription;
        } else if (parsed != nullptr) {
            fields["body"] = *parsed;
        } else {
            json text(json::value_t::discarded);
            try {
                text = json::parse(body, nullptr, false);
            } catch (const json::exception&) {
                // A number beyond double range; the body is kept as text.
            }
            fields["body"] = text.is_discarded() ? json(body) : text;
        }
        events_.record("response", std::move(fields));
    }

  private:
    EventLog& events_;
    std::map<std::string, std::size_t>& requestsByPath_;
    RequestWatch* watch_;
};

class ProgressBar {
  public:
    ProgressBar(bool enabled, double total) : enabled_(enabled), total_(std::max(total, 1.0)) {}
    ~ProgressBar() {
        if (enabled_ && drawn_) {
            std::cerr << '\r' << std::string(60, ' ') << '\r' << std::flush;
        }
    }
    void update(double done) {
        if (!enabled_) {
            return;
        }
        const int percent = static_cast<int>(std::clamp(done / total_, 0.0, 1.0) * 100);
        if (percent == last_) {
            return;
        }
        last_ = percent;
        drawn_ = true;
        const int filled = percent * 30 / 100;
        std::cerr << "\r[" << std::string(filled, '#') << std::string(30 - filled, ' ') << "] "
                  << std::setw(3) << percent << "%  " << static_cast<long>(done) << " / "
                  << static_cast<long>(total_) << " s" << std::flush;
    }

  private:
    bool enabled_;
    double total_;
    int last_ = -1;
    bool drawn_ = false;
};

}  // namespace

json gpsOnJson(const GpsOnTime& gpsOn) {
    json seconds = json::object();
    for (std::size_t i = 0; i < kAccuracyLevels; ++i) {
        seconds[std::string(accuracyLevelName(static_cast<AccuracyLevel>(i)))] =
            std::round(gpsOn.seconds[i] * 10) / 10;
    }
    return {{"seconds", seconds},
            {"significantOnly", std::round(gpsOn.significantOnlySeconds * 10) / 10},
            {"total", std::round(gpsOn.total() * 10) / 10}};
}

SimOutcome runSimulation(const SimOptions& options, std::ostream* timeline, std::ostream* eventStream) {
    const auto wallStart = std::chrono::steady_clock::now();
    SimOutcome outcome;
    if (options.route == nullptr) {
        try {
            outcome.route = loadRoute(options.routeFile);
        } catch (const RouteError& error) {
            throw SimInputError(error.what());
        }
    }
    const Route& route = options.route != nullptr ? *options.route : outcome.route;

    virtualbackend::VirtualPlatform vp(options.startTime);
    auto& scheduler = *vp.scheduler;
    // Held by the location managers too, which the loop may keep until it is gone: it reads the clock
    // weakly.
    const auto meter =
        std::make_shared<GpsMeter>([clock = std::weak_ptr<virtualbackend::VirtualScheduler>(vp.scheduler)] {
            const auto live = clock.lock();
            return live ? live->now() : 0.0;
        });
    OutcomeTracker tracker;
    EventLog events([&scheduler, start = options.startTime] { return scheduler.now() - start; });
    events.setKeep(options.keepEvents);
    events.setTracker(&tracker);
    events.setStream(eventStream);
    if (timeline != nullptr) {
        events.setListener([timeline](const json& event) {
            if (const auto line = describeForTimeline(event); !line.empty()) {
                *timeline << line << '\n';
            }
        });
    }

    std::string advertisingIdentifier;
    if (options.stateDir) {
        std::error_code error;
        std::filesystem::create_directories(*options.stateDir, error);
        if (error) {
            throw SimInputError(options.stateDir->string() + ": cannot be created: " + error.message());
        }
        const json device = readJsonFile(*options.stateDir / "device.json");
        if (device.is_object() && device.contains("advertisingIdentifier") &&
            device["advertisingIdentifier"].is_string()) {
            advertisingIdentifier = device["advertisingIdentifier"].get<std::string>();
        }
        vp.preferences->restore(readJsonFile(*options.stateDir / "preferences.json"));
    }
    if (options.carried != nullptr && !options.carried->advertisingIdentifier.empty()) {
        advertisingIdentifier = options.carried->advertisingIdentifier;
        vp.preferences->restore(options.carried->preferences);
    }
    if (advertisingIdentifier.empty()) {
        advertisingIdentifier = tovrel::sim::advertisingIdentifier(options.deviceSeed);
    }
    vp.device->setAdvertisingIdentifier(advertisingIdentifier);
    vp.device->setModel("iPhone");
    vp.application->setBundleIdentifier("com.example.tovrel.sim");

    std::unique_ptr<tovrel::server::Server> server;
    std::optional<InProcessService::DeviceClock> deviceClock;
    std::string baseURL;
    if (options.inProcess != nullptr) {
        baseURL = InProcessService::kBaseURL;
        deviceClock.emplace(scheduler);
        vp.http->setResponder([service = options.inProcess](const virtualbackend::RecordedRequest& request) {
            return std::optional(service->answer(request));
        });
    } else if (options.serviceURL) {
        baseURL = *options.serviceURL;
        while (!baseURL.empty() && baseURL.back() == '/') {
            baseURL.pop_back();
        }
    } else {
        tovrel::server::ServerOptions serverOptions;
        serverOptions.dbPath = ":memory:";
        serverOptions.controlGroupKey = InProcessService::kControlGroupKey;
        serverOptions.contentDir = options.contentDir.string();
        serverOptions.threads = 1;
        serverOptions.clock = [scheduler = vp.scheduler] { return scheduler->now(); };
        try {
            server = std::make_unique<tovrel::server::Server>(serverOptions);
            server->importGeoJson(options.placesFile.string());
        } catch (const std::exception& error) {
            throw SimInputError(error.what());
        }
        baseURL = "http://127.0.0.1:" + std::to_string(server->start());
    }

    std::shared_ptr<curl::CurlHttpClient> curl;
    if (options.inProcess == nullptr) {
        curl::CurlOptions curlOptions;
        curlOptions.totalTimeoutSeconds = options.httpTimeoutSeconds;
        curl = std::make_shared<curl::CurlHttpClient>(scheduler, curlOptions);
        vp.http->forwardTo(std::make_shared<TimedForwarding>(curl, options.httpTimeoutSeconds));
        // The clock must wait for a slow answer as long as the client does (and never less than it
        // always has).
        scheduler.setExternalWorkTimeout(std::max(60.0, 2 * options.httpTimeoutSeconds));
    }
    // Only a service elsewhere is watched: the embedded one answers in microseconds.
    std::optional<RequestWatch> watch;
    if (options.inProcess == nullptr && options.serviceURL) {
        const bool terminal = isatty(STDERR_FILENO) != 0;
        watch.emplace(options.httpTimeoutSeconds, [terminal](const std::string& line) {
            // On a terminal the line replaces a progress line drawn there, which is drawn anew later.
            std::cerr << (terminal ? "\r" + std::string(60, ' ') + "\r" : std::string())
                      << "tovrel-sim: " << line << '\n'
                      << std::flush;
        });
    }
    HttpEvents httpEvents(events, outcome.requestsByPath, watch ? &*watch : nullptr);
    vp.http->setListener(&httpEvents);
    vp.http->setKeepRequests(false);

    const auto& location = vp.location;
    const auto& motion = vp.motion;

    platform::Platform ports = vp.platform();
    const auto guard = std::make_shared<RunGuard>(
        ports.http, ports.clock, RunGuard::Limits{std::max<std::size_t>(options.sessionAttempts, 1)});
    ports.http = guard;
    ports.location = observeLocation(location, events, meter);
    ports.application = observeApplication(vp.application, events);
    ports.log = observeLog(nullptr, events);
    auto presenter = vp.alerts;
    ports.alerts =
        observeAlerts(vp.alerts, events, [&](platform::AlertId id, const platform::AlertSpec& shown) {
            std::vector<std::string> buttons;
            if (shown.cancelButtonTitle) {
                buttons.push_back(*shown.cancelButtonTitle);
            }
            buttons.insert(buttons.end(), shown.otherButtonTitles.begin(), shown.otherButtonTitles.end());
            if (buttons.empty()) {
                return;  // a toast goes away by itself
            }
            int index = 0;
            if (buttons.size() > 1) {
                index = options.answer == AlertAnswer::kNever  ? 0
                        : options.answer == AlertAnswer::kView ? 1
                                                               : 2;
                index = std::min<int>(index, static_cast<int>(buttons.size()) - 1);
            }
            scheduler.scheduleTimer(kAlertAnswerDelay, false,
                                    [&events, presenter, id, index, tag = shown.tag,
                                     title = buttons[static_cast<std::size_t>(index)]] {
                                        events.record("alert_answer", {{"tag", tag}, {"button", title}});
                                        presenter->dismiss(id, index, true);
                                    });
        });

    std::unique_ptr<Environment> environment;
    ports.notifications =
        observeNotifications(vp.notifications, events, [&](const platform::LocalNotification& n) {
            if (!options.tapNotifications) {
                return;
            }
            scheduler.scheduleTimer(kNotificationTapDelay, false, [&events, &environment, n] {
                events.record("notification_tap", {{"userInfo", n.userInfo}});
                environment->notificationCenter().post(kTovrelNotificationReceived, n);
            });
        });

    environment = std::make_unique<Environment>(ports, Configuration{baseURL, baseURL});
    Environment::Scope scope(*environment);
    environment->notificationCenter().addObserver("", nullptr, [&events](const Notification& n) {
        if (events.wantsEvents()) {
            events.record("post", {{"name", n.name}});
        } else {
            events.count("post");
        }
    });

    const auto setState = [&](ApplicationState state) {
        const ApplicationState before = vp.application->applicationState();
        if (state == before) {
            return;
        }
        events.record("app_state", {{"state", std::string(appStateName(state))}});
        if (state == ApplicationState::kActive) {
            vp.application->enterForeground();
        } else if (state == ApplicationState::kBackground) {
            vp.application->enterBackground();
        } else {
            vp.application->setState(state);
        }
    };

    const ApplicationState initial =
        options.appStates.front().t <= 0 ? options.appStates.front().state : ApplicationState::kBackground;
    vp.application->setState(initial);
    events.record("app_state", {{"state", std::string(appStateName(initial))}});
    vp.application->finishLaunching(nullptr);
    if (initial == ApplicationState::kActive) {
        vp.application->becomeActive();
    }

    auto& session = environment->sessionManager();
    session.setPresentNotifications(options.presentNotifications);
    session.setPresentOfferView(options.presentOfferView);
    session.startSessionUsingLocation(options.sdkKey);

    // The offer views the location monitor opened; it may be replaced by a later session start.
    std::shared_ptr<LocationManager> watched;
    std::size_t offerViewsSeen = 0;
    const auto recordOfferViews = [&] {
        const auto& monitor = session.lm();
        if (monitor != watched) {
            watched = monitor;
            offerViewsSeen = 0;
        }
        if (!watched) {
            return;
        }
        const auto requests = watched->offerViewRequests();
        for (; offerViewsSeen < requests.size(); ++offerViewsSeen) {
            const auto& request = requests[offerViewsSeen];
            events.record("offer_view", {{"eventId", request.eventId},
                                         {"deviceEventId", request.deviceEventId},
                                         {"mediaURL", request.mediaURL},
                                         {"tag", request.tag}});
        }
    };

    const double end = std::min(route.duration() + std::max(options.lingerSeconds, 0.0),
                                options.maxDuration.value_or(std::numeric_limits<double>::infinity()));
    ProgressBar progress(options.progress, end);
    const auto advanceTo = [&](double t) {
        if (options.realtime) {
            const double wait = options.startTime + t - scheduler.now();
            if (wait > 0) {
                std::this_thread::sleep_for(std::chrono::duration<double>(wait));
            }
        }
        // Step through the events in between so that offer views are stamped with their own time.
        while (const auto next = scheduler.nextEventTime()) {
            if (*next > options.startTime + t) {
                break;
            }
            scheduler.fastForwardTo(*next);
            recordOfferViews();
        }
        scheduler.fastForwardTo(options.startTime + t);
        recordOfferViews();
        progress.update(t);
    };

    std::size_t nextState = 0;
    while (nextState < options.appStates.size() && options.appStates[nextState].t <= 0) {
        ++nextState;
    }
    std::optional<Activity> lastActivity;
    std::optional<GpsNoise> noise;
    if (options.gpsNoiseSeed) {
        noise.emplace(*options.gpsNoiseSeed);
    }
    const auto stopped = [&guard] { return guard->stop() != RunStop::kNone; };
    for (std::size_t i = 0; i < route.points.size() && route.points[i].t <= end && !stopped(); ++i) {
        const RoutePoint& point = route.points[i];
        while (nextState < options.appStates.size() && options.appStates[nextState].t <= point.t) {
            advanceTo(options.appStates[nextState].t);
            setState(options.appStates[nextState].state);
            ++nextState;
        }
        advanceTo(point.t);
        double speed = -1;
        if (i > 0) {
            const RoutePoint& previous = route.points[i - 1];
            const double dt = point.t - previous.t;
            if (dt > 0) {
                speed =
                    distanceMetres(previous.latitude, previous.longitude, point.latitude, point.longitude) /
                    dt;
            }
        }
        // Without an activity column the first position has no speed yet, and no motion update.
        const std::optional<Activity> activity = point.activity ? point.activity
                                                 : speed < 0    ? std::nullopt
                                                                : std::optional(activityForSpeed(speed));
        if (activity && activity != lastActivity) {
            lastActivity = activity;
            events.record("motion", {{"activity", std::string(activityName(*activity))}});
            motion->deliver(motionFor(*activity, scheduler.now()));
        }
        platform::Location fix;
        fix.coordinate = {point.latitude, point.longitude};
        fix.horizontalAccuracy = 5;
        if (noise) {
            // The error of the source the component asked for; significant changes alone come from cells.
            const AccuracyLevel level = meter->current().value_or(
                meter->significant() ? AccuracyLevel::kKilometre : AccuracyLevel::kBest);
            const GpsNoise::Fix noisy = noise->apply(point.t, point.latitude, point.longitude, level);
            fix.coordinate = {noisy.latitude, noisy.longitude};
            fix.horizontalAccuracy = noisy.horizontalAccuracy;
        }
        fix.speed = speed;
        fix.timestamp = scheduler.now();
        location->moveTo(fix);
        scheduler.runUntilIdle();
        recordOfferViews();
    }
    while (nextState < options.appStates.size() && options.appStates[nextState].t <= end && !stopped()) {
        advanceTo(options.appStates[nextState].t);
        setState(options.appStates[nextState].state);
        ++nextState;
    }
    if (!stopped()) {
        advanceTo(end);
    }
    if (stopped()) {
        outcome.stop = guard->stop();
        outcome.stopMessage = guard->stopMessage();
        events.record("run_end",
                      {{"reason", outcome.stop == RunStop::kSessionNeverStarted ? "session" : "stalled"},
                       {"message", outcome.stopMessage}});
    } else if (options.terminate) {
        events.record("app_state", {{"state", "terminating"}});
        vp.application->terminate();
        scheduler.runUntilIdle();
        recordOfferViews();
    }
    if (watch) {
        watch->stop();
    }

    if (options.stateDir) {
        writeJsonFile(*options.stateDir / "preferences.json", vp.preferences->snapshot());
        writeJsonFile(*options.stateDir / "device.json",
                      json{{"advertisingIdentifier", advertisingIdentifier}});
    }
    if (options.carried != nullptr) {
        *options.carried = {advertisingIdentifier, vp.preferences->snapshot()};
    }

    OutcomeContext context{options.presentNotifications, {}};
    if (options.inProcess != nullptr) {
        context.heldBack = [service = options.inProcess](const std::string& id) {
            return service->heldBack(id);
        };
    } else if (server) {
        context.heldBack = [&server](const std::string& id) { return heldBackBy(*server, id); };
    }
    outcome.offers = tracker.finish(route, context);
    events.setTracker(nullptr);
    for (const OfferOutcome& offer : outcome.offers) {
        if (events.wantsEvents()) {
            events.record("outcome", outcomeJson(offer));
        } else {
            events.count("outcome");
        }
    }
    outcome.gpsOn = meter->totals();
    events.record("gps_on", gpsOnJson(outcome.gpsOn));
    outcome.simulatedSeconds = scheduler.now() - options.startTime;
    if (options.keepEvents) {
        outcome.events = events.events();
    }
    outcome.counts = events.counts();
    outcome.eventsNotKept = events.notKept();
    vp.http->setListener(nullptr);
    vp.http->forwardTo(nullptr);
    vp.http->setResponder(nullptr);
    curl.reset();
    if (server) {
        server->stop();
    }
    outcome.wallSeconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - wallStart).count();
    return outcome;
}

}  // namespace tovrel::sim
