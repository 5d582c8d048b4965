#include <QCoreApplication>
#include <QTimer>
#include <QWebEngineHttpRequest>
#include <QWebEnginePage>
#include <QWebEngineProfile>
#include <QWebEngineView>
#include <algorithm>

#include "qt_view_context.h"
#include "tovrel/qt/qt_views.h"
#include "view_widget.h"

namespace tovrel::qtbackend {
namespace {

constexpr double kMinimumZoomFactor = 0.25;
constexpr double kMaximumZoomFactor = 5.0;
constexpr int kTimedOutCode = -1001;
constexpr int kLoadFailedCode = -1004;

platform::WebNavigationType navigationTypeOf(QWebEnginePage::NavigationType type) {
    switch (type) {
        case QWebEnginePage::NavigationTypeLinkClicked:
            return platform::WebNavigationType::kLinkClicked;
        case QWebEnginePage::NavigationTypeFormSubmitted:
            return platform::WebNavigationType::kFormSubmitted;
        case QWebEnginePage::NavigationTypeBackForward:
            return platform::WebNavigationType::kBackForward;
        case QWebEnginePage::NavigationTypeReload:
            return platform::WebNavigationType::kReload;
        default:
            return platform::WebNavigationType::kOther;
    }
}

/// One profile for every web view: nothing on disk, so runs leave no state behind.
QWebEngineProfile* sharedProfile() {
    static QWebEngineProfile* profile = [] {
        auto* made = new QWebEngineProfile(qApp);
        made->setHttpCacheType(QWebEngineProfile::MemoryHttpCache);
        made->setPersistentCookiesPolicy(QWebEngineProfile::NoPersistentCookies);
        return made;
    }();
    return profile;
}

}  // namespace

/// Puts every navigation to the web view's delegate.
class QtWebView::Page final : public QWebEnginePage {
  public:
    Page(QtWebView& owner, QObject* parent) : QWebEnginePage(sharedProfile(), parent), owner_(owner) {}

  protected:
    bool acceptNavigationRequest(const QUrl& url, NavigationType type, bool isMainFrame) override {
        return owner_.allowNavigation(url.toString().toStdString(), navigationTypeOf(type), isMainFrame,
                                      type == NavigationTypeRedirect);
    }

  private:
    QtWebView& owner_;
};

/// The engine's view inside the web view's widget, with the load's timeout.
class QtWebView::Engine final : public QWebEngineView {
  public:
    Engine(QtWebView& owner, QWidget* parent) : QWebEngineView(parent), page_(new Page(owner, this)) {
        setPage(page_);
        timeout_.setSingleShot(true);
    }
    ~Engine() override {
        // The page goes before the view, as Qt WebEngine requires for a page the view does not own.
        setPage(nullptr);
        delete page_;
    }
    Engine(const Engine&) = delete;
    Engine& operator=(const Engine&) = delete;

