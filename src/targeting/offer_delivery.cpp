// The monitor's offer-delivery members: each forwards to the offer sink, with the presentation
// switches the session copied onto the monitor.
#include "tovrel/location_manager.h"
#include "tovrel/notification_names.h"
#include "tovrel/offer_sink.h"

namespace tovrel {

void LocationManager::sendNotification(const std::string& body, int deviceEventId) {
    TOVREL_ASSERT_MAIN_THREAD(mainLoop());
    offers_->notify(body, deviceEventId, presentOfferView);
}

void LocationManager::tovrelNotificationQueued(const Notification& notification) {
    TOVREL_ASSERT_MAIN_THREAD(mainLoop());
    if (!deviceHasExited_) {
        return;
    }
    offers_->releaseHeld(notification, presentOfferView);
    platform_.background->detachNewThread([self = shared_from_this()] { self->getTargets(); });
    center_.post(kTovrelInBounds);
}

void LocationManager::didReceiveLocalNotification(const Notification& notification) {
    TOVREL_ASSERT_MAIN_THREAD(mainLoop());
    center_.post(kTovrelInBounds);
    if (presentOfferView) {
        offers_->openFromNotification(notification);
    }
}

void LocationManager::renumberBadgesOfPendingNotifications() {
    TOVREL_ASSERT_MAIN_THREAD(mainLoop());
    offers_->renumberBadges();
}

void LocationManager::showEventAlert(const std::string& message, int deviceEventId) {
    TOVREL_ASSERT_MAIN_THREAD(mainLoop());
    offers_->showEventAlert(message, deviceEventId, presentOfferView);
}

void LocationManager::alertViewDidDismissWithButtonIndex(long alertTag, int buttonIndex) {
    TOVREL_ASSERT_MAIN_THREAD(mainLoop());
    offers_->answerAlert(alertTag, buttonIndex);
}

void LocationManager::openOfferView(const nlohmann::json& offerElement) {
    TOVREL_ASSERT_MAIN_THREAD(mainLoop());
    offers_->openOfferView(offerElement);
}

void LocationManager::setOfferViewOpener(OfferViewOpener opener) {
    TOVREL_ASSERT_MAIN_THREAD(mainLoop());
    offers_->setOfferViewOpener(std::move(opener));
}

std::vector<OfferViewRequest> LocationManager::offerViewRequests() const {
    return offers_->offerViewRequests();
}

std::vector<nlohmann::json> LocationManager::offers() const {
    return offers_->offers();
}

const std::shared_ptr<platform::Timer>& LocationManager::queueMessageTimer() const {
    return offers_->heldMessageTimer();
}

const std::optional<platform::LocalNotification>& LocationManager::localNotification() const {
    return offers_->lastNotification();
}

}  // namespace tovrel
