#include "screens_fixture.h"
#include "tovrel/content_controller.h"

namespace tovrel {
namespace {

using virtualbackend::VirtualWebView;

constexpr const char* kBackImage = "TovrelSDKResources.bundle/icons_back.tiff";

class ContentViewerTest : public testing::ScreensTest {
  protected:
    void SetUp() override {
        content = ContentController::create(device.environment, "ContentController", "/bundle");
        content->navTitle = "About Tovrel";
        content->urlString = "http://content.test/appcontent/about.html";
    }
    void show() {
        views.presentModalView(content->view(),
                               {platform::ModalPresentationStyle::kOverCurrentContext, true, true});
        device.loop().runUntilIdle();
    }
    std::vector<std::shared_ptr<platform::Button>> backButtons() {
        std::vector<std::shared_ptr<platform::Button>> found;
        for (const auto& subview : content->view()->subviews()) {
            if (auto button = std::dynamic_pointer_cast<platform::Button>(subview);
                button && button->imageName() == kBackImage) {
                found.push_back(button);
            }
        }
        return found;
    }
    VirtualWebView& web() { return as<VirtualWebView>(content->webView()); }

    std::shared_ptr<ContentController> content;
};

TEST_F(ContentViewerTest, AppearingBuildsTheBarWithABackButton) {
    show();
    const auto bar = content->navbar();
    ASSERT_EQ(bar->items().size(), 1u);
    EXPECT_EQ(bar->topItem()->title, "About Tovrel");
    const auto buttons = backButtons();
    ASSERT_EQ(buttons.size(), 1u);
    const auto& back = buttons[0];
    EXPECT_EQ(back->frame(), (platform::Rect{375 - 90, 10, 28, 28}));
    EXPECT_EQ(back->buttonType(), platform::ButtonType::kCustom);
    EXPECT_EQ(back->backgroundColor(), platform::Color::clearColor());
    EXPECT_TRUE(back->showsTouchWhenHighlighted());
    ASSERT_TRUE(bar->topItem()->leftBarButtonItem.has_value());
    EXPECT_EQ(bar->topItem()->leftBarButtonItem->customView, back);
    EXPECT_EQ(bar->superview(), content->view());
    EXPECT_TRUE(ContentController::prefersStatusBarHidden());
}

TEST_F(ContentViewerTest, EachAppearanceAddsAnotherBackButton) {
    show();
    const auto firstItem = content->navbar()->topItem();
    content->closeMe();
    device.loop().runUntilIdle();
    show();
    const auto buttons = backButtons();
    ASSERT_EQ(buttons.size(), 2u);
    EXPECT_EQ(buttons[0]->frame(), buttons[1]->frame());
    // The bar is added again, which only brings it to the front.
    const auto subviews = content->view()->subviews();
    EXPECT_EQ(std::count(subviews.begin(), subviews.end(), content->navbar()), 1);
    EXPECT_EQ(subviews.back(), content->navbar());
    EXPECT_EQ(content->navbar()->items().size(), 1u);
    EXPECT_NE(content->navbar()->topItem(), firstItem);
    EXPECT_EQ(firstItem->leftBarButtonItem->customView, buttons[1]);
}

TEST_F(ContentViewerTest, EveryAppearanceFetchesThePageFromTheNetwork) {
    show();
    content->closeMe();
    device.loop().runUntilIdle();
    content->urlString = "http://content.test/appcontent/help.html";
    show();
    const auto& loaded = web().loadedRequests();
    ASSERT_EQ(loaded.size(), 2u);
    for (const auto& request : loaded) {
        EXPECT_EQ(request.cachePolicy,
                  platform::URLRequestCachePolicy::kReloadIgnoringLocalAndRemoteCacheData);
        EXPECT_EQ(request.timeoutInterval, 30);
    }
    EXPECT_EQ(loaded[1].url, "http://content.test/appcontent/help.html");
    EXPECT_EQ(device.http().requestsTo("/appcontent/about.html").size(), 1u);
    EXPECT_EQ(device.http().requestsTo("/appcontent/help.html").size(), 1u);
    EXPECT_EQ(web().sizeThatFitsCount(), 2);
}

TEST_F(ContentViewerTest, TheBackButtonDismissesAnimated) {
    show();
    ASSERT_TRUE(backButtons()[0]->tap());
    ASSERT_EQ(views.presentations().size(), 1u);
    EXPECT_TRUE(views.presentations()[0].dismissed);
    EXPECT_TRUE(views.presentations()[0].dismissedAnimated);
    EXPECT_TRUE(views.presentedViews().empty());
}

TEST_F(ContentViewerTest, NoAddressLeavesThePageEmpty) {
    content->urlString.clear();
    show();
    EXPECT_TRUE(device.http().requests().empty());
    EXPECT_FALSE(web().isLoading());
    EXPECT_EQ(web().pageBody(), "");
}

TEST_F(ContentViewerTest, AnUnreachablePageStaysEmptyQuietly) {
    show();
    ASSERT_TRUE(device.http().respondTo(
        "/appcontent/about.html",
        virtualbackend::Reply::failure(platform::HttpErrorKind::kTimeout, "timed out")));
    device.loop().runUntilIdle();
    EXPECT_FALSE(web().isLoading());
    EXPECT_EQ(web().pageBody(), "");
    EXPECT_TRUE(device.log().lines().empty());
}

}  // namespace
}  // namespace tovrel
