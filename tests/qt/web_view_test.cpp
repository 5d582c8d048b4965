#include "qt_test_support.h"
#include "screen_fixture.h"

namespace tovrel::qttest {
namespace {

using namespace std::chrono_literals;

class QtWebViewTest : public ScreenFixture {
  protected:
    void SetUp() override {
        ScreenFixture::SetUp();
        web = std::static_pointer_cast<qtbackend::QtWebView>(views().makeWebView(views().mainScreenBounds()));
        web->setScalesPageToFit(true);
        views().keyWindow()->addSubview(web);
    }
    void TearDown() override {
        web.reset();
        ScreenFixture::TearDown();
    }
    platform::URLRequest request(const std::string& path) const {
        platform::URLRequest r;
        r.url = baseURL + path;
        r.cachePolicy = platform::URLRequestCachePolicy::kReloadIgnoringLocalAndRemoteCacheData;
        r.timeoutInterval = 30;
        return r;
    }

    std::shared_ptr<qtbackend::QtWebView> web;
};

TEST_F(QtWebViewTest, APageTwiceAsWideAsTheViewFitsAtHalfZoom) {
    web->loadRequest(request("/media/wide.html"));
    ASSERT_TRUE(waitFor([&] { return web->finishedLoads() == 1; }, 30s));
    EXPECT_DOUBLE_EQ(web->scrollView().contentSize().width, 750);

    // Zoom 0.5, pinned.
    auto& scroll = web->scrollView();
    scroll.setMinimumZoomScale(0.5F);
    scroll.setMaximumZoomScale(0.5F);
    scroll.setZoomScale(0.5F);
    scroll.setZoomScale(2.0F);
    EXPECT_FLOAT_EQ(scroll.zoomScale(), 0.5F);
    EXPECT_DOUBLE_EQ(web->shownZoomFactor(), 0.5);
    pump(300ms);
    const QImage grab = grabAndSave(*views().window(), "web_view_fit_width");
    // Both halves of the 750-pixel page show side by side in 375 points.
    EXPECT_GT(countNear(grab, QRect(0, 0, 180, 190), QColor(0xc0, 0x39, 0x2b), 6), 180 * 150);
    EXPECT_GT(countNear(grab, QRect(195, 0, 180, 190), QColor(0x2c, 0x3e, 0x50), 6), 180 * 150);
}

}  // namespace
}  // namespace tovrel::qttest
