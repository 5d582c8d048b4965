#pragma once

#include <QColor>
#include <QImage>
#include <QPointer>
#include <QWidget>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tovrel/export.h"
#include "tovrel/platform/main_loop.h"
#include "tovrel/platform/thread_check.h"
#include "tovrel/platform/view_renderer.h"
#include "tovrel/platform/views.h"

class QVariantAnimation;

namespace tovrel::qtbackend {

struct QtViewContext;
class QtViewSystem;

/// The QColor of a port colour.
TOVREL_EXPORT QColor toQColor(const platform::Color& color);

/// A widget that fills itself with an optional background colour and then paints its content.
class TOVREL_EXPORT BackedWidget : public QWidget {
    Q_OBJECT
  public:
    explicit BackedWidget(QWidget* parent = nullptr);
    void setBackground(const std::optional<platform::Color>& color);

  protected:
    void paintEvent(QPaintEvent* event) override;
    /// Paints over the background; nothing by default.
    virtual void paintContent(QPainter& painter);

  private:
    std::optional<QColor> background_;
};

/// What every Qt view kind keeps beside the model: the widget that shows the view, whose parent
/// widget is the superview's content widget and whose stacking follows the z-positions (ties by order
/// of adding). The renderer (the view system's context) tells it each change of the model. Main
/// thread only.
class TOVREL_EXPORT QtViewCore {
  public:
    virtual ~QtViewCore();
    QtViewCore(const QtViewCore&) = delete;
    QtViewCore& operator=(const QtViewCore&) = delete;

    /// The widget that shows this view.
    [[nodiscard]] QWidget* widget() const { return widget_; }
    /// The widget that holds the subviews' widgets.
    [[nodiscard]] virtual QWidget* contentWidget() const { return widget_; }
    /// Lets another widget (a navigation bar, a map callout) show this view's widget; null gives it back.
    void lendWidgetTo(QWidget* host, const QRect& geometry);
    [[nodiscard]] bool isLent() const { return lentTo_ != nullptr; }

  protected:
    /// `view` is the model this core shows: the object that derives from both.
    QtViewCore(std::shared_ptr<QtViewContext> context, QWidget* widget, platform::View& view);

    /// The frame changed: lay out what the widget holds.
    virtual void frameChanged() {}
    /// The kind's own state changed: draw it again.
    virtual void contentChanged();

    std::shared_ptr<QtViewContext> context_;
    QPointer<QWidget> widget_;

  private:
    friend class QtViewSystem;
    friend struct QtViewContext;

    void modelChanged(platform::ViewProperty property);
    void didAddSubview(QtViewCore& child, bool moved);
    void didLeaveSuperview();
    void showAnimation(const platform::BasicAnimation& animation);
    /// Puts the widget where the model says: geometry, visibility, opacity.
    void applyGeometry();
    void applyVisibility();
    void applyOpacity(double opacity);
    void fadeTo(double alpha);
    /// Stacks the subviews' widgets by z-position.
    void restack();

    platform::View& view_;
    bool isWindow_ = false;
    bool presented_ = false;
    double shownAlpha_ = 1;
    QPointer<QWidget> lentTo_;
    double bounceOffset_ = 0;
    double bounceRest_ = 0;
    QPointer<QVariantAnimation> bounce_;
    QPointer<QVariantAnimation> fade_;
};

/// The core of `view`, or null for a view of another kind.
TOVREL_EXPORT QtViewCore* qtCore(const platform::View* view);

/// A plain view (and the key window).
class TOVREL_EXPORT QtView final : public platform::View, public QtViewCore {
  public:
    QtView(std::shared_ptr<QtViewContext> context, const platform::Rect& frame);
};

/// A spinner drawn as twelve spokes that turn while it animates.
class TOVREL_EXPORT QtActivityIndicator final : public platform::ActivityIndicatorView, public QtViewCore {
  public:
    QtActivityIndicator(std::shared_ptr<QtViewContext> context, platform::ActivityIndicatorStyle style);

