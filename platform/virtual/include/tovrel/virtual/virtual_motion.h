#pragma once

#include <cstddef>
#include <memory>

#include "tovrel/export.h"
#include "tovrel/platform/background.h"
#include "tovrel/platform/motion.h"

namespace tovrel::virtualbackend {

/// Motion services on the virtual backend: the test scripts activities, and every started activity
/// manager's handler receives each one off the main thread, through the background queue, in order.
/// Thread-safe.
class TOVREL_EXPORT VirtualMotionServices final : public platform::MotionServices {
  public:
    /// `background` is held weakly (the loop usually owns the component, which owns the managers).
    explicit VirtualMotionServices(const std::shared_ptr<platform::BackgroundWork>& background);
    ~VirtualMotionServices() override;
    VirtualMotionServices(const VirtualMotionServices&) = delete;
    VirtualMotionServices& operator=(const VirtualMotionServices&) = delete;

    std::shared_ptr<platform::MotionActivityManager> createMotionActivityManager() override;

    /// Any thread. Hands `activity` to the handler of every started manager.
    void deliver(const platform::MotionActivity& activity);
    /// Any thread. A convenience for deliver(): stationary or moving (walking) at `confidence`.
    void deliverStationary(platform::MotionConfidence confidence);
    void deliverWalking(platform::MotionConfidence confidence);

    /// Managers made so far.
    [[nodiscard]] std::size_t managerCount() const;
    /// Managers whose updates are running (and not yet released).
    [[nodiscard]] std::size_t activeManagerCount() const;
    /// Activities handed to handlers so far.
    [[nodiscard]] std::size_t deliveredCount() const;

    struct Shared;

  private:
    std::shared_ptr<Shared> shared_;
};

}  // namespace tovrel::virtualbackend
