#include "targeting/shared_targets.h"

namespace tovrel::targeting {

std::optional<std::uint64_t> SharedTargets::nearest(const platform::Coordinate& position,
                                                    NearestSet& out) const {
    const platform::Lock lock(mutex_);
    if (list_.empty()) {
        return std::nullopt;
    }
    list_.nearest(position, out);
    return version_.load();
}

std::shared_ptr<hRegion> SharedTargets::at(std::size_t index) const {
    const platform::Lock lock(mutex_);
    return index < list_.size() ? list_[index] : nullptr;
}

std::vector<std::shared_ptr<hRegion>> SharedTargets::items() const {
    const platform::Lock lock(mutex_);
    return list_.items();
}

void SharedTargets::replace(TargetList list) {
    const platform::Lock lock(mutex_);
    list_ = std::move(list);
    ++version_;
}

void SharedTargets::eraseFront() {
    const platform::Lock lock(mutex_);
    if (!list_.empty()) {
        list_.eraseFront();
        ++version_;
    }
}

void SharedTargets::clear() {
    const platform::Lock lock(mutex_);
    list_.clear();
    ++version_;
}

}  // namespace tovrel::targeting
