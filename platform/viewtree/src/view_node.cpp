#include "tovrel/viewtree/view_node.h"

#include <algorithm>

namespace tovrel::viewtree {

using platform::Appearance;

namespace {

void eraseView(std::vector<std::shared_ptr<platform::View>>& views, const platform::View* view) {
    views.erase(std::remove_if(views.begin(), views.end(), [view](const auto& v) { return v.get() == view; }),
                views.end());
}

}  // namespace

ViewNode* viewNode(const platform::View* view) {
    return dynamic_cast<ViewNode*>(const_cast<platform::View*>(view));
}

bool ViewNode::isOnScreen() const {
    std::shared_ptr<platform::View> holder;
    const platform::View* current = &self();
    const auto& roots = screenRoots();
    while (current != nullptr) {
        if (roots.isScreenRoot(current)) {
            return true;
        }
        holder = current->superview();
        current = holder.get();
    }
    return false;
}

void ViewNode::linkSubview(const std::shared_ptr<platform::View>& view) {
    ViewNode* child = view ? viewNode(view.get()) : nullptr;
    if (child == nullptr || view.get() == &self()) {
        return;
    }
    const auto previous = child->superview_.lock();
    if (previous.get() == &self()) {
        eraseView(subviews_, view.get());
        subviews_.push_back(view);
        didAddSubview(*child, false);
        return;
    }
    const bool wasOnScreen = child->isOnScreen();
    if (previous) {
        eraseView(viewNode(previous.get())->subviews_, view.get());
    }
    subviews_.push_back(view);
    child->superview_ = self().weak_from_this();
    didAddSubview(*child, true);
    const bool onScreen = child->isOnScreen();
    if (onScreen != wasOnScreen) {
        child->announce(onScreen ? Appearance::kWillAppear : Appearance::kWillDisappear);
    }
}

void ViewNode::unlinkFromSuperview() {
    const auto parent = superview_.lock();
    if (!parent) {
        return;
    }
    const auto keepAlive = self().shared_from_this();
    const bool wasOnScreen = isOnScreen();
    eraseView(viewNode(parent.get())->subviews_, &self());
    superview_.reset();
    didLeaveSuperview();
    if (wasOnScreen) {
        announce(Appearance::kWillDisappear);
    }
}

void ViewNode::collect(std::vector<std::shared_ptr<platform::View>>& into) {
    into.push_back(self().shared_from_this());
    for (const auto& subview : subviews_) {
        if (auto* node = viewNode(subview.get())) {
            node->collect(into);
        }
    }
}

void ViewNode::announce(Appearance will) {
    const bool appearing = will == Appearance::kWillAppear;
    std::vector<std::shared_ptr<platform::View>> subtree;
    collect(subtree);
    for (const auto& view : subtree) {
        viewNode(view.get())->deliver(will);
    }
    std::vector<std::weak_ptr<platform::View>> later(subtree.begin(), subtree.end());
    screenRoots().postLater([later = std::move(later), appearing] {
        for (const auto& weak : later) {
            const auto view = weak.lock();
            auto* node = view ? viewNode(view.get()) : nullptr;
            // A view that left (or came back) before this turn hears nothing more.
            if (node != nullptr && node->isOnScreen() == appearing) {
                node->deliver(appearing ? Appearance::kDidAppear : Appearance::kDidDisappear);
            }
        }
    });
}

void ViewNode::deliver(Appearance appearance) {
    appearanceLog_.push_back(appearance);
    const auto handler = appearanceHandler_;
    if (handler) {
        handler(appearance);
    }
}

}  // namespace tovrel::viewtree
