#pragma once

#include <QImage>
#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "tovrel/platform/main_loop.h"
#include "tovrel/platform/views.h"
#include "tovrel/viewtree/view_node.h"

namespace tovrel::qtbackend {

class QtViewSystem;

/// What a QtViewSystem shares with its views. Only weak references point back out, so a view held
/// by a posted task or a timer never keeps the loop or the system alive.
struct QtViewContext final : viewtree::ScreenRoots {
    std::weak_ptr<platform::MainLoop> loop;
    std::weak_ptr<platform::View> keyWindow;
    std::vector<std::weak_ptr<platform::View>> presented;
    std::vector<std::weak_ptr<platform::View>> maps;
    std::vector<platform::ViewAnimation> openAnimations;
    std::filesystem::path resourceRoot;
    std::string tileURLTemplate;
    mutable std::map<std::string, QImage> images;
    QtViewSystem* system = nullptr;

    void postLater(platform::Task task) const override {
        if (auto mainLoop = loop.lock()) {
            mainLoop->post(std::move(task));
        }
    }
    [[nodiscard]] bool isScreenRoot(const platform::View* view) const override;
    [[nodiscard]] bool isPresented(const platform::View* view) const;
    /// The image of a resource name ("TovrelSDKResources.bundle/pin1.png"), cached; null when missing.
    [[nodiscard]] QImage image(const std::string& name) const;
    /// The stacking of the key window changed.
    void windowChanged() const;
};

}  // namespace tovrel::qtbackend
