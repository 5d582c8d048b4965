#include "qt_test_support.h"
#include "screen_fixture.h"

namespace tovrel::qttest {
namespace {

using namespace std::chrono_literals;

/// Keeps what a web view told it, and refuses navigations to addresses holding `refuse`.
class RecordingWebDelegate final : public platform::WebViewDelegate {
  public:
    std::vector<std::pair<std::string, platform::WebNavigationType>> asked;
    std::vector<std::string> events;
    std::string refuse;
    bool webViewShouldStartLoadWithRequest(platform::WebView& /*web*/, const platform::URLRequest& request,
                                           platform::WebNavigationType type) override {
        asked.emplace_back(request.url, type);
        return refuse.empty() || request.url.find(refuse) == std::string::npos;
    }
    void webViewDidStartLoad(platform::WebView& /*web*/) override { events.push_back("start"); }
    void webViewDidFinishLoad(platform::WebView& web) override {
        events.push_back(web.isLoading() ? "finish (loading)" : "finish");
    }
    void webViewDidFailLoadWithError(platform::WebView& /*web*/,
                                     const platform::WebError& /*error*/) override {
        events.push_back("fail");
    }
};

class QtWebViewTest : public ScreenFixture {
  protected:
    void SetUp() override {
        ScreenFixture::SetUp();
        web = std::static_pointer_cast<qtbackend::QtWebView>(views().makeWebView(views().mainScreenBounds()));
        web->setDelegate(delegate);
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

    std::shared_ptr<RecordingWebDelegate> delegate = std::make_shared<RecordingWebDelegate>();
    std::shared_ptr<qtbackend::QtWebView> web;
};

TEST_F(QtWebViewTest, ALoadIsAskedForThenStartsAndFinishesOnceWithThePageSize) {
    web->loadRequest(request("/media/wide.html"));
    EXPECT_TRUE(web->isLoading());
    ASSERT_TRUE(waitFor([&] { return web->finishedLoads() == 1; }, 30s));
    ASSERT_EQ(delegate->asked.size(), 1U);
    EXPECT_EQ(delegate->asked[0].second, platform::WebNavigationType::kOther);
    EXPECT_EQ(delegate->events, (std::vector<std::string>{"start", "finish"}));
    EXPECT_DOUBLE_EQ(web->scrollView().contentSize().width, 750);

    // Fitting a page twice as wide as the view: zoom 0.5, pinned.
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

TEST_F(QtWebViewTest, ALinkTapIsPutToTheDelegateAndARefusalKeepsThePage) {
    web->loadRequest(request("/media/link.html"));
    ASSERT_TRUE(waitFor([&] { return web->finishedLoads() == 1; }, 30s));
    delegate->refuse = "offer-qt";
    web->evaluateJavaScript("document.getElementById('next').click();");
    ASSERT_TRUE(waitFor([&] { return delegate->asked.size() == 2; }, 10s));
    EXPECT_EQ(delegate->asked[1].second, platform::WebNavigationType::kLinkClicked);
    pump(300ms);
    EXPECT_EQ(web->currentURL(), baseURL + "/media/link.html");
    EXPECT_FALSE(web->isLoading());

    delegate->refuse.clear();
    web->evaluateJavaScript("document.getElementById('next').click();");
    ASSERT_TRUE(waitFor([&] { return web->finishedLoads() == 2; }, 30s));
    EXPECT_EQ(web->currentURL(), baseURL + "/media/offer-qt.html");
}

TEST_F(QtWebViewTest, AMissingServerFailsTheLoadAndAStoppedLoadReportsNothing) {
    server->stop();
    web->loadRequest(request("/media/offer-qt.html"));
    ASSERT_TRUE(waitFor([&] { return web->failedLoads() == 1; }, 30s));
    EXPECT_FALSE(web->isLoading());
    EXPECT_EQ(delegate->events.back(), "fail");

    const auto before = delegate->events.size();
    web->loadRequest(request("/media/offer-qt.html"));
    web->stopLoading();
    pump(500ms);
    EXPECT_EQ(delegate->events.size(), before);
    EXPECT_EQ(web->failedLoads(), 1);
}

}  // namespace
}  // namespace tovrel::qttest
