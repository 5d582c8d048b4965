#include "tovrel/virtual/virtual_views.h"

#include <algorithm>
#include <deque>

#include "tovrel/platform/view_renderer.h"
#include "tovrel/virtual/virtual_platform.h"

namespace tovrel::virtualbackend {

using platform::Appearance;

/// What a ViewSystem shares with its views, and the renderer that shows them: it records the
/// properties set inside animation blocks. Only weak references point back out, so a view held by a
/// posted task or a timer never keeps the loop, the client or the system alive.
struct ViewContext final : platform::ViewRenderer, std::enable_shared_from_this<ViewContext> {
    std::weak_ptr<platform::MainLoop> loop;
    std::weak_ptr<platform::HttpClient> http;
    const platform::ViewSystem* system = nullptr;
    std::vector<AnimationBlock> blocks;
    std::vector<std::size_t> openBlocks;
    std::map<std::string, platform::Size> contentSizes;
    std::map<std::string, int> subframes;

    [[nodiscard]] bool isKeyWindow(const platform::View& view) const override {
        return system != nullptr && system->isKeyWindow(view);
    }
    [[nodiscard]] bool isPresented(const platform::View& view) const override {
        return system != nullptr && system->isPresented(view);
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
    void mapChanged(platform::MapView& map, const platform::MapChange& change) override {
        if (mapChanges.size() == kKeptMapChanges) {
            mapChanges.pop_front();
        }
        mapChanges.emplace_back(map.weak_from_this(), change);
    }
    std::shared_ptr<platform::AnnotationView> makePlatformPin(
        std::shared_ptr<platform::Annotation> annotation) override {
        return std::make_shared<platform::AnnotationView>(shared_from_this(), std::move(annotation), "");
    }
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

    static constexpr std::size_t kKeptMapChanges = 10000;
    std::deque<std::pair<std::weak_ptr<platform::View>, platform::MapChange>> mapChanges;
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

// ---- The system ----

VirtualViewSystem::VirtualViewSystem(const std::shared_ptr<platform::MainLoop>& loop,
                                     const std::shared_ptr<platform::HttpClient>& http)
    : ViewSystem({375, 667}), context_(std::make_shared<ViewContext>()) {
    context_->loop = loop;
    context_->http = http;
    context_->system = this;
    setKeyWindow(std::make_shared<VirtualView>(context_, mainScreenBounds()));
}

VirtualViewSystem::~VirtualViewSystem() {
    context_->system = nullptr;
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
    return std::make_shared<platform::MapView>(context_, frame);
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

void VirtualViewSystem::didPresent(platform::View& view, const platform::ModalPresentation& presentation) {
    presentations_.push_back(
        {view.shared_from_this(), presentation, rootPresentationContext(), false, false});
}

void VirtualViewSystem::didDismiss(platform::View& view, bool animated) {
    for (auto record = presentations_.rbegin(); record != presentations_.rend(); ++record) {
        if (record->view.get() == &view && !record->dismissed) {
            record->dismissed = true;
            record->dismissedAnimated = animated;
            break;
        }
    }
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

std::vector<platform::MapChange> VirtualViewSystem::mapChanges(const platform::MapView& map) const {
    std::vector<platform::MapChange> changes;
    for (const auto& [changed, change] : context_->mapChanges) {
        if (changed.lock().get() == &map) {
            changes.push_back(change);
        }
    }
    return changes;
}

}  // namespace tovrel::virtualbackend
