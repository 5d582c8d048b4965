#include "tovrel/platform/map_view.h"
#include "tovrel/platform/view_renderer.h"

namespace tovrel::platform {

AnnotationView::AnnotationView(std::shared_ptr<ViewRenderer> renderer, std::shared_ptr<Annotation> annotation,
                               std::string reuseIdentifier)
    : View(std::move(renderer), {0, 0, 32, 39}),
      annotation_(std::move(annotation)),
      reuseIdentifier_(std::move(reuseIdentifier)) {}

void AnnotationView::setImageName(const std::string& name) {
    imageName_ = name;
    changed(ViewProperty::kContent);
}

}  // namespace tovrel::platform
