#include "demo_host.h"

#include <QDir>
#include <cmath>

#include "tovrel/location_archive.h"
#include "tovrel/notification_names.h"
#include "tovrel/offer_full_view_controller.h"
#include "tovrel/qt/qt_map_view.h"

namespace tovrel::demo {
namespace {

constexpr double kBarHeight = 44;

}  // namespace

DemoHost::DemoHost(Environment& environment, qtbackend::QtPlatform& backend)
    : environment_(environment), backend_(backend) {}

DemoHost::~DemoHost() {
    if (locationObserver_ != 0) {
        environment_.notificationCenter().removeObserver(locationObserver_);
    }
}

void DemoHost::show() {
    auto& views = *backend_.views;
    map_ = MapManager::create(environment_);
    views.keyWindow()->addSubview(map_->view());

    const auto screen = views.mainScreenBounds();
    settingsButton_ = views.makeButton(platform::ButtonType::kCustom, {screen.width - 54, 30, 44, 44});
    settingsButton_->setImageName("TovrelSDKResources.bundle/settings.png");
    settingsButton_->setShowsTouchWhenHighlighted(true);
    settingsButton_->setAction([this] { openSettings(); });
    map_->view()->addSubview(settingsButton_);

    // The component reports every position it stores; the map's dot follows them.
    locationObserver_ = environment_.notificationCenter().addObserver(
        kTovrelLocationNotification, nullptr, [this](const Notification& notification) {
            const auto* object = std::any_cast<nlohmann::json>(&notification.object);
            if (object == nullptr || !object->contains("Location")) {
                return;
            }
            if (const auto location = unarchiveLocation(object->at("Location"))) {
                const auto fix = *location;
                backend_.loop->post([this, fix] { backend_.views->deliverUserLocation(fix); });
            }
        });
    views.window()->show();
}

void DemoHost::openSettings() {
    auto& views = *backend_.views;
    if (!settings_) {
        settings_ = SettingsController::create(environment_);
        const auto& view = settings_->view();
        const auto frame = view->frame();
        settings_->tableView()->setFrame({0, kBarHeight, frame.width, frame.height - kBarHeight});
        settingsBar_ = views.makeNavigationBar({0, 0, frame.width, kBarHeight});
        auto item = std::make_shared<platform::NavigationItem>();
        item->title = "Settings";
        auto done = views.makeButton(platform::ButtonType::kSystem, {0, 0, 50, 28});
        done->setTitle("Done");
        done->setAction([this] { closeSettings(); });
        item->leftBarButtonItem = platform::BarButtonItem{done};
        settingsBar_->setItems({item}, false);
        view->addSubview(settingsBar_);
    }
    views.presentModalView(settings_->view(), {platform::ModalPresentationStyle::kFullScreen, true, false});
}

void DemoHost::closeSettings() {
    if (settings_) {
        settings_->close();
    }
}

std::size_t DemoHost::placeCount() const {
    return map_ && map_->mapView() ? map_->mapView()->overlays().size() : 0;
}

bool DemoHost::hasUserPosition() const {
    return map_ && map_->mapView() && map_->mapView()->userLocation()->location.has_value();
}

bool DemoHost::openNearestOffer() {
    const auto map = map_ ? qtbackend::qtView<qtbackend::QtMapView>(map_->mapView()) : nullptr;
    const auto last = map_ ? map_->lastLocation() : std::nullopt;
    if (!map || !last) {
        return false;
    }
    std::shared_ptr<hAnnotation> nearest;
    double nearestMetres = 0;
    for (const auto& annotation : map->annotations()) {
        if (auto pin = std::dynamic_pointer_cast<hAnnotation>(annotation)) {
            const double metres =
                MapManager::calculateAreaInMetersBetweenCoord(pin->coordinate, last->coordinate);
            if (!nearest || metres < nearestMetres) {
                nearest = pin;
                nearestMetres = metres;
            }
        }
    }
    if (!nearest) {
        return false;
    }
    return map->tapCalloutAccessory(nearest);
}

bool DemoHost::offerShown() const {
    if (!map_ || !map_->offerFullViewController) {
        return false;
    }
    const auto& controller = map_->offerFullViewController;
    const auto web = qtbackend::qtView<qtbackend::QtWebView>(controller->adWebView());
    return web && web->finishedLoads() > 0 && !controller->view()->isHidden() &&
           controller->view()->superview();
}

bool saveScreenshot(qtbackend::QtPlatform& backend, const std::filesystem::path& directory,
                    const std::string& name) {
    QDir().mkpath(QString::fromStdString(directory.string()));
    const auto path = directory / (name + ".png");
    return backend.views->window()->grab().save(QString::fromStdString(path.string()));
}

}  // namespace tovrel::demo
