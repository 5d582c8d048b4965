#include "tovrel/environment.h"
#include "tovrel/preferences_keys.h"
#include "tovrel/settings_controller.h"

namespace tovrel {
namespace {

constexpr const char* kCellIdentifier = "cell";
constexpr platform::Color kDarkGrey = platform::Color::rgb255(50, 55, 58);
constexpr const char* kBackImage = "TovrelSDKResources.bundle/icons_back.tiff";
constexpr const char* kLocationsImage = "TovrelSDKResources.bundle/locations.png";
constexpr const char* kNotificationsImage = "TovrelSDKResources.bundle/notifications.png";
constexpr double kFooterHeight = 100.0;
constexpr long kChoiceIndentation = 5;
constexpr double kHeaderHeight = 44;

bool isChoiceRow(long row) {
    return row >= 2 && row <= SubViewController::kUnlimitedRow;
}

}  // namespace

std::shared_ptr<SubViewController> SubViewController::create(Environment& environment, std::string nibName,
                                                             std::optional<std::string> bundlePath) {
    return std::make_shared<SubViewController>(Token{}, environment, std::move(nibName),
                                               std::move(bundlePath));
}

SubViewController::SubViewController(Token, Environment& environment, std::string nibName,
                                     std::optional<std::string> bundlePath)
    : environment_(environment), nibName_(std::move(nibName)), bundlePath_(std::move(bundlePath)) {}

void SubViewController::loadView() {
    auto& views = *environment_.platform().views;
    const platform::Rect screen = views.mainScreenBounds();
    view_ = views.makeView(screen);
    tableView_ = views.makeTableView({0, kHeaderHeight, screen.width, screen.height - kHeaderHeight});
    tableView_->setDataSource(weak_from_this());
    tableView_->setDelegate(weak_from_this());
    backButon_ = views.makeButton(platform::ButtonType::kCustom, {10, 10, 28, 28});
    backButon_->setImageName(kBackImage);
    backButon_->setAction([weakSelf = weak_from_this()] {
        if (const auto self = weakSelf.lock()) {
            self->closeMe();
        }
    });
    view_->addSubview(tableView_);
    view_->addSubview(backButon_);
}

void SubViewController::viewDidLoad() {
    view_->setBackgroundColor(kDarkGrey);
    tableData = {"Location",        "Notifications",   "None",     "1 time per day",
                 "2 times per day", "3 times per day", "Unlimited"};
    tableView_->setBackgroundColor(kDarkGrey);
    tableView_->reloadData();
}

void SubViewController::closeMe() {
    if (view_) {
        environment_.platform().views->dismissModalView(view_, true);
    }
}

nlohmann::json SubViewController::archiveIndexPath(const platform::IndexPath& indexPath) {
    return {{"section", indexPath.section}, {"row", indexPath.row}};
}

std::optional<platform::IndexPath> SubViewController::unarchiveIndexPath(
    const std::optional<nlohmann::json>& archived) {
    if (!archived || !archived->is_object()) {
        return std::nullopt;
    }
    const auto section = archived->find("section");
    const auto row = archived->find("row");
    if (section == archived->end() || row == archived->end() || !section->is_number_integer() ||
        !row->is_number_integer()) {
        return std::nullopt;
    }
    return platform::IndexPath{section->get<long>(), row->get<long>()};
}

void SubViewController::storeChoice(const platform::IndexPath& indexPath) {
    environment_.platform().preferences->setObject(prefs::kCheckedPath, archiveIndexPath(indexPath));
}

long SubViewController::tableViewNumberOfRowsInSection(platform::TableView& /*tableView*/, long /*section*/) {
    return static_cast<long>(tableData.size());
}

std::optional<double> SubViewController::tableViewHeightForFooterInSection(platform::TableView& /*tableView*/,
                                                                           long /*section*/) {
    return kFooterHeight;
}

std::shared_ptr<platform::View> SubViewController::tableViewViewForFooterInSection(
    platform::TableView& /*tableView*/, long /*section*/) {
    return environment_.platform().views->makeView({});
}

long SubViewController::tableViewIndentationLevelForRowAtIndexPath(platform::TableView& /*tableView*/,
                                                                   const platform::IndexPath& indexPath) {
    return isChoiceRow(indexPath.row) ? kChoiceIndentation : 0;
}

std::shared_ptr<platform::TableViewCell> SubViewController::tableViewCellForRowAtIndexPath(
    platform::TableView& tableView, const platform::IndexPath& indexPath) {
    using platform::TableViewCellAccessory;
    auto cell = tableView.dequeueReusableCellWithIdentifier(kCellIdentifier);
    if (!cell) {
        cell = environment_.platform().views->makeTableViewCell(platform::TableViewCellStyle::kDefault,
                                                                kCellIdentifier);
        cell->setAccessoryType(TableViewCellAccessory::kDisclosureIndicator);
        cell->setBackgroundColor(kDarkGrey);
        cell->setTextColor(platform::Color::whiteColor());
    }
    const auto row = static_cast<std::size_t>(indexPath.row);
    if (row < tableData.size()) {
        cell->setText(tableData[row]);
    }

    // The stored choice wins over the one in memory, every time a row is drawn.
    checkedIndexPath =
        unarchiveIndexPath(environment_.platform().preferences->objectForKey(prefs::kCheckedPath));

    if (indexPath.row == 0) {
        cell->setImageName(kLocationsImage);
        cell->setAccessoryType(TableViewCellAccessory::kDisclosureIndicator);
    } else if (indexPath.row == 1) {
        cell->setImageName(kNotificationsImage);
        cell->setAccessoryType(TableViewCellAccessory::kNone);
    } else if (isChoiceRow(indexPath.row)) {
        if (indexPath.row == kUnlimitedRow && !checkedIndexPath) {
            checkedIndexPath = indexPath;
            storeChoice(indexPath);
        }
        cell->setAccessoryType(checkedIndexPath == indexPath ? TableViewCellAccessory::kCheckmark
                                                             : TableViewCellAccessory::kNone);
    }
    return cell;
}

void SubViewController::tableViewDidSelectRowAtIndexPath(platform::TableView& tableView,
                                                         const platform::IndexPath& indexPath) {
    if (checkedIndexPath) {
        if (const auto checked = tableView.cellForRowAtIndexPath(*checkedIndexPath)) {
            checked->setAccessoryType(platform::TableViewCellAccessory::kNone);
        }
    }
    if (indexPath.row == 0 || indexPath.row == 1) {
        tableView.deselectRowAtIndexPath(indexPath, true);
        return;
    }
    if (isChoiceRow(indexPath.row)) {
        if (const auto selected = tableView.cellForRowAtIndexPath(indexPath)) {
            selected->setAccessoryType(platform::TableViewCellAccessory::kCheckmark);
        }
        checkedIndexPath = indexPath;
        storeChoice(indexPath);
        tableView.deselectRowAtIndexPath(indexPath, true);
    }
}

}  // namespace tovrel
