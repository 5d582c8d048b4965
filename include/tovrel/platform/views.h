#pragma once

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <limits>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tovrel/export.h"
#include "tovrel/platform/location.h"
#include "tovrel/platform/reuse_pool.h"

namespace tovrel::platform {

// Geometry, in points; the origin is the top-left corner and y grows downwards.

struct TOVREL_EXPORT Point {
    double x = 0;
    double y = 0;
    friend bool operator==(const Point&, const Point&) = default;
};

struct TOVREL_EXPORT Size {
    double width = 0;
    double height = 0;
    friend bool operator==(const Size&, const Size&) = default;
};

struct TOVREL_EXPORT Rect {
    double x = 0;
    double y = 0;
    double width = 0;
    double height = 0;
    friend bool operator==(const Rect&, const Rect&) = default;
};

/// Red, green, blue and alpha, each from 0 to 1.
struct TOVREL_EXPORT Color {
    double red = 0;
    double green = 0;
    double blue = 0;
    double alpha = 1;
    friend bool operator==(const Color&, const Color&) = default;

    static constexpr Color rgb255(double r, double g, double b, double a = 1.0) {
        return {r / 255.0, g / 255.0, b / 255.0, a};
    }
    static constexpr Color white(double whiteLevel, double a) {
        return {whiteLevel, whiteLevel, whiteLevel, a};
    }
    static constexpr Color whiteColor() { return {1, 1, 1, 1}; }
    static constexpr Color redColor() { return {1, 0, 0, 1}; }
    static constexpr Color clearColor() { return {0, 0, 0, 0}; }
    /// The platform's light grey (white level 2/3) at `a`.
    static constexpr Color lightGray(double a = 1.0) { return white(2.0 / 3.0, a); }
};

/// A view's transform; the component only ever translates.
struct TOVREL_EXPORT Transform {
    double tx = 0;
    double ty = 0;
    friend bool operator==(const Transform&, const Transform&) = default;
    static constexpr Transform identity() { return {}; }
    static constexpr Transform translation(double x, double y) { return {x, y}; }
};

/// The layer z-position that lays a view over everything else: the largest finite float.
inline constexpr float kTopmostZPosition = std::numeric_limits<float>::max();

// Animations.

enum class FillMode { kRemoved = 0, kForwards = 1, kBackwards = 2, kBoth = 3 };

/// A property animation on a view's layer, recorded by key.
struct TOVREL_EXPORT BasicAnimation {
    std::string keyPath;  ///< e.g. "position.y"
    double duration = 0;  ///< seconds
    double fromValue = 0;
    double toValue = 0;
    float repeatCount = 0;
    bool autoreverses = false;
    bool additive = false;
    FillMode fillMode = FillMode::kRemoved;
    bool removedOnCompletion = true;
    friend bool operator==(const BasicAnimation&, const BasicAnimation&) = default;
};

enum class AnimationCurve { kEaseInOut = 0, kEaseIn = 1, kEaseOut = 2, kLinear = 3 };

/// The parameters of a view animation block: property changes made inside it animate to their new
/// values over `duration`.
struct TOVREL_EXPORT ViewAnimation {
    double duration = 0.2;  ///< seconds
    AnimationCurve curve = AnimationCurve::kEaseInOut;
    friend bool operator==(const ViewAnimation&, const ViewAnimation&) = default;
};

// Orientation, with the platform's numbering.

enum class DeviceOrientation {
    kUnknown = 0,
    kPortrait = 1,
    kPortraitUpsideDown = 2,
    kLandscapeLeft = 3,
    kLandscapeRight = 4,
    kFaceUp = 5,
    kFaceDown = 6,
};

enum class InterfaceOrientation {
    kUnknown = 0,
    kPortrait = 1,
    kPortraitUpsideDown = 2,
    kLandscapeRight = 3,
    kLandscapeLeft = 4,
};

/// What a view's owner hears when the view enters or leaves the screen (a window, or a modal
/// presentation): the controller's viewWillAppear, viewDidAppear and so on.
enum class Appearance { kWillAppear, kDidAppear, kWillDisappear, kDidDisappear };
using AppearanceHandler = std::function<void(Appearance)>;

class ViewRenderer;
enum class ViewProperty;

/// A node of the retained view tree, with the state every view kind shares. A parent holds its
/// subviews; a subview knows its parent weakly. The state lives here, the same in every backend;
/// the backend's renderer hears each change and shows it. A view is on screen while it hangs under
/// the key window or under a presented view: one that comes on (or goes off) the screen tells itself
/// and everything under it at once (the will-event) and again on the next turn of the loop (the
/// did-event), which a view that has gone back meanwhile does not hear. Every operation of every view
/// kind runs on the main thread.
class TOVREL_EXPORT View : public std::enable_shared_from_this<View> {
  public:
    /// Main thread. A view shown by `renderer` (which the view keeps), at `frame`.
    View(std::shared_ptr<ViewRenderer> renderer, const Rect& frame);
    virtual ~View();
    View(const View&) = delete;
    View& operator=(const View&) = delete;

