#pragma once

#include <memory>
#include <vector>

#include "tovrel/export.h"
#include "tovrel/platform/main_loop.h"
#include "tovrel/platform/views.h"

namespace tovrel::viewtree {

/// What the views of one view system share: which views are the roots of the screen, and the main
/// loop that carries the did-events to a later turn.
class TOVREL_EXPORT ScreenRoots {
  public:
    virtual ~ScreenRoots() = default;
    /// Main thread. Whether `view` is the key window or a view presented over it.
    [[nodiscard]] virtual bool isScreenRoot(const platform::View* view) const = 0;
    /// Main thread. Runs `task` on a later turn of the main loop; dropped once the loop is gone.
    virtual void postLater(platform::Task task) const = 0;
};

/// The tree links and appearance events of a view, the same in every backend. A view is on screen
/// while it hangs under a screen root. A view that comes on (or goes off) the screen tells itself
/// and everything under it at once (the will-event) and again on the next turn of the loop (the
/// did-event), which a view that has gone back meanwhile does not hear. Main thread only.
class TOVREL_EXPORT ViewNode {
  public:
    virtual ~ViewNode() = default;
    ViewNode(const ViewNode&) = delete;
    ViewNode& operator=(const ViewNode&) = delete;

    /// True while the view hangs under the key window or under a presented view.
    [[nodiscard]] bool isOnScreen() const;
    /// Every appearance event delivered to this view, in order.
    [[nodiscard]] const std::vector<platform::Appearance>& appearanceLog() const { return appearanceLog_; }
    /// Tells this view and everything under it `will` (kWillAppear or kWillDisappear) now and the
    /// matching did-event on the next turn. View systems call it when they present or dismiss a view.
    void announce(platform::Appearance will);

  protected:
    ViewNode() = default;

    /// The view this node belongs to.
    virtual platform::View& self() = 0;
    [[nodiscard]] const platform::View& self() const { return const_cast<ViewNode*>(this)->self(); }
    [[nodiscard]] virtual const ScreenRoots& screenRoots() const = 0;
    /// `child` now hangs under this view (`moved`: it came from elsewhere; otherwise it only went to
    /// the top of the subviews). Runs before any appearance event, so a backend can show it first.
    virtual void didAddSubview(ViewNode& /*child*/, bool /*moved*/) {}
    /// This view no longer hangs under its former superview; runs before any appearance event.
    virtual void didLeaveSuperview() {}

    /// Puts `view` on top of this view's subviews, taking it from its former superview. A view of
    /// another kind, or this view itself, is ignored.
    void linkSubview(const std::shared_ptr<platform::View>& view);
    void unlinkFromSuperview();
    void storeAppearanceHandler(platform::AppearanceHandler handler) {
        appearanceHandler_ = std::move(handler);
    }

    std::vector<std::shared_ptr<platform::View>> subviews_;
    std::weak_ptr<platform::View> superview_;

  private:
    void deliver(platform::Appearance appearance);
    void collect(std::vector<std::shared_ptr<platform::View>>& into);

    platform::AppearanceHandler appearanceHandler_;
    std::vector<platform::Appearance> appearanceLog_;
};

/// The node of `view`, or null for a view that is not made of one.
TOVREL_EXPORT ViewNode* viewNode(const platform::View* view);

}  // namespace tovrel::viewtree
