#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <string>

#include "tovrel/environment.h"
#include "tovrel/qt/qt_platform.h"
#include "tovrel_server/server.h"

namespace tovrel::qttest {

/// A device with screens on real parts: an embedded tovrel-server on 127.0.0.1 holding the example
/// places and this folder's content pages, the Qt platform (its Linux parts keeping their files in a
/// fresh folder) and an environment installed as the default. The window is shown offscreen.
class ScreenFixture : public ::testing::Test {
  protected:
    static constexpr const char* kSdkKey = "qt-screen-test";

    void SetUp() override;
    void TearDown() override;

    /// The ports the environment gets; a test may wrap some of them.
    virtual platform::Platform makePlatform() { return backend->platform(); }
    /// Starts a session (no location) and waits for its key.
    void startSession();
    /// Stores `coordinate` as the last known position, as the location monitor does.
    void storePosition(const platform::Coordinate& coordinate);
    [[nodiscard]] qtbackend::QtViewSystem& views() const { return *backend->views; }

    std::filesystem::path directory;
    std::unique_ptr<tovrel::server::Server> server;
    std::string baseURL;
    std::unique_ptr<qtbackend::QtPlatform> backend;
    std::unique_ptr<Environment> env;
    std::FILE* log = nullptr;
};

}  // namespace tovrel::qttest
