#include "view_backends.h"

#include "tovrel/virtual/virtual_scheduler.h"
#include "tovrel/virtual/virtual_views.h"

#ifdef TOVREL_VIEWS_WITH_QT
#include <chrono>

#include "qt_test_support.h"
#include "tovrel/qt/qt_main_loop.h"
#include "tovrel/qt/qt_views.h"
#endif

namespace tovrel::viewtest {
namespace {

class VirtualBackend final : public Backend {
  public:
    platform::ViewSystem& views() override { return *views_; }
    void turn() override { loop_->runUntilIdle(); }

  private:
    std::shared_ptr<virtualbackend::VirtualScheduler> loop_ =
        std::make_shared<virtualbackend::VirtualScheduler>();
    std::shared_ptr<virtualbackend::VirtualViewSystem> views_ =
        std::make_shared<virtualbackend::VirtualViewSystem>(loop_, nullptr);
};

#ifdef TOVREL_VIEWS_WITH_QT
class QtBackend final : public Backend {
  public:
    platform::ViewSystem& views() override { return *views_; }
    void turn() override { qttest::pump(std::chrono::milliseconds(30)); }

  private:
    std::shared_ptr<qtbackend::QtMainLoop> loop_ = std::make_shared<qtbackend::QtMainLoop>();
    std::shared_ptr<qtbackend::QtViewSystem> views_ =
        std::make_shared<qtbackend::QtViewSystem>(loop_, qtbackend::QtViewSystem::Options{});
};
#endif

}  // namespace

std::unique_ptr<Backend> makeVirtualBackend() {
    return std::make_unique<VirtualBackend>();
}

#ifdef TOVREL_VIEWS_WITH_QT
std::unique_ptr<Backend> makeQtBackend() {
    return std::make_unique<QtBackend>();
}
#endif

}  // namespace tovrel::viewtest
