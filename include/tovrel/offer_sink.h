#pragma once

#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "tovrel/export.h"
#include "tovrel/platform/main_loop.h"
#include "tovrel/platform/notifications.h"

namespace tovrel {

struct Notification;
struct OfferViewRequest;

/// An offer the service linked to a visit: the link answer's device event, the message built from
/// the target, and how the target wants it delivered.
struct LinkedOffer {
    nlohmann::json deviceEventId;
    std::string message;
    long eventTypeId = 0;  ///< 2: held until the device leaves the place; 3: at once; others: kept only
};

/// Where the location monitor hands the offers it links, and where the views and the user's answers
/// reach them: keeps the pending offers and the held message, delivers them as a local notification
/// or the event alert, opens the offer view. The monitor owns one; the component's delivery implements
/// it (a test may put its own in its place).
class TOVREL_EXPORT OfferSink {
  public:
    virtual ~OfferSink() = default;

    /// Any thread. Keeps a link answer's places as a pending offer.
    virtual void keep(const nlohmann::json& places) = 0;
    /// Main thread. Delivers the offer's message as its event type asks.
    virtual void deliver(const LinkedOffer& offer, bool withOfferView) = 0;
    /// Main thread. A local notification when the application is not active, else the event alert
    /// ("Never"/"View"/"Later" with the offer view, else "OK").
    virtual void notify(const std::string& message, int deviceEventId, bool withOfferView) = 0;
    /// Main thread. The event alert for one offer message, whatever the application's state.
    virtual void showEventAlert(const std::string& message, int deviceEventId, bool withOfferView) = 0;
    /// Main thread. Delivers the held message the notification carries and stops the timer that
    /// repeats it.
    virtual void releaseHeld(const Notification& notification, bool withOfferView) = 0;
    /// Main thread. Opens the view of every pending offer the opened notification names, reports each
    /// "seen" and forgets them.
    virtual void openFromNotification(const Notification& notification) = 0;
    /// Main thread. Opens the offer view for one offer record's first element: records the request
    /// and hands it to the opener.
    virtual void openOfferView(const nlohmann::json& offerElement) = 0;
    /// Main thread. Replaces the opener (empty: requests are only recorded).
    virtual void setOfferViewOpener(std::function<void(const OfferViewRequest&)> opener) = 0;
    /// Main thread. Renumbers the scheduled notifications' badges 1, 2, 3... in the system's order.
    virtual void renumberBadges() = 0;
    /// Main thread. The event alert's answer; `alertTag` is the alert's device event identifier.
    virtual void answerAlert(long alertTag, int buttonIndex) = 0;
    /// Main thread. Forgets every pending offer.
    virtual void forget() = 0;

    /// Any thread. A copy of the pending offers, oldest first.
    [[nodiscard]] virtual std::vector<nlohmann::json> offers() const = 0;
    /// Main thread. The repeating timer of the latest held message (null after its release).
    [[nodiscard]] virtual const std::shared_ptr<platform::Timer>& heldMessageTimer() const = 0;
    /// Main thread. The offer views requested last, oldest first.
    [[nodiscard]] virtual std::vector<OfferViewRequest> offerViewRequests() const = 0;
    /// Main thread. The last local notification presented.
    [[nodiscard]] virtual const std::optional<platform::LocalNotification>& lastNotification() const = 0;
};

}  // namespace tovrel
