// The one life-cycle sequence every backend's application follows, on the virtual application.
#include "tovrel/platform/application_lifecycle.h"

#include <gtest/gtest.h>

#include <utility>
#include <vector>

#include "tovrel/virtual/virtual_services.h"

namespace tovrel::platform {
namespace {

/// Each event with the state the application was in when the handler heard it.
using Heard = std::vector<std::pair<ApplicationEvent, ApplicationState>>;

class ApplicationLifecycleTest : public ::testing::Test {
  protected:
    void SetUp() override {
        app.setEventHandler([this](ApplicationEvent event, const nlohmann::json& launchOptions) {
            heard.emplace_back(event, app.applicationState());
            if (event == ApplicationEvent::kDidFinishLaunching) {
                options = launchOptions;
            }
        });
    }

    virtualbackend::VirtualApplication app;
    Heard heard;
    nlohmann::json options;
};

TEST_F(ApplicationLifecycleTest, LaunchCarriesItsOptionsAndLeavesTheStateAlone) {
    app.setState(ApplicationState::kInactive);
    app.finishLaunching({{"k", 1}});
    EXPECT_EQ(heard, (Heard{{ApplicationEvent::kDidFinishLaunching, ApplicationState::kInactive}}));
    EXPECT_EQ(options, (nlohmann::json{{"k", 1}}));
    app.finishLaunching();
    EXPECT_TRUE(options.is_null()) << "a plain launch has no options";
}

TEST_F(ApplicationLifecycleTest, BackgroundResignsFirstOnlyWhenActive) {
    app.becomeActive();
    app.enterBackground();
    app.setState(ApplicationState::kInactive);
    app.enterBackground();
    app.enterBackground();
    EXPECT_EQ(heard, (Heard{{ApplicationEvent::kDidBecomeActive, ApplicationState::kActive},
                            {ApplicationEvent::kWillResignActive, ApplicationState::kInactive},
                            {ApplicationEvent::kDidEnterBackground, ApplicationState::kBackground},
                            {ApplicationEvent::kDidEnterBackground, ApplicationState::kBackground},
                            {ApplicationEvent::kDidEnterBackground, ApplicationState::kBackground}}));
}

TEST_F(ApplicationLifecycleTest, ForegroundPassesThroughInactiveAndTerminationKeepsTheState) {
    app.enterForeground();
    app.resignActive();
    app.terminate();
    EXPECT_EQ(heard, (Heard{{ApplicationEvent::kWillEnterForeground, ApplicationState::kInactive},
                            {ApplicationEvent::kDidBecomeActive, ApplicationState::kActive},
                            {ApplicationEvent::kWillResignActive, ApplicationState::kInactive},
                            {ApplicationEvent::kWillTerminate, ApplicationState::kInactive}}));
}

}  // namespace
}  // namespace tovrel::platform
