#include <gtest/gtest.h>

#include "tovrel/platform/map_view.h"
#include "view_backends.h"

namespace tovrel::viewtest {
namespace {

using platform::Appearance;
using Views = std::vector<std::shared_ptr<platform::View>>;

template <class Kind>
class ViewConformanceTest : public ::testing::Test {
  protected:
    std::unique_ptr<Backend> backend = Kind::make();
    platform::ViewSystem& views = backend->views();

    std::shared_ptr<platform::View> plain() { return views.makeView({0, 0, 10, 10}); }
};

TYPED_TEST_SUITE(ViewConformanceTest, BackendKinds);

TYPED_TEST(ViewConformanceTest, EnteringTheWindowIsAnnouncedToTheWholeSubtreeNowAndOnTheNextTurn) {
    const auto parent = this->plain();
    const auto child = this->plain();
    parent->addSubview(child);
    EXPECT_TRUE(child->appearanceLog().empty());
    std::vector<Appearance> heard;
    parent->setAppearanceHandler([&heard](Appearance a) { heard.push_back(a); });

    this->views.keyWindow()->addSubview(parent);
    EXPECT_EQ(heard, std::vector<Appearance>{Appearance::kWillAppear});
    EXPECT_EQ(child->appearanceLog(), std::vector<Appearance>{Appearance::kWillAppear});
    this->backend->turn();
    EXPECT_EQ(heard, (std::vector<Appearance>{Appearance::kWillAppear, Appearance::kDidAppear}));
    EXPECT_EQ(child->appearanceLog(), heard);
    EXPECT_TRUE(child->isOnScreen());

    // Leaving and coming back before the loop turns: no stale did-disappear arrives.
    parent->removeFromSuperview();
    this->views.keyWindow()->addSubview(parent);
    this->backend->turn();
    EXPECT_EQ(heard, (std::vector<Appearance>{Appearance::kWillAppear, Appearance::kDidAppear,
                                              Appearance::kWillDisappear, Appearance::kWillAppear,
                                              Appearance::kDidAppear}));

    parent->removeFromSuperview();
    this->backend->turn();
    EXPECT_EQ(heard.back(), Appearance::kDidDisappear);
    EXPECT_FALSE(child->isOnScreen());
}

TYPED_TEST(ViewConformanceTest, ADidAppearIsDroppedWhenTheViewLeftFirst) {
    const auto view = this->plain();
    this->views.keyWindow()->addSubview(view);
    view->removeFromSuperview();
    this->backend->turn();
    EXPECT_EQ(view->appearanceLog(),
              (std::vector<Appearance>{Appearance::kWillAppear, Appearance::kWillDisappear,
                                       Appearance::kDidDisappear}));
}

TYPED_TEST(ViewConformanceTest, ReaddingMovesToTheFrontWithoutAnnouncing) {
    const auto a = this->plain();
    const auto b = this->plain();
    this->views.keyWindow()->addSubview(a);
    this->views.keyWindow()->addSubview(b);
    this->backend->turn();
    this->views.keyWindow()->addSubview(a);
    EXPECT_EQ(this->views.keyWindow()->subviews(), (Views{b, a}));
    EXPECT_EQ(a->appearanceLog().size(), 2u);
}

TYPED_TEST(ViewConformanceTest, AddingElsewhereTakesTheViewFromItsParentAndIgnoresLoops) {
    const auto first = this->plain();
    const auto second = this->plain();
    const auto child = this->plain();
    first->addSubview(child);
    second->addSubview(child);
    EXPECT_TRUE(first->subviews().empty());
    EXPECT_EQ(child->superview(), second);
    child->addSubview(child);
    EXPECT_TRUE(child->subviews().empty());
    // The key window never hangs under another view.
    second->addSubview(this->views.keyWindow());
    EXPECT_EQ(second->subviews(), (Views{child}));
    EXPECT_EQ(this->views.keyWindow()->superview(), nullptr);
}

TYPED_TEST(ViewConformanceTest, TheModelKeepsEveryPropertyAsSet) {
    const auto view = this->plain();
    view->setTag(7);
    view->setZPosition(platform::kTopmostZPosition);
    view->setAlpha(0.25);
    view->setTransform(platform::Transform::translation(3, -4));
    view->setBackgroundColor(platform::Color::redColor());
    view->setCenter({50, 50});
    platform::BasicAnimation bounce;
    bounce.keyPath = "position.y";
    bounce.duration = 0.1;
    view->addAnimation("bounce", bounce);
    EXPECT_EQ(view->tag(), 7);
    EXPECT_EQ(view->zPosition(), platform::kTopmostZPosition);
    EXPECT_EQ(view->alpha(), 0.25);
    EXPECT_EQ(view->transform(), platform::Transform::translation(3, -4));
    EXPECT_EQ(view->backgroundColor(), platform::Color::redColor());
    EXPECT_EQ(view->frame(), (platform::Rect{45, 45, 10, 10}));
    EXPECT_EQ(view->bounds(), (platform::Rect{0, 0, 10, 10}));
    EXPECT_EQ(view->animationForKey("bounce"), bounce);
    EXPECT_EQ(view->animationForKey("other"), std::nullopt);
}

TYPED_TEST(ViewConformanceTest, PresentingTwiceIsIgnoredAndDismissingAnnounces) {
    const auto view = this->plain();
    this->views.presentModalView(view, {});
    this->views.presentModalView(view, {});
    this->backend->turn();
    EXPECT_EQ(this->views.presentedViews(), (Views{view}));
    EXPECT_EQ(view->appearanceLog(),
              (std::vector<Appearance>{Appearance::kWillAppear, Appearance::kDidAppear}));
    this->views.dismissModalView(view, false);
    this->views.dismissModalView(view, false);
    this->backend->turn();
    EXPECT_TRUE(this->views.presentedViews().empty());
    EXPECT_EQ(view->appearanceLog(),
              (std::vector<Appearance>{Appearance::kWillAppear, Appearance::kDidAppear,
                                       Appearance::kWillDisappear, Appearance::kDidDisappear}));
}

TYPED_TEST(ViewConformanceTest, RotatingSwapsTheScreenAndTellsObservers) {
    int told = 0;
    this->views.addDeviceOrientationObserver([&told] { ++told; });
    this->views.rotate(platform::DeviceOrientation::kLandscapeLeft);
    EXPECT_EQ(told, 1);
    EXPECT_EQ(this->views.statusBarOrientation(), platform::InterfaceOrientation::kLandscapeRight);
    EXPECT_EQ(this->views.mainScreenBounds(), (platform::Rect{0, 0, 667, 375}));
    EXPECT_EQ(this->views.keyWindow()->frame(), this->views.mainScreenBounds());
    this->views.rotate(platform::DeviceOrientation::kFaceDown);
    EXPECT_EQ(this->views.deviceOrientation(), platform::DeviceOrientation::kFaceDown);
    EXPECT_EQ(this->views.statusBarOrientation(), platform::InterfaceOrientation::kLandscapeRight);
    EXPECT_EQ(told, 2);
}

TYPED_TEST(ViewConformanceTest, SpinnersHideWhileStopped) {
    const auto spinner = this->views.makeActivityIndicator(platform::ActivityIndicatorStyle::kWhiteLarge);
    EXPECT_EQ(spinner->frame(), (platform::Rect{0, 0, 37, 37}));
    EXPECT_TRUE(spinner->isHidden());
    EXPECT_FALSE(spinner->isAnimating());
    spinner->startAnimating();
    EXPECT_FALSE(spinner->isHidden());
    spinner->setHidesWhenStopped(false);
    spinner->stopAnimating();
    EXPECT_FALSE(spinner->isHidden());
    spinner->setHidesWhenStopped(true);
    EXPECT_TRUE(spinner->isHidden());
    spinner->setCenter({100, 100});
    EXPECT_EQ(spinner->frame(), (platform::Rect{81.5, 81.5, 37, 37}));
    EXPECT_EQ(this->views.makeActivityIndicator(platform::ActivityIndicatorStyle::kGray)->frame(),
              (platform::Rect{0, 0, 20, 20}));
}

TYPED_TEST(ViewConformanceTest, AButtonTapRunsItsActionThenItsControlHook) {
    const auto button = this->views.makeButton(platform::ButtonType::kCustom, {0, 0, 28, 28});
    EXPECT_FALSE(button->tap());
    std::vector<std::string> ran;
    button->setControlHook([&ran] { ran.emplace_back("hook"); });
    EXPECT_TRUE(button->tap());
    button->setAction([&ran] { ran.emplace_back("action"); });
    EXPECT_TRUE(button->tap());
    EXPECT_EQ(ran, (std::vector<std::string>{"hook", "action", "hook"}));
    EXPECT_TRUE(button->hasAction());
}

TYPED_TEST(ViewConformanceTest, LabelsCellsBarsAndPinViewsStartWithTheirDefaults) {
    const auto label = this->views.makeLabel({0, 0, 100, 20});
    EXPECT_EQ(label->numberOfLines(), 1);
    EXPECT_EQ(label->font(), (platform::Font{"Helvetica", 17}));
    EXPECT_EQ(label->textColor(), (platform::Color{0, 0, 0, 1}));
    EXPECT_EQ(label->textAlignment(), platform::TextAlignment::kLeft);
    const auto cell = this->views.makeTableViewCell(platform::TableViewCellStyle::kValue1, "id");
    EXPECT_EQ(cell->frame(), (platform::Rect{0, 0, 320, 44}));
    EXPECT_EQ(cell->reuseIdentifier(), "id");
    EXPECT_EQ(cell->cellStyle(), platform::TableViewCellStyle::kValue1);
    EXPECT_EQ(cell->accessoryType(), platform::TableViewCellAccessory::kNone);
    EXPECT_EQ(cell->textColor(), std::nullopt);
    const auto pin = std::make_shared<platform::PointAnnotation>();
    const auto pinView = this->views.makeAnnotationView(pin, "pin");
    EXPECT_EQ(pinView->annotation(), pin);
    EXPECT_EQ(pinView->reuseIdentifier(), "pin");
    EXPECT_EQ(pinView->frame(), (platform::Rect{0, 0, 32, 39}));
    EXPECT_TRUE(pinView->isEnabled());
    EXPECT_FALSE(pinView->canShowCallout());
    EXPECT_EQ(pinView->rightCalloutAccessoryView(), nullptr);
    const auto bar = this->views.makeNavigationBar({0, 0, 375, 44});
    EXPECT_EQ(bar->topItem(), nullptr);
    auto item = std::make_shared<platform::NavigationItem>();
    bar->setItems({item}, false);
    EXPECT_EQ(bar->topItem(), item);
}

class CountingTable final : public platform::TableViewDataSource, public platform::TableViewDelegate {
  public:
    platform::ViewSystem* views = nullptr;
    std::vector<platform::IndexPath> selections;
    int made = 0;
    long rows = 3;
    std::optional<double> footerHeight;
    std::shared_ptr<platform::View> footer;
    long tableViewNumberOfRowsInSection(platform::TableView& /*table*/, long /*section*/) override {
        return rows;
    }
    std::shared_ptr<platform::TableViewCell> tableViewCellForRowAtIndexPath(
        platform::TableView& table, const platform::IndexPath& path) override {
        auto cell = table.dequeueReusableCellWithIdentifier("cell");
        if (!cell) {
            ++made;
            cell = views->makeTableViewCell(platform::TableViewCellStyle::kDefault, "cell");
        }
        cell->setText("Row " + std::to_string(path.row));
        return cell;
    }
    void tableViewDidSelectRowAtIndexPath(platform::TableView& table,
                                          const platform::IndexPath& path) override {
        selections.push_back(path);
        table.deselectRowAtIndexPath(path, true);
    }
    std::optional<double> tableViewHeightForFooterInSection(platform::TableView& /*table*/,
                                                            long /*section*/) override {
        return footerHeight;
    }
    std::shared_ptr<platform::View> tableViewViewForFooterInSection(platform::TableView& /*table*/,
                                                                    long /*section*/) override {
        return footer;
    }
    long tableViewIndentationLevelForRowAtIndexPath(platform::TableView& /*table*/,
                                                    const platform::IndexPath& path) override {
        return path.row == 2 ? 5 : 0;
    }
};

TYPED_TEST(ViewConformanceTest, ATableHandsEachRowItsOwnCellOnReloadAndLaysOutItsFooters) {
    auto source = std::make_shared<CountingTable>();
    source->views = &this->views;
    const auto table = this->views.makeTableView({0, 0, 320, 480});
    table->setDataSource(source);
    table->setDelegate(source);
    this->views.keyWindow()->addSubview(table);
    table->reloadData();
    const auto first = table->visibleCells();
    ASSERT_EQ(first.size(), 3u);
    table->reloadData();
    EXPECT_EQ(table->visibleCells(), first);
    EXPECT_EQ(source->made, 3);
    EXPECT_EQ(table->cellForRowAtIndexPath({0, 2})->text(), "Row 2");
    EXPECT_EQ(table->cellForRowAtIndexPath({0, 2})->indentationLevel(), 5);
    EXPECT_EQ(table->cellForRowAtIndexPath({0, 2})->frame(), (platform::Rect{0, 88, 320, 44}));
    EXPECT_EQ(table->cellForRowAtIndexPath({0, 3}), nullptr);
    EXPECT_EQ(table->cellForRowAtIndexPath({0, -1}), nullptr);
    EXPECT_EQ(table->cellForRowAtIndexPath({1, 0}), nullptr);
    EXPECT_EQ(table->subviews().size(), 3u);

    // Fewer rows: the cells left over wait for reuse, the footers follow the last row.
    source->rows = 1;
    source->footerHeight = 100;
    source->footer = this->views.makeView({0, 0, 1, 1});
    table->reloadData();
    table->setTableFooterView(this->views.makeView({0, 0, 5, 20}));
    EXPECT_EQ(table->visibleCells(), (std::vector{first[0]}));
    EXPECT_EQ(table->dequeueReusableCellWithIdentifier("cell"), first[1]);
    EXPECT_EQ(table->dequeueReusableCellWithIdentifier("other"), nullptr);
    EXPECT_EQ(source->footer->frame(), (platform::Rect{0, 44, 320, 100}));
    EXPECT_EQ(table->tableFooterView()->frame(), (platform::Rect{0, 144, 320, 20}));
    EXPECT_EQ(table->sectionFooterHeight(), 100.0);
    table->setFrame({0, 0, 375, 480});
    EXPECT_EQ(first[0]->frame().width, 375);
}

TYPED_TEST(ViewConformanceTest, ATappedRowIsSelectedUntilTheDelegateDeselectsIt) {
    auto source = std::make_shared<CountingTable>();
    source->views = &this->views;
    const auto table = this->views.makeTableView({0, 0, 320, 480});
    table->setDataSource(source);
    table->reloadData();
    table->tapRow(1);
    EXPECT_EQ(table->indexPathForSelectedRow(), (platform::IndexPath{0, 1}));
    table->reloadData();
    EXPECT_EQ(table->indexPathForSelectedRow(), std::nullopt);

    table->setDelegate(source);
    table->tapRow(2);
    EXPECT_EQ(source->selections, (std::vector<platform::IndexPath>{{0, 2}}));
    EXPECT_EQ(table->indexPathForSelectedRow(), std::nullopt);
    EXPECT_EQ(table->deselections().back(), std::make_pair(platform::IndexPath{0, 2}, true));
}

class PinDelegate final : public platform::MapViewDelegate {
  public:
    platform::ViewSystem* views = nullptr;
    std::shared_ptr<platform::Annotation> plain;
    int overlaysAsked = 0;
    int userUpdates = 0;
    std::vector<std::string> tapped;
    std::shared_ptr<platform::AnnotationView> mapViewViewForAnnotation(
        platform::MapView& map, const std::shared_ptr<platform::Annotation>& annotation) override {
        if (annotation == plain) {
            return nullptr;
        }
        auto view = map.dequeueReusableAnnotationViewWithIdentifier("pin");
        if (view) {
            return view;
        }
        view = views->makeAnnotationView(annotation, "pin");
        view->setCanShowCallout(true);
        view->setRightCalloutAccessoryView(views->makeButton(platform::ButtonType::kCustom, {0, 0, 45, 55}));
        view->setLeftCalloutAccessoryView(views->makeLabel({0, 0, 45, 55}));
        return view;
    }
    void mapViewAnnotationViewCalloutAccessoryControlTapped(platform::MapView& /*map*/,
                                                            platform::AnnotationView& view,
                                                            platform::View& /*control*/) override {
        tapped.push_back(view.annotation()->title.value_or(""));
    }
    platform::OverlayView mapViewViewForOverlay(
        platform::MapView& /*map*/, const std::shared_ptr<platform::Overlay>& /*overlay*/) override {
        ++overlaysAsked;
        return {platform::OverlayView::Kind::kCircle, platform::Color::redColor(),
                platform::Color::redColor(), 2};
    }
    void mapViewDidUpdateUserLocation(platform::MapView& /*map*/,
                                      const platform::UserLocation& /*user*/) override {
        ++userUpdates;
    }
};

template <class Kind>
class MapConformanceTest : public ViewConformanceTest<Kind> {
  protected:
    void SetUp() override {
        delegate_->views = &this->views;
        delegate_->plain = std::make_shared<platform::PointAnnotation>();
        map_->setDelegate(delegate_);
    }
    std::shared_ptr<PinDelegate> delegate_ = std::make_shared<PinDelegate>();
    std::shared_ptr<platform::MapView> map_ = this->views.makeMapView({0, 0, 320, 480});
};
TYPED_TEST_SUITE(MapConformanceTest, BackendKinds);

TYPED_TEST(MapConformanceTest, APinWithoutADelegateViewGetsTheDefaultPinAndOnlyIdentifiedViewsAreReused) {
    auto& map = this->map_;
    auto& delegate = this->delegate_;
    const auto drawn = std::make_shared<platform::PointAnnotation>();
    map->addAnnotation(delegate->plain);
    map->addAnnotation(drawn);
    map->addAnnotation(drawn);
    EXPECT_EQ(map->annotations().size(), 2u);
    const auto defaultPin = map->viewForAnnotation(delegate->plain);
    ASSERT_NE(defaultPin, nullptr);
    EXPECT_EQ(defaultPin->reuseIdentifier(), "");
    EXPECT_EQ(defaultPin->annotation(), delegate->plain);
    const auto pinView = map->viewForAnnotation(drawn);
    ASSERT_NE(pinView, nullptr);

    map->removeAnnotations(map->annotations());
    EXPECT_TRUE(map->annotations().empty());
    EXPECT_EQ(map->viewForAnnotation(drawn), nullptr);
    EXPECT_EQ(map->dequeueReusableAnnotationViewWithIdentifier(""), nullptr);
    EXPECT_EQ(map->dequeueReusableAnnotationViewWithIdentifier("pin"), pinView);
    EXPECT_EQ(map->dequeueReusableAnnotationViewWithIdentifier("pin"), nullptr);
}

TYPED_TEST(MapConformanceTest, OnlyAnOpenCalloutsControlReachesTheDelegate) {
    auto& map = this->map_;
    auto& delegate = this->delegate_;
    const auto first = std::make_shared<platform::PointAnnotation>();
    first->title = "first";
    const auto second = std::make_shared<platform::PointAnnotation>();
    second->title = "second";
    map->addAnnotation(first);
    map->addAnnotation(second);
    map->addAnnotation(delegate->plain);
    const auto button = std::dynamic_pointer_cast<platform::Button>(
        map->viewForAnnotation(first)->rightCalloutAccessoryView());
    ASSERT_NE(button, nullptr);
    button->tap();
    EXPECT_TRUE(delegate->tapped.empty());

    map->selectAnnotation(first);
    EXPECT_EQ(map->calloutAnnotation(), first);
    button->tap();
    EXPECT_EQ(delegate->tapped, std::vector<std::string>{"first"});
    EXPECT_FALSE(map->tapCalloutAccessory(first, false));
    EXPECT_FALSE(map->tapCalloutAccessory(delegate->plain));

    EXPECT_TRUE(map->tapCalloutAccessory(second));
    EXPECT_EQ(map->selectedAnnotations(), std::vector<std::shared_ptr<platform::Annotation>>{second});
    EXPECT_EQ(map->calloutAnnotation(), second);
    button->tap();
    EXPECT_EQ(delegate->tapped, (std::vector<std::string>{"first", "second"}));

    map->removeAnnotations({second});
    EXPECT_EQ(map->calloutAnnotation(), nullptr);
    EXPECT_TRUE(map->selectedAnnotations().empty());
    map->selectAnnotation(first);
    map->deselectAnnotation(first, true);
    EXPECT_EQ(map->calloutAnnotation(), nullptr);
    button->tap();
    EXPECT_EQ(delegate->tapped.size(), 2u);
}

TYPED_TEST(MapConformanceTest, OverlaysAskTheDelegateOnceAndTheUserCountsOnlyWhileShownAndKnown) {
    auto& map = this->map_;
    auto circle = std::make_shared<platform::CircleOverlay>();
    circle->radius = 80;
    map->addOverlay(circle);
    EXPECT_EQ(this->delegate_->overlaysAsked, 1);
    EXPECT_EQ(map->viewForOverlay(circle)->kind, platform::OverlayView::Kind::kCircle);
    map->removeOverlays({circle});
    EXPECT_TRUE(map->overlays().empty());
    EXPECT_EQ(map->viewForOverlay(circle), std::nullopt);

    platform::Location fix;
    fix.coordinate = {48.13737, 11.57546};
    map->deliverUserLocation(fix);
    EXPECT_EQ(this->delegate_->userUpdates, 0);
    EXPECT_TRUE(map->annotations().empty());
    map->setShowsUserLocation(true);
    map->deliverUserLocation(fix);
    EXPECT_EQ(this->delegate_->userUpdates, 1);
    ASSERT_EQ(map->annotations().size(), 1U);
    map->removeAnnotations(map->annotations());
    EXPECT_EQ(map->annotations().size(), 1U);
}

TYPED_TEST(MapConformanceTest, TheCameraFollowsRegionsRectanglesAndTheFrame) {
    auto& map = this->map_;
    const platform::Coordinate centre{48.13737, 11.57546};
    map->setRegion({centre, {0.01, 0.01}}, false);
    EXPECT_NEAR(map->region().center.latitude, centre.latitude, 1e-9);
    EXPECT_NEAR(map->region().span.longitudeDelta, 0.01, 1e-9);
    const auto rect = map->visibleMapRect();
    map->setFrame({0, 0, 640, 480});
    EXPECT_NEAR(map->visibleMapRect().width, rect.width * 2, 1e-6);
    map->setVisibleMapRect(rect, {}, true);
    EXPECT_NEAR(map->visibleMapRect().height, rect.height, 1e-6);
}

}  // namespace
}  // namespace tovrel::viewtest