    /// Main thread. An integer the owner uses to find the view again; 0 by default.
    [[nodiscard]] long tag() const { return tag_; }
    /// Main thread.
    void setTag(long tag) { tag_ = tag; }
    /// Main thread. The layer's z-position: larger values draw over smaller ones among siblings.
    [[nodiscard]] float zPosition() const { return zPosition_; }
    /// Main thread.
    void setZPosition(float zPosition);
    /// Main thread.
    [[nodiscard]] bool isHidden() const { return hidden_; }
    /// Main thread.
    void setHidden(bool hidden);
    /// Main thread. Opacity from 0 to 1.
    [[nodiscard]] double alpha() const { return alpha_; }
    /// Main thread.
    void setAlpha(double alpha);
    /// Main thread. Position and size in the superview's coordinates.
    [[nodiscard]] Rect frame() const { return frame_; }
    /// Main thread.
    void setFrame(const Rect& frame);
    /// Main thread.
    [[nodiscard]] Transform transform() const { return transform_; }
    /// Main thread.
    void setTransform(const Transform& transform);
    /// Main thread. nullopt: no background (transparent).
    [[nodiscard]] std::optional<Color> backgroundColor() const { return backgroundColor_; }
    /// Main thread.
    void setBackgroundColor(const std::optional<Color>& color);

    /// Main thread. The subviews, back to front.
    [[nodiscard]] std::vector<std::shared_ptr<View>> subviews() const { return subviews_; }
    /// Main thread. The parent, or null.
    [[nodiscard]] std::shared_ptr<View> superview() const { return superview_.lock(); }
    /// Main thread. Adds `view` in front of the other subviews, taking it from its previous parent
    /// (a view that is already a subview here moves to the front). The view itself and the key
    /// window are ignored.
    void addSubview(const std::shared_ptr<View>& view);
    /// Main thread. Detaches the view from its parent; nothing happens without one.
    void removeFromSuperview();
    /// Main thread. Lays out the subviews now.
    void layoutSubviews() { ++layoutCount_; }
    /// Main thread. Recomputes the view's layout constraints.
    void updateConstraints() { ++updateConstraintsCount_; }

    /// Main thread. Adds a layer animation under `key`, replacing one under the same key.
    void addAnimation(const std::string& key, const BasicAnimation& animation);
    /// Main thread. The layer animation under `key`, if it is still attached.
    [[nodiscard]] std::optional<BasicAnimation> animationForKey(const std::string& key) const;
    /// Main thread. The layer animations attached, by key.
    [[nodiscard]] const std::map<std::string, BasicAnimation>& animations() const { return animations_; }

    /// Main thread. `handler` hears this view enter and leave the screen; it runs on the main thread
    /// (will-events during the change, did-events on a later turn of the loop). Replaces any
    /// previous handler.
    void setAppearanceHandler(AppearanceHandler handler) { appearanceHandler_ = std::move(handler); }

    /// Main thread. The frame's size at the origin.
    [[nodiscard]] Rect bounds() const {
        const Rect f = frame();
        return {0, 0, f.width, f.height};
    }
    /// Main thread. Moves the frame so that its centre is `center`.
    void setCenter(const Point& center) {
        Rect f = frame();
        f.x = center.x - f.width / 2;
        f.y = center.y - f.height / 2;
        setFrame(f);
    }

    /// Main thread. True while the view hangs under the key window or under a presented view.
    [[nodiscard]] bool isOnScreen() const;
    /// Main thread. Tells this view and everything under it `will` (kWillAppear or kWillDisappear)
    /// now and the matching did-event on the next turn; view systems call it when they present or
    /// dismiss a view.
    void announce(Appearance will);
    /// Main thread. The appearance events delivered to this view, in order (the last
    /// kKeptAppearances of them).
    [[nodiscard]] const std::vector<Appearance>& appearanceLog() const { return appearanceLog_; }
    static constexpr std::size_t kKeptAppearances = 64;
    /// Main thread. How many times layoutSubviews ran.
    [[nodiscard]] int layoutCount() const { return layoutCount_; }
    /// Main thread. How many times updateConstraints ran.
    [[nodiscard]] int updateConstraintsCount() const { return updateConstraintsCount_; }
    /// Main thread. The renderer that shows the view.
    [[nodiscard]] ViewRenderer& renderer() const { return *renderer_; }

