#include "tovrel/virtual/virtual_views.h"

#include <algorithm>

#include "tovrel/platform/view_renderer.h"
#include "tovrel/virtual/virtual_platform.h"

namespace tovrel::virtualbackend {

using platform::Appearance;

/// What a ViewSystem shares with its views, and the renderer that shows them: it records the
/// properties set inside animation blocks. Only weak references point back out, so a view held by a
/// posted task or a timer never keeps the loop, the client or the system alive.
struct ViewContext final : platform::ViewRenderer {
    std::weak_ptr<platform::MainLoop> loop;
    std::weak_ptr<platform::HttpClient> http;
    std::weak_ptr<platform::View> keyWindow;
    std::vector<std::weak_ptr<platform::View>> presented;
    std::vector<AnimationBlock> blocks;
    std::vector<std::size_t> openBlocks;
    std::map<std::string, platform::Size> contentSizes;
    std::map<std::string, int> subframes;

    [[nodiscard]] bool isKeyWindow(const platform::View& view) const override {
        return &view == keyWindow.lock().get();
    }
    [[nodiscard]] bool isPresented(const platform::View& view) const override {
        return std::any_of(presented.begin(), presented.end(),
                           [&view](const auto& weak) { return weak.lock().get() == &view; });
    }
    void postLater(platform::Task task) const override {
        if (auto mainLoop = loop.lock()) {
            mainLoop->post(std::move(task));
        }
    }
    void viewChanged(platform::View& view, platform::ViewProperty property) override {
        using platform::ViewProperty;
        if (openBlocks.empty()) {
            return;
        }
        auto& changes = blocks[openBlocks.back()].changes;
        switch (property) {
            case ViewProperty::kHidden:
                changes.push_back({view.weak_from_this(), "hidden", view.isHidden()});
                break;
            case ViewProperty::kAlpha:
                changes.push_back({view.weak_from_this(), "alpha", view.alpha()});
                break;
            case ViewProperty::kFrame:
                changes.push_back({view.weak_from_this(), "frame", view.frame()});
                break;
            case ViewProperty::kTransform:
                changes.push_back({view.weak_from_this(), "transform", view.transform()});
                break;
            default:
                break;
        }
    }
    void subviewAdded(platform::View& /*parent*/, platform::View& /*child*/, bool /*moved*/) override {}
    void viewDetached(platform::View& /*view*/) override {}
    void animationAdded(platform::View& /*view*/, const platform::BasicAnimation& /*animation*/) override {}
    void loadPage(platform::WebView& view, const platform::URLRequest& request) override {
        if (auto* web = dynamic_cast<VirtualWebView*>(&view)) {
            web->requests_.push_back(request);
            web->send(request);
        }
    }
    void stopPage(platform::WebView& /*view*/) override {}
    void runScript(platform::WebView& view, const std::string& script) override {
        if (auto* web = dynamic_cast<VirtualWebView*>(&view)) {
            web->scripts_.push_back(script);
        }
    }
};

VirtualView::VirtualView(const std::shared_ptr<ViewContext>& context, const platform::Rect& frame)
    : View(context, frame) {}

// ---- Scroll and web views ----

VirtualWebView::VirtualWebView(const std::shared_ptr<ViewContext>& context, const platform::Rect& frame)
    : WebView(context, frame), context_(context) {}

void VirtualWebView::tapLink(const std::string& url) {
    platform::URLRequest request;
    request.url = url;
    if (navigationRequested(request, platform::WebNavigationType::kLinkClicked)) {
        send(request);
    }
}

void VirtualWebView::send(const platform::URLRequest& request) {
    pageStarted();
    const auto http = context_->http.lock();
    if (!http) {
        return;
    }
    platform::HttpRequest httpRequest;
    httpRequest.method = "GET";
    httpRequest.url = request.url;
    httpRequest.timeoutSeconds = request.timeoutInterval;
    httpRequest.ignoreCache =
        request.cachePolicy == platform::URLRequestCachePolicy::kReloadIgnoringLocalCacheData ||
        request.cachePolicy == platform::URLRequestCachePolicy::kReloadIgnoringLocalAndRemoteCacheData;
    http->send(std::move(httpRequest), [weak = weak_from_this(), generation = loadGeneration(),
                                        request](platform::HttpResponse response) {
        if (const auto view = std::static_pointer_cast<VirtualWebView>(weak.lock())) {
            view->answer(generation, request, response);
        }
    });
}

void VirtualWebView::answer(std::uint64_t generation, const platform::URLRequest& request,
                            const platform::HttpResponse& response) {
    if (generation != loadGeneration() || !isLoading()) {
        return;
    }
    if (response.error) {
        pageFailed(generation, {response.error->code, response.error->localizedDescription});
        return;
    }
    body_ = response.body;
    const auto keepAlive = shared_from_this();
    const auto frames = context_->subframes.find(request.url);
    const int subframes = frames == context_->subframes.end() ? 0 : frames->second;
    for (int i = 0; i < subframes; ++i) {
        frameStarted(generation);
        frameFinished(generation);
    }
    const auto size = context_->contentSizes.find(request.url);
    pageFinished(generation, size != context_->contentSizes.end() ? size->second : platform::Size{});
}

// ---- Map ----

VirtualMapView::VirtualMapView(const std::shared_ptr<ViewContext>& context, const platform::Rect& frame)
    : MapView(context, frame), context_(context), userLocation_(std::make_shared<platform::UserLocation>()) {
    userLocation_->coordinate = {-180, -180};
}

std::vector<std::shared_ptr<platform::Annotation>> VirtualMapView::annotations() const {
    std::vector<std::shared_ptr<platform::Annotation>> all;
    if (showsUserLocation_ && userLocation_->location) {
        all.push_back(userLocation_);
    }
    for (const auto& pinned : pinned_) {
        all.push_back(pinned.annotation);
    }
    return all;
}

void VirtualMapView::addAnnotation(std::shared_ptr<platform::Annotation> annotation) {
    const auto same = [&annotation](const Pinned& p) { return p.annotation == annotation; };
    if (!annotation || std::any_of(pinned_.begin(), pinned_.end(), same)) {
        return;
    }
    pinned_.push_back({annotation, nullptr});
    std::shared_ptr<platform::AnnotationView> view;
    if (auto delegate = delegate_.lock()) {
        view = delegate->mapViewViewForAnnotation(*this, annotation);
    }
    if (!view) {
        // The platform's own pin, which nothing reuses.
        view = std::make_shared<platform::AnnotationView>(context_, annotation, "");
    }
    const auto it = std::find_if(pinned_.begin(), pinned_.end(), same);
    if (it != pinned_.end()) {
        it->view = std::move(view);
    }
}

void VirtualMapView::removeAnnotations(
    const std::vector<std::shared_ptr<platform::Annotation>>& annotations) {
    for (const auto& annotation : annotations) {
        const auto it = std::find_if(pinned_.begin(), pinned_.end(),
                                     [&annotation](const Pinned& p) { return p.annotation == annotation; });
        if (it == pinned_.end()) {
            continue;
        }
        if (it->view && !it->view->reuseIdentifier().empty()) {
            reusable_.put(it->view->reuseIdentifier(), it->view);
        }
        pinned_.erase(it);
        selected_.erase(std::remove(selected_.begin(), selected_.end(), annotation), selected_.end());
    }
}

std::vector<std::shared_ptr<platform::Overlay>> VirtualMapView::overlays() const {
    std::vector<std::shared_ptr<platform::Overlay>> all;
    for (const auto& drawn : drawn_) {
        all.push_back(drawn.overlay);
    }
    return all;
}

void VirtualMapView::addOverlay(std::shared_ptr<platform::Overlay> overlay) {
    if (!overlay) {
        return;
    }
    platform::OverlayView view;
    if (auto delegate = delegate_.lock()) {
        view = delegate->mapViewViewForOverlay(*this, overlay);
    }
    drawn_.push_back({std::move(overlay), view});
}

void VirtualMapView::removeOverlays(const std::vector<std::shared_ptr<platform::Overlay>>& overlays) {
    for (const auto& overlay : overlays) {
        drawn_.erase(std::remove_if(drawn_.begin(), drawn_.end(),
                                    [&overlay](const Drawn& d) { return d.overlay == overlay; }),
                     drawn_.end());
    }
}

std::shared_ptr<platform::AnnotationView> VirtualMapView::dequeueReusableAnnotationViewWithIdentifier(
    const std::string& identifier) {
    auto view = reusable_.take(identifier);
    dequeued_.push_back(view);
    return view;
}

void VirtualMapView::deselectAnnotation(const std::shared_ptr<platform::Annotation>& annotation,
                                        bool animated) {
    deselections_.push_back({annotation, animated});
    selected_.erase(std::remove(selected_.begin(), selected_.end(), annotation), selected_.end());
}

void VirtualMapView::setRegion(const platform::CoordinateRegion& region, bool animated) {
    region_ = region;
    regionChanges_.push_back({region, animated});
}

void VirtualMapView::setVisibleMapRect(const platform::MapRect& rect, const platform::EdgeInsets& padding,
                                       bool animated) {
    visibleRect_ = rect;
    visibleRectChanges_.push_back({rect, padding, animated});
}

void VirtualMapView::deliverUserLocation(const platform::Location& location) {
    userLocation_->location = location;
    userLocation_->coordinate = location.coordinate;
    userLocation_->updating = true;
    if (!showsUserLocation_) {
        return;
    }
    if (auto delegate = delegate_.lock()) {
        delegate->mapViewDidUpdateUserLocation(*this, *userLocation_);
    }
}

void VirtualMapView::selectAnnotation(const std::shared_ptr<platform::Annotation>& annotation) {
    if (std::find(selected_.begin(), selected_.end(), annotation) == selected_.end()) {
        selected_.push_back(annotation);
    }
}

bool VirtualMapView::tapCalloutAccessory(const std::shared_ptr<platform::Annotation>& annotation,
                                         bool right) {
    const auto view = viewForAnnotation(annotation);
    if (!view) {
        return false;
    }
    const auto control = right ? view->rightCalloutAccessoryView() : view->leftCalloutAccessoryView();
    if (!std::dynamic_pointer_cast<platform::Button>(control)) {
        return false;
    }
    selectAnnotation(annotation);
    if (auto delegate = delegate_.lock()) {
        delegate->mapViewAnnotationViewCalloutAccessoryControlTapped(*this, *view, *control);
    }
    return true;
}

std::shared_ptr<platform::AnnotationView> VirtualMapView::viewForAnnotation(
    const std::shared_ptr<platform::Annotation>& annotation) const {
    const auto it = std::find_if(pinned_.begin(), pinned_.end(),
                                 [&annotation](const Pinned& p) { return p.annotation == annotation; });
    return it == pinned_.end() ? nullptr : it->view;
}

std::optional<platform::OverlayView> VirtualMapView::viewForOverlay(
    const std::shared_ptr<platform::Overlay>& overlay) const {
    const auto it = std::find_if(drawn_.begin(), drawn_.end(),
                                 [&overlay](const Drawn& d) { return d.overlay == overlay; });
    return it == drawn_.end() ? std::nullopt : std::optional(it->view);
}

// ---- The system ----

VirtualViewSystem::VirtualViewSystem(const std::shared_ptr<platform::MainLoop>& loop,
                                     const std::shared_ptr<platform::HttpClient>& http)
    : context_(std::make_shared<ViewContext>()) {
    context_->loop = loop;
    context_->http = http;
    keyWindow_ =
        std::make_shared<VirtualView>(context_, platform::Rect{0, 0, portrait_.width, portrait_.height});
    context_->keyWindow = keyWindow_;
}

VirtualViewSystem::~VirtualViewSystem() = default;

platform::Rect VirtualViewSystem::mainScreenBounds() const {
    const bool landscape = interfaceOrientation_ == platform::InterfaceOrientation::kLandscapeLeft ||
                           interfaceOrientation_ == platform::InterfaceOrientation::kLandscapeRight;
    return landscape ? platform::Rect{0, 0, portrait_.height, portrait_.width}
                     : platform::Rect{0, 0, portrait_.width, portrait_.height};
}

void VirtualViewSystem::addDeviceOrientationObserver(std::function<void()> handler) {
    observers_.push_back(std::move(handler));
}

std::optional<std::string> VirtualViewSystem::pathForResource(const std::string& name,
                                                              const std::string& type) const {
    if (name == "TovrelSDKResources" && type == "bundle" && bundlePresent_) {
        return "/virtual/Host.app/TovrelSDKResources.bundle";
    }
    return std::nullopt;
}

std::shared_ptr<platform::View> VirtualViewSystem::makeView(const platform::Rect& frame) {
    return std::make_shared<VirtualView>(context_, frame);
}

std::shared_ptr<platform::WebView> VirtualViewSystem::makeWebView(const platform::Rect& frame) {
    return std::make_shared<VirtualWebView>(context_, frame);
}

std::shared_ptr<platform::ActivityIndicatorView> VirtualViewSystem::makeActivityIndicator(
    platform::ActivityIndicatorStyle style) {
    return std::make_shared<platform::ActivityIndicatorView>(context_, style);
}

std::shared_ptr<platform::Button> VirtualViewSystem::makeButton(platform::ButtonType type,
                                                                const platform::Rect& frame) {
    return std::make_shared<platform::Button>(context_, type, frame);
}

std::shared_ptr<platform::Label> VirtualViewSystem::makeLabel(const platform::Rect& frame) {
    return std::make_shared<platform::Label>(context_, frame);
}

std::shared_ptr<platform::NavigationBar> VirtualViewSystem::makeNavigationBar(const platform::Rect& frame) {
    return std::make_shared<platform::NavigationBar>(context_, frame);
}

std::shared_ptr<platform::TableView> VirtualViewSystem::makeTableView(const platform::Rect& frame) {
    return std::make_shared<platform::TableView>(context_, frame);
}

std::shared_ptr<platform::TableViewCell> VirtualViewSystem::makeTableViewCell(
    platform::TableViewCellStyle style, const std::string& reuseIdentifier) {
    return std::make_shared<platform::TableViewCell>(context_, style, reuseIdentifier);
}

std::shared_ptr<platform::MapView> VirtualViewSystem::makeMapView(const platform::Rect& frame) {
    return std::make_shared<VirtualMapView>(context_, frame);
}

std::shared_ptr<platform::AnnotationView> VirtualViewSystem::makeAnnotationView(
    std::shared_ptr<platform::Annotation> annotation, const std::string& reuseIdentifier) {
    return std::make_shared<platform::AnnotationView>(context_, std::move(annotation), reuseIdentifier);
}

void VirtualViewSystem::animate(const platform::ViewAnimation& animation,
                                const std::function<void()>& changes) {
    context_->blocks.push_back({animation, {}});
    context_->openBlocks.push_back(context_->blocks.size() - 1);
    if (changes) {
        changes();
    }
    context_->openBlocks.pop_back();
}

const std::vector<AnimationBlock>& VirtualViewSystem::animationBlocks() const {
    return context_->blocks;
}

void VirtualViewSystem::presentModalView(std::shared_ptr<platform::View> view,
                                         const platform::ModalPresentation& presentation) {
    if (!view || context_->isKeyWindow(*view) || context_->isPresented(*view)) {
        return;
    }
    const bool wasOnScreen = view->isOnScreen();
    presentations_.push_back({view, presentation, rootContext_, false, false});
    context_->presented.push_back(view);
    if (!wasOnScreen) {
        view->announce(Appearance::kWillAppear);
    }
}

void VirtualViewSystem::dismissModalView(const std::shared_ptr<platform::View>& view, bool animated) {
    auto& presented = context_->presented;
    const auto it = std::find_if(presented.begin(), presented.end(),
                                 [&view](const auto& weak) { return weak.lock() == view; });
    if (!view || it == presented.end()) {
        return;
    }
    presented.erase(it);
    for (auto record = presentations_.rbegin(); record != presentations_.rend(); ++record) {
        if (record->view == view && !record->dismissed) {
            record->dismissed = true;
            record->dismissedAnimated = animated;
            break;
        }
    }
    if (!view->isOnScreen()) {
        view->announce(Appearance::kWillDisappear);
    }
}

std::vector<std::shared_ptr<platform::View>> VirtualViewSystem::presentedViews() const {
    std::vector<std::shared_ptr<platform::View>> views;
    for (const auto& weak : context_->presented) {
        if (auto view = weak.lock()) {
            views.push_back(std::move(view));
        }
    }
    return views;
}

void VirtualViewSystem::rotate(platform::DeviceOrientation orientation) {
    using platform::DeviceOrientation;
    using platform::InterfaceOrientation;
    deviceOrientation_ = orientation;
    switch (orientation) {
        case DeviceOrientation::kPortrait:
            interfaceOrientation_ = InterfaceOrientation::kPortrait;
            break;
        case DeviceOrientation::kPortraitUpsideDown:
            interfaceOrientation_ = InterfaceOrientation::kPortraitUpsideDown;
            break;
        case DeviceOrientation::kLandscapeLeft:
            interfaceOrientation_ = InterfaceOrientation::kLandscapeRight;
            break;
        case DeviceOrientation::kLandscapeRight:
            interfaceOrientation_ = InterfaceOrientation::kLandscapeLeft;
            break;
        default:
            break;
    }
    keyWindow_->setFrame(mainScreenBounds());
    const auto observers = observers_;
    for (const auto& observer : observers) {
        observer();
    }
}

void VirtualViewSystem::setScreenSize(const platform::Size& portrait) {
    portrait_ = portrait;
    keyWindow_->setFrame(mainScreenBounds());
}

void VirtualViewSystem::setPageContentSize(const std::string& url, const platform::Size& size) {
    context_->contentSizes[url] = size;
}

void VirtualViewSystem::setPageSubframes(const std::string& url, int count) {
    context_->subframes[url] = count;
}

VirtualViewSystem& virtualViews(const VirtualPlatform& platform) {
    return static_cast<VirtualViewSystem&>(*platform.views);
}

}  // namespace tovrel::virtualbackend
