#include <QTest>

#include "qt_test_support.h"
#include "screen_fixture.h"
#include "tovrel/settings_controller.h"

namespace tovrel::qttest {
namespace {

using namespace std::chrono_literals;
using platform::TableViewCellAccessory;

const QColor kDarkGrey(50, 55, 58);

class SettingsScreenTest : public ScreenFixture {};

TEST_F(SettingsScreenTest, TheMenuShowsItsSixRowsWithTheirIconsAndAccessories) {
    auto settings = SettingsController::create(*env);
    views().presentModalView(settings->view(), {});
    auto table = qtbackend::qtView<qtbackend::QtTableView>(settings->tableView());
    ASSERT_NE(table, nullptr);
    const auto& cells = table->visibleCells();
    ASSERT_EQ(cells.size(), 6U);
    const std::vector<std::string> texts{"OS Settings",    "About", "Terms of Service",
                                         "Privacy Policy", "Help",  "SDK Version 1.2.4"};
    const std::vector<std::string> images{"settings.png", "about.png", "terms.png",
                                          "privacy.png",  "help.png",  ""};
    for (std::size_t row = 0; row < cells.size(); ++row) {
        EXPECT_EQ(cells[row]->text(), texts[row]);
        EXPECT_EQ(cells[row]->imageName(),
                  images[row].empty() ? "" : "TovrelSDKResources.bundle/" + images[row]);
        EXPECT_EQ(cells[row]->accessoryType(),
                  row < 5 ? TableViewCellAccessory::kDisclosureIndicator : TableViewCellAccessory::kNone);
        if (!images[row].empty()) {
            EXPECT_FALSE(views().image(cells[row]->imageName()).isNull())
                << images[row] << " is not in the bundle";
        }
    }
    pump(100ms);
    const QImage grab = grabAndSave(*views().window(), "settings");

    // Dark rows, white text, each icon's colour at its place, and a chevron on the first five rows.
    for (std::size_t row = 0; row < 6; ++row) {
        const QRect rowArea(0, static_cast<int>(row) * 44, grab.width(), 44);
        EXPECT_GT(countNear(grab, rowArea, kDarkGrey, 2), 8000) << "row " << row;
        EXPECT_GT(countNear(grab, rowArea.adjusted(60, 0, -60, 0), Qt::white, 60), 20) << "row " << row;
        const int chevrons =
            countNear(grab, rowArea.adjusted(grab.width() - 30, 0, 0, 0), QColor(199, 199, 204), 30);
        if (row < 5) {
            EXPECT_GT(chevrons, 5) << "row " << row;
        } else {
            EXPECT_EQ(chevrons, 0);
        }
    }
    EXPECT_GT(countNear(grab, QRect(15, 44 + 7, 29, 29), QColor(0, 122, 255), 30), 200) << "about icon";
    EXPECT_GT(countNear(grab, QRect(15, 4 * 44 + 7, 29, 29), QColor(255, 149, 0), 30), 200) << "help icon";
    // Below the last row the table's dark background continues without separators.
    EXPECT_EQ(countNear(grab, QRect(0, 6 * 44 + 2, grab.width(), 300), kDarkGrey, 2), grab.width() * 300);
}

TEST_F(SettingsScreenTest, TheFrequencyScreenChecksUnlimitedFirstAndMovesTheCheckOnAClick) {
    auto screen = SubViewController::create(*env, SubViewController::kNibName,
                                            views().pathForResource("TovrelSDKResources", "bundle"));
    views().presentModalView(screen->view(), {});
    auto table = qtbackend::qtView<qtbackend::QtTableView>(screen->tableView());
    ASSERT_NE(table, nullptr);
    ASSERT_EQ(table->visibleCells().size(), 7U);
    EXPECT_EQ(table->visibleCells()[6]->accessoryType(), TableViewCellAccessory::kCheckmark);
    QTest::mouseClick(qtbackend::qtCore(table->visibleCells()[4].get())->widget(), Qt::LeftButton);
    EXPECT_EQ(table->visibleCells()[4]->accessoryType(), TableViewCellAccessory::kCheckmark);
    EXPECT_EQ(table->visibleCells()[6]->accessoryType(), TableViewCellAccessory::kNone);
    EXPECT_EQ(table->visibleCells()[4]->indentationLevel(), 5);
    pump(100ms);
    grabAndSave(*views().window(), "frequency");
}

}  // namespace
}  // namespace tovrel::qttest
