#pragma once

#include <string>

#include "tovrel/environment.h"
#include "tovrel/virtual/virtual_platform.h"

namespace tovrel::testing {

/// One simulated device for a test: the virtual platform, an environment on it, made current on
/// this thread for the test's lifetime. The service base URL is a fixed fake host; nothing is sent
/// over a network unless the test forwards the HTTP port.
struct TestDevice {
    explicit TestDevice(std::string baseURL = "http://service.test")
        : environment(vp.platform(), Configuration{baseURL, "http://content.test"}), scope(environment) {}

    virtualbackend::VirtualPlatform vp;
    Environment environment;
    Environment::Scope scope;

    virtualbackend::VirtualScheduler& loop() { return *vp.scheduler; }
    virtualbackend::RecordingHttpClient& http() { return *vp.http; }
    virtualbackend::InMemoryPreferences& prefs() { return *vp.preferences; }
    virtualbackend::RecordingLog& log() { return *vp.log; }
};

}  // namespace tovrel::testing
