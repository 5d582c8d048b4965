#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "tovrel/platform/views.h"

namespace tovrel::viewtest {

/// One backend under the view model, as the conformance suite drives it. Main thread only.
class Backend {
  public:
    virtual ~Backend() = default;
    /// The view system the component would get.
    virtual platform::ViewSystem& views() = 0;
    /// Lets the main loop turn until nothing is left to run now (the did-events arrive).
    virtual void turn() = 0;
    /// The address of test page `name`: "wide.html" is 750 points wide, "offer-qt.html" plain.
    [[nodiscard]] virtual std::string pageAddress(const std::string& name) const = 0;
    /// Turns the loop until `done` holds or the backend gives up (pages load for real on Qt).
    virtual bool turnUntil(const std::function<bool()>& done) = 0;
    /// The user taps a link to `url` in `web`'s page.
    virtual void tapLink(platform::WebView& web, const std::string& url) = 0;
};

/// The virtual backend, on its own virtual-time loop.
std::unique_ptr<Backend> makeVirtualBackend();
#ifdef TOVREL_VIEWS_WITH_QT
/// The Qt backend, on Qt's event loop (offscreen).
std::unique_ptr<Backend> makeQtBackend();
#endif

struct VirtualKind {
    static std::unique_ptr<Backend> make() { return makeVirtualBackend(); }
};
#ifdef TOVREL_VIEWS_WITH_QT
struct QtKind {
    static std::unique_ptr<Backend> make() { return makeQtBackend(); }
};
using BackendKinds = ::testing::Types<VirtualKind, QtKind>;
#else
using BackendKinds = ::testing::Types<VirtualKind>;
#endif

}  // namespace tovrel::viewtest
