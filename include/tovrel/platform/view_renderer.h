#pragma once

#include "tovrel/export.h"
#include "tovrel/platform/main_loop.h"
#include "tovrel/platform/views.h"

namespace tovrel::platform {

struct MapChange;

/// What changed in a view: a property every view shares, or the kind's own content (a label's text,
/// a button's title, a spinner's turning, a bar's items, a table's rows and selection...).
enum class ViewProperty { kZPosition, kHidden, kAlpha, kFrame, kTransform, kBackgroundColor, kContent };

/// What a backend implements to show the views of the model: it hears every change of a view after
/// the model holds it, and says which views are the roots of the screen. The model calls it on the
/// main thread only, and never from a view's destructor.
class TOVREL_EXPORT ViewRenderer {
  public:
    virtual ~ViewRenderer() = default;

    /// Main thread. Whether `view` is the key window (which never hangs under another view).
    [[nodiscard]] virtual bool isKeyWindow(const View& view) const = 0;
    /// Main thread. Whether `view` is presented over the key window now.
    [[nodiscard]] virtual bool isPresented(const View& view) const = 0;
    /// Main thread. Runs `task` on a later turn of the main loop; dropped once the loop is gone.
    virtual void postLater(Task task) const = 0;

    /// Main thread. `property` of `view` changed; the view holds the new value.
    virtual void viewChanged(View& view, ViewProperty property) = 0;
    /// Main thread. `child` now hangs on top of `parent`'s subviews (`moved`: it came from
    /// elsewhere; otherwise it only went to the top). Runs before any appearance event.
    virtual void subviewAdded(View& parent, View& child, bool moved) = 0;
    /// Main thread. `view` no longer hangs under its former superview; runs before any appearance
    /// event.
    virtual void viewDetached(View& view) = 0;
    /// Main thread. `animation` was attached to `view`'s layer (replacing one under the same key).
    virtual void animationAdded(View& view, const BasicAnimation& animation) = 0;
    /// Main thread. `change` happened on `map`, which holds the new state.
    virtual void mapChanged(MapView& map, const MapChange& change) = 0;
    /// Main thread. The platform's own pin for `annotation`, for a map whose delegate gives none.
    virtual std::shared_ptr<AnnotationView> makePlatformPin(std::shared_ptr<Annotation> annotation) = 0;
    /// Main thread. `view` loads `request` as its load `view.loadGeneration()`, which the delegate
    /// has allowed; the backend reports the start and the end (or the failure) through the view.
    virtual void loadPage(WebView& view, const URLRequest& request) = 0;
    /// Main thread. `view`'s load has been stopped (or replaced by no page at all): stop the work.
    virtual void stopPage(WebView& view) = 0;
    /// Main thread. Runs `script` in `view`'s page; the result is not returned.
    virtual void runScript(WebView& view, const std::string& script) = 0;
};

}  // namespace tovrel::platform
