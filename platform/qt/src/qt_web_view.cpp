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
    scrollView().setZoomObserver([this](float zoom) { applyZoom(zoom); });
    engine_ = new Engine(*this, widget());
    engine_->setGeometry(0, 0, widget()->width(), widget()->height());
    engine_->show();
    QObject::connect(engine_, &QWebEngineView::loadStarted, widget(), [this] { started(); });
    QObject::connect(engine_, &QWebEngineView::loadFinished, widget(), [this](bool ok) { finished(ok); });
    QObject::connect(&engine_->timeout_, &QTimer::timeout, widget(), [this] { timedOut(); });
}

QtWebView::~QtWebView() {
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
        // The model has asked the delegate for this load already.
        directLoad_ = false;
        refused_ = false;
        return true;
    }
    platform::URLRequest request;
    request.url = url;
    // The engine still reports a refused navigation's start and failed end: neither is a load.
    refused_ = !navigationRequested(request, type, isRedirect);
    return !refused_;
}

void QtWebView::started() {
    if (!refused_) {
        pageStarted();
    }
}

void QtWebView::load(const platform::URLRequest& request) {
    QWebEngineHttpRequest httpRequest{QUrl(QString::fromStdString(request.url))};
    if (request.cachePolicy == platform::URLRequestCachePolicy::kReloadIgnoringLocalCacheData ||
        request.cachePolicy == platform::URLRequestCachePolicy::kReloadIgnoringLocalAndRemoteCacheData) {
        httpRequest.setHeader("Cache-Control", "no-cache");
        httpRequest.setHeader("Pragma", "no-cache");
    }
    if (request.timeoutInterval > 0) {
        engine_->timeout_.start(static_cast<int>(request.timeoutInterval * 1000));
    } else {
        engine_->timeout_.stop();
    }
    directLoad_ = true;
    engine_->load(httpRequest);
}

void QtWebView::stop() {
    engine_->timeout_.stop();
    engine_->stop();
}

void QtWebView::runScript(const std::string& script) {
    engine_->page()->runJavaScript(QString::fromStdString(script));
}

void QtWebView::finished(bool ok) {
    if (refused_) {
        refused_ = false;
        return;
    }
    engine_->timeout_.stop();
    if (!isLoading()) {
        return;
    }
    if (!ok) {
        fail(kLoadFailedCode, "The page could not be loaded.");
        return;
    }
    // The page's size at zoom 1 comes from the page itself; the load is over once it is known.
    engine_->page()->runJavaScript(
        "[Math.max(document.documentElement.scrollWidth, document.body ? document.body.scrollWidth : 0),"
        " Math.max(document.documentElement.scrollHeight, document.body ? document.body.scrollHeight : 0)]",
        [weak = weak_from_this(), generation = loadGeneration()](const QVariant& result) {
            const auto view = std::static_pointer_cast<QtWebView>(weak.lock());
            if (!view) {
                return;
            }
            const auto list = result.toList();
            const platform::Size size =
                list.size() == 2 ? platform::Size{list[0].toDouble(), list[1].toDouble()} : platform::Size{};
            if (view->pageFinished(generation, size)) {
                ++view->finishedLoads_;
            }
        });
}

void QtWebView::timedOut() {
    if (!isLoading()) {
        return;
    }
    engine_->stop();
    fail(kTimedOutCode, "The request timed out.");
}

void QtWebView::fail(int code, const std::string& description) {
    // The delegate may let go of the view.
    const auto keepAlive = shared_from_this();
    if (pageFailed(loadGeneration(), {code, description})) {
        ++failedLoads_;
    }
}

void QtWebView::applyZoom(double factor) {
    if (scalesPageToFit() || factor == 1.0) {
        engine_->setZoomFactor(std::clamp(factor, kMinimumZoomFactor, kMaximumZoomFactor));
    }
}

double QtWebView::shownZoomFactor() const {
    return engine_->zoomFactor();
}

std::string QtWebView::currentURL() const {
    return engine_->url().toString().toStdString();
}

// ---- The renderer's part ----

void QtViewContext::loadPage(platform::WebView& view, const platform::URLRequest& request) {
    if (auto* web = dynamic_cast<QtWebView*>(&view)) {
        web->load(request);
    }
}

void QtViewContext::stopPage(platform::WebView& view) {
    if (auto* web = dynamic_cast<QtWebView*>(&view)) {
        web->stop();
    }
}

void QtViewContext::runScript(platform::WebView& view, const std::string& script) {
    if (auto* web = dynamic_cast<QtWebView*>(&view)) {
        web->runScript(script);
    }
}

}  // namespace tovrel::qtbackend