  protected:
    /// Main thread. Sets the first visibility of a kind that starts hidden, before anyone sees it.
    void startHidden(bool hidden) { hidden_ = hidden; }

    /// Main thread. Tells the renderer that `property` changed.
    void changed(ViewProperty property);
    /// Main thread. The frame changed: a kind that lays out what it holds does so now.
    virtual void didChangeFrame() {}

  private:
    void deliver(Appearance appearance);
    void collect(std::vector<std::shared_ptr<View>>& into);

    std::shared_ptr<ViewRenderer> renderer_;
    long tag_ = 0;
    float zPosition_ = 0;
    bool hidden_ = false;
    double alpha_ = 1;
    Rect frame_;
    Transform transform_;
    std::optional<Color> backgroundColor_;
    std::map<std::string, BasicAnimation> animations_;
    std::vector<std::shared_ptr<View>> subviews_;
    std::weak_ptr<View> superview_;
    AppearanceHandler appearanceHandler_;
    std::vector<Appearance> appearanceLog_;
    int layoutCount_ = 0;
    int updateConstraintsCount_ = 0;
};

// Web view.

enum class URLRequestCachePolicy {
    kUseProtocolCachePolicy = 0,
    kReloadIgnoringLocalCacheData = 1,
    kReloadIgnoringLocalAndRemoteCacheData = 4,
    kReturnCacheDataElseLoad = 2,
    kReturnCacheDataDontLoad = 3,
};

/// A page request. An empty `url` is no address at all: loading it shows nothing.
struct TOVREL_EXPORT URLRequest {
    std::string url;
    URLRequestCachePolicy cachePolicy = URLRequestCachePolicy::kUseProtocolCachePolicy;
    double timeoutInterval = 60;  ///< seconds
    friend bool operator==(const URLRequest&, const URLRequest&) = default;
};

enum class WebNavigationType {
    kLinkClicked = 0,
    kFormSubmitted = 1,
    kBackForward = 2,
    kReload = 3,
    kFormResubmitted = 4,
    kOther = 5,
};

struct TOVREL_EXPORT WebError {
    int code = 0;
    std::string description;
};

class WebView;

/// Hears a web view's loads. Every callback runs on the main thread.
class TOVREL_EXPORT WebViewDelegate {
  public:
    virtual ~WebViewDelegate() = default;
    /// Main thread. Asked before each navigation (the page's own and link taps); false cancels it.
    virtual bool webViewShouldStartLoadWithRequest(WebView& /*webView*/, const URLRequest& /*request*/,
                                                   WebNavigationType /*type*/) {
        return true;
    }
    /// Main thread. A frame started loading.
    virtual void webViewDidStartLoad(WebView& /*webView*/) {}
    /// Main thread. A frame finished; isLoading() tells whether others are still under way.
    virtual void webViewDidFinishLoad(WebView& /*webView*/) {}
    /// Main thread. The load failed.
    virtual void webViewDidFailLoadWithError(WebView& /*webView*/, const WebError& /*error*/) {}
};

/// The scrolling and zooming of a web view's page: zoom 1 within limits of 1 until told otherwise.
class TOVREL_EXPORT ScrollView {
  public:
    /// Main thread. The page's size at zoom scale 1.
    [[nodiscard]] Size contentSize() const { return contentSize_; }
    /// Main thread.
    [[nodiscard]] float minimumZoomScale() const { return minimum_; }
    /// Main thread.
    void setMinimumZoomScale(float scale) { minimum_ = scale; }
    /// Main thread.
    [[nodiscard]] float maximumZoomScale() const { return maximum_; }
    /// Main thread.
    void setMaximumZoomScale(float scale) { maximum_ = scale; }
    /// Main thread.
    [[nodiscard]] float zoomScale() const { return zoom_; }
    /// Main thread. Kept within the minimum and maximum.
    void setZoomScale(float scale);

    /// Main thread. The web view that shows the page sets the page's size once it has loaded.
    void setContentSize(const Size& size) { contentSize_ = size; }
    /// Main thread. The user pinches: the page zooms as far as the limits allow.
    void pinch(float scale) { setZoomScale(scale); }
    /// Main thread. A new page: zoom 1 within limits of 1, until the page is fitted again.
    void resetZoom();
    /// Main thread. `observer` hears every zoom shown (the web view applies it to the page).
    void setZoomObserver(std::function<void(float)> observer) { zoomObserver_ = std::move(observer); }

