#include <algorithm>

#include "tovrel/platform/view_renderer.h"
#include "tovrel/platform/views.h"

namespace tovrel::platform {

namespace {

constexpr double kRowHeight = 44;

}  // namespace

void TableView::reloadData() {
    ++reloadCount_;
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
    sectionFooterHeight_.reset();
    if (const auto dataSource = dataSource_.lock()) {
        const long rows = dataSource->tableViewNumberOfRowsInSection(*this, 0);
        for (long row = 0; row < rows; ++row) {
            const IndexPath path{0, row};
            auto cell = dataSource->tableViewCellForRowAtIndexPath(*this, path);
            if (!cell) {
                continue;
            }
            if (auto delegate = delegate_.lock()) {
                cell->setIndentationLevel(delegate->tableViewIndentationLevelForRowAtIndexPath(*this, path));
            }
            cell->setFrame({0, kRowHeight * static_cast<double>(row), frame().width, kRowHeight});
            visible_.push_back(cell);
            addSubview(cell);
        }
        if (auto delegate = delegate_.lock()) {
            sectionFooterHeight_ = delegate->tableViewHeightForFooterInSection(*this, 0);
            sectionFooter_ = delegate->tableViewViewForFooterInSection(*this, 0);
            if (sectionFooter_) {
                addSubview(sectionFooter_);
            }
        }
    }
    layoutRows();
    changed(ViewProperty::kContent);
}

void TableView::layoutRows() {
    const double width = frame().width;
    double y = kRowHeight * static_cast<double>(visible_.size());
    const double footerHeight = sectionFooterHeight_.value_or(0);
    if (sectionFooter_) {
        sectionFooter_->setFrame({0, y, width, footerHeight});
    }
    y += footerHeight;
    if (footer_) {
        const double height = footer_->frame().height;
        footer_->setFrame({0, y, width, height});
        y += height;
    }
    contentHeight_ = y;
    for (const auto& cell : visible_) {
        const auto cellFrame = cell->frame();
        if (cellFrame.width != width) {
            cell->setFrame({cellFrame.x, cellFrame.y, width, cellFrame.height});
        }
    }
}

std::shared_ptr<TableViewCell> TableView::dequeueReusableCellWithIdentifier(const std::string& identifier) {
    return reusable_.take(identifier);
}

std::shared_ptr<TableViewCell> TableView::cellForRowAtIndexPath(const IndexPath& indexPath) const {
    if (indexPath.section != 0 || indexPath.row < 0 || indexPath.row >= static_cast<long>(visible_.size())) {
        return nullptr;
    }
    return visible_[static_cast<std::size_t>(indexPath.row)];
}

void TableView::deselectRowAtIndexPath(const IndexPath& indexPath, bool animated) {
    if (deselections_.size() == kKeptDeselections) {
        deselections_.erase(deselections_.begin());
    }
    deselections_.emplace_back(indexPath, animated);
    if (selected_ == indexPath) {
        selected_.reset();
    }
    changed(ViewProperty::kContent);
}

void TableView::setTableFooterView(std::shared_ptr<View> footer) {
    if (footer_ && footer_ != footer) {
        footer_->removeFromSuperview();
    }
    footer_ = std::move(footer);
    if (footer_) {
        addSubview(footer_);
    }
    layoutRows();
    changed(ViewProperty::kContent);
}

void TableView::tapRow(long row) {
    const IndexPath path{0, row};
    const auto keepAlive = shared_from_this();
    selected_ = path;
    changed(ViewProperty::kContent);
    if (auto delegate = delegate_.lock()) {
        delegate->tableViewDidSelectRowAtIndexPath(*this, path);
    }
}

}  // namespace tovrel::platform
