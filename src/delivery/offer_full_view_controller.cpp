#include "tovrel/offer_full_view_controller.h"

#include "foundation/value.h"
#include "tovrel/environment.h"
#include "tovrel/platform/thread_check.h"

namespace tovrel {
namespace {

constexpr const char* kResourceBundleName = "TovrelSDKResources";
constexpr double kStatusBarHeight = 22;
constexpr const char* kScrollScript = "window.scrollTo(0, 10);";
constexpr platform::Color kDarkGrey = platform::Color::rgb255(50, 55, 58);

std::string urlText(const nlohmann::json& value) {
    return value.is_string() ? value.get<std::string>() : std::string();
}

}  // namespace

std::shared_ptr<OfferFullViewController> OfferFullViewController::create(
    Environment& environment, std::string nibName, std::optional<std::string> bundlePath) {
    return std::make_shared<OfferFullViewController>(Token{}, environment, std::move(nibName),
                                                     std::move(bundlePath));
}

OfferFullViewController::OfferFullViewController(Token, Environment& environment, std::string nibName,
                                                 std::optional<std::string> bundlePath)
    : environment_(environment), nibName_(std::move(nibName)), bundlePath_(std::move(bundlePath)) {}

OfferFullViewController::~OfferFullViewController() {
    if (adWebView_) {
        adWebView_->setDelegate({});
        adWebView_->stopLoading();
    }
    if (activityIndicator_) {
        activityIndicator_->stopAnimating();
        activityIndicator_->removeFromSuperview();
    }
}

platform::ViewSystem& OfferFullViewController::views() const {
    return *environment_.platform().views;
}

void OfferFullViewController::loadView() {
    auto& views = this->views();
    const platform::Rect screen = views.mainScreenBounds();
    view_ = views.makeView(screen);
    adWebView_ = views.makeWebView({0, 0, screen.width, screen.height});
    closeButton_ = views.makeButton(platform::ButtonType::kCustom, {screen.width - 44, 0, 44, 44});
    closeButton_->setTitle("X");
    closeButton_->setTitleColor(platform::Color::whiteColor());
    closeButton_->setAction([weakSelf = weak_from_this(),
                             weakViews = std::weak_ptr<platform::ViewSystem>(environment_.platform().views)] {
        if (const auto self = weakSelf.lock()) {
            self->closeMe();
        } else if (const auto system = weakViews.lock()) {
            // A newer offer has replaced this controller; its view on screen still closes.
            closeOfferViews(*system);
        }
    });
    view_->addSubview(adWebView_);
    view_->addSubview(closeButton_);
    view_->setAppearanceHandler([weakSelf = weak_from_this()](platform::Appearance appearance) {
        const auto self = weakSelf.lock();
        if (!self) {
            return;
        }
        if (appearance == platform::Appearance::kWillAppear) {
            self->viewWillAppear(true);
        } else if (appearance == platform::Appearance::kDidAppear) {
            self->viewDidAppear(true);
        }
    });
}

void OfferFullViewController::viewDidLoad() {
    const auto orientation = views().deviceOrientation();
    if (orientation == platform::DeviceOrientation::kLandscapeLeft ||
        orientation == platform::DeviceOrientation::kLandscapeRight) {
        view_->updateConstraints();
    }
    setFrameByStatusBar();
}

platform::Rect OfferFullViewController::frameForStatusBar(bool statusBarHidden,
                                                          const platform::Rect& screen) {
    if (statusBarHidden) {
        return {0, 0, screen.width, screen.height};
    }
    return {0, kStatusBarHeight, screen.width, screen.height - kStatusBarHeight};
}

void OfferFullViewController::setFrameByStatusBar() {
    view_->setFrame(frameForStatusBar(views().isStatusBarHidden(), views().mainScreenBounds()));
}

void OfferFullViewController::viewWillAppear(bool /*animated*/) {
    auto& views = this->views();
    const auto& platform = environment_.platform();

    activityIndicator_ = views.makeActivityIndicator(platform::ActivityIndicatorStyle::kGray);
    if (const auto window = views.keyWindow()) {
        window->addSubview(activityIndicator_);
    }
    const platform::Rect frame = view_->frame();
    activityIndicator_->setCenter({frame.width / 2, frame.height / 2});
    activityIndicator_->setHidesWhenStopped(true);
    activityIndicator_->startAnimating();

    views.addDeviceOrientationObserver([weakSelf = weak_from_this()] {
        if (const auto self = weakSelf.lock()) {
            self->orientationChanged();
        }
    });

    prefs_ = platform.preferences;

    view_->setBackgroundColor(kDarkGrey);
    adWebView_->setScalesPageToFit(true);
    adWebView_->setDelegate(weak_from_this());

    platform::URLRequest request;
    request.url = urlText(mediaURL);
    // The timer keeps the controller alive until it has fired, whoever else lets go of it.
    platform.mainLoop->scheduleTimer(
        1.0, false, [self = shared_from_this(), request] { self->adWebView_->loadRequest(request); });
    view_->setHidden(true);
}

void OfferFullViewController::viewDidAppear(bool /*animated*/) {}

void OfferFullViewController::orientationChanged() {
    adjustViewsForOrientation(views().statusBarOrientation());
}

void OfferFullViewController::adjustViewsForOrientation(platform::InterfaceOrientation orientation) {
    switch (orientation) {
        case platform::InterfaceOrientation::kLandscapeLeft:
        case platform::InterfaceOrientation::kLandscapeRight:
        case platform::InterfaceOrientation::kPortrait:
        case platform::InterfaceOrientation::kPortraitUpsideDown: {
            const platform::Rect frame = view_->frame();
            if (activityIndicator_) {
                activityIndicator_->setCenter({frame.width / 2, frame.height / 2});
            }
            setFrameByStatusBar();
            view_->updateConstraints();
            break;
        }
        default:
            break;
    }
}

bool OfferFullViewController::webViewShouldStartLoadWithRequest(platform::WebView& webView,
                                                                const platform::URLRequest& /*request*/,
                                                                platform::WebNavigationType /*type*/) {
    webView.sizeThatFits({0, 0});
    return true;
}

void OfferFullViewController::webViewDidStartLoad(platform::WebView& webView) {
    webView.evaluateJavaScript(kScrollScript);
}

float OfferFullViewController::fitWidthZoomScale(double viewWidth, double contentWidth) {
    return static_cast<float>(viewWidth / contentWidth);
}

platform::BasicAnimation OfferFullViewController::bounceAnimation() {
    platform::BasicAnimation bounce;
    bounce.keyPath = "position.y";
    bounce.duration = 0.1;
    bounce.fromValue = 0;
    bounce.toValue = 20;
    bounce.repeatCount = 2;
    bounce.autoreverses = true;
    bounce.additive = true;
    bounce.fillMode = platform::FillMode::kForwards;
    bounce.removedOnCompletion = false;
    return bounce;
}

void OfferFullViewController::webViewDidFinishLoad(platform::WebView& webView) {
    if (webView.isLoading()) {
        return;
    }
    auto& scrollView = webView.scrollView();
    const float scale = fitWidthZoomScale(view_->bounds().width, scrollView.contentSize().width);
    scrollView.setMinimumZoomScale(scale);
    scrollView.setMaximumZoomScale(scale);
    scrollView.setZoomScale(scale);

    view_->setHidden(false);
    view_->setAlpha(0.1);
    auto& views = this->views();
    views.animate({0.3, platform::AnimationCurve::kLinear},
                  [this] { view_->setTransform(platform::Transform::translation(0, 0)); });
    view_->addAnimation("bounceAnimation", bounceAnimation());
    views.animate({0.5, platform::AnimationCurve::kLinear}, [this] { view_->setAlpha(1.0); });

    if (activityIndicator_) {
        activityIndicator_->stopAnimating();
        activityIndicator_->removeFromSuperview();
    }
}

void OfferFullViewController::closeMe() {
    closeOfferViews(views());
}

void OfferFullViewController::closeOfferViews(platform::ViewSystem& views) {
    const auto window = views.keyWindow();
    if (!window) {
        return;
    }
    for (const auto& subview : window->subviews()) {
        if (subview->tag() > 0) {
            subview->removeFromSuperview();
        }
    }
}

OfferViewContent OfferViewContent::fromOfferRecord(const nlohmann::json& element) {
    return {memberOrNull(element, "eventId"), memberOrNull(element, "deviceEventId"),
            memberOrNull(element, "mediaType"), memberOrNull(element, "mediaUrl")};
}

std::shared_ptr<OfferFullViewController> presentOfferFullView(Environment& environment,
                                                              const OfferViewContent& content) {
    TOVREL_ASSERT_MAIN_THREAD(*environment.platform().mainLoop);
    const auto& views = environment.platform().views;
    if (!views) {
        return nullptr;
    }
    auto controller = OfferFullViewController::create(environment, OfferFullViewController::kNibName,
                                                      views->pathForResource(kResourceBundleName, "bundle"));
    controller->view()->layoutSubviews();
    controller->eventId = content.eventId;
    controller->deviceEventId = content.deviceEventId;
    controller->mediaType = content.mediaType;
    controller->mediaURL = content.mediaURL;

    const auto& view = controller->view();
    view->setTag(static_cast<long>(integerValue(content.eventId)));
    view->setZPosition(platform::kTopmostZPosition);
    if (const auto window = views->keyWindow()) {
        window->addSubview(view);
        window->setZPosition(platform::kTopmostZPosition);
    }
    return controller;
}

}  // namespace tovrel