  private:
    Size contentSize_;
    float minimum_ = 1;
    float maximum_ = 1;
    float zoom_ = 1;
    std::function<void(float)> zoomObserver_;
};

/// Shows web pages: the model keeps the delegate, the scroll view and the state of the load under
/// way, and the backend's renderer loads the page (through the platform's HTTP client, or the
/// toolkit's own engine) and reports back through the calls meant for the backend. Every navigation
/// is put to the delegate first; a load reports its start on a later turn of the loop and its end
/// once the page's size is known. Each load is one generation: reports of an older one (a load
/// replaced or stopped) reach nobody.
class TOVREL_EXPORT WebView : public View {
  public:
    using View::View;
    /// Main thread. Starts loading `request`, replacing any load under way.
    void loadRequest(const URLRequest& request);
    /// Main thread. True while any frame of the page is loading.
    [[nodiscard]] bool isLoading() const { return loading_; }
    /// Main thread. Stops the load under way, if any.
    void stopLoading();
    /// Main thread. The delegate is not owned; an expired one hears nothing.
    void setDelegate(std::weak_ptr<WebViewDelegate> delegate) { delegate_ = std::move(delegate); }
    /// Main thread. The delegate, or null (none, or expired).
    [[nodiscard]] std::shared_ptr<WebViewDelegate> delegate() const { return delegate_.lock(); }
    /// Main thread. Runs `script` in the page; the result is not returned.
    void evaluateJavaScript(const std::string& script);
    /// Main thread. The page's scroll and zoom state.
    ScrollView& scrollView() { return scrollView_; }
    /// Main thread.
    [[nodiscard]] bool scalesPageToFit() const { return scalesPageToFit_; }
    /// Main thread. Scales each page to fit the view when it loads.
    void setScalesPageToFit(bool scales) { scalesPageToFit_ = scales; }
    /// Main thread. The size that best fits the page within `size`: the view's own.
    Size sizeThatFits(const Size& size);
    /// Main thread. How many times sizeThatFits ran.
    [[nodiscard]] int sizeThatFitsCount() const { return sizeThatFitsCount_; }

    /// Main thread. The generation of the load under way (or of the last one); the backend tags its
    /// reports with it.
    [[nodiscard]] std::uint64_t loadGeneration() const { return generation_; }
    /// Main thread. Called by the backend when the page itself navigates (a link tap, a form, a
    /// redirect): asks the delegate, and false cancels the navigation. An allowed one is a new load,
    /// except a redirect, which goes on with the load under way.
    bool navigationRequested(const URLRequest& request, WebNavigationType type, bool redirect = false);
    /// Main thread. Called by the backend when the page's main frame starts loading: a load the page
    /// began by itself (a script's navigation) counts like any other. The page zooms back to 1, and
    /// the delegate hears of the start on a later turn of the loop if the load is still under way.
    void pageStarted();
    /// Main thread. Called by the backend when a subframe of load `generation` starts now.
    void frameStarted(std::uint64_t generation);
    /// Main thread. Called by the backend when a subframe of load `generation` finishes, while the
    /// page itself is still loading.
    void frameFinished(std::uint64_t generation);
    /// Main thread. Called by the backend when load `generation` is over, with the page's size at
    /// zoom 1 (a zero width or height is the view's own). False: the report was stale.
    bool pageFinished(std::uint64_t generation, const Size& contentSize);
    /// Main thread. Called by the backend when load `generation` failed. False: the report was stale.
    bool pageFailed(std::uint64_t generation, const WebError& error);

  private:
    [[nodiscard]] bool isCurrent(std::uint64_t generation) const {
        return generation == generation_ && loading_;
    }

    std::weak_ptr<WebViewDelegate> delegate_;
    ScrollView scrollView_;
    bool loading_ = false;
    bool scalesPageToFit_ = false;
    std::uint64_t generation_ = 0;
    int sizeThatFitsCount_ = 0;
};

// Controls and labels.

enum class ActivityIndicatorStyle { kWhiteLarge = 0, kWhite = 1, kGray = 2 };

/// A spinner. It starts stopped, hidden, at its style's own size at the origin.
class TOVREL_EXPORT ActivityIndicatorView : public View {
  public:
    /// Main thread.
    ActivityIndicatorView(std::shared_ptr<ViewRenderer> renderer, ActivityIndicatorStyle style);
    /// Main thread.
    [[nodiscard]] ActivityIndicatorStyle style() const { return style_; }
    /// Main thread.
    [[nodiscard]] bool hidesWhenStopped() const { return hidesWhenStopped_; }
    /// Main thread. When true, the spinner is hidden while it is not turning.
    void setHidesWhenStopped(bool hides);
    /// Main thread.
    void startAnimating();
    /// Main thread.
    void stopAnimating();
    /// Main thread.
    [[nodiscard]] bool isAnimating() const { return animating_; }

