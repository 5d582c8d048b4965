#include "tovrel/platform/map_view.h"

#include <algorithm>

#include "tovrel/platform/view_renderer.h"

namespace tovrel::platform {
namespace {

/// The Buttons among `view`'s callout accessories: the controls whose taps reach the map's delegate.
std::vector<std::shared_ptr<Button>> calloutControls(const AnnotationView& view) {
    std::vector<std::shared_ptr<Button>> controls;
    for (const auto& accessory : {view.leftCalloutAccessoryView(), view.rightCalloutAccessoryView()}) {
        if (auto button = std::dynamic_pointer_cast<Button>(accessory)) {
            controls.push_back(std::move(button));
        }
    }
    return controls;
}

}  // namespace

MapView::MapView(std::shared_ptr<ViewRenderer> renderer, const Rect& frame)
    : View(std::move(renderer), frame), userLocation_(std::make_shared<UserLocation>()) {
    userLocation_->coordinate = {-180, -180};
    camera_.setViewSize({frame.width, frame.height});
}

MapView::~MapView() {
    if (const auto view = callout_ ? viewForAnnotation(callout_) : nullptr) {
        for (const auto& button : calloutControls(*view)) {
            button->setControlHook(nullptr);
        }
    }
}

void MapView::tell(MapChange::Kind kind, bool animated, std::shared_ptr<Annotation> annotation) {
    MapChange change;
    change.kind = kind;
    change.animated = animated;
    change.annotation = std::move(annotation);
    renderer().mapChanged(*this, change);
}

void MapView::didChangeFrame() {
    camera_.setViewSize({frame().width, frame().height});
    tell(MapChange::Kind::kCamera);
}

std::vector<std::shared_ptr<Annotation>> MapView::annotations() const {
    std::vector<std::shared_ptr<Annotation>> all;
    if (showsUserLocation_ && userLocation_->location) {
        all.push_back(userLocation_);
    }
    for (const auto& pinned : pinned_) {
        all.push_back(pinned.annotation);
    }
    return all;
}

std::vector<std::shared_ptr<AnnotationView>> MapView::annotationViews() const {
    std::vector<std::shared_ptr<AnnotationView>> views;
    for (const auto& pinned : pinned_) {
        if (pinned.view) {
            views.push_back(pinned.view);
        }
    }
    return views;
}

void MapView::addAnnotation(std::shared_ptr<Annotation> annotation) {
    const auto same = [&annotation](const Pinned& p) { return p.annotation == annotation; };
    if (!annotation || std::any_of(pinned_.begin(), pinned_.end(), same)) {
        return;
    }
    pinned_.push_back({annotation, nullptr});
    std::shared_ptr<AnnotationView> view;
    if (auto delegate = delegate_.lock()) {
        const auto keepAlive = shared_from_this();
        view = delegate->mapViewViewForAnnotation(*this, annotation);
    }
    if (!view) {
        view = renderer().makePlatformPin(annotation);
    }
    // The delegate may have removed the annotation meanwhile.
    const auto it = std::find_if(pinned_.begin(), pinned_.end(), same);
    if (it != pinned_.end()) {
        it->view = std::move(view);
        tell(MapChange::Kind::kPins);
    }
}

void MapView::removeAnnotations(const std::vector<std::shared_ptr<Annotation>>& annotations) {
    bool removed = false;
    for (const auto& annotation : annotations) {
        const auto it = std::find_if(pinned_.begin(), pinned_.end(),
                                     [&annotation](const Pinned& p) { return p.annotation == annotation; });
        if (it == pinned_.end()) {
            continue;
        }
        if (callout_ == annotation) {
            closeCallout();
        }
        if (it->view && !it->view->reuseIdentifier().empty()) {
            reusable_.put(it->view->reuseIdentifier(), it->view);
        }
        pinned_.erase(it);
        selected_.erase(std::remove(selected_.begin(), selected_.end(), annotation), selected_.end());
        removed = true;
    }
    if (removed) {
        tell(MapChange::Kind::kPins);
    }
}

std::vector<std::shared_ptr<Overlay>> MapView::overlays() const {
    std::vector<std::shared_ptr<Overlay>> all;
    for (const auto& drawn : drawn_) {
        all.push_back(drawn.overlay);
    }
    return all;
}

void MapView::addOverlay(std::shared_ptr<Overlay> overlay) {
    if (!overlay) {
        return;
    }
    OverlayView view;
    if (auto delegate = delegate_.lock()) {
        const auto keepAlive = shared_from_this();
        view = delegate->mapViewViewForOverlay(*this, overlay);
    }
    drawn_.push_back({std::move(overlay), view});
    tell(MapChange::Kind::kOverlays);
}

void MapView::removeOverlays(const std::vector<std::shared_ptr<Overlay>>& overlays) {
    const auto before = drawn_.size();
    for (const auto& overlay : overlays) {
        std::erase_if(drawn_, [&overlay](const Drawn& d) { return d.overlay == overlay; });
    }
    if (drawn_.size() != before) {
        tell(MapChange::Kind::kOverlays);
    }
}

std::shared_ptr<AnnotationView> MapView::dequeueReusableAnnotationViewWithIdentifier(
    const std::string& identifier) {
    return reusable_.take(identifier);
}

void MapView::deselectAnnotation(const std::shared_ptr<Annotation>& annotation, bool animated) {
    selected_.erase(std::remove(selected_.begin(), selected_.end(), annotation), selected_.end());
    if (callout_ == annotation) {
        closeCallout();
    }
    tell(MapChange::Kind::kDeselected, animated, annotation);
}

void MapView::selectAnnotation(const std::shared_ptr<Annotation>& annotation) {
    if (!viewForAnnotation(annotation)) {
        return;
    }
    for (const auto& other : std::vector(selected_)) {
        if (other != annotation) {
            deselectAnnotation(other, false);
        }
    }
    if (std::find(selected_.begin(), selected_.end(), annotation) == selected_.end()) {
        selected_.push_back(annotation);
    }
    if (callout_ != annotation) {
        openCallout(annotation);
    }
}

void MapView::openCallout(const std::shared_ptr<Annotation>& annotation) {
    closeCallout();
    const auto view = viewForAnnotation(annotation);
    if (!view || !view->canShowCallout()) {
        return;
    }
    callout_ = annotation;
    for (const auto& button : calloutControls(*view)) {
        button->setControlHook([weakMap = weak_from_this(), weakView = std::weak_ptr<AnnotationView>(view),
                                weakControl = std::weak_ptr<Button>(button)] {
            const auto map = std::static_pointer_cast<MapView>(weakMap.lock());
            const auto pinView = weakView.lock();
            const auto control = weakControl.lock();
            const auto delegate = map ? map->delegate_.lock() : nullptr;
            if (pinView && control && delegate) {
                delegate->mapViewAnnotationViewCalloutAccessoryControlTapped(*map, *pinView, *control);
            }
        });
    }
    tell(MapChange::Kind::kCallout, false, annotation);
}

void MapView::closeCallout() {
    if (!callout_) {
        return;
    }
    if (const auto view = viewForAnnotation(callout_)) {
        for (const auto& button : calloutControls(*view)) {
            button->setControlHook(nullptr);
        }
    }
    const auto closed = std::move(callout_);
    callout_.reset();
    tell(MapChange::Kind::kCallout, false, closed);
}

bool MapView::tapCalloutAccessory(const std::shared_ptr<Annotation>& annotation, bool right) {
    const auto view = viewForAnnotation(annotation);
    if (!view || !view->canShowCallout()) {
        return false;
    }
    const auto control = std::dynamic_pointer_cast<Button>(right ? view->rightCalloutAccessoryView()
                                                                 : view->leftCalloutAccessoryView());
    if (!control) {
        return false;
    }
    const auto keepAlive = shared_from_this();
    selectAnnotation(annotation);
    return control->tap();
}

void MapView::setShowsUserLocation(bool shows) {
    showsUserLocation_ = shows;
    tell(MapChange::Kind::kUserLocation);
}

void MapView::setRegion(const CoordinateRegion& region, bool animated) {
    camera_.showRegion(region);
    MapChange change;
    change.kind = MapChange::Kind::kCamera;
    change.animated = animated;
    change.region = region;
    renderer().mapChanged(*this, change);
}

void MapView::setVisibleMapRect(const MapRect& rect, const EdgeInsets& padding, bool animated) {
    camera_.showMapRect(rect, padding);
    MapChange change;
    change.kind = MapChange::Kind::kCamera;
    change.animated = animated;
    change.rect = rect;
    change.padding = padding;
    renderer().mapChanged(*this, change);
}

void MapView::moveCamera(const MapPoint& center, double scale) {
    camera_.setCenter(center);
    camera_.setScale(scale);
    tell(MapChange::Kind::kCamera);
}

void MapView::deliverUserLocation(const Location& location) {
    userLocation_->location = location;
    userLocation_->coordinate = location.coordinate;
    userLocation_->updating = true;
    tell(MapChange::Kind::kUserLocation);
    if (!showsUserLocation_) {
        return;
    }
    if (auto delegate = delegate_.lock()) {
        const auto keepAlive = shared_from_this();
        delegate->mapViewDidUpdateUserLocation(*this, *userLocation_);
    }
}

std::shared_ptr<AnnotationView> MapView::viewForAnnotation(
    const std::shared_ptr<Annotation>& annotation) const {
    const auto it = std::find_if(pinned_.begin(), pinned_.end(),
                                 [&annotation](const Pinned& p) { return p.annotation == annotation; });
    return it == pinned_.end() ? nullptr : it->view;
}

std::optional<OverlayView> MapView::viewForOverlay(const std::shared_ptr<Overlay>& overlay) const {
    const auto it = std::find_if(drawn_.begin(), drawn_.end(),
                                 [&overlay](const Drawn& d) { return d.overlay == overlay; });
    return it == drawn_.end() ? std::nullopt : std::optional(it->view);
}

}  // namespace tovrel::platform
