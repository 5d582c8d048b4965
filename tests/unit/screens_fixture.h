#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "support/test_device.h"
#include "tovrel/platform/views.h"
#include "tovrel/virtual/virtual_views.h"

namespace tovrel::testing {

/// A simulated device with its virtual screen, for the tests of the component's screens.
class ScreensTest : public ::testing::Test {
  protected:
    TestDevice device;
    virtualbackend::VirtualViewSystem& views = virtualbackend::virtualViews(device.vp);

    std::vector<std::shared_ptr<platform::View>> windowSubviews() { return views.keyWindow()->subviews(); }

    bool onWindow(const std::shared_ptr<platform::View>& view) {
        const auto all = windowSubviews();
        return std::find(all.begin(), all.end(), view) != all.end();
    }

    /// `view` as the virtual kind T; throws when it is of another kind.
    template <class T>
    static T& as(const std::shared_ptr<platform::View>& view) {
        auto* cast = dynamic_cast<T*>(view.get());
        if (cast == nullptr) {
            throw std::logic_error("the view is not of the expected virtual kind");
        }
        return *cast;
    }
};

}  // namespace tovrel::testing
