#pragma once

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "tovrel/export.h"
#include "tovrel/platform/http.h"
#include "tovrel/platform/main_loop.h"
#include "tovrel/platform/views.h"
#include "tovrel/viewtree/reuse_pool.h"

namespace tovrel::virtualbackend {

struct VirtualPlatform;
struct ViewContext;

/// One property set inside an animation block, with the value it animates to.
struct TOVREL_EXPORT AnimatedChange {
    std::weak_ptr<platform::View> view;
    std::string property;  ///< "alpha", "hidden", "frame", "transform"
    std::variant<double, bool, platform::Rect, platform::Transform> value;
};

/// One animation block as the component ran it.
struct TOVREL_EXPORT AnimationBlock {
    platform::ViewAnimation animation;
    std::vector<AnimatedChange> changes;
};

/// One modal presentation, kept after it is dismissed.
struct TOVREL_EXPORT PresentationRecord {
    std::shared_ptr<platform::View> view;
    platform::ModalPresentation presentation;
    platform::PresentationContext rootContext;  ///< the root's settings when it was presented
    bool dismissed = false;
    bool dismissedAnimated = false;
};

/// A plain view (and the key window).
class TOVREL_EXPORT VirtualView final : public platform::View {
  public:
    VirtualView(const std::shared_ptr<ViewContext>& context, const platform::Rect& frame);
};

/// A web view that loads pages through the HTTP port: any 2xx or other answer finishes the load (as
/// a browser shows an error page), a transport failure fails it. The page's content size is the
/// one set for its address on the ViewSystem, else the view's size. It keeps what it was asked to
/// load and run.
class TOVREL_EXPORT VirtualWebView final : public platform::WebView {
  public:
    VirtualWebView(const std::shared_ptr<ViewContext>& context, const platform::Rect& frame);

    /// The user taps a link to `url` inside the page.
    void tapLink(const std::string& url);
    /// Every request the model loaded, oldest first.
    [[nodiscard]] const std::vector<platform::URLRequest>& loadedRequests() const { return requests_; }
    /// Every script run in the page, oldest first.
    [[nodiscard]] const std::vector<std::string>& scripts() const { return scripts_; }
    /// The body of the page shown, empty before the first load.
    [[nodiscard]] const std::string& pageBody() const { return body_; }

  private:
    friend struct ViewContext;

    /// Sends the request of the load under way through the HTTP port.
    void send(const platform::URLRequest& request);
    void answer(std::uint64_t generation, const platform::URLRequest& request,
                const platform::HttpResponse& response);

    std::shared_ptr<ViewContext> context_;
    std::vector<platform::URLRequest> requests_;
    std::vector<std::string> scripts_;
    std::string body_;
};

/// A map that asks its delegate for an annotation's view when the annotation is added (a default pin
/// when it gives none), and for an overlay's view when the overlay is added. Removed annotations'
/// views with a reuse identifier are set aside for reuse, as on the Qt map.
class TOVREL_EXPORT VirtualMapView final : public platform::MapView {
  public:
    VirtualMapView(const std::shared_ptr<ViewContext>& context, const platform::Rect& frame);

    void setDelegate(std::weak_ptr<platform::MapViewDelegate> delegate) override {
        delegate_ = std::move(delegate);
    }
    [[nodiscard]] std::vector<std::shared_ptr<platform::Annotation>> annotations() const override;
    void addAnnotation(std::shared_ptr<platform::Annotation> annotation) override;
    void removeAnnotations(const std::vector<std::shared_ptr<platform::Annotation>>& annotations) override;
    [[nodiscard]] std::vector<std::shared_ptr<platform::Overlay>> overlays() const override;
    void addOverlay(std::shared_ptr<platform::Overlay> overlay) override;
    void removeOverlays(const std::vector<std::shared_ptr<platform::Overlay>>& overlays) override;
    std::shared_ptr<platform::AnnotationView> dequeueReusableAnnotationViewWithIdentifier(
        const std::string& identifier) override;
    void deselectAnnotation(const std::shared_ptr<platform::Annotation>& annotation, bool animated) override;
    [[nodiscard]] std::shared_ptr<platform::UserLocation> userLocation() const override {
        return userLocation_;
    }
    [[nodiscard]] bool showsUserLocation() const override { return showsUserLocation_; }
    void setShowsUserLocation(bool shows) override { showsUserLocation_ = shows; }
    [[nodiscard]] platform::CoordinateRegion region() const override { return region_; }
    void setRegion(const platform::CoordinateRegion& region, bool animated) override;
    [[nodiscard]] platform::MapRect visibleMapRect() const override { return visibleRect_; }
    void setVisibleMapRect(const platform::MapRect& rect, const platform::EdgeInsets& padding,
                           bool animated) override;

    /// A new fix of the user's position: the map moves its user location and tells the delegate
    /// (only while it shows the user location).
    void deliverUserLocation(const platform::Location& location);
    /// The user taps the annotation's pin: its callout opens.
    void selectAnnotation(const std::shared_ptr<platform::Annotation>& annotation);
    /// The user taps the right (or left) callout accessory of `annotation`. False when it has no view
    /// or that accessory is not a control.
    bool tapCalloutAccessory(const std::shared_ptr<platform::Annotation>& annotation, bool right = true);

