#pragma once

#include <chrono>
#include <functional>
#include <thread>

namespace tovrel::test {

/// Polls `done` every few milliseconds until it holds or `timeout` passes; its last answer. Any
/// thread.
inline bool waitUntil(const std::function<bool()>& done, std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!done()) {
        if (std::chrono::steady_clock::now() >= deadline) {
            return done();
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

}  // namespace tovrel::test
