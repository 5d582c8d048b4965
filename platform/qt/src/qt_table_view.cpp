#include <algorithm>
#include <cmath>

#include "qt_view_context.h"
#include "tovrel/qt/qt_views.h"
#include "view_widget.h"

namespace tovrel::qtbackend {
namespace {

constexpr double kRowHeight = 44;

}  // namespace

QtTableView::QtTableView(std::shared_ptr<QtViewContext> context, const platform::Rect& frame)
    : TableView(context, frame), QtViewCore(std::move(context), new ViewWidget, *this) {
    auto* view = static_cast<ViewWidget*>(widget());
    content_ = new QWidget(view);
    content_->setAttribute(Qt::WA_NoSystemBackground);
    content_->show();
    view->wheel = [this](double dy) { scrollBy(dy); };
    layoutRows();
}

QWidget* QtTableView::contentWidget() const {
    return content_;
}

void QtTableView::reloadData() {
    const auto shown = std::move(visible_);
    visible_.clear();
    for (const auto& cell : shown) {
        reusable_.put(cell->reuseIdentifier(), cell);
        cell->removeFromSuperview();
    }
    selected_.reset();
    if (sectionFooter_) {
        sectionFooter_->removeFromSuperview();
        sectionFooter_.reset();
    }
    const auto dataSource = dataSource_.lock();
    if (!dataSource) {
        layoutRows();
        return;
    }
    const long rows = dataSource->tableViewNumberOfRowsInSection(*this, 0);
    for (long row = 0; row < rows; ++row) {
        const platform::IndexPath path{0, row};
        auto cell = dataSource->tableViewCellForRowAtIndexPath(*this, path);
        if (!cell) {
            continue;
        }
        if (auto delegate = delegate_.lock()) {
            cell->setIndentationLevel(delegate->tableViewIndentationLevelForRowAtIndexPath(*this, path));
        }
        cell->setFrame({0, kRowHeight * static_cast<double>(row), frame().width, kRowHeight});
        if (auto* qtCell = dynamic_cast<QtTableViewCell*>(cell.get())) {
            qtCell->setSelectedLook(false);
            static_cast<ViewWidget*>(qtCell->widget())->tap = [weak = weak_from_this(), row] {
                if (const auto self = std::dynamic_pointer_cast<QtTableView>(weak.lock())) {
                    self->tapRow(row);
                }
            };
        }
        visible_.push_back(cell);
        addSubview(cell);
    }
    sectionFooterHeight_ = 0;
    if (auto delegate = delegate_.lock()) {
        sectionFooterHeight_ = delegate->tableViewHeightForFooterInSection(*this, 0).value_or(0);
        sectionFooter_ = delegate->tableViewViewForFooterInSection(*this, 0);
        if (sectionFooter_) {
            addSubview(sectionFooter_);
        }
    }
    layoutRows();
}

void QtTableView::layoutRows() {
    if (!content_) {
        return;
    }
    double y = kRowHeight * static_cast<double>(visible_.size());
    if (sectionFooter_) {
        sectionFooter_->setFrame({0, y, frame().width, sectionFooterHeight_});
    }
    y += sectionFooterHeight_;
    if (footer_) {
        const auto footerFrame = footer_->frame();
        footer_->setFrame({0, y, frame().width, footerFrame.height});
        y += footerFrame.height;
    }
    const double height = std::max(y, frame().height);
    offset_ = std::clamp(offset_, 0.0, std::max(0.0, y - frame().height));
    content_->setGeometry(0, static_cast<int>(-std::lround(offset_)),
                          static_cast<int>(std::lround(frame().width)),
                          static_cast<int>(std::lround(height)));
    for (const auto& cell : visible_) {
        const auto cellFrame = cell->frame();
        if (cellFrame.width != frame().width) {
            cell->setFrame({cellFrame.x, cellFrame.y, frame().width, cellFrame.height});
        }
    }
}

void QtTableView::scrollBy(double dy) {
    offset_ += dy;
    layoutRows();
}

std::shared_ptr<platform::TableViewCell> QtTableView::dequeueReusableCellWithIdentifier(
    const std::string& identifier) {
    return reusable_.take(identifier);
}

std::shared_ptr<platform::TableViewCell> QtTableView::cellForRowAtIndexPath(
    const platform::IndexPath& indexPath) const {
    if (indexPath.section != 0 || indexPath.row < 0 || indexPath.row >= static_cast<long>(visible_.size())) {
        return nullptr;
    }
    return visible_[static_cast<std::size_t>(indexPath.row)];
}

void QtTableView::deselectRowAtIndexPath(const platform::IndexPath& indexPath, bool /*animated*/) {
    if (selected_ == indexPath) {
        selected_.reset();
    }
    if (auto* cell = dynamic_cast<QtTableViewCell*>(cellForRowAtIndexPath(indexPath).get())) {
        cell->setSelectedLook(false);
    }
}

void QtTableView::setTableFooterView(std::shared_ptr<platform::View> footer) {
    if (footer_ && footer_ != footer) {
        footer_->removeFromSuperview();
    }
    footer_ = std::move(footer);
    if (footer_) {
        addSubview(footer_);
    }
    layoutRows();
}

void QtTableView::tapRow(long row) {
    const platform::IndexPath path{0, row};
    const auto keepAlive = shared_from_this();
    if (selected_) {
        if (auto* previous = dynamic_cast<QtTableViewCell*>(cellForRowAtIndexPath(*selected_).get())) {
            previous->setSelectedLook(false);
        }
    }
    selected_ = path;
    if (auto* cell = dynamic_cast<QtTableViewCell*>(cellForRowAtIndexPath(path).get())) {
        cell->setSelectedLook(true);
    }
    if (auto delegate = delegate_.lock()) {
        delegate->tableViewDidSelectRowAtIndexPath(*this, path);
    }
}

}  // namespace tovrel::qtbackend
