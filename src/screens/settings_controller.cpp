#include "tovrel/settings_controller.h"

#include <array>

#include "foundation/value.h"
#include "tovrel/content_controller.h"
#include "tovrel/environment.h"
#include "tovrel/version.h"

namespace tovrel {
namespace {

constexpr const char* kCellIdentifier = "cell";
constexpr const char* kResourceBundleName = "TovrelSDKResources";
constexpr platform::Color kDarkGrey = platform::Color::rgb255(50, 55, 58);
constexpr float kSettingsURLVersion = 8.0F;

constexpr std::array<const char*, 5> kRowImages = {
    "TovrelSDKResources.bundle/settings.png", "TovrelSDKResources.bundle/about.png",
    "TovrelSDKResources.bundle/terms.png",    "TovrelSDKResources.bundle/privacy.png",
    "TovrelSDKResources.bundle/help.png",
};

constexpr std::array<SettingsController::ContentPage, 4> kContentPages = {{
    {"About Tovrel", "/appcontent/about.html"},
    {"Terms of Service", "/appcontent/terms.html"},
    {"Privacy Policy", "/appcontent/privacy.html"},
    {"Help", "/appcontent/help.html"},
}};

}  // namespace

std::shared_ptr<SettingsController> SettingsController::create(Environment& environment) {
    return std::make_shared<SettingsController>(Token{}, environment);
}

SettingsController::SettingsController(Token, Environment& environment) : environment_(environment) {}

void SettingsController::loadView() {
    auto& views = *environment_.platform().views;
    const platform::Rect screen = views.mainScreenBounds();
    view_ = views.makeView(screen);
    tableView_ = views.makeTableView(screen);
    tableView_->setDataSource(weak_from_this());
    tableView_->setDelegate(weak_from_this());
    view_->addSubview(tableView_);
}

void SettingsController::viewDidLoad() {
    auto& views = *environment_.platform().views;
    const auto bundlePath = views.pathForResource(kResourceBundleName, "bundle");
    contentController_ = ContentController::create(environment_, ContentController::kNibName, bundlePath);
    subViewController_ = SubViewController::create(environment_, SubViewController::kNibName, bundlePath);

    tableData = {"OS Settings",    "About", "Terms of Service",
                 "Privacy Policy", "Help",  std::string("SDK Version ") + kVersion};

    tableView_->setBackgroundColor(kDarkGrey);
    tableView_->setTableFooterView(views.makeView({}));
    tableView_->reloadData();
}

void SettingsController::close() {
    if (view_) {
        environment_.platform().views->dismissModalView(view_, true);
    }
}

long SettingsController::tableViewNumberOfRowsInSection(platform::TableView& /*tableView*/,
                                                        long /*section*/) {
    return static_cast<long>(tableData.size());
}

std::shared_ptr<platform::TableViewCell> SettingsController::tableViewCellForRowAtIndexPath(
    platform::TableView& tableView, const platform::IndexPath& indexPath) {
    auto cell = tableView.dequeueReusableCellWithIdentifier(kCellIdentifier);
    if (!cell) {
        cell = environment_.platform().views->makeTableViewCell(platform::TableViewCellStyle::kDefault,
                                                                kCellIdentifier);
        cell->setAccessoryType(platform::TableViewCellAccessory::kDisclosureIndicator);
        cell->setBackgroundColor(kDarkGrey);
        cell->setTextColor(platform::Color::whiteColor());
    }
    const auto row = static_cast<std::size_t>(indexPath.row);
    if (row < tableData.size()) {
        cell->setText(tableData[row]);
    }
    if (row < kRowImages.size()) {
        cell->setImageName(kRowImages[row]);
    } else if (row == 5) {
        cell->setAccessoryType(platform::TableViewCellAccessory::kNone);
    }
    return cell;
}

std::optional<SettingsController::ContentPage> SettingsController::contentPageForRow(long row) {
    if (row < 1 || row > static_cast<long>(kContentPages.size())) {
        return std::nullopt;
    }
    return kContentPages[static_cast<std::size_t>(row - 1)];
}

void SettingsController::tableViewDidSelectRowAtIndexPath(platform::TableView& tableView,
                                                          const platform::IndexPath& indexPath) {
    const auto& platform = environment_.platform();
    if (indexPath.row == 0) {
        tableView.deselectRowAtIndexPath(indexPath, true);
        if (floatValue(nlohmann::json(platform.device->systemVersion())) >= kSettingsURLVersion) {
            platform.application->openURL(platform.application->openSettingsURLString());
        }
    } else if (const auto page = contentPageForRow(indexPath.row)) {
        showContentPage(*page, indexPath);
    } else if (indexPath.row == 5) {
        tableView.deselectRowAtIndexPath(indexPath, true);
    }
}

void SettingsController::showContentPage(const ContentPage& page, const platform::IndexPath& indexPath) {
    auto& views = *environment_.platform().views;
    const platform::PresentationContext context{platform::ModalPresentationStyle::kCustom, true, true};

    presentationContext = context;
    contentController_->navTitle = page.title;
    contentController_->urlString = environment_.configuration().contentBaseURL + page.path;
    contentController_->modalPresentationStyle = platform::ModalPresentationStyle::kOverCurrentContext;

    views.setRootPresentationContext(context);
    contentController_->modalPresentationStyle = platform::ModalPresentationStyle::kOverCurrentContext;

    views.presentModalView(contentController_->view(), {contentController_->modalPresentationStyle, true,
                                                        ContentController::prefersStatusBarHidden()});
    tableView_->deselectRowAtIndexPath(indexPath, true);
}

}  // namespace tovrel
