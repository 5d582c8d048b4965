#include <gtest/gtest.h>

#include <algorithm>

#include "view_backends.h"

namespace tovrel::viewtest {
namespace {

using platform::WebNavigationType;

/// An address where nothing answers.
constexpr const char* kNowhere = "http://127.0.0.1:1/missing.html";

/// Keeps what a web view told it, and refuses navigations to addresses holding `refuse`.
class RecordingWebDelegate final : public platform::WebViewDelegate {
  public:
    std::vector<std::pair<std::string, WebNavigationType>> asked;
    std::vector<std::string> events;
    std::string refuse;

    bool webViewShouldStartLoadWithRequest(platform::WebView& /*web*/, const platform::URLRequest& request,
                                           WebNavigationType type) override {
        asked.emplace_back(request.url, type);
        return refuse.empty() || request.url.find(refuse) == std::string::npos;
    }
    void webViewDidStartLoad(platform::WebView& /*web*/) override { events.emplace_back("start"); }
    void webViewDidFinishLoad(platform::WebView& web) override {
        events.emplace_back(web.isLoading() ? "finish (loading)" : "finish");
    }
    void webViewDidFailLoadWithError(platform::WebView& /*web*/,
                                     const platform::WebError& /*error*/) override {
        events.emplace_back("fail");
    }
    [[nodiscard]] long finishes() const { return std::count(events.begin(), events.end(), "finish"); }
};

template <class Kind>
class WebViewConformanceTest : public ::testing::Test {
  protected:
    void SetUp() override {
        web->setDelegate(delegate);
        views.keyWindow()->addSubview(web);
    }
    [[nodiscard]] static platform::URLRequest request(const std::string& url) {
        platform::URLRequest made;
        made.url = url;
        made.cachePolicy = platform::URLRequestCachePolicy::kReloadIgnoringLocalAndRemoteCacheData;
        return made;
    }
    bool loaded() {
        return backend->turnUntil([this] { return !web->isLoading(); });
    }

    std::unique_ptr<Backend> backend = Kind::make();
    platform::ViewSystem& views = backend->views();
    std::shared_ptr<platform::WebView> web = views.makeWebView(views.mainScreenBounds());
    std::shared_ptr<RecordingWebDelegate> delegate = std::make_shared<RecordingWebDelegate>();
};

TYPED_TEST_SUITE(WebViewConformanceTest, BackendKinds);

TYPED_TEST(WebViewConformanceTest, ALoadIsAskedForStartsLaterAndFinishesOnceAndAnEndedLoadReportsNothing) {
    const std::string wide = this->backend->pageAddress("wide.html");
    const std::string plain = this->backend->pageAddress("offer-qt.html");
    // The first load is replaced before it reports anything.
    this->web->loadRequest(this->request(plain));
    this->web->loadRequest(this->request(wide));
    EXPECT_TRUE(this->web->isLoading());
    EXPECT_TRUE(this->delegate->events.empty());
    ASSERT_TRUE(this->loaded());
    EXPECT_EQ(this->delegate->asked,
              (std::vector<std::pair<std::string, WebNavigationType>>{{plain, WebNavigationType::kOther},
                                                                      {wide, WebNavigationType::kOther}}));
    EXPECT_EQ(this->delegate->events, (std::vector<std::string>{"start", "finish"}));
    EXPECT_DOUBLE_EQ(this->web->scrollView().contentSize().width, 750);

    this->web->loadRequest(this->request(kNowhere));
    ASSERT_TRUE(this->loaded());
    EXPECT_EQ(this->delegate->events.back(), "fail");

    // A stopped load and an empty address report nothing, even once the next load is under way.
    auto heard = this->delegate->events;
    this->web->loadRequest(this->request(plain));
    this->web->stopLoading();
    EXPECT_FALSE(this->web->isLoading());
    this->web->loadRequest({});
    EXPECT_FALSE(this->web->isLoading());
    this->backend->turn();
    EXPECT_EQ(this->delegate->events, heard);
    this->web->loadRequest(this->request(wide));
    ASSERT_TRUE(this->loaded());
    heard.insert(heard.end(), {"start", "finish"});
    EXPECT_EQ(this->delegate->events, heard);
    EXPECT_EQ(this->delegate->asked.size(), 6U);
}

TYPED_TEST(WebViewConformanceTest, ALinkTapIsPutToTheDelegateAndARefusalKeepsThePage) {
    const std::string next = this->backend->pageAddress("wide.html");
    this->web->loadRequest(this->request(this->backend->pageAddress("offer-qt.html")));
    ASSERT_TRUE(this->loaded());
    this->delegate->refuse = "wide";
    this->backend->tapLink(*this->web, next);
    ASSERT_TRUE(this->backend->turnUntil([this] { return this->delegate->asked.size() == 2; }));
    EXPECT_EQ(this->delegate->asked[1], std::make_pair(next, WebNavigationType::kLinkClicked));
    EXPECT_FALSE(this->web->isLoading());

    this->delegate->refuse.clear();
    this->backend->tapLink(*this->web, next);
    ASSERT_TRUE(this->backend->turnUntil([this] { return this->delegate->finishes() == 2; }));
    EXPECT_EQ(this->delegate->events, (std::vector<std::string>{"start", "finish", "start", "finish"}));
    EXPECT_DOUBLE_EQ(this->web->scrollView().contentSize().width, 750);
}

}  // namespace
}  // namespace tovrel::viewtest
