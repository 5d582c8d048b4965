#include "screens_fixture.h"

namespace tovrel {
namespace {

using virtualbackend::VirtualMapView;

class VirtualViewsTest : public testing::ScreensTest {
  protected:
    std::shared_ptr<platform::View> plain() { return views.makeView({0, 0, 10, 10}); }
};

TEST_F(VirtualViewsTest, OnlyChangesInsideABlockAreRecorded) {
    const auto view = plain();
    view->setAlpha(0.5);
    views.animate({0.25, platform::AnimationCurve::kEaseIn}, [&view] {
        view->setAlpha(1.0);
        view->setFrame({1, 2, 3, 4});
    });
    ASSERT_EQ(views.animationBlocks().size(), 1u);
    const auto& changes = views.animationBlocks()[0].changes;
    ASSERT_EQ(changes.size(), 2u);
    EXPECT_EQ(changes[0].property, "alpha");
    EXPECT_EQ(std::get<platform::Rect>(changes[1].value), (platform::Rect{1, 2, 3, 4}));
    EXPECT_EQ(view->alpha(), 1.0);
}

TEST_F(VirtualViewsTest, TheMapKeepsTheUserLocationAndRecyclesPinViews) {
    struct Delegate : platform::MapViewDelegate {
        platform::ViewSystem* system = nullptr;
        int updates = 0;
        void mapViewDidUpdateUserLocation(platform::MapView& /*m*/,
                                          const platform::UserLocation& /*u*/) override {
            ++updates;
        }
        std::shared_ptr<platform::AnnotationView> mapViewViewForAnnotation(
            platform::MapView& /*m*/, const std::shared_ptr<platform::Annotation>& annotation) override {
            return system->makeAnnotationView(annotation, "pin");
        }
    };
    auto delegate = std::make_shared<Delegate>();
    delegate->system = &views;
    const std::shared_ptr<platform::MapView> map = views.makeMapView({0, 0, 320, 480});
    auto& virtualMap = as<VirtualMapView>(map);
    map->setDelegate(delegate);
    auto pin = std::make_shared<platform::PointAnnotation>();
    map->addAnnotation(pin);
    map->addAnnotation(pin);
    EXPECT_EQ(map->annotations().size(), 1u);

    platform::Location here;
    here.coordinate = {1, 2};
    virtualMap.deliverUserLocation(here);
    EXPECT_EQ(delegate->updates, 0);
    map->setShowsUserLocation(true);
    virtualMap.deliverUserLocation(here);
    EXPECT_EQ(delegate->updates, 1);
    EXPECT_EQ(map->annotations().size(), 2u);

    const auto pinView = virtualMap.viewForAnnotation(pin);
    map->removeAnnotations(map->annotations());
    EXPECT_EQ(map->annotations(), std::vector<std::shared_ptr<platform::Annotation>>{map->userLocation()});
    EXPECT_EQ(map->dequeueReusableAnnotationViewWithIdentifier("pin"), pinView);
    EXPECT_EQ(map->dequeueReusableAnnotationViewWithIdentifier("pin"), nullptr);
    EXPECT_FALSE(virtualMap.tapCalloutAccessory(pin));
}

TEST_F(VirtualViewsTest, EachPresentationIsRecordedOnceWithItsDismissal) {
    const auto view = plain();
    views.setRootPresentationContext({platform::ModalPresentationStyle::kCurrentContext, true, true});
    views.presentModalView(view, {});
    views.presentModalView(view, {});
    views.dismissModalView(view, false);
    views.dismissModalView(view, true);
    ASSERT_EQ(views.presentations().size(), 1u);
    EXPECT_TRUE(views.presentations()[0].dismissed);
    EXPECT_FALSE(views.presentations()[0].dismissedAnimated);
    EXPECT_EQ(views.presentations()[0].rootContext.modalPresentationStyle,
              platform::ModalPresentationStyle::kCurrentContext);
}

TEST(MapProjection, CoordinatesMapOntoTheWorldSquare) {
    EXPECT_EQ(platform::mapPointForCoordinate({0, 0}),
              (platform::MapPoint{platform::kMapWorldSize / 2, platform::kMapWorldSize / 2}));
    EXPECT_DOUBLE_EQ(platform::mapPointForCoordinate({0, 180}).x, platform::kMapWorldSize);
    EXPECT_LT(platform::mapPointForCoordinate({60, 0}).y, platform::mapPointForCoordinate({10, 0}).y);
    EXPECT_TRUE(platform::MapRect::null().isNull());
}

}  // namespace
}  // namespace tovrel
