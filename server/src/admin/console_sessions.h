#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>

#include "tovrel/platform/thread_annotations.h"

namespace tovrel::server {

/// The console's signed-in browsers. Signing in with the admin token gives a session: a random id,
/// kept by the browser in an HttpOnly cookie, and an anti-forgery token the page sends back in a
/// header with every change. A session ends when signed out or after kIdleSeconds without a request;
/// at most kMaxSessions live at once (the least recently used goes first). Wrong tokens are counted
/// per client address: after kMaxFailures within kFailureWindowSeconds, sign-ins from that address
/// are refused until the window has passed. Thread-safe; times are the caller's steady clock.
class ConsoleSessions {
  public:
    static constexpr double kIdleSeconds = 8 * 3600;
    static constexpr std::size_t kMaxSessions = 256;
    static constexpr int kMaxFailures = 5;
    static constexpr double kFailureWindowSeconds = 60;
    /// The cookie that carries the session id.
    static constexpr std::string_view kCookie = "tovrel_console";

    struct Session {
        std::string id;
        std::string csrf;
        std::string token;  ///< the name of the admin token it was opened with
    };

    /// A new session of the admin token named `token`. Any thread.
    Session open(double now, std::string token = {});
    /// A live session, which counts as used now; nullopt when the id is unknown or the session was idle
    /// too long (it is then forgotten). Any thread.
    std::optional<Session> touch(std::string_view id, double now);
    /// Ends a session; nothing when there is none. Any thread.
    void close(std::string_view id);

    /// Seconds until `address` may try again, 0 when it may now. Any thread.
    double signInDelay(std::string_view address, double now);
    /// Counts a wrong token from `address`. Any thread.
    void signInFailed(std::string_view address, double now);

    /// Live sessions (expired ones not yet noticed included). Any thread.
    std::size_t size() const;

  private:
    struct Entry {
        std::string csrf;
        std::string token;
        double lastUsed = 0;
    };
    struct Failures {
        int count = 0;
        double windowStart = 0;
    };

    void dropLeastRecentlyUsed() TOVREL_REQUIRES(mutex_);

    mutable tovrel::platform::Mutex mutex_;
    std::unordered_map<std::string, Entry> sessions_ TOVREL_GUARDED_BY(mutex_);
    std::unordered_map<std::string, Failures> failures_ TOVREL_GUARDED_BY(mutex_);
};

/// The value of cookie `name` in a Cookie header; empty when it is not there. Pure.
std::string_view cookieValue(std::string_view header, std::string_view name);

}  // namespace tovrel::server
