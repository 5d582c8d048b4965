#pragma once

namespace tovrel {

/// The component's version, as reported to the service and shown in the settings menu.
inline constexpr const char* kVersion = "1.2.4";

}  // namespace tovrel
