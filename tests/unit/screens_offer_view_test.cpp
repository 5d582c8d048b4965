#include <limits>

#include "screens_fixture.h"
#include "tovrel/offer_full_view_controller.h"

namespace tovrel {
namespace {

using platform::AnimationCurve;
using platform::View;
using virtualbackend::Reply;
using virtualbackend::VirtualWebView;

constexpr const char* kPage = "http://media.test/offer.html";
constexpr float kTop = std::numeric_limits<float>::max();

class OfferViewTest : public testing::ScreensTest {
  protected:
    std::shared_ptr<OfferFullViewController> present(nlohmann::json eventId = "12",
                                                     nlohmann::json url = kPage) {
        return presentOfferFullView(device.environment, {std::move(eventId), 77, "html", std::move(url)});
    }
    static VirtualWebView& web(const std::shared_ptr<OfferFullViewController>& controller) {
        return as<VirtualWebView>(controller->adWebView());
    }
    /// Lets the one-second timer fire and answers the page request.
    void load(const Reply& reply = Reply::text(200, "<html>offer</html>")) {
        device.loop().fastForwardBy(1.0);
        ASSERT_TRUE(device.http().respondTo("/offer.html", reply));
        device.loop().runUntilIdle();
    }
};

TEST_F(OfferViewTest, PresenterTagsRaisesAndCoversTheKeyWindow) {
    const auto offer = present();
    ASSERT_NE(offer, nullptr);
    const auto& view = offer->view();
    EXPECT_EQ(view->tag(), 12);
    EXPECT_EQ(view->zPosition(), kTop);
    EXPECT_EQ(views.keyWindow()->zPosition(), kTop);
    EXPECT_TRUE(onWindow(view));
    EXPECT_GE(as<virtualbackend::VirtualView>(view).layoutCount(), 1);
    EXPECT_EQ(offer->nibName(), "OfferFullViewController");
    EXPECT_EQ(offer->nibBundlePath(), "/virtual/Host.app/TovrelSDKResources.bundle");
    EXPECT_EQ(offer->deviceEventId, 77);
    EXPECT_EQ(offer->mediaURL, kPage);
    EXPECT_TRUE(offer->alertText.is_null());
}

TEST_F(OfferViewTest, EventIdBecomesTheTagByItsLeadingDigits) {
    EXPECT_EQ(present("12")->view()->tag(), 12);
    EXPECT_EQ(present("12abc")->view()->tag(), 12);
    EXPECT_EQ(present(34)->view()->tag(), 34);
    EXPECT_EQ(present("abc")->view()->tag(), 0);
    EXPECT_EQ(present(nullptr)->view()->tag(), 0);
}

TEST_F(OfferViewTest, AppearingShowsASpinnerOnTheWindowAndHidesTheView) {
    const auto offer = present();
    const auto spinner = offer->activityIndicator();
    ASSERT_NE(spinner, nullptr);
    EXPECT_EQ(spinner->style(), platform::ActivityIndicatorStyle::kGray);
    EXPECT_EQ(spinner->superview(), views.keyWindow());
    EXPECT_TRUE(spinner->isAnimating());
    EXPECT_TRUE(spinner->hidesWhenStopped());
    const auto frame = offer->view()->frame();
    EXPECT_EQ(spinner->frame().x + spinner->frame().width / 2, frame.width / 2);
    EXPECT_EQ(spinner->frame().y + spinner->frame().height / 2, frame.height / 2);
    EXPECT_TRUE(offer->view()->isHidden());
    EXPECT_EQ(offer->view()->backgroundColor(), platform::Color::rgb255(50, 55, 58));
    EXPECT_TRUE(offer->adWebView()->scalesPageToFit());
    EXPECT_EQ(views.orientationObserverCount(), 1u);
}

TEST_F(OfferViewTest, PageIsRequestedOneSecondAfterAppearing) {
    const auto offer = present();
    device.loop().fastForwardBy(0.999);
    EXPECT_TRUE(device.http().requests().empty());
    device.loop().fastForwardBy(0.001);
    const auto requests = device.http().requests();
    ASSERT_EQ(requests.size(), 1u);
    EXPECT_EQ(requests[0].method, "GET");
    EXPECT_EQ(requests[0].url, kPage);
    ASSERT_EQ(web(offer).loadedRequests().size(), 1u);
    EXPECT_EQ(web(offer).loadedRequests()[0].cachePolicy,
              platform::URLRequestCachePolicy::kUseProtocolCachePolicy);
    device.loop().fastForwardBy(10);
    EXPECT_EQ(device.http().requests().size(), 1u);
}

TEST_F(OfferViewTest, EveryMediaTypeShowsThePageAtItsAddress) {
    const auto video = presentOfferFullView(device.environment, {"5", 1, "video", kPage});
    const auto none = presentOfferFullView(device.environment, {"6", 1, nullptr, kPage});
    device.loop().fastForwardBy(1.0);
    ASSERT_EQ(device.http().requestsTo("/offer.html").size(), 2u);
}

TEST_F(OfferViewTest, AnAddressThatIsNotTextLoadsNothing) {
    const auto offer = present("12", 42);
    device.loop().fastForwardBy(5);
    EXPECT_TRUE(device.http().requests().empty());
    EXPECT_TRUE(offer->view()->isHidden());
    EXPECT_TRUE(offer->activityIndicator()->isAnimating());
}

TEST_F(OfferViewTest, FinishedPageAppearsAndTheSpinnerGoes) {
    const auto offer = present();
    device.loop().fastForwardBy(1.0);
    EXPECT_TRUE(offer->view()->isHidden());
    load();
    EXPECT_FALSE(offer->view()->isHidden());
    EXPECT_EQ(offer->view()->alpha(), 1.0);
    EXPECT_FALSE(offer->activityIndicator()->isAnimating());
    EXPECT_EQ(offer->activityIndicator()->superview(), nullptr);
    EXPECT_EQ(web(offer).scripts(), std::vector<std::string>{"window.scrollTo(0, 10);"});
}

TEST_F(OfferViewTest, APageTwiceTheViewWidthIsFixedAtHalfZoom) {
    const auto offer = present();
    const double width = offer->view()->frame().width;
    views.setPageContentSize(kPage, {2 * width, 3000});
    load();
    auto& scroll = web(offer).scrollView();
    EXPECT_EQ(scroll.zoomScale(), 0.5F);
    EXPECT_EQ(scroll.minimumZoomScale(), 0.5F);
    EXPECT_EQ(scroll.maximumZoomScale(), 0.5F);
    scroll.pinch(2.0F);
    EXPECT_EQ(scroll.zoomScale(), 0.5F);
    scroll.pinch(0.1F);
    EXPECT_EQ(scroll.zoomScale(), 0.5F);
}

TEST_F(OfferViewTest, FitWidthZoomIsWorkedOutInDoubleAndKeptInSingle) {
    EXPECT_EQ(OfferFullViewController::fitWidthZoomScale(375, 750), 0.5F);
    EXPECT_EQ(OfferFullViewController::fitWidthZoomScale(1, 3), static_cast<float>(1.0 / 3.0));
}

TEST_F(OfferViewTest, EntranceFadesAndBouncesTheView) {
    const auto offer = present();
    load();
    const auto& blocks = views.animationBlocks();
    ASSERT_EQ(blocks.size(), 2u);
    EXPECT_EQ(blocks[0].animation, (platform::ViewAnimation{0.3, AnimationCurve::kLinear}));
    ASSERT_EQ(blocks[0].changes.size(), 1u);
    EXPECT_EQ(blocks[0].changes[0].property, "transform");
    EXPECT_EQ(std::get<platform::Transform>(blocks[0].changes[0].value), platform::Transform::identity());
    EXPECT_EQ(blocks[0].changes[0].view.lock(), offer->view());
    EXPECT_EQ(blocks[1].animation, (platform::ViewAnimation{0.5, AnimationCurve::kLinear}));
    ASSERT_EQ(blocks[1].changes.size(), 1u);
    EXPECT_EQ(blocks[1].changes[0].property, "alpha");
    EXPECT_EQ(std::get<double>(blocks[1].changes[0].value), 1.0);

    const auto bounce = offer->view()->animationForKey("bounceAnimation");
    ASSERT_TRUE(bounce.has_value());
    EXPECT_EQ(bounce->keyPath, "position.y");
    EXPECT_EQ(bounce->duration, 0.1);
    EXPECT_EQ(bounce->fromValue, 0);
    EXPECT_EQ(bounce->toValue, 20);
    EXPECT_EQ(bounce->repeatCount, 2.0F);
    EXPECT_TRUE(bounce->autoreverses);
    EXPECT_TRUE(bounce->additive);
    EXPECT_EQ(bounce->fillMode, platform::FillMode::kForwards);
    EXPECT_FALSE(bounce->removedOnCompletion);
}

TEST_F(OfferViewTest, SubframesFinishingEarlyAreIgnored) {
    views.setPageSubframes(kPage, 2);
    const auto offer = present();
    load();
    EXPECT_EQ(views.animationBlocks().size(), 2u);
    EXPECT_EQ(web(offer).scripts().size(), 3u);
    EXPECT_FALSE(offer->view()->isHidden());
}

TEST_F(OfferViewTest, NavigatingInsideTheViewRunsScrollZoomAndEntranceAgain) {
    const auto offer = present();
    load();
    const int fitsBefore = web(offer).sizeThatFitsCount();
    views.setPageContentSize("http://media.test/next.html", {4 * offer->view()->frame().width, 100});
    web(offer).tapLink("http://media.test/next.html");
    EXPECT_EQ(web(offer).sizeThatFitsCount(), fitsBefore + 1);
    device.loop().runUntilIdle();
    ASSERT_TRUE(device.http().respondTo("/next.html", Reply::text(200, "<html>next</html>")));
    device.loop().runUntilIdle();
    EXPECT_EQ(web(offer).scripts().size(), 2u);
    EXPECT_EQ(views.animationBlocks().size(), 4u);
    EXPECT_EQ(web(offer).scrollView().zoomScale(), 0.25F);
    EXPECT_EQ(web(offer).pageBody(), "<html>next</html>");
}

TEST_F(OfferViewTest, AFailedLoadKeepsTheViewHiddenAndTheSpinnerTurningUntilRelease) {
    auto offer = present();
    load(Reply::failure(platform::HttpErrorKind::kTransport, "connection refused"));
    EXPECT_TRUE(offer->view()->isHidden());
    const auto spinner = offer->activityIndicator();
    EXPECT_TRUE(spinner->isAnimating());
    EXPECT_TRUE(onWindow(spinner));
    const auto view = offer->view();
    const auto webView = offer->adWebView();
    offer.reset();
    EXPECT_FALSE(spinner->isAnimating());
    EXPECT_FALSE(onWindow(spinner));
    EXPECT_TRUE(onWindow(view));
    EXPECT_EQ(as<VirtualWebView>(webView).delegate(), nullptr);
}

TEST_F(OfferViewTest, AnErrorPageStillCountsAsLoaded) {
    const auto offer = present();
    load(Reply::text(404, "not found"));
    EXPECT_FALSE(offer->view()->isHidden());
}

TEST_F(OfferViewTest, ReleasingBeforeTheLoadStopsIt) {
    auto offer = present();
    device.loop().fastForwardBy(1.0);
    const std::shared_ptr<View> webView = offer->adWebView();
    offer.reset();
    EXPECT_FALSE(as<VirtualWebView>(webView).isLoading());
    EXPECT_TRUE(device.http().respondTo("/offer.html", Reply::text(200, "late")));
    device.loop().runUntilIdle();
    EXPECT_EQ(as<VirtualWebView>(webView).pageBody(), "");
}

TEST_F(OfferViewTest, OneCloseRemovesEveryPositivelyTaggedView) {
    const auto first = present("12");
    const auto second = present("13");
    const auto untagged = present("abc");
    const auto hostBadge = views.makeView({});
    hostBadge->setTag(5);
    const auto hostPlain = views.makeView({});
    views.keyWindow()->addSubview(hostBadge);
    views.keyWindow()->addSubview(hostPlain);

    ASSERT_TRUE(as<platform::Button>(second->closeButton()).tap());
    EXPECT_FALSE(onWindow(first->view()));
    EXPECT_FALSE(onWindow(second->view()));
    EXPECT_FALSE(onWindow(hostBadge));
    EXPECT_TRUE(onWindow(untagged->view()));
    EXPECT_TRUE(onWindow(hostPlain));
    EXPECT_TRUE(onWindow(first->activityIndicator()));
}

TEST_F(OfferViewTest, TheCloseButtonOfAReplacedControllerStillCloses) {
    auto first = present("12");
    const auto firstView = first->view();
    const std::shared_ptr<View> button = first->closeButton();
    device.loop().fastForwardBy(1.0);
    first = present("13");
    ASSERT_TRUE(as<platform::Button>(button).tap());
    EXPECT_FALSE(onWindow(firstView));
    EXPECT_FALSE(onWindow(first->view()));
}

TEST_F(OfferViewTest, RotationKeepsTheViewBelowTheStatusBar) {
    const auto offer = present();
    EXPECT_EQ(offer->view()->frame(), (platform::Rect{0, 22, 375, 645}));
    const int constraintsBefore = as<virtualbackend::VirtualView>(offer->view()).updateConstraintsCount();
    views.rotate(platform::DeviceOrientation::kLandscapeLeft);
    EXPECT_EQ(offer->view()->frame(), (platform::Rect{0, 22, 667, 353}));
    EXPECT_EQ(as<virtualbackend::VirtualView>(offer->view()).updateConstraintsCount(), constraintsBefore + 1);
    views.rotate(platform::DeviceOrientation::kPortraitUpsideDown);
    EXPECT_EQ(offer->view()->frame(), (platform::Rect{0, 22, 375, 645}));
    views.setStatusBarHidden(true);
    views.rotate(platform::DeviceOrientation::kLandscapeRight);
    EXPECT_EQ(offer->view()->frame(), (platform::Rect{0, 0, 667, 375}));
}

TEST_F(OfferViewTest, FaceUpLeavesTheLayoutAlone) {
    const auto offer = present();
    const auto& view = as<virtualbackend::VirtualView>(offer->view());
    const int constraintsBefore = view.updateConstraintsCount();
    views.setStatusBarHidden(true);
    views.rotate(platform::DeviceOrientation::kFaceUp);
    // The interface keeps its portrait orientation, so the frame is laid out again for it.
    EXPECT_EQ(offer->view()->frame(), (platform::Rect{0, 0, 375, 667}));
    EXPECT_EQ(view.updateConstraintsCount(), constraintsBefore + 1);
    offer->adjustViewsForOrientation(platform::InterfaceOrientation::kUnknown);
    offer->adjustViewsForOrientation(static_cast<platform::InterfaceOrientation>(9));
    EXPECT_EQ(view.updateConstraintsCount(), constraintsBefore + 1);
}

TEST_F(OfferViewTest, LoadingInLandscapeUpdatesConstraints) {
    views.rotate(platform::DeviceOrientation::kLandscapeRight);
    const auto offer = present();
    EXPECT_EQ(offer->view()->frame(), (platform::Rect{0, 22, 667, 353}));
    EXPECT_GE(as<virtualbackend::VirtualView>(offer->view()).updateConstraintsCount(), 1);
}

TEST_F(OfferViewTest, StatusBarRule) {
    const platform::Rect screen{0, 0, 414, 896};
    EXPECT_EQ(OfferFullViewController::frameForStatusBar(false, screen), (platform::Rect{0, 22, 414, 874}));
    EXPECT_EQ(OfferFullViewController::frameForStatusBar(true, screen), (platform::Rect{0, 0, 414, 896}));
}

TEST_F(OfferViewTest, OfferRecordFieldsUseTheMediaUrlSpelling) {
    const auto content = OfferViewContent::fromOfferRecord({{"eventId", "9"},
                                                            {"deviceEventId", 3},
                                                            {"mediaType", "html"},
                                                            {"mediaUrl", kPage},
                                                            {"mediaURL", "other"}});
    EXPECT_EQ(content.eventId, "9");
    EXPECT_EQ(content.deviceEventId, 3);
    EXPECT_EQ(content.mediaURL, kPage);
    EXPECT_TRUE(OfferViewContent::fromOfferRecord(nlohmann::json::array()).mediaURL.is_null());
}

TEST_F(OfferViewTest, NoViewsMeansNoOfferView) {
    auto bare = device.vp.platform();
    bare.views = nullptr;
    Environment headless(bare, Configuration{"http://service.test", "http://content.test"});
    EXPECT_EQ(presentOfferFullView(headless, {"1", 1, "html", kPage}), nullptr);
}

}  // namespace
}  // namespace tovrel
