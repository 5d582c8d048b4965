#pragma once

#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "tovrel/export.h"
#include "tovrel/platform/main_loop.h"
#include "tovrel/platform/preferences.h"
#include "tovrel/platform/views.h"
#include "tovrel/view_controller.h"

namespace tovrel {

class Environment;

/// Shows one offer's media full-screen: a web page laid over everything in the key window, hidden
/// behind a spinner until it has loaded, then faded and bounced in. Made and shown by
/// presentOfferFullView(); its view stays on screen until a close button removes it, and the
/// controller lives as long as the presenter keeps it. Main thread only.
class TOVREL_EXPORT OfferFullViewController final
    : public ViewController,
      public platform::WebViewDelegate,
      public std::enable_shared_from_this<OfferFullViewController> {
    struct Token {
        explicit Token() = default;
    };

  public:
    /// The interface file the view comes from, in the resource bundle.
    static constexpr const char* kNibName = "OfferFullViewController";

    /// A controller for the interface file `nibName` of the bundle at `bundlePath`; its view is
    /// made on first use of view().
    static std::shared_ptr<OfferFullViewController> create(Environment& environment, std::string nibName,
                                                           std::optional<std::string> bundlePath);
    OfferFullViewController(Token, Environment& environment, std::string nibName,
                            std::optional<std::string> bundlePath);
    /// Detaches the web view, stops its loading and takes the spinner off the window.
    ~OfferFullViewController() override;
    OfferFullViewController(const OfferFullViewController&) = delete;
    OfferFullViewController& operator=(const OfferFullViewController&) = delete;

    /// Main thread. Lays the view out for the orientation and the status bar, once the view is made
    /// (on first use of view()).
    void viewDidLoad() override;
    void viewWillAppear(bool animated);
    void viewDidAppear(bool animated);
    void orientationChanged();
    void adjustViewsForOrientation(platform::InterfaceOrientation orientation);
    /// Removes every subview of the key window whose tag is greater than 0: all offer views at once,
    /// and any other positively tagged view too.
    void closeMe();

    bool webViewShouldStartLoadWithRequest(platform::WebView& webView, const platform::URLRequest& request,
                                           platform::WebNavigationType type) override;
    void webViewDidStartLoad(platform::WebView& webView) override;
    void webViewDidFinishLoad(platform::WebView& webView) override;

    /// The view frame for the screen bounds `screen`: the whole screen when the status bar is
    /// hidden, else everything 22 points below the top (whatever the device or orientation).
    static platform::Rect frameForStatusBar(bool statusBarHidden, const platform::Rect& screen);
    /// The zoom that fits a page `contentWidth` wide into `viewWidth`, worked out in double
    /// precision and kept in single.
    static float fitWidthZoomScale(double viewWidth, double contentWidth);
    /// The entrance bounce: "position.y" from 0 to 20 and back, twice, in 0.1 s steps.
    static platform::BasicAnimation bounceAnimation();
    /// closeMe's sweep, on any key window.
    static void closeOfferViews(platform::ViewSystem& views);

    // Offer fields, as the presenter gives them (objects as they stand; null for nothing).
    nlohmann::json eventId;
    nlohmann::json deviceEventId;
    nlohmann::json mediaType;  ///< stored, never read: every media type shows the page at mediaURL
    nlohmann::json mediaURL;
    nlohmann::json alertText;  ///< stored, never read

    [[nodiscard]] const std::shared_ptr<platform::ActivityIndicatorView>& activityIndicator() const {
        return activityIndicator_;
    }
    [[nodiscard]] const std::shared_ptr<platform::WebView>& adWebView() const { return adWebView_; }
    [[nodiscard]] const std::shared_ptr<platform::Button>& closeButton() const { return closeButton_; }
    [[nodiscard]] const std::string& nibName() const { return nibName_; }
    [[nodiscard]] const std::optional<std::string>& nibBundlePath() const { return bundlePath_; }

  private:
    void loadView() override;
    [[nodiscard]] platform::ViewSystem& views() const;
    void setFrameByStatusBar();

    Environment& environment_;
    std::string nibName_;
    std::optional<std::string> bundlePath_;
    std::shared_ptr<platform::WebView> adWebView_;
    std::shared_ptr<platform::Button> closeButton_;
    std::shared_ptr<platform::ActivityIndicatorView> activityIndicator_;
    std::shared_ptr<platform::PreferencesStore> prefs_;
};

/// The offer an offer view shows, as its presenter read it: from an offer record ("eventId",
/// "deviceEventId", "mediaType", "mediaUrl") or from a map pin.
struct TOVREL_EXPORT OfferViewContent {
    nlohmann::json eventId;
    nlohmann::json deviceEventId;
    nlohmann::json mediaType;
    nlohmann::json mediaURL;

    /// The four fields of an offer record's first element; missing keys are null.
    static OfferViewContent fromOfferRecord(const nlohmann::json& element);
};

/// Opens the offer view the way every presenter does: makes the controller from the interface file
/// "OfferFullViewController" of the "TovrelSDKResources" bundle, lays out its view, gives it the
/// four fields, tags the view with the integer value of the event identifier, raises the view and
/// the key window to the topmost z-position and adds the view to the key window (which makes it
/// appear: spinner, then the page one second later). Returns the controller, which the caller must
/// keep (its `offerFullViewController`) while the view may be on screen; null when the environment
/// has no views. Main thread.
TOVREL_EXPORT std::shared_ptr<OfferFullViewController> presentOfferFullView(Environment& environment,
                                                                            const OfferViewContent& content);

}  // namespace tovrel
