#include "app_state_timeline.h"

#include <charconv>
#include <cmath>

namespace tovrel::sim {
namespace {

std::optional<platform::ApplicationState> stateFromName(std::string_view name) {
    if (name == "active")
        return platform::ApplicationState::kActive;
    if (name == "background")
        return platform::ApplicationState::kBackground;
    if (name == "inactive")
        return platform::ApplicationState::kInactive;
    return std::nullopt;
}

}  // namespace

std::string_view appStateName(platform::ApplicationState state) {
    switch (state) {
        case platform::ApplicationState::kActive:
            return "active";
        case platform::ApplicationState::kInactive:
            return "inactive";
        case platform::ApplicationState::kBackground:
            return "background";
    }
    return "background";
}

std::vector<AppStateChange> parseAppStateTimeline(std::string_view text) {
    if (const auto single = stateFromName(text)) {
        return {AppStateChange{0, *single}};
    }
    std::vector<AppStateChange> changes;
    std::string_view rest = text;
    while (!rest.empty()) {
        const auto comma = rest.find(',');
        const std::string_view item = rest.substr(0, comma);
        rest = comma == std::string_view::npos ? std::string_view() : rest.substr(comma + 1);
        const auto colon = item.find(':');
        if (colon == std::string_view::npos) {
            throw AppStateError("--app-state: '" + std::string(item) + "' should be SECONDS:STATE");
        }
        const std::string_view time = item.substr(0, colon);
        double t = 0;
        const auto [end, ec] = std::from_chars(time.data(), time.data() + time.size(), t);
        if (ec != std::errc() || end != time.data() + time.size() || !std::isfinite(t) || t < 0) {
            throw AppStateError("--app-state: '" + std::string(time) + "' is not a time in seconds");
        }
        const auto state = stateFromName(item.substr(colon + 1));
        if (!state) {
            throw AppStateError("--app-state: '" + std::string(item.substr(colon + 1)) +
                                "' is not active, inactive or background");
        }
        if (!changes.empty() && t < changes.back().t) {
            throw AppStateError("--app-state: times must ascend (" + std::string(item) + ")");
        }
        changes.push_back({t, *state});
    }
    if (changes.empty()) {
        throw AppStateError("--app-state: empty timeline");
    }
    return changes;
}

}  // namespace tovrel::sim