  protected:
    void contentChanged() override;
};

/// A button drawn as its image and title; a press dims the title.
class TOVREL_EXPORT QtButton final : public platform::Button, public QtViewCore {
  public:
    QtButton(std::shared_ptr<QtViewContext> context, platform::ButtonType type, const platform::Rect& frame);
};

class TOVREL_EXPORT QtLabel final : public platform::Label, public QtViewCore {
  public:
    QtLabel(std::shared_ptr<QtViewContext> context, const platform::Rect& frame);
};

/// A bar with the top item's title in the middle and its left bar button's view on the left.
class TOVREL_EXPORT QtNavigationBar final : public platform::NavigationBar, public QtViewCore {
  public:
    QtNavigationBar(std::shared_ptr<QtViewContext> context, const platform::Rect& frame);
    /// The title shown now.
    [[nodiscard]] std::string shownTitle() const;

  protected:
    void frameChanged() override { layoutBar(); }
    void contentChanged() override { layoutBar(); }

  private:
    void layoutBar();

    std::shared_ptr<platform::View> shownLeftView_;
};

class TOVREL_EXPORT QtTableViewCell final : public platform::TableViewCell, public QtViewCore {
  public:
    QtTableViewCell(std::shared_ptr<QtViewContext> context, platform::TableViewCellStyle style,
                    std::string reuseIdentifier);
    /// Drawn highlighted while its row is selected.
    void setSelectedLook(bool selected);
};

/// A table whose rows the model lays out, in a content widget that scrolls; the selected row's cell
/// is drawn highlighted and a tap on a cell selects its row.
class TOVREL_EXPORT QtTableView final : public platform::TableView, public QtViewCore {
  public:
    QtTableView(std::shared_ptr<QtViewContext> context, const platform::Rect& frame);
    [[nodiscard]] QWidget* contentWidget() const override;
    /// Scrolls the rows by `dy` points (positive: content moves up), within the content's height.
    void scrollBy(double dy);

  protected:
    void frameChanged() override { layoutContent(); }
    void contentChanged() override;

  private:
    void layoutContent();

    QPointer<QWidget> content_;
    double offset_ = 0;
};

/// A web view on Qt WebEngine: the model's loads run in the engine, whose navigations (link taps
/// included) go to the model's delegate. The request's cache policy asks the server for a fresh copy
/// (no-cache headers) when it says to ignore caches, and its timeout stops a load that takes longer
/// (reported as a failure). The page's zoom follows the scroll view while the page is scaled to fit.
class TOVREL_EXPORT QtWebView final : public platform::WebView, public QtViewCore {
  public:
    QtWebView(std::shared_ptr<QtViewContext> context, const platform::Rect& frame);
    ~QtWebView() override;
    QtWebView(const QtWebView&) = delete;
    QtWebView& operator=(const QtWebView&) = delete;

    /// The page's zoom factor as shown.
    void applyZoom(double factor);
    [[nodiscard]] double shownZoomFactor() const;
    /// The address of the page shown (or being loaded).
    [[nodiscard]] std::string currentURL() const;
    /// How many loads finished (final finishes only).
    [[nodiscard]] int finishedLoads() const { return finishedLoads_; }
    /// How many loads failed.
    [[nodiscard]] int failedLoads() const { return failedLoads_; }

    class Page;
    /// Page: whether a navigation may start.
    bool allowNavigation(const std::string& url, platform::WebNavigationType type, bool isMainFrame,
                         bool isRedirect);

  protected:
    void frameChanged() override;

  private:
    friend struct QtViewContext;

    void load(const platform::URLRequest& request);
    void stop();
    void runScript(const std::string& script);
    void started();
    void finished(bool ok);
    void timedOut();
    void fail(int code, const std::string& description);