  private:
    ActivityIndicatorStyle style_;
    bool hidesWhenStopped_ = true;
    bool animating_ = false;
};

enum class ButtonType { kCustom = 0, kSystem = 1 };

/// A push button. Its action runs when it is tapped (touch up inside).
class TOVREL_EXPORT Button : public View {
  public:
    /// Main thread.
    Button(std::shared_ptr<ViewRenderer> renderer, ButtonType type, const Rect& frame);
    /// Main thread.
    [[nodiscard]] ButtonType buttonType() const { return type_; }
    /// Main thread. The title of the normal state.
    [[nodiscard]] std::string title() const { return title_; }
    /// Main thread.
    void setTitle(const std::string& title);
    /// Main thread.
    [[nodiscard]] std::optional<Color> titleColor() const { return titleColor_; }
    /// Main thread.
    void setTitleColor(const Color& color);
    /// Main thread. The image of the normal state: a resource name such as
    /// "TovrelSDKResources.bundle/icons_back.tiff"; empty for none.
    [[nodiscard]] std::string imageName() const { return imageName_; }
    /// Main thread.
    void setImageName(const std::string& name);
    /// Main thread. Glows when touched.
    [[nodiscard]] bool showsTouchWhenHighlighted() const { return showsTouch_; }
    /// Main thread.
    void setShowsTouchWhenHighlighted(bool shows);
    /// Main thread. `action` runs on the main thread at each tap; replaces any previous action.
    void setAction(std::function<void()> action) { action_ = std::move(action); }

    /// Main thread. The user taps the button: its action runs, then the control hook (a map
    /// callout's) if any. False when neither exists.
    bool tap();
    /// Main thread. Whether an action is set.
    [[nodiscard]] bool hasAction() const { return static_cast<bool>(action_); }
    /// Main thread. Runs after the action at each tap (a map uses it for callout controls).
    void setControlHook(std::function<void()> hook) { controlHook_ = std::move(hook); }

  private:
    ButtonType type_;
    std::string title_;
    std::optional<Color> titleColor_;
    std::string imageName_;
    bool showsTouch_ = false;
    std::function<void()> action_;
    std::function<void()> controlHook_;
};

enum class TextAlignment { kLeft = 0, kCenter = 1, kRight = 2 };

struct TOVREL_EXPORT Font {
    std::string name;
    double size = 17;
    friend bool operator==(const Font&, const Font&) = default;
};

/// Static text: one line of 17-point Helvetica, black, left-aligned, until told otherwise.
class TOVREL_EXPORT Label : public View {
  public:
    using View::View;
    /// Main thread.
    [[nodiscard]] std::string text() const { return text_; }
    /// Main thread.
    void setText(const std::string& text);
    /// Main thread. 0: as many as the text needs.
    [[nodiscard]] int numberOfLines() const { return lines_; }
    /// Main thread.
    void setNumberOfLines(int lines);
    /// Main thread.
    [[nodiscard]] Font font() const { return font_; }
    /// Main thread.
    void setFont(const Font& font);
    /// Main thread.
    [[nodiscard]] Color textColor() const { return textColor_; }
    /// Main thread.
    void setTextColor(const Color& color);
    /// Main thread.
    [[nodiscard]] TextAlignment textAlignment() const { return alignment_; }
    /// Main thread.
    void setTextAlignment(TextAlignment alignment);

  private:
    std::string text_;
    int lines_ = 1;
    Font font_{"Helvetica", 17};
    Color textColor_{0, 0, 0, 1};
    TextAlignment alignment_ = TextAlignment::kLeft;
};

// Navigation bar.

/// A bar button showing a custom view (a button, for instance).
struct TOVREL_EXPORT BarButtonItem {
    std::shared_ptr<View> customView;
};

/// What the bar shows for one screen. Items are shared: a change to an item the bar holds shows at
/// the bar's next layout.
struct TOVREL_EXPORT NavigationItem {
    std::string title;
    std::optional<BarButtonItem> leftBarButtonItem;
};

/// A bar with a title and bar buttons.
class TOVREL_EXPORT NavigationBar : public View {
  public:
    using View::View;
    /// Main thread. The stack of items, bottom first.
    [[nodiscard]] std::vector<std::shared_ptr<NavigationItem>> items() const { return items_; }
    /// Main thread. Replaces the stack.
    void setItems(std::vector<std::shared_ptr<NavigationItem>> items, bool animated);
    /// Main thread. The last item of the stack, or null.
    [[nodiscard]] std::shared_ptr<NavigationItem> topItem() const;

