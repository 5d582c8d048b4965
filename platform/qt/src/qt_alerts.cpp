#include "tovrel/qt/qt_alerts.h"

#include <QHBoxLayout>
#include <QLabel>
#include <QPainter>
#include <QPushButton>
#include <QVBoxLayout>

#include "tovrel/qt/qt_views.h"

namespace tovrel::qtbackend {
namespace {

constexpr int kBoxWidth = 270;

/// The dimmed layer over the window that holds one alert's box.
class AlertOverlay final : public QWidget {
  public:
    explicit AlertOverlay(QWidget* parent) : QWidget(parent) {}

  protected:
    void paintEvent(QPaintEvent* /*event*/) override {
        QPainter painter(this);
        painter.fillRect(rect(), QColor(0, 0, 0, 100));
    }
};

QString buttonStyle(bool bold, bool topBorder, bool leftBorder) {
    return QString(
               "QPushButton { background: transparent; border: none; color: #007aff; font-size: 17px; %1"
               " border-top: %2; border-left: %3; padding: 0; }"
               "QPushButton:pressed { background: rgba(0,0,0,0.08); }")
        .arg(bold ? "font-weight: bold;" : "")
        .arg(topBorder ? "1px solid #c8c8cc" : "none")
        .arg(leftBorder ? "1px solid #c8c8cc" : "none");
}

}  // namespace

QtAlertPresenter::QtAlertPresenter(const std::shared_ptr<QtViewSystem>& views) : views_(views) {}

QtAlertPresenter::~QtAlertPresenter() {
    for (auto& [id, shown] : shown_) {
        delete shown.overlay;
    }
}

platform::AlertId QtAlertPresenter::show(platform::AlertSpec alert) {
    const platform::AlertId id = ++nextId_;
    Shown shown;
    shown.request = std::move(alert);
    const auto views = views_.lock();
    QWidget* window = views ? views->window() : nullptr;
    if (window != nullptr) {
        auto* overlay = new AlertOverlay(window);
        overlay->setGeometry(window->rect());
        auto* box = new QWidget(overlay);
        box->setObjectName("alertBox");
        box->setStyleSheet("#alertBox { background: #f2f2f2; border-radius: 13px; }");
        box->setAttribute(Qt::WA_StyledBackground);
        auto* column = new QVBoxLayout(box);
        column->setContentsMargins(0, 0, 0, 0);
        column->setSpacing(0);
        auto* texts = new QVBoxLayout;
        texts->setContentsMargins(16, 19, 16, 19);
        texts->setSpacing(4);
        const auto& request = shown.request;
        if (request.title) {
            auto* title = new QLabel(QString::fromStdString(*request.title));
            title->setAlignment(Qt::AlignCenter);
            title->setWordWrap(true);
            title->setStyleSheet("color: black; font-size: 17px; font-weight: bold;");
            texts->addWidget(title);
        }
        auto* message = new QLabel(QString::fromStdString(request.message));
        message->setAlignment(Qt::AlignCenter);
        message->setWordWrap(true);
        message->setStyleSheet(request.title ? "color: black; font-size: 13px;"
                                             : "color: black; font-size: 15px;");
        texts->addWidget(message);
        column->addLayout(texts);

        std::vector<std::pair<int, std::string>> buttons;
        const int first = request.cancelButtonTitle ? 1 : 0;
        for (std::size_t i = 0; i < request.otherButtonTitles.size(); ++i) {
            buttons.emplace_back(first + static_cast<int>(i), request.otherButtonTitles[i]);
        }
        const bool sideBySide = request.cancelButtonTitle && buttons.size() == 1;
        if (request.cancelButtonTitle) {
            // Side by side the cancel button leads; stacked it comes last.
            if (sideBySide) {
                buttons.insert(buttons.begin(), {0, *request.cancelButtonTitle});
            } else {
                buttons.emplace_back(0, *request.cancelButtonTitle);
            }
        }
        QBoxLayout* row = sideBySide || buttons.size() == 1 ? static_cast<QBoxLayout*>(new QHBoxLayout)
                                                            : static_cast<QBoxLayout*>(new QVBoxLayout);
        row->setSpacing(0);
        bool firstButton = true;
        for (const auto& [index, title] : buttons) {
            auto* button = new QPushButton(QString::fromStdString(title));
            button->setFixedHeight(44);
            button->setCursor(Qt::PointingHandCursor);
            button->setStyleSheet(buttonStyle(index == 0 && request.cancelButtonTitle.has_value(), true,
                                              sideBySide && !firstButton));
            QObject::connect(button, &QPushButton::clicked, button,
                             [this, id, buttonIndex = index] { dismiss(id, buttonIndex, true); });
            row->addWidget(button);
            shown.buttons[index] = button;
            firstButton = false;
        }
        column->addLayout(row);
        box->setFixedWidth(kBoxWidth);
        box->adjustSize();
        box->move((overlay->width() - kBoxWidth) / 2, (overlay->height() - box->height()) / 2);
        shown.overlay = overlay;
        views->addOverlay(overlay);
        overlay->show();
    }
    shown_.emplace(id, std::move(shown));
    return id;
}

void QtAlertPresenter::dismiss(platform::AlertId id, int buttonIndex, bool /*animated*/) {
    const auto it = shown_.find(id);
    if (it == shown_.end()) {
        return;
    }
    auto onDismiss = std::move(it->second.request.onDismiss);
    if (it->second.overlay) {
        it->second.overlay->hide();
        // The click that dismisses may come from a button of this overlay.
        it->second.overlay->deleteLater();
    }
    shown_.erase(it);
    if (onDismiss) {
        onDismiss(buttonIndex);
    }
}

std::vector<platform::AlertId> QtAlertPresenter::shownAlerts() const {
    std::vector<platform::AlertId> ids;
    for (const auto& [id, shown] : shown_) {
        ids.push_back(id);
    }
    return ids;
}

std::vector<std::string> QtAlertPresenter::buttonTitles(platform::AlertId id) const {
    const auto it = shown_.find(id);
    if (it == shown_.end()) {
        return {};
    }
    std::vector<std::string> titles;
    if (it->second.request.cancelButtonTitle) {
        titles.push_back(*it->second.request.cancelButtonTitle);
    }
    titles.insert(titles.end(), it->second.request.otherButtonTitles.begin(),
                  it->second.request.otherButtonTitles.end());
    return titles;
}

std::string QtAlertPresenter::message(platform::AlertId id) const {
    const auto it = shown_.find(id);
    return it == shown_.end() ? std::string() : it->second.request.message;
}

std::optional<std::string> QtAlertPresenter::title(platform::AlertId id) const {
    const auto it = shown_.find(id);
    return it == shown_.end() ? std::nullopt : it->second.request.title;
}

long QtAlertPresenter::tag(platform::AlertId id) const {
    const auto it = shown_.find(id);
    return it == shown_.end() ? 0 : it->second.request.tag;
}

QWidget* QtAlertPresenter::buttonWidget(platform::AlertId id, int index) const {
    const auto it = shown_.find(id);
    if (it == shown_.end()) {
        return nullptr;
    }
    const auto button = it->second.buttons.find(index);
    return button == it->second.buttons.end() ? nullptr : button->second.data();
}

}  // namespace tovrel::qtbackend
