#pragma once

#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "tovrel/export.h"
#include "tovrel/platform/views.h"
#include "tovrel/view_controller.h"

namespace tovrel {

class ContentController;
class Environment;

/// The notification-frequency screen: two heading rows and five choices, the choice kept under
/// "checkedPath" as {"section": 0, "row": N}. Nothing else reads the choice. The host presents
/// view(); the back button dismisses it. Main thread only.
class TOVREL_EXPORT SubViewController final : public ViewController,
                                              public platform::TableViewDataSource,
                                              public platform::TableViewDelegate,
                                              public std::enable_shared_from_this<SubViewController> {
    struct Token {
        explicit Token() = default;
    };

  public:
    static constexpr const char* kNibName = "SubViewController";
    static constexpr long kUnlimitedRow = 6;

    static std::shared_ptr<SubViewController> create(Environment& environment, std::string nibName,
                                                     std::optional<std::string> bundlePath);
    SubViewController(Token, Environment& environment, std::string nibName,
                      std::optional<std::string> bundlePath);
    SubViewController(const SubViewController&) = delete;
    SubViewController& operator=(const SubViewController&) = delete;

    /// Main thread. Colours the screen and fills the table (the root view, table and back button, is
    /// made on first use of view()).
    void viewDidLoad() override;
    /// Dismisses the screen, animated.
    void closeMe();

    long tableViewNumberOfRowsInSection(platform::TableView& tableView, long section) override;
    std::shared_ptr<platform::TableViewCell> tableViewCellForRowAtIndexPath(
        platform::TableView& tableView, const platform::IndexPath& indexPath) override;
    void tableViewDidSelectRowAtIndexPath(platform::TableView& tableView,
                                          const platform::IndexPath& indexPath) override;
    std::optional<double> tableViewHeightForFooterInSection(platform::TableView& tableView,
                                                            long section) override;
    std::shared_ptr<platform::View> tableViewViewForFooterInSection(platform::TableView& tableView,
                                                                    long section) override;
    long tableViewIndentationLevelForRowAtIndexPath(platform::TableView& tableView,
                                                    const platform::IndexPath& indexPath) override;

    /// The stored form of a choice.
    static nlohmann::json archiveIndexPath(const platform::IndexPath& indexPath);
    /// The choice stored in `archived`; nullopt when nothing (or something else) is stored.
    static std::optional<platform::IndexPath> unarchiveIndexPath(
        const std::optional<nlohmann::json>& archived);

    /// The current choice; the stored one replaces it whenever a row is drawn.
    std::optional<platform::IndexPath> checkedIndexPath;
    std::vector<std::string> tableData;

    [[nodiscard]] const std::shared_ptr<platform::TableView>& tableView() const { return tableView_; }
    [[nodiscard]] const std::shared_ptr<platform::Button>& backButon() const { return backButon_; }
    [[nodiscard]] const std::string& nibName() const { return nibName_; }

  private:
    void loadView() override;
    void storeChoice(const platform::IndexPath& indexPath);

    Environment& environment_;
    std::string nibName_;
    std::optional<std::string> bundlePath_;
    std::shared_ptr<platform::TableView> tableView_;
    std::shared_ptr<platform::Button> backButon_;
};

/// The settings menu: the host application's page of the system settings, four content pages and
/// the component's version. The host presents view(). Main thread only.
class TOVREL_EXPORT SettingsController final : public ViewController,
                                               public platform::TableViewDataSource,
                                               public platform::TableViewDelegate,
                                               public std::enable_shared_from_this<SettingsController> {
    struct Token {
        explicit Token() = default;
    };

  public:
    /// A row that opens a content page: its title and the page's path on the content portal.
    struct ContentPage {
        const char* title;
        const char* path;
    };

    static std::shared_ptr<SettingsController> create(Environment& environment);
    SettingsController(Token, Environment& environment);
    SettingsController(const SettingsController&) = delete;
    SettingsController& operator=(const SettingsController&) = delete;

    /// Main thread. Makes the content and frequency controllers and fills the table (the root view,
    /// the table, is made on first use of view()).
    void viewDidLoad() override;
    /// Dismisses the menu, animated.
    void close();
    [[nodiscard]] static bool prefersStatusBarHidden() { return false; }

    long tableViewNumberOfRowsInSection(platform::TableView& tableView, long section) override;
    std::shared_ptr<platform::TableViewCell> tableViewCellForRowAtIndexPath(
        platform::TableView& tableView, const platform::IndexPath& indexPath) override;
    void tableViewDidSelectRowAtIndexPath(platform::TableView& tableView,
                                          const platform::IndexPath& indexPath) override;

    /// The content page of menu row `row` (1 to 4), else nullopt.
    static std::optional<ContentPage> contentPageForRow(long row);

    std::vector<std::string> tableData;
    /// This screen's own presentation settings, set when it shows a content page.
    platform::PresentationContext presentationContext;

    [[nodiscard]] const std::shared_ptr<platform::TableView>& tableView() const { return tableView_; }
    [[nodiscard]] const std::shared_ptr<ContentController>& contentController() const {
        return contentController_;
    }
    [[nodiscard]] const std::shared_ptr<SubViewController>& subViewController() const {
        return subViewController_;
    }

  private:
    void loadView() override;
    void showContentPage(const ContentPage& page, const platform::IndexPath& indexPath);

    Environment& environment_;
    std::shared_ptr<platform::TableView> tableView_;
    std::shared_ptr<ContentController> contentController_;
    std::shared_ptr<SubViewController> subViewController_;
};

}  // namespace tovrel