    Page* page_;
    QTimer timeout_;
};

QtWebView::QtWebView(std::shared_ptr<QtViewContext> context, const platform::Rect& frame)
    : WebView(context, frame), QtViewCore(std::move(context), new ViewWidget, *this) {
    scrollView_.setZoomObserver([this](float zoom) { applyZoom(zoom); });
    engine_ = new Engine(*this, widget());
    engine_->setGeometry(0, 0, widget()->width(), widget()->height());
    engine_->show();
    QObject::connect(engine_, &QWebEngineView::loadStarted, widget(), [this] { started(); });
    QObject::connect(engine_, &QWebEngineView::loadFinished, widget(), [this](bool ok) { finished(ok); });
    QObject::connect(&engine_->timeout_, &QTimer::timeout, widget(), [this] { timedOut(generation_); });
}

QtWebView::~QtWebView() {
    delegate_.reset();
    if (engine_ != nullptr) {
        engine_->timeout_.stop();
        QObject::disconnect(engine_, nullptr, widget(), nullptr);
    }
}

void QtWebView::frameChanged() {
    if (engine_ != nullptr) {
        engine_->setGeometry(0, 0, widget()->width(), widget()->height());
    }
}

bool QtWebView::allowNavigation(const std::string& url, platform::WebNavigationType type, bool isMainFrame,
                                bool isRedirect) {
    if (!isMainFrame) {
        return true;
    }
    if (directLoad_) {
        // loadRequest has asked the delegate already.
        directLoad_ = false;
        return true;
    }
    platform::URLRequest request;
    request.url = url;
    const auto keepAlive = shared_from_this();
    if (auto delegate = delegate_.lock();
        delegate && !delegate->webViewShouldStartLoadWithRequest(*this, request, type)) {
        return false;
    }
    // A redirect continues the load under way.
    if (!isRedirect) {
        ++generation_;
    }
    loading_ = true;
    return true;
}

void QtWebView::loadRequest(const platform::URLRequest& request) {
    const auto keepAlive = shared_from_this();
    if (auto delegate = delegate_.lock();
        delegate &&
        !delegate->webViewShouldStartLoadWithRequest(*this, request, platform::WebNavigationType::kOther)) {
        return;
    }
    ++generation_;
    if (request.url.empty()) {
        loading_ = false;
        engine_->stop();
        return;
    }
    loading_ = true;
    QWebEngineHttpRequest httpRequest{QUrl(QString::fromStdString(request.url))};
    if (request.cachePolicy == platform::URLRequestCachePolicy::kReloadIgnoringLocalCacheData ||
        request.cachePolicy == platform::URLRequestCachePolicy::kReloadIgnoringLocalAndRemoteCacheData) {
        httpRequest.setHeader("Cache-Control", "no-cache");
        httpRequest.setHeader("Pragma", "no-cache");
    }
    if (request.timeoutInterval > 0) {
        engine_->timeout_.start(static_cast<int>(request.timeoutInterval * 1000));
    }
    directLoad_ = true;
    engine_->load(httpRequest);
}

void QtWebView::started() {
    if (!loading_) {
        // A load the page began by itself (a script's navigation): it counts like any other.
        ++generation_;
        loading_ = true;
    }
    scrollView_.resetZoom();
    context_->postLater([weak = weak_from_this(), generation = generation_] {
        const auto view = std::static_pointer_cast<QtWebView>(weak.lock());
        if (view && view->generation_ == generation && view->loading_) {
            if (auto delegate = view->delegate_.lock()) {
                delegate->webViewDidStartLoad(*view);
            }
        }
    });
}

void QtWebView::finished(bool ok) {
    engine_->timeout_.stop();
    if (!loading_) {
        return;
    }
    const std::uint64_t generation = generation_;
    if (!ok) {
        fail(kLoadFailedCode, "The page could not be loaded.");
        return;
    }
    // The page's size at zoom 1 comes from the page itself; the load is over once it is known.
    engine_->page()->runJavaScript(
        "[Math.max(document.documentElement.scrollWidth, document.body ? document.body.scrollWidth : 0),"
        " Math.max(document.documentElement.scrollHeight, document.body ? document.body.scrollHeight : 0)]",
        [weak = weak_from_this(), generation](const QVariant& result) {
            const auto view = std::static_pointer_cast<QtWebView>(weak.lock());
            if (!view || view->generation_ != generation || !view->loading_) {
                return;
            }
            const auto list = result.toList();
            const double width = list.size() == 2 ? list[0].toDouble() : 0;
            const double height = list.size() == 2 ? list[1].toDouble() : 0;
            view->scrollView_.setContentSize(
                {width > 0 ? width : view->frame().width, height > 0 ? height : view->frame().height});
            view->loading_ = false;
            ++view->finishedLoads_;
            if (auto delegate = view->delegate_.lock()) {
                delegate->webViewDidFinishLoad(*view);
            }
        });
}

void QtWebView::timedOut(std::uint64_t generation) {
    if (generation != generation_ || !loading_) {
        return;
    }
    engine_->stop();
    fail(kTimedOutCode, "The request timed out.");
}

void QtWebView::fail(int code, const std::string& description) {
    loading_ = false;
    ++failedLoads_;
    const auto keepAlive = shared_from_this();
    if (auto delegate = delegate_.lock()) {
        delegate->webViewDidFailLoadWithError(*this, {code, description});
    }
}

void QtWebView::stopLoading() {
    engine_->timeout_.stop();
    if (loading_) {
        ++generation_;
        loading_ = false;
        engine_->stop();
    }
}

void QtWebView::evaluateJavaScript(const std::string& script) {
    engine_->page()->runJavaScript(QString::fromStdString(script));
}

platform::Size QtWebView::sizeThatFits(const platform::Size& /*size*/) {
    return {frame().width, frame().height};
}

void QtWebView::applyZoom(double factor) {
    if (scalesPageToFit_ || factor == 1.0) {
        engine_->setZoomFactor(std::clamp(factor, kMinimumZoomFactor, kMaximumZoomFactor));
    }
}

double QtWebView::shownZoomFactor() const {
    return engine_->zoomFactor();
}

std::string QtWebView::currentURL() const {
    return engine_->url().toString().toStdString();
}

}  // namespace tovrel::qtbackend
