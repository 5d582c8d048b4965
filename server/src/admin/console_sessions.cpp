#include "admin/console_sessions.h"

#include <algorithm>

#include "common/session_keys.h"

namespace tovrel::server {

using tovrel::platform::Lock;

ConsoleSessions::Session ConsoleSessions::open(double now, std::string token) {
    Session session{randomKey(), randomKey(), std::move(token)};
    Lock lock(mutex_);
    if (sessions_.size() >= kMaxSessions) {
        dropLeastRecentlyUsed();
    }
    sessions_[session.id] = Entry{session.csrf, session.token, now};
    return session;
}

std::optional<ConsoleSessions::Session> ConsoleSessions::touch(std::string_view id, double now) {
    if (id.empty()) {
        return std::nullopt;
    }
    Lock lock(mutex_);
    const auto it = sessions_.find(std::string(id));
    if (it == sessions_.end()) {
        return std::nullopt;
    }
    if (now - it->second.lastUsed > kIdleSeconds) {
        sessions_.erase(it);
        return std::nullopt;
    }
    it->second.lastUsed = now;
    return Session{it->first, it->second.csrf, it->second.token};
}

void ConsoleSessions::close(std::string_view id) {
    Lock lock(mutex_);
    sessions_.erase(std::string(id));
}

double ConsoleSessions::signInDelay(std::string_view address, double now) {
    Lock lock(mutex_);
    const auto it = failures_.find(compactKey(address));
    if (it == failures_.end()) {
        return 0;
    }
    const double windowEnd = it->second.windowStart + kFailureWindowSeconds;
    if (now >= windowEnd) {
        failures_.erase(it);
        return 0;
    }
    return it->second.count >= kMaxFailures ? windowEnd - now : 0;
}

void ConsoleSessions::signInFailed(std::string_view address, double now) {
    Lock lock(mutex_);
    // The table stays small whatever the clients do: whole windows that have passed are forgotten first.
    if (failures_.size() >= kMaxSessions * 4) {
        std::erase_if(failures_, [now](const auto& entry) {
            return now >= entry.second.windowStart + kFailureWindowSeconds;
        });
        if (failures_.size() >= kMaxSessions * 4) {
            failures_.clear();
        }
    }
    Failures& failures = failures_[compactKey(address)];
    if (failures.count == 0 || now >= failures.windowStart + kFailureWindowSeconds) {
        failures = Failures{0, now};
    }
    ++failures.count;
}

std::size_t ConsoleSessions::size() const {
    Lock lock(mutex_);
    return sessions_.size();
}

void ConsoleSessions::dropLeastRecentlyUsed() {
    const auto oldest =
        std::min_element(sessions_.begin(), sessions_.end(),
                         [](const auto& a, const auto& b) { return a.second.lastUsed < b.second.lastUsed; });
    if (oldest != sessions_.end()) {
        sessions_.erase(oldest);
    }
}

std::string_view cookieValue(std::string_view header, std::string_view name) {
    while (!header.empty()) {
        const std::size_t semicolon = header.find(';');
        std::string_view pair = header.substr(0, semicolon);
        pair.remove_prefix(std::min(pair.find_first_not_of(' '), pair.size()));
        const std::size_t eq = pair.find('=');
        if (eq != std::string_view::npos && pair.substr(0, eq) == name) {
            std::string_view value = pair.substr(eq + 1);
            value.remove_suffix(value.size() - std::min(value.find_last_not_of(' ') + 1, value.size()));
            return value;
        }
        if (semicolon == std::string_view::npos) {
            break;
        }
        header.remove_prefix(semicolon + 1);
    }
    return {};
}

}  // namespace tovrel::server