    /// The view of `annotation`: the delegate's, else the default pin; null when it is not on the map.
    [[nodiscard]] std::shared_ptr<platform::AnnotationView> viewForAnnotation(
        const std::shared_ptr<platform::Annotation>& annotation) const;
    /// The view the delegate gave for `overlay`.
    [[nodiscard]] std::optional<platform::OverlayView> viewForOverlay(
        const std::shared_ptr<platform::Overlay>& overlay) const;
    [[nodiscard]] const std::vector<std::shared_ptr<platform::Annotation>>& selectedAnnotations() const {
        return selected_;
    }
    struct RegionChange {
        platform::CoordinateRegion region;
        bool animated;
    };
    struct VisibleRectChange {
        platform::MapRect rect;
        platform::EdgeInsets padding;
        bool animated;
    };
    struct Deselection {
        std::shared_ptr<platform::Annotation> annotation;
        bool animated;
    };
    [[nodiscard]] const std::vector<RegionChange>& regionChanges() const { return regionChanges_; }
    [[nodiscard]] const std::vector<VisibleRectChange>& visibleRectChanges() const {
        return visibleRectChanges_;
    }
    [[nodiscard]] const std::vector<Deselection>& deselections() const { return deselections_; }
    /// What each dequeue returned, in order (null when nothing was set aside).
    [[nodiscard]] const std::vector<std::shared_ptr<platform::AnnotationView>>& dequeued() const {
        return dequeued_;
    }

  private:
    struct Pinned {
        std::shared_ptr<platform::Annotation> annotation;
        std::shared_ptr<platform::AnnotationView> view;
    };
    struct Drawn {
        std::shared_ptr<platform::Overlay> overlay;
        platform::OverlayView view;
    };

    std::shared_ptr<ViewContext> context_;
    std::weak_ptr<platform::MapViewDelegate> delegate_;
    std::vector<Pinned> pinned_;
    std::vector<Drawn> drawn_;
    viewtree::ReusePool<platform::AnnotationView> reusable_;
    std::shared_ptr<platform::UserLocation> userLocation_;
    bool showsUserLocation_ = false;
    platform::CoordinateRegion region_;
    platform::MapRect visibleRect_;
    std::vector<std::shared_ptr<platform::Annotation>> selected_;
    std::vector<RegionChange> regionChanges_;
    std::vector<VisibleRectChange> visibleRectChanges_;
    std::vector<Deselection> deselections_;
    std::vector<std::shared_ptr<platform::AnnotationView>> dequeued_;
};

/// The in-memory toolkit: a key window the size of the screen, a device the test rotates, pages
/// loaded through the HTTP port, and records of animations and presentations. Main thread only.
/// It keeps the loop and the HTTP client by weak reference: their owner keeps them alive.
class TOVREL_EXPORT VirtualViewSystem final : public platform::ViewSystem {
  public:
    VirtualViewSystem(const std::shared_ptr<platform::MainLoop>& loop,
                      const std::shared_ptr<platform::HttpClient>& http);
    ~VirtualViewSystem() override;

    std::shared_ptr<platform::View> keyWindow() override { return keyWindow_; }
    [[nodiscard]] platform::Rect mainScreenBounds() const override;
    [[nodiscard]] platform::DeviceOrientation deviceOrientation() const override {
        return deviceOrientation_;
    }
    [[nodiscard]] platform::InterfaceOrientation statusBarOrientation() const override {
        return interfaceOrientation_;
    }
    [[nodiscard]] bool isStatusBarHidden() const override { return statusBarHidden_; }
    void addDeviceOrientationObserver(std::function<void()> handler) override;
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

    void setRootPresentationContext(const platform::PresentationContext& context) override {
        rootContext_ = context;
    }
    void presentModalView(std::shared_ptr<platform::View> view,
                          const platform::ModalPresentation& presentation) override;
    void dismissModalView(const std::shared_ptr<platform::View>& view, bool animated) override;

    /// The device turns: the device orientation, the interface orientation (for the four upright
    /// ones), the screen bounds and the key window follow, and the orientation observers run.
    void rotate(platform::DeviceOrientation orientation);
    void setStatusBarHidden(bool hidden) { statusBarHidden_ = hidden; }
    /// The portrait size of the screen (default 375 × 667).
    void setScreenSize(const platform::Size& portrait);
    /// The content size of the page at `url` once it has loaded.
    void setPageContentSize(const std::string& url, const platform::Size& size);
    /// How many subframes the page at `url` loads: each reports a finish while the page is still
    /// loading, before the page's own final finish.
    void setPageSubframes(const std::string& url, int count);
    /// Whether the main bundle holds "TovrelSDKResources.bundle" (default yes).
    void setResourceBundlePresent(bool present) { bundlePresent_ = present; }

    [[nodiscard]] const std::vector<AnimationBlock>& animationBlocks() const;
    [[nodiscard]] const std::vector<PresentationRecord>& presentations() const { return presentations_; }
    /// The views presented now, oldest first.
    [[nodiscard]] std::vector<std::shared_ptr<platform::View>> presentedViews() const;
    [[nodiscard]] const platform::PresentationContext& rootPresentationContext() const {
        return rootContext_;
    }
    [[nodiscard]] std::size_t orientationObserverCount() const { return observers_.size(); }

  private:
    std::shared_ptr<ViewContext> context_;
    std::shared_ptr<platform::View> keyWindow_;
    platform::Size portrait_{375, 667};
    platform::DeviceOrientation deviceOrientation_ = platform::DeviceOrientation::kPortrait;
    platform::InterfaceOrientation interfaceOrientation_ = platform::InterfaceOrientation::kPortrait;
    bool statusBarHidden_ = false;
    bool bundlePresent_ = true;
    std::vector<std::function<void()>> observers_;
    platform::PresentationContext rootContext_;
    std::vector<PresentationRecord> presentations_;
};

/// The virtual view system of `platform` (its `views` port).
TOVREL_EXPORT VirtualViewSystem& virtualViews(const VirtualPlatform& platform);

/// `view` as the virtual kind T, or null.
template <class T>
std::shared_ptr<T> virtualView(const std::shared_ptr<platform::View>& view) {
    return std::dynamic_pointer_cast<T>(view);
}

}  // namespace tovrel::virtualbackend
