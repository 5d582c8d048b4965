#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include "targeting/target_list.h"
#include "tovrel/platform/thread_annotations.h"

namespace tovrel::targeting {

/// The monitor's place targets, read by the main thread's checks and replaced by the answers of
/// refreshes that may run on any thread: the list under its own lock, with a version bumped on every
/// change, so that a check notices a change made while it runs. Any thread.
class SharedTargets {
  public:
    /// The nearest targets to `position` and the version they were found in; nothing when the list
    /// is empty.
    std::optional<std::uint64_t> nearest(const platform::Coordinate& position, NearestSet& out) const;
    /// The target at `index`, or null past the end.
    [[nodiscard]] std::shared_ptr<hRegion> at(std::size_t index) const;
    [[nodiscard]] std::uint64_t version() const { return version_.load(); }
    /// A copy of the list, in list order.
    [[nodiscard]] std::vector<std::shared_ptr<hRegion>> items() const;

    void replace(TargetList list);
    /// Removes the first target, if any.
    void eraseFront();
    void clear();

  private:
    mutable platform::Mutex mutex_;
    TargetList list_ TOVREL_GUARDED_BY(mutex_);
    std::atomic<std::uint64_t> version_{0};
};

}  // namespace tovrel::targeting
