#include "tovrel/environment.h"

#include <atomic>
#include <stdexcept>

#include "tovrel/analytics_manager.h"
#include "tovrel/data_service.h"
#include "tovrel/launch_checkers.h"
#include "tovrel/notification_names.h"
#include "tovrel/session_manager.h"
#include "tovrel_build_config.h"

namespace tovrel {
namespace {

std::atomic<Environment*> gDefault{nullptr};
thread_local Environment* tScoped = nullptr;

const char* notificationNameFor(platform::ApplicationEvent event) {
    using platform::ApplicationEvent;
    switch (event) {
        case ApplicationEvent::kDidFinishLaunching:
            return kApplicationDidFinishLaunchingNotification;
        case ApplicationEvent::kDidBecomeActive:
            return kApplicationDidBecomeActiveNotification;
        case ApplicationEvent::kWillResignActive:
            return kApplicationWillResignActiveNotification;
        case ApplicationEvent::kDidEnterBackground:
            return kApplicationDidEnterBackgroundNotification;
        case ApplicationEvent::kWillEnterForeground:
            return kApplicationWillEnterForegroundNotification;
        case ApplicationEvent::kWillTerminate:
            return kApplicationWillTerminateNotification;
    }
    return "";
}

}  // namespace

Configuration Configuration::defaults() {
    return {kDefaultServiceBaseURL, kDefaultContentBaseURL};
}

Environment::Environment(platform::Platform platform, Configuration configuration)
    : platform_(std::move(platform)),
      configuration_(std::move(configuration)),
      launchCheckers_(std::make_unique<LaunchCheckers>(notificationCenter_)) {
    forwardApplicationEvents();
}

Environment::~Environment() {
    if (platform_.application) {
        platform_.application->setEventHandler(nullptr);
    }
    Environment* self = this;
    gDefault.compare_exchange_strong(self, nullptr);
}

void Environment::forwardApplicationEvents() {
    if (!platform_.application) {
        return;
    }
    platform_.application->setEventHandler(
        [this](platform::ApplicationEvent event, const nlohmann::json& launchOptions) {
            const bool launching = event == platform::ApplicationEvent::kDidFinishLaunching;
            notificationCenter_.post(notificationNameFor(event), {}, nullptr,
                                     launching ? launchOptions : nlohmann::json());
        });
}

SessionManager& Environment::sessionManager() {
    std::call_once(sessionOnce_, [this] { sessionManager_ = std::make_unique<SessionManager>(*this); });
    return *sessionManager_;
}

DataService& Environment::dataService() {
    std::lock_guard lock(instancesMutex_);
    if (!dataService_) {
        dataService_ = std::make_unique<DataService>(platform_, configuration_.serviceBaseURL);
    }
    return *dataService_;
}

AnalyticsManager& Environment::analyticsManager() {
    std::lock_guard lock(instancesMutex_);
    if (!analyticsManager_) {
        analyticsManager_ = std::make_unique<AnalyticsManager>(platform_, configuration_.serviceBaseURL);
    }
    return *analyticsManager_;
}

Environment& Environment::current() {
    Environment* environment = tScoped != nullptr ? tScoped : gDefault.load();
    if (environment == nullptr) {
        throw std::logic_error("no Tovrel environment is installed: call Environment::setDefault first");
    }
    return *environment;
}

void Environment::setDefault(Environment* environment) {
    gDefault = environment;
}

Environment::Scope::Scope(Environment& environment) : previous_(tScoped) {
    tScoped = &environment;
}
Environment::Scope::~Scope() {
    tScoped = previous_;
}

}  // namespace tovrel
