#include "tovrel/virtual/virtual_motion.h"

#include <mutex>
#include <vector>

namespace tovrel::virtualbackend {

struct MotionManagerState {
    platform::MotionActivityHandler handler;
    bool active = false;
    bool released = false;
};

struct VirtualMotionServices::Shared {
    std::weak_ptr<platform::BackgroundWork> background;
    mutable std::mutex mutex;
    std::vector<std::shared_ptr<MotionManagerState>> managers;
    std::size_t delivered = 0;
};

namespace {

class VirtualMotionActivityManager final : public platform::MotionActivityManager {
  public:
    VirtualMotionActivityManager(std::shared_ptr<VirtualMotionServices::Shared> shared,
                                 std::shared_ptr<MotionManagerState> state)
        : shared_(std::move(shared)), state_(std::move(state)) {}
    ~VirtualMotionActivityManager() override {
        std::lock_guard lock(shared_->mutex);
        state_->released = true;
        state_->handler = nullptr;
    }
    VirtualMotionActivityManager(const VirtualMotionActivityManager&) = delete;
    VirtualMotionActivityManager& operator=(const VirtualMotionActivityManager&) = delete;

    void startActivityUpdates(platform::MotionActivityHandler handler) override {
        std::lock_guard lock(shared_->mutex);
        state_->handler = std::move(handler);
        state_->active = true;
    }
    void stopActivityUpdates() override {
        std::lock_guard lock(shared_->mutex);
        state_->active = false;
    }

  private:
    std::shared_ptr<VirtualMotionServices::Shared> shared_;
    std::shared_ptr<MotionManagerState> state_;
};

}  // namespace

VirtualMotionServices::VirtualMotionServices(const std::shared_ptr<platform::BackgroundWork>& background)
    : shared_(std::make_shared<Shared>()) {
    shared_->background = background;
}

VirtualMotionServices::~VirtualMotionServices() = default;

std::shared_ptr<platform::MotionActivityManager> VirtualMotionServices::createMotionActivityManager() {
    auto state = std::make_shared<MotionManagerState>();
    {
        std::lock_guard lock(shared_->mutex);
        shared_->managers.push_back(state);
    }
    return std::make_shared<VirtualMotionActivityManager>(shared_, std::move(state));
}

void VirtualMotionServices::deliver(const platform::MotionActivity& activity) {
    const auto background = shared_->background.lock();
    if (!background) {
        return;
    }
    std::vector<std::shared_ptr<MotionManagerState>> targets;
    {
        std::lock_guard lock(shared_->mutex);
        for (const auto& state : shared_->managers) {
            if (state->active && !state->released) {
                targets.push_back(state);
            }
        }
    }
    for (auto& state : targets) {
        background->dispatchBackground([shared = shared_, state = std::move(state), activity] {
            platform::MotionActivityHandler handler;
            {
                std::lock_guard lock(shared->mutex);
                if (!state->active || state->released) {
                    return;
                }
                handler = state->handler;
                ++shared->delivered;
            }
            if (handler) {
                handler(activity);
            }
        });
    }
}

void VirtualMotionServices::deliverStationary(platform::MotionConfidence confidence) {
    platform::MotionActivity activity;
    activity.stationary = true;
    activity.confidence = confidence;
    deliver(activity);
}

void VirtualMotionServices::deliverWalking(platform::MotionConfidence confidence) {
    platform::MotionActivity activity;
    activity.walking = true;
    activity.confidence = confidence;
    deliver(activity);
}

std::size_t VirtualMotionServices::managerCount() const {
    std::lock_guard lock(shared_->mutex);
    return shared_->managers.size();
}

std::size_t VirtualMotionServices::activeManagerCount() const {
    std::lock_guard lock(shared_->mutex);
    std::size_t active = 0;
    for (const auto& state : shared_->managers) {
        active += state->active && !state->released ? 1 : 0;
    }
    return active;
}

std::size_t VirtualMotionServices::deliveredCount() const {
    std::lock_guard lock(shared_->mutex);
    return shared_->delivered;
}

}  // namespace tovrel::virtualbackend
