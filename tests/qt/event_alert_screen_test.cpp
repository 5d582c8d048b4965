#include <QTest>

#include "delivery/offer_desk.h"
#include "qt_test_support.h"
#include "screen_fixture.h"
#include "tovrel/location_manager.h"

namespace tovrel::qttest {
namespace {

using namespace std::chrono_literals;

/// The Qt alerts, keeping the index each alert was dismissed with.
class RecordingAlerts final : public platform::AlertPresenter {
  public:
    explicit RecordingAlerts(std::shared_ptr<qtbackend::QtAlertPresenter> inner) : inner_(std::move(inner)) {}
    platform::AlertId show(platform::AlertSpec alert) override {
        auto onDismiss = std::move(alert.onDismiss);
        alert.onDismiss = [this, onDismiss](int index) {
            dismissedWith.push_back(index);
            if (onDismiss) {
                onDismiss(index);
            }
        };
        return inner_->show(std::move(alert));
    }
    void dismiss(platform::AlertId id, int buttonIndex, bool animated) override {
        inner_->dismiss(id, buttonIndex, animated);
    }
    std::vector<int> dismissedWith;

  private:
    std::shared_ptr<qtbackend::QtAlertPresenter> inner_;
};

class EventAlertScreenTest : public ScreenFixture {
  protected:
    platform::Platform makePlatform() override {
        auto ports = backend->platform();
        alerts = std::make_shared<RecordingAlerts>(backend->alerts);
        ports.alerts = alerts;
        return ports;
    }
    std::shared_ptr<RecordingAlerts> alerts;
};

TEST_F(EventAlertScreenTest, TheEventAlertOffersNeverViewAndLaterAndReportsThePressedIndex) {
    auto map = views().makeView(views().mainScreenBounds());
    map->setBackgroundColor(platform::Color::rgb255(236, 233, 226));
    views().keyWindow()->addSubview(map);
    auto monitor = LocationManager::create(*env, delivery::OfferDesk::create(*env));
    monitor->presentOfferView = true;
    monitor->showEventAlert("Welcome to the Old Town! Pick up a free walking map at the tourist desk.", 4242);

    const auto shown = backend->alerts->shownAlerts();
    ASSERT_EQ(shown.size(), 1U);
    const auto id = shown.front();
    EXPECT_EQ(backend->alerts->buttonTitles(id), (std::vector<std::string>{"Never", "View", "Later"}));
    EXPECT_EQ(backend->alerts->tag(id), 4242);
    EXPECT_FALSE(backend->alerts->title(id).has_value());
    for (int index = 0; index < 3; ++index) {
        QWidget* button = backend->alerts->buttonWidget(id, index);
        ASSERT_NE(button, nullptr);
        EXPECT_TRUE(button->isVisible());
    }
    // Stacked in the order the user reads them: "View", "Later", then the cancel button "Never".
    EXPECT_LT(backend->alerts->buttonWidget(id, 1)->y(), backend->alerts->buttonWidget(id, 2)->y());
    EXPECT_LT(backend->alerts->buttonWidget(id, 2)->y(), backend->alerts->buttonWidget(id, 0)->y());

    pump(100ms);
    const QImage grab = grabAndSave(*views().window(), "event_alert");
    // The window dims around a light box in its middle.
    const QColor dimmed = grab.pixelColor(5, 5);
    EXPECT_LT(dimmed.lightness(), 200);
    EXPECT_TRUE(near(grab.pixelColor(grab.width() / 2, grab.height() / 2 - 40), QColor(242, 242, 242), 6));

    QTest::mouseClick(backend->alerts->buttonWidget(id, 2), Qt::LeftButton);
    EXPECT_EQ(alerts->dismissedWith, std::vector<int>{2});
    EXPECT_TRUE(backend->alerts->shownAlerts().empty());
    pump(50ms);
    const QImage after = grab.isNull() ? QImage() : views().window()->grab().toImage();
    EXPECT_TRUE(near(after.pixelColor(5, 5), QColor(236, 233, 226), 2)) << "the dimming stayed";
}

TEST_F(EventAlertScreenTest, WithoutTheOfferViewTheAlertHasOnlyOkAndItDeclines) {
    auto monitor = LocationManager::create(*env, delivery::OfferDesk::create(*env));
    monitor->presentOfferView = false;
    monitor->showEventAlert("Coffee for half price", 7);
    const auto id = backend->alerts->shownAlerts().at(0);
    EXPECT_EQ(backend->alerts->buttonTitles(id), std::vector<std::string>{"OK"});
    QTest::mouseClick(backend->alerts->buttonWidget(id, 0), Qt::LeftButton);
    EXPECT_EQ(alerts->dismissedWith, std::vector<int>{0});
}

}  // namespace
}  // namespace tovrel::qttest
