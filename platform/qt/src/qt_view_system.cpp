#include <QCoreApplication>
#include <QDir>
#include <algorithm>
#include <limits>

#include "qt_view_context.h"
#include "tovrel/paths/data_directory.h"
#include "tovrel/qt/qt_map_view.h"
#include "tovrel/qt/qt_views.h"

namespace tovrel::qtbackend {
namespace {

constexpr const char* kBundleName = "TovrelSDKResources.bundle";
/// Presented screens stack above every subview of the window except those at the topmost z-position.
constexpr float kPresentedZPosition = std::numeric_limits<float>::max() / 2;

/// Where the resource bundle lies: the folder given, else $TOVREL_QT_RESOURCES, else beside the
/// program, else with Tovrel's installed data (in the build tree: the bundle this build drew).
std::filesystem::path resourceRootFor(const std::filesystem::path& given) {
    if (!given.empty()) {
        return given;
    }
    if (const QByteArray fromEnvironment = qgetenv("TOVREL_QT_RESOURCES"); !fromEnvironment.isEmpty()) {
        return fromEnvironment.toStdString();
    }
    const std::filesystem::path besideProgram = QCoreApplication::applicationDirPath().toStdString();
    if (std::filesystem::exists(besideProgram / kBundleName)) {
        return besideProgram;
    }
    return paths::dataDirectory();
}

}  // namespace

void QtViewContext::windowChanged() const {
    if (system != nullptr) {
        system->restackWindow();
    }
}

QtViewSystem::QtViewSystem(const std::shared_ptr<platform::MainLoop>& loop, Options options)
    : ViewSystem(options.screen), context_(std::make_shared<QtViewContext>()), options_(std::move(options)) {
    TOVREL_ASSERT_CALLED_ON_VALID_THREAD(guiThread_);
    context_->loop = loop;
    context_->resourceRoot = resourceRootFor(options_.resourceRoot);
    context_->tileURLTemplate = options_.tileURLTemplate;
    context_->system = this;
    keyWindow_ = std::make_shared<QtView>(
        context_, platform::Rect{0, 0, options_.screen.width, options_.screen.height});
    keyWindow_->isWindow_ = true;
    keyWindow_->setBackgroundColor(platform::Color::whiteColor());
    setKeyWindow(keyWindow_);
    keyWindow_->applyGeometry();
    keyWindow_->widget()->setWindowTitle(QString::fromStdString(options_.windowTitle));
}

QtViewSystem::~QtViewSystem() {
    context_->system = nullptr;
}

QWidget* QtViewSystem::window() const {
    return keyWindow_->widget();
}

std::optional<std::string> QtViewSystem::pathForResource(const std::string& name,
                                                         const std::string& type) const {
    const auto path = context_->resourceRoot / (name + "." + type);
    if (std::filesystem::exists(path)) {
        return path.string();
    }
    return std::nullopt;
}

QImage QtViewSystem::image(const std::string& name) const {
    return context_->image(name);
}

std::shared_ptr<platform::View> QtViewSystem::makeView(const platform::Rect& frame) {
    return std::make_shared<QtView>(context_, frame);
}

std::shared_ptr<platform::WebView> QtViewSystem::makeWebView(const platform::Rect& frame) {
    return std::make_shared<QtWebView>(context_, frame);
}

std::shared_ptr<platform::ActivityIndicatorView> QtViewSystem::makeActivityIndicator(
    platform::ActivityIndicatorStyle style) {
    return std::make_shared<QtActivityIndicator>(context_, style);
}

std::shared_ptr<platform::Button> QtViewSystem::makeButton(platform::ButtonType type,
                                                           const platform::Rect& frame) {
    return std::make_shared<QtButton>(context_, type, frame);
}

std::shared_ptr<platform::Label> QtViewSystem::makeLabel(const platform::Rect& frame) {
    return std::make_shared<QtLabel>(context_, frame);
}

std::shared_ptr<platform::NavigationBar> QtViewSystem::makeNavigationBar(const platform::Rect& frame) {
    return std::make_shared<QtNavigationBar>(context_, frame);
}

std::shared_ptr<platform::TableView> QtViewSystem::makeTableView(const platform::Rect& frame) {
    return std::make_shared<QtTableView>(context_, frame);
}

std::shared_ptr<platform::TableViewCell> QtViewSystem::makeTableViewCell(platform::TableViewCellStyle style,
                                                                         const std::string& reuseIdentifier) {
    return std::make_shared<QtTableViewCell>(context_, style, reuseIdentifier);
}

std::shared_ptr<platform::MapView> QtViewSystem::makeMapView(const platform::Rect& frame) {
    auto map = std::make_shared<QtMapView>(context_, frame);
    auto& maps = context_->maps;
    maps.erase(std::remove_if(maps.begin(), maps.end(), [](const auto& weak) { return weak.expired(); }),
               maps.end());
    maps.push_back(map);
    return map;
}

std::shared_ptr<platform::AnnotationView> QtViewSystem::makeAnnotationView(
    std::shared_ptr<platform::Annotation> annotation, const std::string& reuseIdentifier) {
    return std::make_shared<QtAnnotationView>(context_, std::move(annotation), reuseIdentifier);
}

void QtViewSystem::animate(const platform::ViewAnimation& animation, const std::function<void()>& changes) {
    context_->openAnimations.push_back(animation);
    if (changes) {
        changes();
    }
    context_->openAnimations.pop_back();
}

void QtViewSystem::didPresent(platform::View& view, const platform::ModalPresentation& /*presentation*/) {
    auto* core = qtCore(&view);
    if (core == nullptr) {
        return;
    }
    core->presented_ = true;
    if (core->widget_ && !view.superview()) {
        core->widget_->setParent(window());
        core->applyGeometry();
        core->applyVisibility();
    }
    restackWindow();
}

void QtViewSystem::didDismiss(platform::View& view, bool /*animated*/) {
    auto* core = qtCore(&view);
    if (core == nullptr) {
        return;
    }
    core->presented_ = false;
    if (core->widget_ && !view.superview()) {
        core->widget_->hide();
        core->widget_->setParent(nullptr);
    }
}

void QtViewSystem::restackWindow() {
    std::vector<std::pair<float, QWidget*>> order;
    for (const auto& subview : keyWindow_->subviews()) {
        if (auto* core = qtCore(subview.get()); core != nullptr && core->widget_ && !core->isLent()) {
            order.emplace_back(subview->zPosition(), core->widget_);
        }
    }
    for (const auto& view : presentedViews()) {
        if (auto* core = qtCore(view.get()); core != nullptr && core->widget_ && !view->superview()) {
            order.emplace_back(kPresentedZPosition, core->widget_);
        }
    }
    std::stable_sort(order.begin(), order.end(),
                     [](const auto& a, const auto& b) { return a.first < b.first; });
    for (const auto& entry : order) {
        entry.second->raise();
    }
    for (QObject* child : window()->children()) {
        if (auto* widget = qobject_cast<QWidget*>(child);
            widget != nullptr && widget->property("tovrelOverlay").toBool()) {
            widget->raise();
        }
    }
}

void QtViewSystem::addOverlay(QWidget* overlay) {
    TOVREL_ASSERT_CALLED_ON_VALID_THREAD(guiThread_);
    overlay->setParent(window());
    overlay->setProperty("tovrelOverlay", true);
    overlay->setGeometry(window()->rect());
    overlay->raise();
}

void QtViewSystem::deliverUserLocation(const platform::Location& location) {
    TOVREL_ASSERT_CALLED_ON_VALID_THREAD(guiThread_);
    const auto maps = context_->maps;
    for (const auto& weak : maps) {
        if (const auto map = std::dynamic_pointer_cast<QtMapView>(weak.lock())) {
            map->deliverUserLocation(location);
        }
    }
}

}  // namespace tovrel::qtbackend
