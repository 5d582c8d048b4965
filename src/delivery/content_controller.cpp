#include "tovrel/content_controller.h"

#include "tovrel/environment.h"

namespace tovrel {
namespace {

constexpr double kBarHeight = 44;

}  // namespace

std::shared_ptr<ContentController> ContentController::create(Environment& environment, std::string nibName,
                                                             std::optional<std::string> bundlePath) {
    return std::make_shared<ContentController>(Token{}, environment, std::move(nibName),
                                               std::move(bundlePath));
}

ContentController::ContentController(Token, Environment& environment, std::string nibName,
                                     std::optional<std::string> bundlePath)
    : environment_(environment), nibName_(std::move(nibName)), bundlePath_(std::move(bundlePath)) {}

platform::ViewSystem& ContentController::views() const {
    return *environment_.platform().views;
}

void ContentController::loadView() {
    auto& views = this->views();
    const platform::Rect screen = views.mainScreenBounds();
    view_ = views.makeView(screen);
    navbar_ = views.makeNavigationBar({0, 0, screen.width, kBarHeight});
    webView_ = views.makeWebView({0, kBarHeight, screen.width, screen.height - kBarHeight});
    view_->addSubview(webView_);
    view_->addSubview(navbar_);
    view_->setAppearanceHandler([weakSelf = weak_from_this()](platform::Appearance appearance) {
        if (const auto self = weakSelf.lock(); self && appearance == platform::Appearance::kDidAppear) {
            self->viewDidAppear(true);
        }
    });
}

void ContentController::viewDidAppear(bool /*animated*/) {
    auto& views = this->views();

    auto item = std::make_shared<platform::NavigationItem>();
    item->title = navTitle;

    auto backButton = views.makeButton(platform::ButtonType::kCustom, {});
    backButton->setImageName(kBackImage);
    backButton->setAction([weakSelf = weak_from_this()] {
        if (const auto self = weakSelf.lock()) {
            self->closeMe();
        }
    });
    backButton->setBackgroundColor(platform::Color::clearColor());
    backButton->setShowsTouchWhenHighlighted(true);
    backButton->setFrame({view_->frame().width - 90, 10, 28, 28});
    view_->addSubview(backButton);

    const platform::BarButtonItem barItem{backButton};
    item->leftBarButtonItem = barItem;
    if (const auto top = navbar_->topItem()) {
        top->leftBarButtonItem = barItem;
    }
    navbar_->setItems({item}, false);
    view_->addSubview(navbar_);

    platform::URLRequest request;
    request.url = urlString;
    request.cachePolicy = platform::URLRequestCachePolicy::kReloadIgnoringLocalAndRemoteCacheData;
    request.timeoutInterval = kPageTimeout;
    webView_->loadRequest(request);
    webView_->sizeThatFits({0, 0});
}

void ContentController::closeMe() {
    if (view_) {
        views().dismissModalView(view_, true);
    }
}

}  // namespace tovrel
