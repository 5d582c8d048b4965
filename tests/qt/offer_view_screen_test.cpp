#include <QTest>

#include "qt_test_support.h"
#include "screen_fixture.h"
#include "tovrel/offer_full_view_controller.h"
#include "tovrel/settings_controller.h"

namespace tovrel::qttest {
namespace {

using namespace std::chrono_literals;

const QColor kPageColour(0x0f, 0x9d, 0x8a);

class OfferViewScreenTest : public ScreenFixture {};

TEST_F(OfferViewScreenTest, TheOfferViewShowsTheMediaPageOverTheWindowOnceItHasLoaded) {
    auto map = views().makeView(views().mainScreenBounds());
    map->setBackgroundColor(platform::Color::rgb255(236, 233, 226));
    views().keyWindow()->addSubview(map);

    const auto controller =
        presentOfferFullView(*env, {nlohmann::json("1001"), nlohmann::json(77), nlohmann::json("html"),
                                    nlohmann::json(baseURL + "/media/offer-qt.html")});
    ASSERT_NE(controller, nullptr);
    const auto& view = controller->view();
    EXPECT_EQ(view->tag(), 1001);
    EXPECT_TRUE(view->isHidden());
    ASSERT_TRUE(waitFor(
        [&] { return controller->activityIndicator() && controller->activityIndicator()->isAnimating(); },
        5s));

    auto web = qtbackend::qtView<qtbackend::QtWebView>(controller->adWebView());
    ASSERT_NE(web, nullptr);
    ASSERT_TRUE(waitFor([&] { return web->finishedLoads() == 1 && !view->isHidden(); }, 30s))
        << "load finished " << web->finishedLoads() << ", failed " << web->failedLoads();
    EXPECT_FALSE(web->isLoading());
    EXPECT_EQ(web->currentURL(), baseURL + "/media/offer-qt.html");
    EXPECT_FALSE(controller->activityIndicator()->isAnimating());
    EXPECT_FLOAT_EQ(web->scrollView().zoomScale(), 1.0F);
    // The fade and the bounce end within a second; the page paints a moment later.
    pump(1500ms);
    const QImage grab = grabAndSave(*views().window(), "offer_view");
    const QRect page(0, 22, grab.width(), grab.height() - 22);
    EXPECT_GT(countNear(grab, page, kPageColour, 8), page.width() * page.height() / 2)
        << "the page is not shown";
    EXPECT_TRUE(near(grab.pixelColor(grab.width() / 2, 10), QColor(236, 233, 226), 2))
        << "the status bar area";

    // The close button takes every positively tagged view off the window.
    auto close = qtbackend::qtView<qtbackend::QtButton>(controller->closeButton());
    QTest::mouseClick(close->widget(), Qt::LeftButton);
    EXPECT_EQ(view->superview(), nullptr);
    EXPECT_EQ(views().keyWindow()->subviews().size(), 1U);
}

TEST_F(OfferViewScreenTest, AContentPageShowsItsTitleBackButtonAndPageAndTheButtonCloses) {
    auto settings = SettingsController::create(*env);
    views().presentModalView(settings->view(), {});
    auto table = qtbackend::qtView<qtbackend::QtTableView>(settings->tableView());
    table->tapRow(1);
    ASSERT_EQ(views().presentedViews().size(), 2U);
    const auto page = views().presentedViews().back();
    std::shared_ptr<qtbackend::QtWebView> web;
    std::shared_ptr<qtbackend::QtNavigationBar> bar;
    for (const auto& subview : page->subviews()) {
        web = web ? web : qtbackend::qtView<qtbackend::QtWebView>(subview);
        bar = bar ? bar : qtbackend::qtView<qtbackend::QtNavigationBar>(subview);
    }
    ASSERT_TRUE(web && bar);
    ASSERT_TRUE(waitFor([&] { return web->finishedLoads() == 1; }, 30s)) << "failed " << web->failedLoads();
    EXPECT_EQ(bar->shownTitle(), "About Tovrel");
    pump(500ms);
    const QImage grab = grabAndSave(*views().window(), "content_page");
    EXPECT_GT(countNear(grab, QRect(0, 44, grab.width(), grab.height() - 44), QColor(0xfd, 0xf6, 0xe3), 4),
              100000);
    EXPECT_GT(countNear(grab, QRect(0, 0, 60, 44), QColor(0, 122, 255), 40), 20)
        << "no back arrow in the bar";

    const auto back = qtbackend::qtView<qtbackend::QtButton>(bar->topItem()->leftBarButtonItem->customView);
    ASSERT_NE(back, nullptr);
    QTest::mouseClick(back->widget(), Qt::LeftButton);
    EXPECT_EQ(views().presentedViews().size(), 1U);
}

}  // namespace
}  // namespace tovrel::qttest
