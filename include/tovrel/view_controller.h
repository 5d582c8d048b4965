#pragma once

#include <memory>

#include "tovrel/export.h"
#include "tovrel/platform/views.h"

namespace tovrel {

/// A screen's controller with a root view made on first use: view() runs the subclass's loadView()
/// (which sets view_) and then its viewDidLoad(), once, the first time anyone asks for the view.
class TOVREL_EXPORT ViewController {
  public:
    ViewController(const ViewController&) = delete;
    ViewController& operator=(const ViewController&) = delete;

    /// Main thread. The root view, made by loadView() and followed by viewDidLoad() on first use.
    const std::shared_ptr<platform::View>& view();
    /// Main thread. Whether view() has made the root view yet.
    [[nodiscard]] bool isViewLoaded() const { return view_ != nullptr; }

  protected:
    ViewController() = default;
    virtual ~ViewController();

    /// Main thread. Makes the root view into view_, with its subviews.
    virtual void loadView() = 0;
    /// Main thread. Runs once, right after loadView().
    virtual void viewDidLoad() {}

    std::shared_ptr<platform::View> view_;
};

}  // namespace tovrel
