#include "tovrel/view_controller.h"

namespace tovrel {

ViewController::~ViewController() = default;

const std::shared_ptr<platform::View>& ViewController::view() {
    if (!view_) {
        loadView();
        viewDidLoad();
    }
    return view_;
}

}  // namespace tovrel
