#pragma once

#include <QImage>
#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "tovrel/platform/main_loop.h"
#include "tovrel/platform/map_view.h"
#include "tovrel/platform/view_renderer.h"
#include "tovrel/platform/views.h"

namespace tovrel::qtbackend {

class QtViewSystem;

/// What a QtViewSystem shares with its views, and the renderer that shows them as widgets. Only weak
/// references point back out, so a view held by a posted task or a timer never keeps the loop or the
/// system alive.
struct QtViewContext final : platform::ViewRenderer, std::enable_shared_from_this<QtViewContext> {
    std::weak_ptr<platform::MainLoop> loop;
    std::vector<std::weak_ptr<platform::View>> maps;
    std::vector<platform::ViewAnimation> openAnimations;
    std::filesystem::path resourceRoot;
    std::string tileURLTemplate;
    mutable std::map<std::string, QImage> images;
    QtViewSystem* system = nullptr;

    [[nodiscard]] bool isKeyWindow(const platform::View& view) const override;
    [[nodiscard]] bool isPresented(const platform::View& view) const override;
    void postLater(platform::Task task) const override;
    void viewChanged(platform::View& view, platform::ViewProperty property) override;
    void subviewAdded(platform::View& parent, platform::View& child, bool moved) override;
    void viewDetached(platform::View& view) override;
    void animationAdded(platform::View& view, const platform::BasicAnimation& animation) override;
    void mapChanged(platform::MapView& map, const platform::MapChange& change) override;
    std::shared_ptr<platform::AnnotationView> makePlatformPin(
        std::shared_ptr<platform::Annotation> annotation) override;
    void loadPage(platform::WebView& view, const platform::URLRequest& request) override;
    void stopPage(platform::WebView& view) override;
    void runScript(platform::WebView& view, const std::string& script) override;
    /// The image of a resource name ("TovrelSDKResources.bundle/pin1.png"), cached; null when missing.
    [[nodiscard]] QImage image(const std::string& name) const;
    /// The stacking of the key window changed.
    void windowChanged() const;
};

}  // namespace tovrel::qtbackend