  private:
    std::vector<std::shared_ptr<NavigationItem>> items_;
};

// Table view.

struct TOVREL_EXPORT IndexPath {
    long section = 0;
    long row = 0;
    friend bool operator==(const IndexPath&, const IndexPath&) = default;
};

enum class TableViewCellStyle { kDefault = 0, kValue1 = 1, kValue2 = 2, kSubtitle = 3 };
enum class TableViewCellAccessory {
    kNone = 0,
    kDisclosureIndicator = 1,
    kDetailDisclosureButton = 2,
    kCheckmark = 3
};

/// One row of a table: text, an image, an accessory, an indentation. Its background is the view's.
/// A cell starts 320 × 44 points at the origin.
class TOVREL_EXPORT TableViewCell : public View {
  public:
    /// Main thread.
    TableViewCell(std::shared_ptr<ViewRenderer> renderer, TableViewCellStyle style,
                  std::string reuseIdentifier);
    /// Main thread.
    [[nodiscard]] std::string reuseIdentifier() const { return reuseIdentifier_; }
    /// Main thread.
    [[nodiscard]] TableViewCellStyle cellStyle() const { return style_; }
    /// Main thread. The text of the cell's label.
    [[nodiscard]] std::string text() const { return text_; }
    /// Main thread.
    void setText(const std::string& text);
    /// Main thread.
    [[nodiscard]] std::optional<Color> textColor() const { return textColor_; }
    /// Main thread.
    void setTextColor(const Color& color);
    /// Main thread. A resource name, or empty for no image.
    [[nodiscard]] std::string imageName() const { return imageName_; }
    /// Main thread.
    void setImageName(const std::string& name);
    /// Main thread.
    [[nodiscard]] TableViewCellAccessory accessoryType() const { return accessory_; }
    /// Main thread.
    void setAccessoryType(TableViewCellAccessory accessory);
    /// Main thread.
    [[nodiscard]] long indentationLevel() const { return indentation_; }
    /// Main thread.
    void setIndentationLevel(long level);

  private:
    TableViewCellStyle style_;
    std::string reuseIdentifier_;
    std::string text_;
    std::optional<Color> textColor_;
    std::string imageName_;
    TableViewCellAccessory accessory_ = TableViewCellAccessory::kNone;
    long indentation_ = 0;
};

class TableView;

/// Supplies a table's rows. Called on the main thread.
class TOVREL_EXPORT TableViewDataSource {
  public:
    virtual ~TableViewDataSource() = default;
    /// Main thread.
    virtual long tableViewNumberOfRowsInSection(TableView& tableView, long section) = 0;
    /// Main thread. The cell that shows `indexPath`.
    virtual std::shared_ptr<TableViewCell> tableViewCellForRowAtIndexPath(TableView& tableView,
                                                                          const IndexPath& indexPath) = 0;
};

/// Hears a table's selections and shapes its rows. Called on the main thread.
class TOVREL_EXPORT TableViewDelegate {
  public:
    virtual ~TableViewDelegate() = default;
    /// Main thread. The user selected the row.
    virtual void tableViewDidSelectRowAtIndexPath(TableView& /*tableView*/, const IndexPath& /*indexPath*/) {}
    /// Main thread. nullopt: the platform's default height.
    virtual std::optional<double> tableViewHeightForFooterInSection(TableView& /*tableView*/,
                                                                    long /*section*/) {
        return std::nullopt;
    }
    /// Main thread. null: no footer view.
    virtual std::shared_ptr<View> tableViewViewForFooterInSection(TableView& /*tableView*/,
                                                                  long /*section*/) {
        return nullptr;
    }
    /// Main thread. The row's indentation level, applied to its cell when it is shown.
    virtual long tableViewIndentationLevelForRowAtIndexPath(TableView& /*tableView*/,
                                                            const IndexPath& /*indexPath*/) {
        return 0;
    }
};

/// A one-column list of rows in sections (the component uses one section). Every row of section 0
/// is on screen, 44 points high, with the section footer below the rows and the table footer below
/// that, all as wide as the table. reloadData sets the shown cells aside for reuse in row order, so
/// each row gets its own cell back.
class TOVREL_EXPORT TableView : public View {
  public:
    using View::View;
    /// Main thread. Not owned.
    void setDataSource(std::weak_ptr<TableViewDataSource> dataSource) { dataSource_ = std::move(dataSource); }
    /// Main thread. Not owned.
    void setDelegate(std::weak_ptr<TableViewDelegate> delegate) { delegate_ = std::move(delegate); }
    /// Main thread. Asks the data source for every row again; the cells shown so far become
    /// available for reuse.
    void reloadData();
    /// Main thread. A cell set aside for reuse under `identifier`, or null.
    std::shared_ptr<TableViewCell> dequeueReusableCellWithIdentifier(const std::string& identifier);
    /// Main thread. The cell shown for `indexPath`, or null when the row is not on screen.
    [[nodiscard]] std::shared_ptr<TableViewCell> cellForRowAtIndexPath(const IndexPath& indexPath) const;
    /// Main thread.
    [[nodiscard]] std::optional<IndexPath> indexPathForSelectedRow() const { return selected_; }
    /// Main thread.
    void deselectRowAtIndexPath(const IndexPath& indexPath, bool animated);
    /// Main thread. A view shown below the last row (an empty one stops the separators there).
    void setTableFooterView(std::shared_ptr<View> footer);
    /// Main thread.
    [[nodiscard]] std::shared_ptr<View> tableFooterView() const { return footer_; }

