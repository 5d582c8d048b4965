#include <algorithm>
#include <cmath>

#include "qt_view_context.h"
#include "tovrel/qt/qt_views.h"
#include "view_widget.h"

namespace tovrel::qtbackend {

QtTableView::QtTableView(std::shared_ptr<QtViewContext> context, const platform::Rect& frame)
    : TableView(context, frame), QtViewCore(std::move(context), new ViewWidget, *this) {
    auto* view = static_cast<ViewWidget*>(widget());
    content_ = new QWidget(view);
    content_->setAttribute(Qt::WA_NoSystemBackground);
    content_->show();
    view->wheel = [this](double dy) { scrollBy(dy); };
    layoutContent();
}

QWidget* QtTableView::contentWidget() const {
    return content_;
}

void QtTableView::contentChanged() {
    const auto selected = indexPathForSelectedRow();
    const auto& cells = visibleCells();
    for (std::size_t index = 0; index < cells.size(); ++index) {
        const auto row = static_cast<long>(index);
        if (auto* cell = dynamic_cast<QtTableViewCell*>(cells[index].get())) {
            cell->setSelectedLook(selected == platform::IndexPath{0, row});
            static_cast<ViewWidget*>(cell->widget())->tap = [weak = weak_from_this(), row] {
                if (const auto self = std::static_pointer_cast<platform::TableView>(weak.lock())) {
                    self->tapRow(row);
                }
            };
        }
    }
    layoutContent();
}

void QtTableView::layoutContent() {
    if (!content_) {
        return;
    }
    const double width = frame().width;
    const double visible = frame().height;
    const double height = std::max(contentHeight(), visible);
    offset_ = std::clamp(offset_, 0.0, std::max(0.0, contentHeight() - visible));
    content_->setGeometry(0, static_cast<int>(-std::lround(offset_)), static_cast<int>(std::lround(width)),
                          static_cast<int>(std::lround(height)));
}

void QtTableView::scrollBy(double dy) {
    offset_ += dy;
    layoutContent();
}

}  // namespace tovrel::qtbackend
