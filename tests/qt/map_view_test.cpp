#include <gtest/gtest.h>

#include <QTest>
#include <cmath>

#include "qt_test_support.h"
#include "tovrel/qt/qt_main_loop.h"
#include "tovrel/qt/qt_map_view.h"

namespace tovrel::qtbackend {
namespace {

constexpr platform::Coordinate kMarienplatz{48.13737, 11.57546};

class RecordingMapDelegate final : public platform::MapViewDelegate {
  public:
    QtViewSystem* views = nullptr;
    std::vector<std::string> tapped;
    std::shared_ptr<platform::AnnotationView> mapViewViewForAnnotation(
        platform::MapView& /*map*/, const std::shared_ptr<platform::Annotation>& annotation) override {
        auto view = views->makeAnnotationView(annotation, "Location");
        view->setCanShowCallout(true);
        view->setImageName("TovrelSDKResources.bundle/pin1.png");
        auto button = views->makeButton(platform::ButtonType::kCustom, {205, 0, 45, 55});
        button->setTitle(">");
        view->setRightCalloutAccessoryView(button);
        view->setLeftCalloutAccessoryView(views->makeLabel({0, 0, 45, 55}));
        return view;
    }
    void mapViewAnnotationViewCalloutAccessoryControlTapped(platform::MapView& /*map*/,
                                                            platform::AnnotationView& view,
                                                            platform::View& /*control*/) override {
        tapped.push_back(view.annotation()->title.value_or(""));
    }
};

class QtMapViewTest : public ::testing::Test {
  protected:
    void SetUp() override {
        delegate->views = views.get();
        map = std::static_pointer_cast<QtMapView>(views->makeMapView(views->mainScreenBounds()));
        map->setDelegate(delegate);
        views->keyWindow()->addSubview(map);
        views->window()->show();
    }
    void TearDown() override { views->window()->hide(); }

    std::shared_ptr<QtMainLoop> loop = std::make_shared<QtMainLoop>();
    std::shared_ptr<QtViewSystem> views = std::make_shared<QtViewSystem>(loop, QtViewSystem::Options{});
    std::shared_ptr<RecordingMapDelegate> delegate = std::make_shared<RecordingMapDelegate>();
    std::shared_ptr<QtMapView> map;
};

TEST_F(QtMapViewTest, APinsTipStandsOnItsCoordinateAndItsCalloutButtonReachesTheDelegate) {
    auto pin = std::make_shared<platform::PointAnnotation>();
    pin->coordinate = kMarienplatz;
    pin->title = "Old Town";
    map->addAnnotation(pin);
    map->setRegion({kMarienplatz, {0.01, 0.01}}, false);
    auto view = std::static_pointer_cast<QtAnnotationView>(map->viewForAnnotation(pin));
    ASSERT_NE(view, nullptr);
    const QRect geometry = view->widget()->geometry();
    EXPECT_NEAR(geometry.center().x(), 187.5, 1);
    EXPECT_EQ(geometry.bottom() + 1, 334);

    QTest::mouseClick(view->widget(), Qt::LeftButton);
    ASSERT_NE(map->calloutWidget(), nullptr);
    auto button = std::static_pointer_cast<QtButton>(view->rightCalloutAccessoryView());
    EXPECT_EQ(button->widget()->parentWidget(), map->calloutWidget());
    QTest::mouseClick(button->widget(), Qt::LeftButton);
    EXPECT_EQ(delegate->tapped, std::vector<std::string>{"Old Town"});

    map->deselectAnnotation(pin, true);
    EXPECT_EQ(map->calloutWidget(), nullptr);
    EXPECT_EQ(button->widget()->parentWidget(), nullptr);
}

}  // namespace
}  // namespace tovrel::qtbackend
