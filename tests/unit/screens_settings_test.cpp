#include "screens_fixture.h"
#include "tovrel/content_controller.h"
#include "tovrel/settings_controller.h"

namespace tovrel {
namespace {

using nlohmann::json;
using platform::IndexPath;
using platform::TableViewCellAccessory;
using virtualbackend::VirtualWebView;

constexpr platform::Color kDarkGrey = platform::Color::rgb255(50, 55, 58);

class SettingsTest : public testing::ScreensTest {
  protected:
    void open() {
        settings = SettingsController::create(device.environment);
        settings->view();
    }
    platform::TableView& table() { return as<platform::TableView>(settings->tableView()); }
    std::shared_ptr<platform::TableViewCell> cell(long row) {
        return table().cellForRowAtIndexPath({0, row});
    }

    std::shared_ptr<SettingsController> settings;
};

TEST_F(SettingsTest, MenuHasSixRowsInOrderWithTheirImages) {
    open();
    const std::vector<std::pair<std::string, std::string>> expected = {
        {"OS Settings", "TovrelSDKResources.bundle/settings.png"},
        {"About", "TovrelSDKResources.bundle/about.png"},
        {"Terms of Service", "TovrelSDKResources.bundle/terms.png"},
        {"Privacy Policy", "TovrelSDKResources.bundle/privacy.png"},
        {"Help", "TovrelSDKResources.bundle/help.png"},
        {"SDK Version 1.2.4", ""},
    };
    ASSERT_EQ(table().visibleCells().size(), expected.size());
    for (long row = 0; row < 6; ++row) {
        SCOPED_TRACE(row);
        const auto& [text, image] = expected[static_cast<std::size_t>(row)];
        EXPECT_EQ(cell(row)->text(), text);
        EXPECT_EQ(cell(row)->imageName(), image);
        EXPECT_EQ(cell(row)->accessoryType(),
                  row == 5 ? TableViewCellAccessory::kNone : TableViewCellAccessory::kDisclosureIndicator);
        EXPECT_EQ(cell(row)->backgroundColor(), kDarkGrey);
        EXPECT_EQ(cell(row)->textColor(), platform::Color::whiteColor());
        EXPECT_EQ(cell(row)->reuseIdentifier(), "cell");
    }
    EXPECT_EQ(table().backgroundColor(), kDarkGrey);
    ASSERT_NE(table().tableFooterView(), nullptr);
    EXPECT_TRUE(table().tableFooterView()->subviews().empty());
    EXPECT_FALSE(SettingsController::prefersStatusBarHidden());
}

TEST_F(SettingsTest, RedrawingGivesEachRowItsOwnCellBack) {
    open();
    const auto before = table().visibleCells();
    table().reloadData();
    EXPECT_EQ(table().visibleCells(), before);
    EXPECT_EQ(cell(5)->imageName(), "");
}

TEST_F(SettingsTest, TheVersionRowDoesNothing) {
    open();
    table().tapRow(5);
    ASSERT_EQ(table().deselections().size(), 1u);
    EXPECT_EQ(table().deselections()[0], std::make_pair(IndexPath{0, 5}, true));
    EXPECT_TRUE(views.presentations().empty());
    EXPECT_TRUE(device.vp.application->openedURLs().empty());
    EXPECT_TRUE(device.http().requests().empty());
}

TEST_F(SettingsTest, ContentPagesOpenWithTheirTitlesAndAddresses) {
    open();
    const auto content = settings->contentController();
    ASSERT_NE(content, nullptr);
    EXPECT_EQ(content->nibName(), "ContentController");
    EXPECT_EQ(content->nibBundlePath(), "/virtual/Host.app/TovrelSDKResources.bundle");
    const std::vector<std::pair<std::string, std::string>> pages = {
        {"About Tovrel", "http://content.test/appcontent/about.html"},
        {"Terms of Service", "http://content.test/appcontent/terms.html"},
        {"Privacy Policy", "http://content.test/appcontent/privacy.html"},
        {"Help", "http://content.test/appcontent/help.html"},
    };
    for (long row = 1; row <= 4; ++row) {
        SCOPED_TRACE(row);
        const auto& [title, address] = pages[static_cast<std::size_t>(row - 1)];
        table().tapRow(row);
        device.loop().runUntilIdle();
        EXPECT_EQ(settings->contentController(), content);
        EXPECT_EQ(content->navTitle, title);
        EXPECT_EQ(content->urlString, address);
        EXPECT_EQ(content->navbar()->topItem()->title, title);
        const auto& shown = views.presentations().back();
        EXPECT_EQ(shown.view, content->view());
        EXPECT_EQ(shown.presentation.style, platform::ModalPresentationStyle::kOverCurrentContext);
        EXPECT_TRUE(shown.presentation.animated);
        EXPECT_TRUE(shown.presentation.prefersStatusBarHidden);
        EXPECT_EQ(shown.rootContext,
                  (platform::PresentationContext{platform::ModalPresentationStyle::kCustom, true, true}));
        EXPECT_EQ(table().deselections().back(), std::make_pair(IndexPath{0, row}, true));
        EXPECT_EQ(as<VirtualWebView>(content->webView()).loadedRequests().back().url, address);
        content->closeMe();
        device.loop().runUntilIdle();
    }
    EXPECT_EQ(settings->presentationContext,
              (platform::PresentationContext{platform::ModalPresentationStyle::kCustom, true, true}));
    EXPECT_EQ(views.presentations().size(), 4u);
}

TEST_F(SettingsTest, APageAlreadyShowingIsNotPresentedTwice) {
    open();
    table().tapRow(1);
    table().tapRow(2);
    device.loop().runUntilIdle();
    EXPECT_EQ(views.presentations().size(), 1u);
    EXPECT_EQ(settings->contentController()->urlString, "http://content.test/appcontent/terms.html");
}

class OsSettingsTest : public SettingsTest,
                       public ::testing::WithParamInterface<std::pair<const char*, bool>> {};

TEST_P(OsSettingsTest, OpensTheSystemSettingsFromVersionEight) {
    device.vp.device->setSystem(device.vp.device->systemName(), GetParam().first);
    open();
    table().tapRow(0);
    EXPECT_EQ(table().deselections().back(), std::make_pair(IndexPath{0, 0}, true));
    const auto opened = device.vp.application->openedURLs();
    if (GetParam().second) {
        EXPECT_EQ(opened, std::vector<std::string>{"app-settings:"});
    } else {
        EXPECT_TRUE(opened.empty());
    }
    EXPECT_TRUE(views.presentations().empty());
}

INSTANTIATE_TEST_SUITE_P(Versions, OsSettingsTest,
                         ::testing::Values(std::pair("7.1.2", false), std::pair("8.0", true),
                                           std::pair("8", true), std::pair("17.4", true),
                                           std::pair("", false)));

TEST_F(SettingsTest, FrequencyScreenIsMadeOnLoadButNotShown) {
    open();
    ASSERT_NE(settings->subViewController(), nullptr);
    EXPECT_EQ(settings->subViewController()->nibName(), "SubViewController");
    EXPECT_FALSE(device.prefs().objectForKey("checkedPath").has_value());
}

class FrequencyTest : public testing::ScreensTest {
  protected:
    std::shared_ptr<SubViewController> open() {
        auto screen = SubViewController::create(device.environment, "SubViewController", std::nullopt);
        screen->view();
        return screen;
    }
    static platform::TableView& table(const std::shared_ptr<SubViewController>& screen) {
        return as<platform::TableView>(screen->tableView());
    }
    static std::vector<long> checkedRows(const std::shared_ptr<SubViewController>& screen) {
        std::vector<long> rows;
        const auto& cells = table(screen).visibleCells();
        for (std::size_t row = 0; row < cells.size(); ++row) {
            if (cells[row]->accessoryType() == TableViewCellAccessory::kCheckmark) {
                rows.push_back(static_cast<long>(row));
            }
        }
        return rows;
    }
    std::optional<json> stored() { return device.prefs().objectForKey("checkedPath"); }
};

TEST_F(FrequencyTest, FirstDrawMakesUnlimitedTheStoredChoice) {
    const auto screen = open();
    EXPECT_EQ(checkedRows(screen), std::vector<long>{6});
    EXPECT_EQ(stored(), (json{{"section", 0}, {"row", 6}}));
    EXPECT_EQ(screen->checkedIndexPath, (IndexPath{0, 6}));
}

TEST_F(FrequencyTest, RowsHeadingsAndIndentation) {
    const auto screen = open();
    const std::vector<std::string> texts = {"Location",       "Notifications",   "None",
                                            "1 time per day", "2 times per day", "3 times per day",
                                            "Unlimited"};
    const auto& cells = table(screen).visibleCells();
    ASSERT_EQ(cells.size(), texts.size());
    for (std::size_t row = 0; row < cells.size(); ++row) {
        SCOPED_TRACE(row);
        EXPECT_EQ(cells[row]->text(), texts[row]);
        EXPECT_EQ(cells[row]->indentationLevel(), row >= 2 ? 5 : 0);
        EXPECT_EQ(cells[row]->backgroundColor(), kDarkGrey);
        EXPECT_EQ(cells[row]->textColor(), platform::Color::whiteColor());
    }
    EXPECT_EQ(cells[0]->imageName(), "TovrelSDKResources.bundle/locations.png");
    EXPECT_EQ(cells[0]->accessoryType(), TableViewCellAccessory::kDisclosureIndicator);
    EXPECT_EQ(cells[1]->imageName(), "TovrelSDKResources.bundle/notifications.png");
    EXPECT_EQ(cells[1]->accessoryType(), TableViewCellAccessory::kNone);
    EXPECT_EQ(cells[2]->accessoryType(), TableViewCellAccessory::kNone);
    EXPECT_EQ(table(screen).sectionFooterHeight(), 100.0);
    ASSERT_NE(table(screen).sectionFooterView(), nullptr);
    EXPECT_EQ(screen->view()->backgroundColor(), kDarkGrey);
    EXPECT_EQ(table(screen).backgroundColor(), kDarkGrey);
}

TEST_F(FrequencyTest, PickingAChoiceStoresItAndAReopenShowsIt) {
    auto screen = open();
    table(screen).tapRow(4);
    EXPECT_EQ(checkedRows(screen), std::vector<long>{4});
    EXPECT_EQ(stored(), (json{{"section", 0}, {"row", 4}}));
    EXPECT_EQ(table(screen).deselections().back(), std::make_pair(IndexPath{0, 4}, true));

    screen = open();
    EXPECT_EQ(checkedRows(screen), std::vector<long>{4});
    EXPECT_EQ(stored(), (json{{"section", 0}, {"row", 4}}));
}

TEST_F(FrequencyTest, TappingAHeadingRemovesTheMarkButKeepsTheChoice) {
    device.prefs().setObject("checkedPath", json{{"section", 0}, {"row", 2}});
    const auto screen = open();
    ASSERT_EQ(checkedRows(screen), std::vector<long>{2});
    table(screen).tapRow(0);
    EXPECT_TRUE(checkedRows(screen).empty());
    EXPECT_EQ(stored(), (json{{"section", 0}, {"row", 2}}));
    EXPECT_EQ(screen->checkedIndexPath, (IndexPath{0, 2}));
    EXPECT_EQ(table(screen).deselections().back(), std::make_pair(IndexPath{0, 0}, true));
    table(screen).reloadData();
    EXPECT_EQ(checkedRows(screen), std::vector<long>{2});
}

TEST_F(FrequencyTest, TheStoredChoiceWinsOverTheOneInMemory) {
    const auto screen = open();
    table(screen).tapRow(3);
    device.prefs().setObject("checkedPath", json{{"section", 0}, {"row", 5}});
    table(screen).reloadData();
    EXPECT_EQ(checkedRows(screen), std::vector<long>{5});
    EXPECT_EQ(screen->checkedIndexPath, (IndexPath{0, 5}));
}

TEST_F(FrequencyTest, AnUnreadableChoiceCountsAsNone) {
    device.prefs().setObject("checkedPath", "garbage");
    const auto screen = open();
    EXPECT_EQ(checkedRows(screen), std::vector<long>{6});
    EXPECT_EQ(stored(), (json{{"section", 0}, {"row", 6}}));
    EXPECT_FALSE(SubViewController::unarchiveIndexPath(json{{"section", 0}}).has_value());
    EXPECT_FALSE(SubViewController::unarchiveIndexPath(json{{"section", 0}, {"row", "4"}}).has_value());
    EXPECT_FALSE(SubViewController::unarchiveIndexPath(std::nullopt).has_value());
}

TEST_F(FrequencyTest, TheBackButtonDismissesTheScreen) {
    const auto screen = open();
    views.presentModalView(screen->view(), {});
    ASSERT_TRUE(as<platform::Button>(screen->backButon()).tap());
    ASSERT_EQ(views.presentations().size(), 1u);
    EXPECT_TRUE(views.presentations()[0].dismissed);
    EXPECT_TRUE(views.presentations()[0].dismissedAnimated);
}

}  // namespace
}  // namespace tovrel