    /// Main thread. The user taps a row: it is selected and the delegate hears it.
    void tapRow(long row);
    /// Main thread. The cells shown, by row.
    [[nodiscard]] const std::vector<std::shared_ptr<TableViewCell>>& visibleCells() const { return visible_; }
    /// Main thread. The height of the rows and both footers.
    [[nodiscard]] double contentHeight() const { return contentHeight_; }
    /// Main thread. How many times reloadData ran.
    [[nodiscard]] int reloadCount() const { return reloadCount_; }
    /// Main thread. What the delegate said at the last reload about section 0's footer.
    [[nodiscard]] std::optional<double> sectionFooterHeight() const { return sectionFooterHeight_; }
    /// Main thread.
    [[nodiscard]] std::shared_ptr<View> sectionFooterView() const { return sectionFooter_; }
    /// Main thread. The deselections, with their animated flag, in order (the last
    /// kKeptDeselections of them).
    [[nodiscard]] const std::vector<std::pair<IndexPath, bool>>& deselections() const {
        return deselections_;
    }
    static constexpr std::size_t kKeptDeselections = 64;

  protected:
    void didChangeFrame() override { layoutRows(); }

  private:
    void layoutRows();

    std::weak_ptr<TableViewDataSource> dataSource_;
    std::weak_ptr<TableViewDelegate> delegate_;
    std::vector<std::shared_ptr<TableViewCell>> visible_;
    ReusePool<TableViewCell> reusable_;
    std::optional<IndexPath> selected_;
    std::shared_ptr<View> footer_;
    std::optional<double> sectionFooterHeight_;
    std::shared_ptr<View> sectionFooter_;
    std::vector<std::pair<IndexPath, bool>> deselections_;
    double contentHeight_ = 0;
    int reloadCount_ = 0;
};

class Annotation;
class AnnotationView;
class MapView;

// Modal presentation.

enum class ModalPresentationStyle {
    kFullScreen = 0,
    kPageSheet = 1,
    kFormSheet = 2,
    kCurrentContext = 3,
    kCustom = 4,
    kOverFullScreen = 5,
    kOverCurrentContext = 6,
};

/// The presentation settings of a screen that presents others.
struct TOVREL_EXPORT PresentationContext {
    ModalPresentationStyle modalPresentationStyle = ModalPresentationStyle::kFullScreen;
    bool providesPresentationContextTransitionStyle = false;
    bool definesPresentationContext = false;
    friend bool operator==(const PresentationContext&, const PresentationContext&) = default;
};

/// How one screen is presented.
struct TOVREL_EXPORT ModalPresentation {
    ModalPresentationStyle style = ModalPresentationStyle::kFullScreen;
    bool animated = true;
    bool prefersStatusBarHidden = false;  ///< what the presented screen asks for
};

/// The toolkit: the key window, the screen and device orientation, view factories, animation
/// blocks, modal presentation and resource lookup. The screen, the orientation and the stack of
/// presented views live here, the same in every backend; a backend makes the views, runs animation
/// blocks, finds resources and shows presentations. Views from one ViewSystem are only ever added to
/// views of the same ViewSystem.
class TOVREL_EXPORT ViewSystem {
  public:
    virtual ~ViewSystem();
    ViewSystem(const ViewSystem&) = delete;
    ViewSystem& operator=(const ViewSystem&) = delete;

    /// Main thread. The application's key window (a view whose subviews cover the screen).
    [[nodiscard]] std::shared_ptr<View> keyWindow() const { return keyWindow_; }
    /// Main thread. The main screen's bounds in the current orientation.
    [[nodiscard]] Rect mainScreenBounds() const;
    /// Main thread. How the device is held.
    [[nodiscard]] DeviceOrientation deviceOrientation() const { return deviceOrientation_; }
    /// Main thread. The orientation of the application's interface (its status bar).
    [[nodiscard]] InterfaceOrientation statusBarOrientation() const { return interfaceOrientation_; }
    /// Main thread.
    [[nodiscard]] bool isStatusBarHidden() const { return statusBarHidden_; }
    /// Main thread. `handler` runs on the main thread after each change of the device orientation,
    /// for the life of the ViewSystem; there is no removal, so it must guard against outliving
    /// whatever it touches.
    void addDeviceOrientationObserver(std::function<void()> handler) {
        observers_.push_back(std::move(handler));
    }
    /// Main thread. How many orientation observers were added.
    [[nodiscard]] std::size_t orientationObserverCount() const { return observers_.size(); }
    /// Any thread. The path of resource `name` of `type` in the main bundle
    /// ("TovrelSDKResources", "bundle"), or nullopt when there is none.
    [[nodiscard]] virtual std::optional<std::string> pathForResource(const std::string& name,
                                                                     const std::string& type) const = 0;

