#include <algorithm>

#include "tovrel/platform/views.h"

namespace tovrel::platform {

ViewSystem::ViewSystem(const Size& portrait) : portrait_(portrait) {}

ViewSystem::~ViewSystem() = default;

void ViewSystem::setKeyWindow(std::shared_ptr<View> window) {
    keyWindow_ = std::move(window);
    keyWindow_->setFrame(mainScreenBounds());
}

Rect ViewSystem::mainScreenBounds() const {
    const bool landscape = interfaceOrientation_ == InterfaceOrientation::kLandscapeLeft ||
                           interfaceOrientation_ == InterfaceOrientation::kLandscapeRight;
    return landscape ? Rect{0, 0, portrait_.height, portrait_.width}
                     : Rect{0, 0, portrait_.width, portrait_.height};
}

void ViewSystem::setScreenSize(const Size& portrait) {
    portrait_ = portrait;
    if (keyWindow_) {
        keyWindow_->setFrame(mainScreenBounds());
    }
}

void ViewSystem::rotate(DeviceOrientation orientation) {
    deviceOrientation_ = orientation;
    switch (orientation) {
        case DeviceOrientation::kPortrait:
            interfaceOrientation_ = InterfaceOrientation::kPortrait;
            break;
        case DeviceOrientation::kPortraitUpsideDown:
            interfaceOrientation_ = InterfaceOrientation::kPortraitUpsideDown;
            break;
        // The interface turns against the device: a device turned left shows its right side up.
        case DeviceOrientation::kLandscapeLeft:
            interfaceOrientation_ = InterfaceOrientation::kLandscapeRight;
            break;
        case DeviceOrientation::kLandscapeRight:
            interfaceOrientation_ = InterfaceOrientation::kLandscapeLeft;
            break;
        default:
            break;
    }
    if (keyWindow_) {
        keyWindow_->setFrame(mainScreenBounds());
    }
    const auto observers = observers_;
    for (const auto& observer : observers) {
        observer();
    }
}

bool ViewSystem::isPresented(const View& view) const {
    return std::any_of(presented_.begin(), presented_.end(),
                       [&view](const auto& weak) { return weak.lock().get() == &view; });
}

std::vector<std::shared_ptr<View>> ViewSystem::presentedViews() const {
    std::vector<std::shared_ptr<View>> views;
    for (const auto& weak : presented_) {
        if (auto view = weak.lock()) {
            views.push_back(std::move(view));
        }
    }
    return views;
}

void ViewSystem::presentModalView(std::shared_ptr<View> view, const ModalPresentation& presentation) {
    if (!view || isKeyWindow(*view) || isPresented(*view)) {
        return;
    }
    const bool wasOnScreen = view->isOnScreen();
    std::erase_if(presented_, [](const auto& weak) { return weak.expired(); });
    presented_.push_back(view);
    didPresent(*view, presentation);
    if (!wasOnScreen) {
        view->announce(Appearance::kWillAppear);
    }
}

void ViewSystem::dismissModalView(const std::shared_ptr<View>& view, bool animated) {
    const auto it = std::find_if(presented_.begin(), presented_.end(),
                                 [&view](const auto& weak) { return weak.lock() == view; });
    if (!view || it == presented_.end()) {
        return;
    }
    presented_.erase(it);
    didDismiss(*view, animated);
    if (!view->isOnScreen()) {
        view->announce(Appearance::kWillDisappear);
    }
}

}  // namespace tovrel::platform
