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
#include "tovrel/platform/map_view.h"
#include "tovrel/platform/views.h"

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

/// The in-memory toolkit: a key window the size of the screen, a device the test rotates, pages
/// loaded through the HTTP port, and records of animations and presentations. Main thread only.
/// It keeps the loop and the HTTP client by weak reference: their owner keeps them alive.
class TOVREL_EXPORT VirtualViewSystem final : public platform::ViewSystem {
  public:
    VirtualViewSystem(const std::shared_ptr<platform::MainLoop>& loop,
                      const std::shared_ptr<platform::HttpClient>& http);
    ~VirtualViewSystem() override;
    VirtualViewSystem(const VirtualViewSystem&) = delete;
    VirtualViewSystem& operator=(const VirtualViewSystem&) = delete;

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

    /// The content size of the page at `url` once it has loaded.
    void setPageContentSize(const std::string& url, const platform::Size& size);
    /// How many subframes the page at `url` loads: each reports a finish while the page is still
    /// loading, before the page's own final finish.
    void setPageSubframes(const std::string& url, int count);
    /// Whether the main bundle holds "TovrelSDKResources.bundle" (default yes).
    void setResourceBundlePresent(bool present) { bundlePresent_ = present; }

    [[nodiscard]] const std::vector<AnimationBlock>& animationBlocks() const;
    [[nodiscard]] const std::vector<PresentationRecord>& presentations() const { return presentations_; }
    /// What happened on `map`, oldest first (the last 10,000 changes of all maps are kept).
    [[nodiscard]] std::vector<platform::MapChange> mapChanges(const platform::MapView& map) const;

  protected:
    void didPresent(platform::View& view, const platform::ModalPresentation& presentation) override;
    void didDismiss(platform::View& view, bool animated) override;

  private:
    std::shared_ptr<ViewContext> context_;
    bool bundlePresent_ = true;
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
