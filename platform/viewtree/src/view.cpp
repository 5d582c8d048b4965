#include <algorithm>

#include "tovrel/platform/view_renderer.h"
#include "tovrel/platform/views.h"

namespace tovrel::platform {

namespace {

void eraseView(std::vector<std::shared_ptr<View>>& views, const View* view) {
    views.erase(std::remove_if(views.begin(), views.end(), [view](const auto& v) { return v.get() == view; }),
                views.end());
}

}  // namespace

View::View(std::shared_ptr<ViewRenderer> renderer, const Rect& frame)
    : renderer_(std::move(renderer)), frame_(frame) {}

View::~View() = default;

void View::changed(ViewProperty property) {
    renderer_->viewChanged(*this, property);
}

void View::setZPosition(float zPosition) {
    zPosition_ = zPosition;
    changed(ViewProperty::kZPosition);
}

void View::setHidden(bool hidden) {
    hidden_ = hidden;
    changed(ViewProperty::kHidden);
}

void View::setAlpha(double alpha) {
    alpha_ = alpha;
    changed(ViewProperty::kAlpha);
}

void View::setFrame(const Rect& frame) {
    frame_ = frame;
    didChangeFrame();
    changed(ViewProperty::kFrame);
}

void View::setTransform(const Transform& transform) {
    transform_ = transform;
    changed(ViewProperty::kTransform);
}

void View::setBackgroundColor(const std::optional<Color>& color) {
    backgroundColor_ = color;
    changed(ViewProperty::kBackgroundColor);
}

void View::addAnimation(const std::string& key, const BasicAnimation& animation) {
    animations_[key] = animation;
    renderer_->animationAdded(*this, animation);
}

std::optional<BasicAnimation> View::animationForKey(const std::string& key) const {
    const auto it = animations_.find(key);
    return it == animations_.end() ? std::nullopt : std::optional(it->second);
}

bool View::isOnScreen() const {
    std::shared_ptr<View> holder;
    const View* current = this;
    while (current != nullptr) {
        if (renderer_->isKeyWindow(*current) || renderer_->isPresented(*current)) {
            return true;
        }
        holder = current->superview();
        current = holder.get();
    }
    return false;
}

void View::addSubview(const std::shared_ptr<View>& view) {
    if (!view || view.get() == this || renderer_->isKeyWindow(*view)) {
        return;
    }
    View& child = *view;
    const auto previous = child.superview_.lock();
    if (previous.get() == this) {
        eraseView(subviews_, &child);
        subviews_.push_back(view);
        renderer_->subviewAdded(*this, child, false);
        return;
    }
    const bool wasOnScreen = child.isOnScreen();
    if (previous) {
        eraseView(previous->subviews_, &child);
    }
    subviews_.push_back(view);
    child.superview_ = weak_from_this();
    renderer_->subviewAdded(*this, child, true);
    const bool onScreen = child.isOnScreen();
    if (onScreen != wasOnScreen) {
        child.announce(onScreen ? Appearance::kWillAppear : Appearance::kWillDisappear);
    }
}

void View::removeFromSuperview() {
    const auto parent = superview_.lock();
    if (!parent) {
        return;
    }
    const auto keepAlive = shared_from_this();
    const bool wasOnScreen = isOnScreen();
    eraseView(parent->subviews_, this);
    superview_.reset();
    renderer_->viewDetached(*this);
    if (wasOnScreen) {
        announce(Appearance::kWillDisappear);
    }
}

void View::collect(std::vector<std::shared_ptr<View>>& into) {
    into.push_back(shared_from_this());
    for (const auto& subview : subviews_) {
        subview->collect(into);
    }
}

void View::announce(Appearance will) {
    const bool appearing = will == Appearance::kWillAppear;
    std::vector<std::shared_ptr<View>> subtree;
    collect(subtree);
    for (const auto& view : subtree) {
        view->deliver(will);
    }
    std::vector<std::weak_ptr<View>> later(subtree.begin(), subtree.end());
    renderer_->postLater([later = std::move(later), appearing] {
        for (const auto& weak : later) {
            const auto view = weak.lock();
            // A view that left (or came back) before this turn hears nothing more.
            if (view && view->isOnScreen() == appearing) {
                view->deliver(appearing ? Appearance::kDidAppear : Appearance::kDidDisappear);
            }
        }
    });
}

void View::deliver(Appearance appearance) {
    if (appearanceLog_.size() == kKeptAppearances) {
        appearanceLog_.erase(appearanceLog_.begin());
    }
    appearanceLog_.push_back(appearance);
    const auto handler = appearanceHandler_;
    if (handler) {
        handler(appearance);
    }
}

}  // namespace tovrel::platform
