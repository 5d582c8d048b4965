#include "screens_fixture.h"

namespace tovrel {
namespace {

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

TEST_F(VirtualViewsTest, AViewShownAgainAndAgainKeepsOnlyItsLastAppearances) {
    const auto view = plain();
    for (int i = 0; i < 100; ++i) {
        views.presentModalView(view, {});
        views.dismissModalView(view, false);
        device.loop().runUntilIdle();
    }
    const auto& log = view->appearanceLog();
    ASSERT_EQ(log.size(), platform::View::kKeptAppearances);
    EXPECT_EQ(log.back(), platform::Appearance::kDidDisappear);
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

}  // namespace
}  // namespace tovrel