    class Engine;
    Engine* engine_ = nullptr;
    bool directLoad_ = false;
    bool refused_ = false;
    int finishedLoads_ = 0;
    int failedLoads_ = 0;
};

/// The toolkit on QWidgets: a fixed phone-sized top-level window as the key window, views that are
/// widgets, pages on Qt WebEngine, a map drawn by the project, modal presentation over the window and
/// images from the resource bundle. Main thread only, except pathForResource.
class TOVREL_EXPORT QtViewSystem final : public platform::ViewSystem {
  public:
    struct Options {
        /// The portrait screen, in points (one point is one pixel).
        platform::Size screen{375, 667};
        /// The folder holding "TovrelSDKResources.bundle"; empty: the bundle drawn at build time.
        std::filesystem::path resourceRoot;
        /// Raster tiles for maps, "{z}/{x}/{y}" filled in; empty: a plain background with a grid.
        std::string tileURLTemplate;
        /// The key window's title.
        std::string windowTitle = "Tovrel";
    };

    /// Main thread, after the QApplication. The loop is kept by weak reference.
    QtViewSystem(const std::shared_ptr<platform::MainLoop>& loop, Options options);
    ~QtViewSystem() override;
    QtViewSystem(const QtViewSystem&) = delete;
    QtViewSystem& operator=(const QtViewSystem&) = delete;

    [[nodiscard]] std::optional<std::string> pathForResource(const std::string& name,
                                                             const std::string& type) const override;

    std::shared_ptr<platform::View> makeView(const platform::Rect& frame) override;
    std::shared_ptr<platform::WebView> makeWebView(const platform::Rect& frame) override;
    std::shared_ptr<platform::ActivityIndicatorView> makeActivityIndicator(
        platform::ActivityIndicatorStyle style) override;
    std::shared_ptr<platform::Button> makeButton(platform::ButtonType type,
                                                 const platform::Rect& frame) override;
    std::shared_ptr<platform::Label> makeLabel(const platform::Rect& frame) override;
    std::shared_ptr<platform::NavigationBar> makeNavigationBar(const platform::Rect& frame) override;
    std::shared_ptr<platform::TableView> makeTableView(const platform::Rect& frame) override;
    std::shared_ptr<platform::TableViewCell> makeTableViewCell(platform::TableViewCellStyle style,
                                                               const std::string& reuseIdentifier) override;
    std::shared_ptr<platform::MapView> makeMapView(const platform::Rect& frame) override;
    std::shared_ptr<platform::AnnotationView> makeAnnotationView(
        std::shared_ptr<platform::Annotation> annotation, const std::string& reuseIdentifier) override;

    void animate(const platform::ViewAnimation& animation, const std::function<void()>& changes) override;

    /// The key window's widget (show it to put the screens on the desktop).
    [[nodiscard]] QWidget* window() const;
    /// The image of a resource name such as "TovrelSDKResources.bundle/pin1.png"; null when missing.
    [[nodiscard]] QImage image(const std::string& name) const;
    /// Stacks the key window's children: subviews by z-position, presented views above those
    /// below the topmost z-position, then overlays (alerts). Called after every change.
    void restackWindow();
    /// Main thread. Moves the user's dot of every map and tells the maps' delegates.
    void deliverUserLocation(const platform::Location& location);
    /// Main thread. A widget laid over everything in the window (an alert); it follows the window.
    void addOverlay(QWidget* overlay);
    [[nodiscard]] const Options& options() const { return options_; }

  protected:
    void didPresent(platform::View& view, const platform::ModalPresentation& presentation) override;
    void didDismiss(platform::View& view, bool animated) override;

  private:
    std::shared_ptr<QtViewContext> context_;
    Options options_;
    std::shared_ptr<QtView> keyWindow_;
    /// The Qt GUI thread: the one that made the system (after the QApplication).
    platform::ThreadChecker guiThread_;
};

/// `view` as the Qt kind T, or null.
template <class T>
std::shared_ptr<T> qtView(const std::shared_ptr<platform::View>& view) {
    return std::dynamic_pointer_cast<T>(view);
}

}  // namespace tovrel::qtbackend
