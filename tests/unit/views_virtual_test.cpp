#include "screens_fixture.h"

namespace tovrel {
namespace {

using virtualbackend::Reply;
using virtualbackend::VirtualWebView;

class VirtualViewsTest : public testing::ScreensTest {
  protected:
    std::shared_ptr<platform::View> plain() { return views.makeView({0, 0, 10, 10}); }
};

TEST_F(VirtualViewsTest, OnlyChangesInsideABlockAreRecorded) {
    const auto view = plain();
    view->setAlpha(0.5);
    views.animate({0.25, platform::AnimationCurve::kEaseIn}, [&view] {
        view->setAlpha(1.0);
        view->setFrame({1, 2, 3, 4});
    });
    ASSERT_EQ(views.animationBlocks().size(), 1u);
    const auto& changes = views.animationBlocks()[0].changes;
    ASSERT_EQ(changes.size(), 2u);
    EXPECT_EQ(changes[0].property, "alpha");
    EXPECT_EQ(std::get<platform::Rect>(changes[1].value), (platform::Rect{1, 2, 3, 4}));
    EXPECT_EQ(view->alpha(), 1.0);
}

class VirtualWebViewTest : public VirtualViewsTest, public platform::WebViewDelegate {
  protected:
    void SetUp() override {
        web = views.makeWebView({0, 0, 300, 400});
        self = std::shared_ptr<platform::WebViewDelegate>(this, [](platform::WebViewDelegate*) {});
        web->setDelegate(self);
    }
    bool webViewShouldStartLoadWithRequest(platform::WebView& /*webView*/,
                                           const platform::URLRequest& request,
                                           platform::WebNavigationType type) override {
        events.push_back("should " + request.url +
                         (type == platform::WebNavigationType::kLinkClicked ? " link" : ""));
        return allow;
    }
    void webViewDidStartLoad(platform::WebView& webView) override {
        events.push_back(webView.isLoading() ? "start" : "start idle");
    }
    void webViewDidFinishLoad(platform::WebView& webView) override {
        events.push_back(webView.isLoading() ? "finish loading" : "finish");
    }
    void webViewDidFailLoadWithError(platform::WebView& /*webView*/,
                                     const platform::WebError& error) override {
        events.push_back("fail " + error.description);
    }
    void load(const std::string& url) {
        platform::URLRequest request;
        request.url = url;
        web->loadRequest(request);
    }

    std::shared_ptr<platform::WebView> web;
    VirtualWebView& virtualWeb() { return as<VirtualWebView>(web); }
    std::shared_ptr<platform::WebViewDelegate> self;
    std::vector<std::string> events;
    bool allow = true;
};

TEST_F(VirtualWebViewTest, APageLoadsThroughTheHttpPort) {
    load("http://pages.test/a.html");
    EXPECT_TRUE(web->isLoading());
    device.loop().runUntilIdle();
    ASSERT_TRUE(device.http().respondTo("/a.html", Reply::text(200, "<p>a</p>")));
    device.loop().runUntilIdle();
    EXPECT_EQ(events, (std::vector<std::string>{"should http://pages.test/a.html", "start", "finish"}));
    EXPECT_FALSE(web->isLoading());
    EXPECT_EQ(virtualWeb().pageBody(), "<p>a</p>");
    EXPECT_EQ(web->scrollView().contentSize(), (platform::Size{300, 400}));
}

TEST_F(VirtualWebViewTest, ATransportFailureFailsTheLoad) {
    load("http://pages.test/a.html");
    ASSERT_TRUE(
        device.http().respondTo("/a.html", Reply::failure(platform::HttpErrorKind::kTimeout, "timed out")));
    device.loop().runUntilIdle();
    EXPECT_EQ(events.back(), "fail timed out");
    EXPECT_FALSE(web->isLoading());
}

TEST_F(VirtualWebViewTest, ARefusedNavigationLoadsNothing) {
    allow = false;
    virtualWeb().tapLink("http://pages.test/b.html");
    device.loop().runUntilIdle();
    EXPECT_EQ(events, std::vector<std::string>{"should http://pages.test/b.html link"});
    EXPECT_TRUE(device.http().requests().empty());
}

TEST_F(VirtualWebViewTest, ANewLoadOrAStopDropsTheOldAnswer) {
    load("http://pages.test/a.html");
    load("http://pages.test/b.html");
    device.loop().runUntilIdle();
    ASSERT_TRUE(device.http().respondTo("/a.html", Reply::text(200, "old")));
    device.loop().runUntilIdle();
    EXPECT_TRUE(web->isLoading());
    ASSERT_TRUE(device.http().respondTo("/b.html", Reply::text(200, "new")));
    device.loop().runUntilIdle();
    EXPECT_EQ(virtualWeb().pageBody(), "new");
    EXPECT_EQ(std::count(events.begin(), events.end(), "start"), 1);

    load("http://pages.test/c.html");
    web->stopLoading();
    ASSERT_TRUE(device.http().respondTo("/c.html", Reply::text(200, "late")));
    device.loop().runUntilIdle();
    EXPECT_EQ(virtualWeb().pageBody(), "new");
}

TEST_F(VirtualWebViewTest, SubframesFinishWhileThePageIsStillLoading) {
    views.setPageSubframes("http://pages.test/a.html", 1);
    views.setPageContentSize("http://pages.test/a.html", {900, 50});
    load("http://pages.test/a.html");
    device.http().respondTo("/a.html", Reply::text(200, "x"));
    device.loop().runUntilIdle();
    EXPECT_EQ(events, (std::vector<std::string>{"should http://pages.test/a.html", "start", "start",
                                                "finish loading", "finish"}));
    EXPECT_EQ(web->scrollView().contentSize(), (platform::Size{900, 50}));
}

TEST_F(VirtualViewsTest, EachPresentationIsRecordedOnceWithItsDismissal) {
    const auto view = plain();
    views.setRootPresentationContext({platform::ModalPresentationStyle::kCurrentContext, true, true});
    views.presentModalView(view, {});
    views.presentModalView(view, {});
    views.dismissModalView(view, false);
    views.dismissModalView(view, true);
    ASSERT_EQ(views.presentations().size(), 1u);
    EXPECT_TRUE(views.presentations()[0].dismissed);
    EXPECT_FALSE(views.presentations()[0].dismissedAnimated);
    EXPECT_EQ(views.presentations()[0].rootContext.modalPresentationStyle,
              platform::ModalPresentationStyle::kCurrentContext);
}

}  // namespace
}  // namespace tovrel
