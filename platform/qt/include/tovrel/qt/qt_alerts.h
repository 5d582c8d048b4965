#pragma once

#include <QPointer>
#include <QWidget>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tovrel/export.h"
#include "tovrel/platform/alerts.h"
#include "tovrel/platform/main_loop.h"

namespace tovrel::qtbackend {

class QtViewSystem;

/// Alerts as dialogs inside the key window: the window dims and a box shows the title, the message
/// and the buttons; nothing blocks, and a pressed button dismisses the alert and calls its onDismiss
/// with the button's index (the cancel button is 0, the others follow in order). Two buttons sit
/// side by side with the cancel button on the left; more are stacked with the cancel button last.
/// An alert without buttons (a toast) waits for dismiss(). Alerts shown together stack, the newest
/// on top. Main thread only.
class TOVREL_EXPORT QtAlertPresenter final : public platform::AlertPresenter {
  public:
    /// The view system is kept by weak reference.
    explicit QtAlertPresenter(const std::shared_ptr<QtViewSystem>& views);
    ~QtAlertPresenter() override;
    QtAlertPresenter(const QtAlertPresenter&) = delete;
    QtAlertPresenter& operator=(const QtAlertPresenter&) = delete;

    platform::AlertId show(platform::AlertSpec alert) override;
    void dismiss(platform::AlertId id, int buttonIndex, bool animated) override;

    /// The alerts on screen, oldest first.
    [[nodiscard]] std::vector<platform::AlertId> shownAlerts() const;
    /// The button titles of a shown alert by index (cancel first); empty for an unknown id.
    [[nodiscard]] std::vector<std::string> buttonTitles(platform::AlertId id) const;
    /// The alert's message and title.
    [[nodiscard]] std::string message(platform::AlertId id) const;
    [[nodiscard]] std::optional<std::string> title(platform::AlertId id) const;
    [[nodiscard]] long tag(platform::AlertId id) const;
    /// The widget of the button with `index` (what the user clicks), or null.
    [[nodiscard]] QWidget* buttonWidget(platform::AlertId id, int index) const;

  private:
    struct Shown {
        platform::AlertSpec request;
        QPointer<QWidget> overlay;
        std::map<int, QPointer<QWidget>> buttons;
    };

    std::weak_ptr<QtViewSystem> views_;
    std::map<platform::AlertId, Shown> shown_;
    platform::AlertId nextId_ = 0;
};

}  // namespace tovrel::qtbackend
