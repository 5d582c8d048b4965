#pragma once

#include <string>

namespace tovrel::sim {

/// The map library the HTML report carries inline, as the build found it installed. Both texts are
/// safe inside an inline <script> or <style> element ("</" is written "<\/").
struct LeafletAssets {
    std::string version;
    std::string script;
    std::string style;
};

/// The embedded Leaflet, or nullptr when the build had none (the report then draws the plain map).
/// Any thread.
const LeafletAssets* leafletAssets();

}  // namespace tovrel::sim
