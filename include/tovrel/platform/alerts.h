#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "tovrel/export.h"

namespace tovrel::platform {

/// A modal message box. Button indices: the cancel button (when there is one) is 0 and the other
/// buttons follow in order; without a cancel button the others start at 0.
struct TOVREL_EXPORT AlertSpec {
    std::optional<std::string> title;
    std::string message;
    std::optional<std::string> cancelButtonTitle;
    std::vector<std::string> otherButtonTitles;
    long tag = 0;
    std::function<void(int buttonIndex)> onDismiss;  ///< may be empty (no delegate)
};

using AlertId = std::uint64_t;

/// Shows alerts and toasts.
class TOVREL_EXPORT AlertPresenter {
  public:
    virtual ~AlertPresenter() = default;
    /// Main thread. Shows `alert` at once and returns its id.
    virtual AlertId show(AlertSpec alert) = 0;
    /// Main thread. Dismisses the alert as if `buttonIndex` had been pressed; its onDismiss runs.
    /// Unknown or already dismissed ids are ignored.
    virtual void dismiss(AlertId id, int buttonIndex, bool animated) = 0;
};

}  // namespace tovrel::platform
