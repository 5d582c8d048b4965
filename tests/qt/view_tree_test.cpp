#include <gtest/gtest.h>

#include <QTest>

#include "qt_test_support.h"
#include "tovrel/qt/qt_main_loop.h"
#include "tovrel/qt/qt_views.h"

namespace tovrel::qtbackend {
namespace {

class QtViewTreeTest : public ::testing::Test {
  protected:
    std::shared_ptr<QtMainLoop> loop = std::make_shared<QtMainLoop>();
    std::shared_ptr<QtViewSystem> views = std::make_shared<QtViewSystem>(loop, QtViewSystem::Options{});

    static QWidget* widgetOf(const std::shared_ptr<platform::View>& view) {
        return qtCore(view.get())->widget();
    }

    /// The window's child widgets of `candidates`, back to front.
    std::vector<QWidget*> stacking(const std::vector<QWidget*>& candidates) const {
        std::vector<QWidget*> order;
        for (QObject* child : views->window()->children()) {
            auto* widget = qobject_cast<QWidget*>(child);
            if (std::find(candidates.begin(), candidates.end(), widget) != candidates.end()) {
                order.push_back(widget);
            }
        }
        return order;
    }
};

TEST_F(QtViewTreeTest, SubviewsStackByZPositionWithTiesInTheOrderAdded) {
    const auto window = views->keyWindow();
    auto top = views->makeView({0, 0, 10, 10});
    auto low = views->makeView({0, 0, 10, 10});
    auto middle = views->makeView({0, 0, 10, 10});
    auto tie = views->makeView({0, 0, 10, 10});
    top->setZPosition(platform::kTopmostZPosition);
    low->setZPosition(-1);
    window->addSubview(top);
    window->addSubview(low);
    window->addSubview(middle);
    window->addSubview(tie);
    const std::vector<QWidget*> all{widgetOf(top), widgetOf(low), widgetOf(middle), widgetOf(tie)};
    EXPECT_EQ(stacking(all),
              (std::vector<QWidget*>{widgetOf(low), widgetOf(middle), widgetOf(tie), widgetOf(top)}));

    // Raising a view's z-position later moves it over the others; the model keeps the adding order.
    middle->setZPosition(5);
    EXPECT_EQ(stacking(all),
              (std::vector<QWidget*>{widgetOf(low), widgetOf(tie), widgetOf(middle), widgetOf(top)}));
    EXPECT_EQ(window->subviews(), (std::vector<std::shared_ptr<platform::View>>{top, low, middle, tie}));
}

TEST_F(QtViewTreeTest, PresentedScreensCoverSubviewsExceptThoseAtTheTopmostZPosition) {
    const auto window = views->keyWindow();
    auto offer = views->makeView({0, 22, 375, 645});
    offer->setZPosition(platform::kTopmostZPosition);
    auto plain = views->makeView({0, 0, 375, 667});
    window->addSubview(offer);
    window->addSubview(plain);
    auto screen = views->makeView(views->mainScreenBounds());
    views->presentModalView(screen, {});
    EXPECT_EQ(stacking({widgetOf(offer), widgetOf(plain), widgetOf(screen)}),
              (std::vector<QWidget*>{widgetOf(plain), widgetOf(screen), widgetOf(offer)}));
    views->dismissModalView(screen, true);
    EXPECT_EQ(widgetOf(screen)->parentWidget(), nullptr);
    EXPECT_FALSE(widgetOf(screen)->isVisible());
}

TEST_F(QtViewTreeTest, TheModelIsShownByTheWidgets) {
    auto view = views->makeView({10, 20, 100, 50});
    views->keyWindow()->addSubview(view);
    QWidget* widget = widgetOf(view);
    EXPECT_EQ(widget->geometry(), QRect(10, 20, 100, 50));
    view->setTransform(platform::Transform::translation(5, -5));
    EXPECT_EQ(widget->geometry(), QRect(15, 15, 100, 50));
    view->setHidden(true);
    EXPECT_TRUE(widget->isHidden());
    view->setHidden(false);
    EXPECT_FALSE(widget->isHidden());
    view->setAlpha(0.5);
    EXPECT_NE(widget->graphicsEffect(), nullptr);
    view->setAlpha(1.0);
    EXPECT_EQ(widget->graphicsEffect(), nullptr);

    // Off the tree the widget never becomes a window of its own, whatever its hidden flag says.
    view->removeFromSuperview();
    view->setHidden(false);
    EXPECT_EQ(widget->parentWidget(), nullptr);
    EXPECT_FALSE(widget->isVisible());
}

TEST_F(QtViewTreeTest, ASubviewThatOutlivesItsParentKeepsItsWidget) {
    auto child = views->makeView({0, 0, 10, 10});
    {
        auto parent = views->makeView({0, 0, 50, 50});
        parent->addSubview(child);
    }
    ASSERT_NE(widgetOf(child), nullptr);
    views->keyWindow()->addSubview(child);
    EXPECT_EQ(widgetOf(child)->parentWidget(), views->window());
}

class CountingTable final : public platform::TableViewDataSource, public platform::TableViewDelegate {
  public:
    QtViewSystem* views = nullptr;
    std::vector<platform::IndexPath> selections;
    long rows = 3;
    long tableViewNumberOfRowsInSection(platform::TableView& /*table*/, long /*section*/) override {
        return rows;
    }
    std::shared_ptr<platform::TableViewCell> tableViewCellForRowAtIndexPath(
        platform::TableView& table, const platform::IndexPath& path) override {
        auto cell = table.dequeueReusableCellWithIdentifier("cell");
        if (!cell) {
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
};

TEST_F(QtViewTreeTest, AClickOnACellSelectsItsRowThroughTheModel) {
    auto source = std::make_shared<CountingTable>();
    source->views = views.get();
    auto table = std::static_pointer_cast<QtTableView>(views->makeTableView({0, 0, 375, 667}));
    table->setDataSource(source);
    table->setDelegate(source);
    views->keyWindow()->addSubview(table);
    table->reloadData();
    const auto first = table->visibleCells();
    ASSERT_EQ(first.size(), 3U);
    table->reloadData();

    views->window()->show();
    QTest::mouseClick(qtCore(first[1].get())->widget(), Qt::LeftButton);
    EXPECT_EQ(source->selections, (std::vector<platform::IndexPath>{{0, 1}}));
    EXPECT_FALSE(table->indexPathForSelectedRow().has_value());
    views->window()->hide();
}

}  // namespace
}  // namespace tovrel::qtbackend
