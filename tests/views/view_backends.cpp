#include "view_backends.h"

#include "tovrel/virtual/recording_http_client.h"
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
    [[nodiscard]] std::string pageAddress(const std::string& name) const override {
        return "http://pages.test/" + name;
    }
    bool turnUntil(const std::function<bool()>& done) override {
        loop_->runUntilIdle();
        return done();
    }
    void tapLink(platform::WebView& web, const std::string& url) override {
        dynamic_cast<virtualbackend::VirtualWebView&>(web).tapLink(url);
    }

  private:
    std::shared_ptr<virtualbackend::VirtualScheduler> loop_ =
        std::make_shared<virtualbackend::VirtualScheduler>();
    // Pages answer at once; nothing listens on port 1.
    std::shared_ptr<virtualbackend::RecordingHttpClient> http_ = [this] {
        auto client = std::make_shared<virtualbackend::RecordingHttpClient>(loop_);
        client->setResponder([](const virtualbackend::RecordedRequest& request) {
            return request.url.find(":1/") != std::string::npos
                       ? virtualbackend::Reply::failure(platform::HttpErrorKind::kTransport, "refused")
                       : virtualbackend::Reply::text(200, "<p>page</p>");
        });
        return client;
    }();
    std::shared_ptr<virtualbackend::VirtualViewSystem> views_ = [this] {
        auto made = std::make_shared<virtualbackend::VirtualViewSystem>(loop_, http_);
        made->setPageContentSize(pageAddress("wide.html"), {750, 400});
        return made;
    }();
};

#ifdef TOVREL_VIEWS_WITH_QT
class QtBackend final : public Backend {
  public:
    platform::ViewSystem& views() override { return *views_; }
    void turn() override { qttest::pump(std::chrono::milliseconds(30)); }
    [[nodiscard]] std::string pageAddress(const std::string& name) const override {
        return "file://" TOVREL_QT_TEST_CONTENT_DIR "/media/" + name;
    }
    bool turnUntil(const std::function<bool()>& done) override {
        return qttest::waitFor(done, std::chrono::seconds(30));
    }
    void tapLink(platform::WebView& web, const std::string& url) override {
        web.evaluateJavaScript("(() => { const a = document.createElement('a'); a.href = '" + url +
                               "'; document.body.appendChild(a); a.click(); })();");
    }

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
