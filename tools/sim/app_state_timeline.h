#pragma once

#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "tovrel/platform/application.h"

namespace tovrel::sim {

/// When the simulated application changes state.
struct AppStateChange {
    double t = 0;  ///< seconds from the start
    platform::ApplicationState state = platform::ApplicationState::kBackground;
};

class AppStateError : public std::invalid_argument {
  public:
    using std::invalid_argument::invalid_argument;
};

/// "active", "background", or a timeline "0:background,600:active,900:background" (times ascending).
std::vector<AppStateChange> parseAppStateTimeline(std::string_view text);

std::string_view appStateName(platform::ApplicationState state);

}  // namespace tovrel::sim
