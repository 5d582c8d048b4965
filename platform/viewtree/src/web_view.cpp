#include "tovrel/platform/view_renderer.h"
#include "tovrel/platform/views.h"

namespace tovrel::platform {

void WebView::loadRequest(const URLRequest& request) {
    if (!navigationRequested(request, WebNavigationType::kOther)) {
        return;
    }
    if (request.url.empty()) {
        loading_ = false;
        renderer().stopPage(*this);
        return;
    }
    renderer().loadPage(*this, request);
}

void WebView::stopLoading() {
    if (loading_) {
        ++generation_;
        loading_ = false;
        renderer().stopPage(*this);
    }
}

void WebView::evaluateJavaScript(const std::string& script) {
    renderer().runScript(*this, script);
}

Size WebView::sizeThatFits(const Size& /*size*/) {
    ++sizeThatFitsCount_;
    return {frame().width, frame().height};
}

bool WebView::navigationRequested(const URLRequest& request, WebNavigationType type, bool redirect) {
    const auto keepAlive = shared_from_this();
    if (auto delegate = delegate_.lock();
        delegate && !delegate->webViewShouldStartLoadWithRequest(*this, request, type)) {
        return false;
    }
    if (!redirect) {
        ++generation_;
    }
    loading_ = true;
    return true;
}

void WebView::pageStarted() {
    if (!loading_) {
        ++generation_;
        loading_ = true;
    }
    scrollView_.resetZoom();
    renderer().postLater([weak = weak_from_this(), generation = generation_] {
        const auto view = std::static_pointer_cast<WebView>(weak.lock());
        if (view && view->isCurrent(generation)) {
            if (auto delegate = view->delegate_.lock()) {
                delegate->webViewDidStartLoad(*view);
            }
        }
    });
}

void WebView::frameStarted(std::uint64_t generation) {
    const auto keepAlive = shared_from_this();
    if (auto delegate = delegate_.lock(); delegate && isCurrent(generation)) {
        delegate->webViewDidStartLoad(*this);
    }
}

void WebView::frameFinished(std::uint64_t generation) {
    const auto keepAlive = shared_from_this();
    if (auto delegate = delegate_.lock(); delegate && isCurrent(generation)) {
        delegate->webViewDidFinishLoad(*this);
    }
}

bool WebView::pageFinished(std::uint64_t generation, const Size& contentSize) {
    if (!isCurrent(generation)) {
        return false;
    }
    const auto keepAlive = shared_from_this();
    const Rect shown = frame();
    scrollView_.setContentSize({contentSize.width > 0 ? contentSize.width : shown.width,
                                contentSize.height > 0 ? contentSize.height : shown.height});
    loading_ = false;
    if (auto delegate = delegate_.lock()) {
        delegate->webViewDidFinishLoad(*this);
    }
    return true;
}

bool WebView::pageFailed(std::uint64_t generation, const WebError& error) {
    if (!isCurrent(generation)) {
        return false;
    }
    const auto keepAlive = shared_from_this();
    loading_ = false;
    if (auto delegate = delegate_.lock()) {
        delegate->webViewDidFailLoadWithError(*this, error);
    }
    return true;
}

}  // namespace tovrel::platform
