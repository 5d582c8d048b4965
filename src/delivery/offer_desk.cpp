#include "delivery/offer_desk.h"

#include "delivery/delivery_policy.h"
#include "foundation/format.h"
#include "foundation/stored_values.h"
#include "foundation/value.h"
#include "tovrel/data_service.h"
#include "tovrel/environment.h"
#include "tovrel/notification_names.h"
#include "tovrel/offer_full_view_controller.h"
#include "tovrel/platform/thread_check.h"

namespace tovrel::delivery {
namespace {

constexpr double kHeldMessageInterval = 5;

enum EventAlertButton : int { kNeverButton = 0, kViewButton = 1, kLaterButton = 2 };

/// The event alert for one offer message: "Never" (cancel), "View" and "Later" when the offer view is
/// enabled, else one "OK"; tagged with the device event identifier.
platform::AlertSpec eventAlert(const std::string& message, bool withOfferView, int deviceEventId) {
    platform::AlertSpec alert;
    alert.message = message;
    if (withOfferView) {
        alert.cancelButtonTitle = "Never";
        alert.otherButtonTitles = {"View", "Later"};
    } else {
        alert.cancelButtonTitle = "OK";
    }
    alert.tag = deviceEventId;
    return alert;
}

}  // namespace

OfferDesk::OfferDesk(const platform::Platform& platform, NotificationCenter& center, DataService& service)
    : platform_(platform), center_(center), service_(service) {}

std::shared_ptr<OfferDesk> OfferDesk::create(Environment& environment) {
    auto desk = std::make_shared<OfferDesk>(environment.platform(), environment.notificationCenter(),
                                            environment.dataService());
    if (environment.platform().views) {
        desk->setOfferViewOpener([&environment,
                                  weak = std::weak_ptr<OfferDesk>(desk)](const OfferViewRequest& request) {
            if (const auto self = weak.lock()) {
                self->shownView_ =
                    presentOfferFullView(environment, OfferViewContent{request.eventId, request.deviceEventId,
                                                                       request.mediaType, request.mediaURL});
            }
        });
    }
    return desk;
}

void OfferDesk::keep(const nlohmann::json& places) {
    const platform::Lock lock(mutex_);
    offers_.push_back(places);
}

void OfferDesk::deliver(const LinkedOffer& offer, bool withOfferView) {
    TOVREL_ASSERT_MAIN_THREAD(*platform_.mainLoop);
    switch (offer.eventTypeId) {
        case 2:
            hold(offer.message, offer.deviceEventId);
            break;
        case 3:
            notify(offer.message, static_cast<int>(integerValue(offer.deviceEventId)), withOfferView);
            break;
        default:
            break;
    }
}

void OfferDesk::hold(const std::string& message, const nlohmann::json& deviceEventId) {
    // Each firing posts a fresh copy; replacing the timer does not stop an earlier one, which goes on
    // delivering its own message after the exit.
    auto* center = &center_;
    heldMessageTimer_ =
        platform_.mainLoop->scheduleTimer(kHeldMessageInterval, true, [center, message, deviceEventId] {
            center->post(kTovrelNotificationQueued,
                         nlohmann::json{{"body", message}, {"deviceeventid", deviceEventId}});
        });
}

void OfferDesk::notify(const std::string& message, int deviceEventId, bool withOfferView) {
    TOVREL_ASSERT_MAIN_THREAD(*platform_.mainLoop);
    if (platform_.application->applicationState() != platform::ApplicationState::kActive) {
        lastNotification_ = offerNotification(message, deviceEventId);
        platform_.notifications->presentLocalNotificationNow(*lastNotification_);
        return;
    }
    showEventAlert(message, deviceEventId, withOfferView);
}

void OfferDesk::showEventAlert(const std::string& message, int deviceEventId, bool withOfferView) {
    TOVREL_ASSERT_MAIN_THREAD(*platform_.mainLoop);
    platform::AlertSpec alert = eventAlert(message, withOfferView, deviceEventId);
    // The alert's delegate is not owned by the alert.
    alert.onDismiss = [weak = weak_from_this(), tag = alert.tag](int buttonIndex) {
        if (const auto self = weak.lock()) {
            self->answerAlert(tag, buttonIndex);
        }
    };
    platform_.alerts->show(std::move(alert));
}

void OfferDesk::releaseHeld(const Notification& notification, bool withOfferView) {
    TOVREL_ASSERT_MAIN_THREAD(*platform_.mainLoop);
    // Only the latest timer stops; a timer it replaced goes on delivering its own message.
    if (heldMessageTimer_) {
        heldMessageTimer_->invalidate();
    }
    heldMessageTimer_ = nullptr;
    static const nlohmann::json kNothing;
    const auto* posted = std::any_cast<nlohmann::json>(&notification.object);
    const nlohmann::json& held = posted != nullptr ? *posted : kNothing;
    notify(printed(memberOrNull(held, "body")),
           static_cast<int>(integerValue(memberOrNull(held, "deviceeventid"))), withOfferView);
}

void OfferDesk::openFromNotification(const Notification& notification) {
    TOVREL_ASSERT_MAIN_THREAD(*platform_.mainLoop);
    const long long wanted = integerValue(memberOrNull(userInfoOf(notification.object), "deviceeventId"));
    const auto matches = [wanted](const nlohmann::json& offer) {
        return integerValueFor(offerElement(offer), "deviceEventId") == wanted;
    };

    // Every matching offer opens its own view and sends its own report.
    for (const nlohmann::json& offer : offers()) {
        if (!matches(offer)) {
            continue;
        }
        const nlohmann::json& element = offerElement(offer);
        if (!hasOfferMediaKeys(element)) {
            return;
        }
        openOfferView(element);
        reportStatus(memberOrNull(element, "deviceEventId"), "seen");
    }
    const platform::Lock lock(mutex_);
    for (std::size_t i = offers_.size(); i-- > 0;) {
        if (matches(offers_[i])) {
            offers_.erase(offers_.begin() + static_cast<std::ptrdiff_t>(i));
        }
    }
}

void OfferDesk::answerAlert(long alertTag, int buttonIndex) {
    TOVREL_ASSERT_MAIN_THREAD(*platform_.mainLoop);
    // Every report names the alert's tag, not the record's own identifier.
    const nlohmann::json reported = formatLd(alertTag);
    switch (buttonIndex) {
        case kNeverButton:
            // Also the one-button alert's "OK": dismissing it refuses the offer.
            reportStatus(reported, "declined");
            return;
        case kLaterButton:
            reportStatus(reported, "saved");
            return;
        case kViewButton:
            break;
        default:
            return;
    }

    const std::vector<nlohmann::json> snapshot = offers();
    for (std::size_t i = snapshot.size(); i-- > 0;) {
        const nlohmann::json& offer = snapshot[i];
        if (integerValueFor(offerElement(offer), "deviceEventId") != alertTag) {
            continue;
        }
        const nlohmann::json& element = offerElement(offer);
        if (!hasOfferMediaKeys(element)) {
            return;
        }
        openOfferView(element);
        reportStatus(reported, "seen");
        center_.post(kTovrelMessageViewed, offer);
        remove(offer, i);
        return;
    }
}

void OfferDesk::remove(const nlohmann::json& offer, std::size_t index) {
    const platform::Lock lock(mutex_);
    // The opener may have changed the list meanwhile: the record goes where it now stands.
    if (index < offers_.size() && offers_[index] == offer) {
        offers_.erase(offers_.begin() + static_cast<std::ptrdiff_t>(index));
        return;
    }
    for (std::size_t j = offers_.size(); j-- > 0;) {
        if (offers_[j] == offer) {
            offers_.erase(offers_.begin() + static_cast<std::ptrdiff_t>(j));
            return;
        }
    }
}

void OfferDesk::openOfferView(const nlohmann::json& offerElement) {
    TOVREL_ASSERT_MAIN_THREAD(*platform_.mainLoop);
    OfferViewRequest request{
        memberOrNull(offerElement, "eventId"),
        memberOrNull(offerElement, "deviceEventId"),
        memberOrNull(offerElement, "mediaType"),
        memberOrNull(offerElement, "mediaUrl"),
        0,
    };
    request.tag = integerValue(request.eventId);
    if (requests_.size() == LocationManager::kKeptOfferViewRequests) {
        requests_.pop_front();
    }
    requests_.push_back(request);
    if (opener_) {
        opener_(request);
    }
}

void OfferDesk::setOfferViewOpener(std::function<void(const OfferViewRequest&)> opener) {
    TOVREL_ASSERT_MAIN_THREAD(*platform_.mainLoop);
    opener_ = std::move(opener);
}

void OfferDesk::renumberBadges() {
    TOVREL_ASSERT_MAIN_THREAD(*platform_.mainLoop);
    platform_.application->setApplicationIconBadgeNumber(0);
    auto scheduled = platform_.notifications->scheduledLocalNotifications();
    if (scheduled.empty()) {
        return;
    }
    platform_.notifications->cancelAllLocalNotifications();
    long badge = 1;
    for (auto& notification : scheduled) {
        notification.applicationIconBadgeNumber = badge++;
        platform_.notifications->scheduleLocalNotification(notification);
    }
}

void OfferDesk::forget() {
    const platform::Lock lock(mutex_);
    offers_.clear();
}

std::vector<nlohmann::json> OfferDesk::offers() const {
    const platform::Lock lock(mutex_);
    return offers_;
}

std::vector<OfferViewRequest> OfferDesk::offerViewRequests() const {
    TOVREL_ASSERT_MAIN_THREAD(*platform_.mainLoop);
    return {requests_.begin(), requests_.end()};
}

const std::shared_ptr<platform::Timer>& OfferDesk::heldMessageTimer() const {
    TOVREL_ASSERT_MAIN_THREAD(*platform_.mainLoop);
    return heldMessageTimer_;
}

const std::optional<platform::LocalNotification>& OfferDesk::lastNotification() const {
    TOVREL_ASSERT_MAIN_THREAD(*platform_.mainLoop);
    return lastNotification_;
}

void OfferDesk::reportStatus(const nlohmann::json& deviceEventId, const char* statusCode) {
    service_.sendDeviceUpdateWithDeviceEventId(
        deviceEventId, statusCode, storedSessionKey(*platform_.preferences),
        [](const nlohmann::json& /*status*/, const ServiceError& /*error*/) {});
}

}  // namespace tovrel::delivery
