#include <gtest/gtest.h>

#include <QTest>

#include "qt_test_support.h"
#include "tovrel/qt/qt_alerts.h"
#include "tovrel/qt/qt_main_loop.h"
#include "tovrel/qt/qt_views.h"

namespace tovrel::qtbackend {
namespace {

class QtAlertTest : public ::testing::Test {
  protected:
    void SetUp() override { views->window()->show(); }
    void TearDown() override { views->window()->hide(); }

    std::shared_ptr<QtMainLoop> loop = std::make_shared<QtMainLoop>();
    std::shared_ptr<QtViewSystem> views = std::make_shared<QtViewSystem>(loop, QtViewSystem::Options{});
    QtAlertPresenter alerts{views};
    std::vector<int> pressed;

    platform::AlertSpec spec(std::optional<std::string> cancel, std::vector<std::string> others) {
        platform::AlertSpec alert;
        alert.message = "Coffee for half price";
        alert.cancelButtonTitle = std::move(cancel);
        alert.otherButtonTitles = std::move(others);
        alert.onDismiss = [this](int index) { pressed.push_back(index); };
        return alert;
    }
};

TEST_F(QtAlertTest, TheCancelButtonIsIndexZeroAndTheOthersFollowInOrder) {
    for (int index = 0; index < 3; ++index) {
        const auto id = alerts.show(spec("Never", {"View", "Later"}));
        EXPECT_EQ(alerts.buttonTitles(id), (std::vector<std::string>{"Never", "View", "Later"}));
        QWidget* button = alerts.buttonWidget(id, index);
        ASSERT_NE(button, nullptr);
        QTest::mouseClick(button, Qt::LeftButton);
        EXPECT_TRUE(alerts.shownAlerts().empty());
    }
    EXPECT_EQ(pressed, (std::vector<int>{0, 1, 2}));
}

TEST_F(QtAlertTest, WithoutACancelButtonTheOtherButtonsStartAtZero) {
    const auto id = alerts.show(spec(std::nullopt, {"Yes", "No"}));
    EXPECT_EQ(alerts.buttonTitles(id), (std::vector<std::string>{"Yes", "No"}));
    QTest::mouseClick(alerts.buttonWidget(id, 1), Qt::LeftButton);
    EXPECT_EQ(pressed, std::vector<int>{1});
}

TEST_F(QtAlertTest, AToastWaitsForDismissAndUnknownIdsAreIgnored) {
    const auto id = alerts.show(spec(std::nullopt, {}));
    EXPECT_EQ(alerts.buttonWidget(id, 0), nullptr);
    alerts.dismiss(id + 100, 0, true);
    EXPECT_EQ(alerts.shownAlerts().size(), 1U);
    alerts.dismiss(id, 0, true);
    alerts.dismiss(id, 0, true);
    EXPECT_EQ(pressed, std::vector<int>{0});
}

TEST_F(QtAlertTest, AnAlertCoversTheWindowAboveEveryView) {
    auto offer = views->makeView(views->mainScreenBounds());
    offer->setZPosition(platform::kTopmostZPosition);
    views->keyWindow()->addSubview(offer);
    const auto id = alerts.show(spec("OK", {}));
    QWidget* overlay =
        alerts.buttonWidget(id, 0)->window() == views->window() ? alerts.buttonWidget(id, 0) : nullptr;
    ASSERT_NE(overlay, nullptr);
    while (overlay->parentWidget() != views->window()) {
        overlay = overlay->parentWidget();
    }
    // A view added after the alert still stays below it.
    auto later = views->makeView(views->mainScreenBounds());
    later->setZPosition(platform::kTopmostZPosition);
    views->keyWindow()->addSubview(later);
    const auto children = views->window()->children();
    EXPECT_EQ(children.back(), overlay);
}

}  // namespace
}  // namespace tovrel::qtbackend