    /// Main thread. A plain view.
    virtual std::shared_ptr<View> makeView(const Rect& frame) = 0;
    /// Main thread.
    virtual std::shared_ptr<WebView> makeWebView(const Rect& frame) = 0;
    /// Main thread. A stopped spinner of the style's own size at the origin.
    virtual std::shared_ptr<ActivityIndicatorView> makeActivityIndicator(ActivityIndicatorStyle style) = 0;
    /// Main thread.
    virtual std::shared_ptr<Button> makeButton(ButtonType type, const Rect& frame) = 0;
    /// Main thread.
    virtual std::shared_ptr<Label> makeLabel(const Rect& frame) = 0;
    /// Main thread.
    virtual std::shared_ptr<NavigationBar> makeNavigationBar(const Rect& frame) = 0;
    /// Main thread.
    virtual std::shared_ptr<TableView> makeTableView(const Rect& frame) = 0;
    /// Main thread. A fresh cell, to be handed out under `reuseIdentifier`.
    virtual std::shared_ptr<TableViewCell> makeTableViewCell(TableViewCellStyle style,
                                                             const std::string& reuseIdentifier) = 0;
    /// Main thread.
    virtual std::shared_ptr<MapView> makeMapView(const Rect& frame) = 0;
    /// Main thread.
    virtual std::shared_ptr<AnnotationView> makeAnnotationView(std::shared_ptr<Annotation> annotation,
                                                               const std::string& reuseIdentifier) = 0;

    /// Main thread. Runs `changes` at once; the view properties they set animate to their new values
    /// as `animation` says.
    virtual void animate(const ViewAnimation& animation, const std::function<void()>& changes) = 0;

    /// Main thread. The presentation settings of the key window's root screen.
    void setRootPresentationContext(const PresentationContext& context) { rootContext_ = context; }
    /// Main thread.
    [[nodiscard]] const PresentationContext& rootPresentationContext() const { return rootContext_; }
    /// Main thread. Presents `view` over the key window's root screen; its appearance handler hears
    /// it appear. Presenting the key window or a view that is already presented does nothing.
    void presentModalView(std::shared_ptr<View> view, const ModalPresentation& presentation);
    /// Main thread. Dismisses a presented view; its appearance handler hears it disappear. Views
    /// that are not presented are ignored.
    void dismissModalView(const std::shared_ptr<View>& view, bool animated);
    /// Main thread. The views presented now, oldest first.
    [[nodiscard]] std::vector<std::shared_ptr<View>> presentedViews() const;
    /// Main thread. Whether `view` is the key window.
    [[nodiscard]] bool isKeyWindow(const View& view) const { return &view == keyWindow_.get(); }
    /// Main thread. Whether `view` is presented now.
    [[nodiscard]] bool isPresented(const View& view) const;

    /// Main thread. The device turns: the device orientation, the interface orientation (for the
    /// four upright ones), the screen bounds and the key window follow, and the observers run.
    void rotate(DeviceOrientation orientation);
    /// Main thread. Hides or shows the status bar.
    void setStatusBarHidden(bool hidden) { statusBarHidden_ = hidden; }
    /// Main thread. The screen's size held upright; the key window follows.
    void setScreenSize(const Size& portrait);

  protected:
    /// Main thread. A screen of `portrait` size held upright, without a key window yet.
    explicit ViewSystem(const Size& portrait);
    /// Main thread. The backend's key window, set once while it is made; it covers the screen.
    void setKeyWindow(std::shared_ptr<View> window);
    /// Main thread. `view` joined the presented views; it announces its appearance afterwards.
    virtual void didPresent(View& /*view*/, const ModalPresentation& /*presentation*/) {}
    /// Main thread. `view` left the presented views; it announces its disappearance afterwards.
    virtual void didDismiss(View& /*view*/, bool /*animated*/) {}

  private:
    std::shared_ptr<View> keyWindow_;
    Size portrait_;
    DeviceOrientation deviceOrientation_ = DeviceOrientation::kPortrait;
    InterfaceOrientation interfaceOrientation_ = InterfaceOrientation::kPortrait;
    bool statusBarHidden_ = false;
    std::vector<std::function<void()>> observers_;
    PresentationContext rootContext_;
    std::vector<std::weak_ptr<View>> presented_;
};

}  // namespace tovrel::platform
