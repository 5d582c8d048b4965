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
#include "tovrel/platform/json_scanner.h"
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
    void postJson(const std::string& url, std::string body, platform::JsonCompletion completion) override {
        inner_->postJson(url, std::move(body), std::move(completion));
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

/// A body as an event shows it: its JSON value, or its text when it is not JSON.
json bodyValue(const std::string& body) {
    auto parsed = platform::readJsonText(body);
    return parsed.ok() ? std::move(parsed.value) : json(body);
}

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
                events_.tracker()->addRequestText(request.path, request.rawBody);
            }
            return;
        }
        events_.record("request",
                       {{"url", request.url},
                        {"path", request.path},
                        {"body", request.json ? bodyValue(request.rawBody) : json(request.rawBody)}});
    }
    void onResponse(const virtualbackend::RecordedRequest& request, int status, const std::string& body,
                    const std::optional<platform::HttpError>& error, bool checkedJson) override {
        if (watch_ != nullptr) {
            watch_->end(request.id);
        }
        if (!events_.wantsEvents()) {
            events_.count("response");
            if (checkedJson && events_.tracker() != nullptr) {
                events_.tracker()->addResponseText(events_.secondsSinceStart(), request.path, body);
            }
            return;
        }
        json fields{{"path", request.path}, {"status", status}};
        if (error) {
            fields["error"] = error->localizedDescription;
        } else {
            fields["body"] = bodyValue(body);
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

/// Where the run's requests go: to the in-process service, or over HTTP to a service elsewhere or to
/// an embedded server. Every request and answer is recorded.
class ServiceLink {
  public:
    ServiceLink(const SimOptions& options, virtualbackend::VirtualPlatform& vp, EventLog& events,
                std::map<std::string, std::size_t>& requestsByPath)
        : vp_(vp), inProcess_(options.inProcess) {
        if (options.inProcess != nullptr) {
            baseURL_ = InProcessService::kBaseURL;
            deviceClock_.emplace(*vp.scheduler);
            vp.http->setResponder(
                [service = options.inProcess](const virtualbackend::RecordedRequest& request) {
                    return std::optional(service->answer(request));
                });
        } else if (options.serviceURL) {
            baseURL_ = *options.serviceURL;
            while (!baseURL_.empty() && baseURL_.back() == '/') {
                baseURL_.pop_back();
            }
        } else {
            startServer(options);
        }
        if (options.inProcess == nullptr) {
            forwardOverHttp(options.httpTimeoutSeconds);
        }
        // Only a service elsewhere is watched: the embedded one answers in microseconds.
        if (options.inProcess == nullptr && options.serviceURL) {
            const bool terminal = isatty(STDERR_FILENO) != 0;
            watch_.emplace(options.httpTimeoutSeconds, [terminal](const std::string& line) {
                // On a terminal the line replaces a progress line drawn there, which is drawn anew later.
                std::cerr << (terminal ? "\r" + std::string(60, ' ') + "\r" : std::string())
                          << "tovrel-sim: " << line << '\n'
                          << std::flush;
            });
        }
        httpEvents_.emplace(events, requestsByPath, watch_ ? &*watch_ : nullptr);
        vp.http->setListener(&*httpEvents_);
        vp.http->setKeepRequests(false);
    }

    [[nodiscard]] const std::string& baseURL() const { return baseURL_; }

    /// What the outcomes are judged by; the service is asked why it held links back when it can say.
    [[nodiscard]] OutcomeContext outcomeContext(bool presentNotifications) const {
        OutcomeContext context{presentNotifications, {}};
        if (inProcess_ != nullptr) {
            context.heldBack = [service = inProcess_](const std::string& id) {
                return service->heldBack(id);
            };
        } else if (server_) {
            context.heldBack = [server = server_.get()](const std::string& id) {
                return heldBackBy(*server, id);
            };
        }
        return context;
    }

    void stopWatching() {
        if (watch_) {
            watch_->stop();
        }
    }

    /// Detaches from the platform's HTTP client and stops the embedded server.
    void close() {
        vp_.http->setListener(nullptr);
        vp_.http->forwardTo(nullptr);
        vp_.http->setResponder(nullptr);
        curl_.reset();
        if (server_) {
            server_->stop();
        }
    }

  private:
    void startServer(const SimOptions& options) {
        tovrel::server::ServerOptions serverOptions;
        serverOptions.dbPath = ":memory:";
        serverOptions.controlGroupKey = InProcessService::kControlGroupKey;
        serverOptions.contentDir = options.contentDir.string();
        serverOptions.threads = 1;
        serverOptions.clock = [scheduler = vp_.scheduler] { return scheduler->now(); };
        try {
            server_ = std::make_unique<tovrel::server::Server>(serverOptions);
            server_->importGeoJson(options.placesFile.string());
        } catch (const std::exception& error) {
            throw SimInputError(error.what());
        }
        baseURL_ = "http://127.0.0.1:" + std::to_string(server_->start());
    }

    void forwardOverHttp(double timeoutSeconds) {
        curl::CurlOptions curlOptions;
        curlOptions.totalTimeoutSeconds = timeoutSeconds;
        curl_ = std::make_shared<curl::CurlHttpClient>(*vp_.scheduler, curlOptions);
        vp_.http->forwardTo(std::make_shared<TimedForwarding>(curl_, timeoutSeconds));
        // The clock must wait for a slow answer as long as the client does (and never less than it
        // always has).
        vp_.scheduler->setExternalWorkTimeout(std::max(60.0, 2 * timeoutSeconds));
    }

    virtualbackend::VirtualPlatform& vp_;
    InProcessService* inProcess_;
    std::unique_ptr<tovrel::server::Server> server_;
    std::optional<InProcessService::DeviceClock> deviceClock_;
    std::string baseURL_;
    std::shared_ptr<curl::CurlHttpClient> curl_;
    std::optional<RequestWatch> watch_;
    std::optional<HttpEvents> httpEvents_;
};

/// The device's advertising identifier, carried over from an earlier run (whose preferences are
/// restored with it) or made anew.
std::string restoreDevice(const SimOptions& options, virtualbackend::VirtualPlatform& vp) {
    std::string identifier;
    if (options.stateDir) {
        std::error_code error;
        std::filesystem::create_directories(*options.stateDir, error);
        if (error) {
            throw SimInputError(options.stateDir->string() + ": cannot be created: " + error.message());
        }
        const json device = readJsonFile(*options.stateDir / "device.json");
        if (device.is_object() && device.contains("advertisingIdentifier") &&
            device["advertisingIdentifier"].is_string()) {
            identifier = device["advertisingIdentifier"].get<std::string>();
        }
        vp.preferences->restore(readJsonFile(*options.stateDir / "preferences.json"));
    }
    if (options.carried != nullptr && !options.carried->advertisingIdentifier.empty()) {
        identifier = options.carried->advertisingIdentifier;
        vp.preferences->restore(options.carried->preferences);
    }
    if (identifier.empty()) {
        identifier = advertisingIdentifier(options.deviceSeed);
    }
    return identifier;
}

/// Speed in m/s from the previous position to `point`; -1 when there is none to tell.
double speedBetween(const RoutePoint* previous, const RoutePoint& point) {
    if (previous == nullptr) {
        return -1;
    }
    const double dt = point.t - previous->t;
    if (dt <= 0) {
        return -1;
    }
    return distanceMetres(previous->latitude, previous->longitude, point.latitude, point.longitude) / dt;
}

/// One run: the virtual device, the service it talks to, the observers on its ports and the component
/// on them, driven along the route. The members are declared in the order the run sets them up, so
/// that they are torn down in reverse.
class SimulationRun {
  public:
    SimulationRun(const SimOptions& options, const Route& route, SimOutcome& outcome, std::ostream* timeline,
                  std::ostream* eventStream)
        : options_(options),
          route_(route),
          outcome_(outcome),
          vp_(options.startTime),
          scheduler_(*vp_.scheduler),
          // Held by the location managers too, which the loop may keep until it is gone: it reads the
          // clock weakly.
          meter_(std::make_shared<GpsMeter>(
              [clock = std::weak_ptr<virtualbackend::VirtualScheduler>(vp_.scheduler)] {
                  const auto live = clock.lock();
                  return live ? live->now() : 0.0;
              })),
          events_([&scheduler = scheduler_, start = options.startTime] { return scheduler.now() - start; }),
          end_(std::min(route.duration() + std::max(options.lingerSeconds, 0.0),
                        options.maxDuration.value_or(std::numeric_limits<double>::infinity()))),
          progress_(options.progress, end_) {
        events_.setKeep(options.keepEvents);
        events_.setTracker(&tracker_);
        events_.setStream(eventStream);
        if (timeline != nullptr) {
            events_.setListener([timeline](const json& event) {
                if (const auto line = describeForTimeline(event); !line.empty()) {
                    *timeline << line << '\n';
                }
            });
        }
        advertisingIdentifier_ = restoreDevice(options, vp_);
        vp_.device->setAdvertisingIdentifier(advertisingIdentifier_);
        vp_.device->setModel("iPhone");
        vp_.application->setBundleIdentifier("com.example.tovrel.sim");
        service_.emplace(options, vp_, events_, outcome.requestsByPath);
        createEnvironment();
    }

    /// Launches the application in its first state and starts the session.
    void launch() {
        const ApplicationState initial = options_.appStates.front().t <= 0 ? options_.appStates.front().state
                                                                           : ApplicationState::kBackground;
        vp_.application->setState(initial);
        events_.record("app_state", {{"state", std::string(appStateName(initial))}});
        vp_.application->finishLaunching(nullptr);
        if (initial == ApplicationState::kActive) {
            vp_.application->becomeActive();
        }
        auto& session = environment_->sessionManager();
        session.setPresentNotifications(options_.presentNotifications);
        session.setPresentOfferView(options_.presentOfferView);
        session.startSessionUsingLocation(options_.sdkKey);
    }

    /// Moves the device along the route up to the end, changing the application's state on time,
    /// unless the run stops first.
    void drive() {
        // A state at time 0 is the one launched in.
        while (nextState_ < options_.appStates.size() && options_.appStates[nextState_].t <= 0) {
            ++nextState_;
        }
        if (options_.gpsNoiseSeed) {
            noise_.emplace(*options_.gpsNoiseSeed);
        }
        const auto& points = route_.points;
        for (std::size_t i = 0; i < points.size() && points[i].t <= end_ && !stopped(); ++i) {
            while (nextState_ < options_.appStates.size() &&
                   options_.appStates[nextState_].t <= points[i].t) {
                enterNextState();
            }
            advanceTo(points[i].t);
            moveTo(points[i], i > 0 ? &points[i - 1] : nullptr);
        }
        while (nextState_ < options_.appStates.size() && options_.appStates[nextState_].t <= end_ &&
               !stopped()) {
            enterNextState();
        }
        if (!stopped()) {
            advanceTo(end_);
        }
    }

    /// Ends the run, keeps the device's state for a later run, and fills in the outcome.
    void finish() {
        if (stopped()) {
            outcome_.stop = guard_->stop();
            outcome_.stopMessage = guard_->stopMessage();
            const char* reason = outcome_.stop == RunStop::kSessionNeverStarted ? "session" : "stalled";
            events_.record("run_end", {{"reason", reason}, {"message", outcome_.stopMessage}});
        } else if (options_.terminate) {
            events_.record("app_state", {{"state", "terminating"}});
            vp_.application->terminate();
            scheduler_.runUntilIdle();
            recordOfferViews();
        }
        service_->stopWatching();
        keepDevice();
        recordOutcomes();
        outcome_.simulatedSeconds = scheduler_.now() - options_.startTime;
        if (options_.keepEvents) {
            outcome_.events = events_.events();
        }
        outcome_.counts = events_.counts();
        outcome_.eventsNotKept = events_.notKept();
        service_->close();
    }

  private:
    /// The component's environment on the virtual platform's ports, observed, with a simulated user
    /// who answers alerts and opens notifications.
    void createEnvironment() {
        platform::Platform ports = vp_.platform();
        guard_ = std::make_shared<RunGuard>(
            ports.http, ports.clock, RunGuard::Limits{std::max<std::size_t>(options_.sessionAttempts, 1)});
        ports.http = guard_;
        ports.location = observeLocation(vp_.location, events_, meter_);
        ports.application = observeApplication(vp_.application, events_);
        ports.log = observeLog(nullptr, events_);
        ports.alerts = observeAlerts(
            vp_.alerts, events_,
            [this](platform::AlertId id, const platform::AlertSpec& shown) { answerAlert(id, shown); });
        ports.notifications = observeNotifications(
            vp_.notifications, events_, [this](const platform::LocalNotification& n) { tapNotification(n); });

        environment_ =
            std::make_unique<Environment>(ports, Configuration{service_->baseURL(), service_->baseURL()});
        const auto recordPost = [&events = events_](const Notification& n) {
            if (events.wantsEvents()) {
                events.record("post", {{"name", n.name}});
            } else {
                events.count("post");
            }
        };
        environment_->notificationCenter().addObserver("", nullptr, recordPost);
    }

    /// The user presses the button options.answer names, a moment after the alert appears.
    void answerAlert(platform::AlertId id, const platform::AlertSpec& shown) {
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
            index = options_.answer == AlertAnswer::kNever  ? 0
                    : options_.answer == AlertAnswer::kView ? 1
                                                            : 2;
            index = std::min<int>(index, static_cast<int>(buttons.size()) - 1);
        }
        scheduler_.scheduleTimer(kAlertAnswerDelay, false,
                                 [&events = events_, presenter = vp_.alerts, id, index, tag = shown.tag,
                                  title = buttons[static_cast<std::size_t>(index)]] {
                                     events.record("alert_answer", {{"tag", tag}, {"button", title}});
                                     presenter->dismiss(id, index, true);
                                 });
    }

    /// With --tap-notifications the user opens each notification a while after it appears.
    void tapNotification(const platform::LocalNotification& n) {
        if (!options_.tapNotifications) {
            return;
        }
        scheduler_.scheduleTimer(kNotificationTapDelay, false, [this, n] {
            events_.record("notification_tap", {{"userInfo", n.userInfo}});
            environment_->notificationCenter().post(kTovrelNotificationReceived, n);
        });
    }

    void setState(ApplicationState state) {
        const ApplicationState before = vp_.application->applicationState();
        if (state == before) {
            return;
        }
        events_.record("app_state", {{"state", std::string(appStateName(state))}});
        if (state == ApplicationState::kActive) {
            vp_.application->enterForeground();
        } else if (state == ApplicationState::kBackground) {
            vp_.application->enterBackground();
        } else {
            vp_.application->setState(state);
        }
    }

    void enterNextState() {
        advanceTo(options_.appStates[nextState_].t);
        setState(options_.appStates[nextState_].state);
        ++nextState_;
    }

    /// Records the offer views the location monitor opened since last asked; a later session start
    /// may replace the monitor.
    void recordOfferViews() {
        const auto& monitor = environment_->sessionManager().lm();
        if (monitor != watched_) {
            watched_ = monitor;
            offerViewsSeen_ = 0;
        }
        if (!watched_) {
            return;
        }
        const auto requests = watched_->offerViewRequests();
        for (; offerViewsSeen_ < requests.size(); ++offerViewsSeen_) {
            const auto& request = requests[offerViewsSeen_];
            events_.record("offer_view", {{"eventId", request.eventId},
                                          {"deviceEventId", request.deviceEventId},
                                          {"mediaURL", request.mediaURL},
                                          {"tag", request.tag}});
        }
    }

    /// Runs the clock to route time `t` (on the wall clock too with --realtime).
    void advanceTo(double t) {
        if (options_.realtime) {
            const double wait = options_.startTime + t - scheduler_.now();
            if (wait > 0) {
                std::this_thread::sleep_for(std::chrono::duration<double>(wait));
            }
        }
        // Step through the events in between so that offer views are stamped with their own time.
        while (const auto next = scheduler_.nextEventTime()) {
            if (*next > options_.startTime + t) {
                break;
            }
            scheduler_.fastForwardTo(*next);
            recordOfferViews();
        }
        scheduler_.fastForwardTo(options_.startTime + t);
        recordOfferViews();
        progress_.update(t);
    }

    /// Delivers the position (and the activity, when it changes) and lets the component act on it.
    void moveTo(const RoutePoint& point, const RoutePoint* previous) {
        const double speed = speedBetween(previous, point);
        // Without an activity column the first position has no speed yet, and no motion update.
        const std::optional<Activity> activity = point.activity ? point.activity
                                                 : speed < 0    ? std::nullopt
                                                                : std::optional(activityForSpeed(speed));
        if (activity && activity != lastActivity_) {
            lastActivity_ = activity;
            events_.record("motion", {{"activity", std::string(activityName(*activity))}});
            vp_.motion->deliver(motionFor(*activity, scheduler_.now()));
        }
        platform::Location fix;
        fix.coordinate = {point.latitude, point.longitude};
        fix.horizontalAccuracy = 5;
        if (noise_) {
            // The error of the source the component asked for; significant changes alone come from cells.
            const AccuracyLevel level = meter_->current().value_or(
                meter_->significant() ? AccuracyLevel::kKilometre : AccuracyLevel::kBest);
            const GpsNoise::Fix noisy = noise_->apply(point.t, point.latitude, point.longitude, level);
            fix.coordinate = {noisy.latitude, noisy.longitude};
            fix.horizontalAccuracy = noisy.horizontalAccuracy;
        }
        fix.speed = speed;
        fix.timestamp = scheduler_.now();
        vp_.location->moveTo(fix);
        scheduler_.runUntilIdle();
        recordOfferViews();
    }

    [[nodiscard]] bool stopped() const { return guard_->stop() != RunStop::kNone; }

    /// Writes the device's identifier and preferences where the next run reads them.
    void keepDevice() {
        if (options_.stateDir) {
            writeJsonFile(*options_.stateDir / "preferences.json", vp_.preferences->snapshot());
            writeJsonFile(*options_.stateDir / "device.json",
                          json{{"advertisingIdentifier", advertisingIdentifier_}});
        }
        if (options_.carried != nullptr) {
            *options_.carried = {advertisingIdentifier_, vp_.preferences->snapshot()};
        }
    }

    void recordOutcomes() {
        outcome_.offers = tracker_.finish(route_, service_->outcomeContext(options_.presentNotifications));
        events_.setTracker(nullptr);
        for (const OfferOutcome& offer : outcome_.offers) {
            if (events_.wantsEvents()) {
                events_.record("outcome", outcomeJson(offer));
            } else {
                events_.count("outcome");
            }
        }
        outcome_.gpsOn = meter_->totals();
        events_.record("gps_on", gpsOnJson(outcome_.gpsOn));
    }

    const SimOptions& options_;
    const Route& route_;
    SimOutcome& outcome_;
    virtualbackend::VirtualPlatform vp_;
    virtualbackend::VirtualScheduler& scheduler_;
    std::shared_ptr<GpsMeter> meter_;
    OutcomeTracker tracker_;
    EventLog events_;
    std::string advertisingIdentifier_;
    std::optional<ServiceLink> service_;
    std::shared_ptr<RunGuard> guard_;
    std::unique_ptr<Environment> environment_;
    std::shared_ptr<LocationManager> watched_;  ///< the monitor whose offer views are recorded
    std::size_t offerViewsSeen_ = 0;
    double end_;
    ProgressBar progress_;
    std::size_t nextState_ = 0;  ///< the next of options.appStates to enter
    std::optional<Activity> lastActivity_;
    std::optional<GpsNoise> noise_;
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

    SimulationRun run(options, route, outcome, timeline, eventStream);
    run.launch();
    run.drive();
    run.finish();
    outcome.wallSeconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - wallStart).count();
    return outcome;
}

}  // namespace tovrel::sim
