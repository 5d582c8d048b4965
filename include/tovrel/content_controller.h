#pragma once

#include <memory>
#include <optional>
#include <string>

#include "tovrel/export.h"
#include "tovrel/platform/views.h"
#include "tovrel/view_controller.h"

namespace tovrel {

class Environment;

/// A full-screen web page under a navigation bar whose back button closes it. The presenter sets
/// navTitle and urlString and presents view() modally; every appearance builds the bar again and
/// reloads the page from the network. Main thread only.
class TOVREL_EXPORT ContentController final : public ViewController,
                                              public platform::WebViewDelegate,
                                              public std::enable_shared_from_this<ContentController> {
    struct Token {
        explicit Token() = default;
    };

  public:
    static constexpr const char* kNibName = "ContentController";
    static constexpr const char* kBackImage = "TovrelSDKResources.bundle/icons_back.tiff";
    static constexpr double kPageTimeout = 30;

    static std::shared_ptr<ContentController> create(Environment& environment, std::string nibName,
                                                     std::optional<std::string> bundlePath);
    ContentController(Token, Environment& environment, std::string nibName,
                      std::optional<std::string> bundlePath);
    ContentController(const ContentController&) = delete;
    ContentController& operator=(const ContentController&) = delete;

    /// The status bar stays hidden while the page shows.
    [[nodiscard]] static bool prefersStatusBarHidden() { return true; }

    /// Main thread. Nothing to do once the view is made (on first use of view()).
    void viewDidLoad() override {}
    void viewDidAppear(bool animated);
    /// Dismisses the controller, animated.
    void closeMe();

    std::string navTitle;
    /// The page's address; empty for none (an empty page).
    std::string urlString;
    platform::ModalPresentationStyle modalPresentationStyle = platform::ModalPresentationStyle::kFullScreen;

    [[nodiscard]] const std::shared_ptr<platform::NavigationBar>& navbar() const { return navbar_; }
    [[nodiscard]] const std::shared_ptr<platform::WebView>& webView() const { return webView_; }
    [[nodiscard]] const std::string& nibName() const { return nibName_; }
    [[nodiscard]] const std::optional<std::string>& nibBundlePath() const { return bundlePath_; }

  private:
    void loadView() override;
    [[nodiscard]] platform::ViewSystem& views() const;

    Environment& environment_;
    std::string nibName_;
    std::optional<std::string> bundlePath_;
    std::shared_ptr<platform::NavigationBar> navbar_;
    std::shared_ptr<platform::WebView> webView_;
};

}  // namespace tovrel
