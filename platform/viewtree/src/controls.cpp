#include "tovrel/platform/view_renderer.h"
#include "tovrel/platform/views.h"

namespace tovrel::platform {

namespace {

Rect spinnerFrame(ActivityIndicatorStyle style) {
    return style == ActivityIndicatorStyle::kWhiteLarge ? Rect{0, 0, 37, 37} : Rect{0, 0, 20, 20};
}

}  // namespace

// ---- Scroll view ----

void ScrollView::setZoomScale(float scale) {
    if (scale < minimum_) {
        scale = minimum_;
    }
    if (scale > maximum_) {
        scale = maximum_;
    }
    zoom_ = scale;
    if (zoomObserver_) {
        zoomObserver_(zoom_);
    }
}

void ScrollView::resetZoom() {
    minimum_ = 1;
    maximum_ = 1;
    zoom_ = 1;
    if (zoomObserver_) {
        zoomObserver_(zoom_);
    }
}

// ---- Spinner ----

ActivityIndicatorView::ActivityIndicatorView(std::shared_ptr<ViewRenderer> renderer,
                                             ActivityIndicatorStyle style)
    : View(std::move(renderer), spinnerFrame(style)), style_(style) {
    startHidden(true);
}

void ActivityIndicatorView::setHidesWhenStopped(bool hides) {
    hidesWhenStopped_ = hides;
    if (!animating_) {
        setHidden(hides);
    }
}

void ActivityIndicatorView::startAnimating() {
    animating_ = true;
    changed(ViewProperty::kContent);
    setHidden(false);
}

void ActivityIndicatorView::stopAnimating() {
    animating_ = false;
    changed(ViewProperty::kContent);
    if (hidesWhenStopped_) {
        setHidden(true);
    }
}

// ---- Button ----

Button::Button(std::shared_ptr<ViewRenderer> renderer, ButtonType type, const Rect& frame)
    : View(std::move(renderer), frame), type_(type) {}

void Button::setTitle(const std::string& title) {
    title_ = title;
    changed(ViewProperty::kContent);
}

void Button::setTitleColor(const Color& color) {
    titleColor_ = color;
    changed(ViewProperty::kContent);
}

void Button::setImageName(const std::string& name) {
    imageName_ = name;
    changed(ViewProperty::kContent);
}

void Button::setShowsTouchWhenHighlighted(bool shows) {
    showsTouch_ = shows;
    changed(ViewProperty::kContent);
}

bool Button::tap() {
    const auto action = action_;
    const auto hook = controlHook_;
    if (!action && !hook) {
        return false;
    }
    const auto keepAlive = shared_from_this();
    if (action) {
        action();
    }
    if (hook) {
        hook();
    }
    return true;
}

// ---- Label ----

void Label::setText(const std::string& text) {
    text_ = text;
    changed(ViewProperty::kContent);
}

void Label::setNumberOfLines(int lines) {
    lines_ = lines;
    changed(ViewProperty::kContent);
}

void Label::setFont(const Font& font) {
    font_ = font;
    changed(ViewProperty::kContent);
}

void Label::setTextColor(const Color& color) {
    textColor_ = color;
    changed(ViewProperty::kContent);
}

void Label::setTextAlignment(TextAlignment alignment) {
    alignment_ = alignment;
    changed(ViewProperty::kContent);
}

// ---- Navigation bar ----

void NavigationBar::setItems(std::vector<std::shared_ptr<NavigationItem>> items, bool /*animated*/) {
    items_ = std::move(items);
    changed(ViewProperty::kContent);
}

std::shared_ptr<NavigationItem> NavigationBar::topItem() const {
    return items_.empty() ? nullptr : items_.back();
}

// ---- Table cell ----

TableViewCell::TableViewCell(std::shared_ptr<ViewRenderer> renderer, TableViewCellStyle style,
                             std::string reuseIdentifier)
    : View(std::move(renderer), {0, 0, 320, 44}),
      style_(style),
      reuseIdentifier_(std::move(reuseIdentifier)) {}

void TableViewCell::setText(const std::string& text) {
    text_ = text;
    changed(ViewProperty::kContent);
}

void TableViewCell::setTextColor(const Color& color) {
    textColor_ = color;
    changed(ViewProperty::kContent);
}

void TableViewCell::setImageName(const std::string& name) {
    imageName_ = name;
    changed(ViewProperty::kContent);
}

void TableViewCell::setAccessoryType(TableViewCellAccessory accessory) {
    accessory_ = accessory;
    changed(ViewProperty::kContent);
}

void TableViewCell::setIndentationLevel(long level) {
    indentation_ = level;
    changed(ViewProperty::kContent);
}

}  // namespace tovrel::platform
