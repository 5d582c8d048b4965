#include "context/toast.h"
#include "foundation/format.h"
#include "foundation/value.h"
#include "targeting/delivery_port.h"
#include "tovrel/environment.h"
#include "tovrel/location_manager.h"
#include "tovrel/notification_names.h"

namespace tovrel {

void LocationManager::showEventAlert(const std::string& message, int deviceEventId) {
    TOVREL_ASSERT_MAIN_THREAD(mainLoop());
    platform::AlertSpec alert = targeting::eventAlert(message, presentOfferView, deviceEventId);
    // The alert's delegate is not owned by the alert.
    alert.onDismiss = [weak = weak_from_this(), tag = alert.tag](int buttonIndex) {
        if (const auto self = weak.lock()) {
            self->alertViewDidDismissWithButtonIndex(tag, buttonIndex);
        }
    };
    environment_.platform().alerts->show(std::move(alert));
}

void LocationManager::alertViewDidDismissWithButtonIndex(long alertTag, int buttonIndex) {
    TOVREL_ASSERT_MAIN_THREAD(mainLoop());
    // Every report names the alert's tag, not the record's own identifier.
    const Json reported = formatLd(alertTag);
    switch (targeting::eventAlertAnswer(buttonIndex)) {
        case targeting::EventAlertAnswer::kNever:
            // Also the one-button alert's "OK": dismissing it refuses the offer.
            reportStatus(reported, "declined");
            return;
        case targeting::EventAlertAnswer::kLater:
            reportStatus(reported, "saved");
            return;
        case targeting::EventAlertAnswer::kView:
            break;
        case targeting::EventAlertAnswer::kNone:
            return;
    }

    const std::vector<Json> snapshot = offers();
    for (std::size_t i = snapshot.size(); i-- > 0;) {
        const Json& offer = snapshot[i];
        if (integerValueFor(targeting::offerElement(offer), "deviceEventId") != alertTag) {
            continue;
        }
        const Json& element = targeting::offerElement(offer);
        if (!targeting::hasOfferMediaKeys(element)) {
            return;
        }
        openOfferView(element);
        reportStatus(reported, "seen");
        environment_.notificationCenter().post(kTovrelMessageViewed, offer);
        std::lock_guard lock(mutex_);
        // The opener may have changed the list meanwhile: remove this record where it now stands.
        if (i < offers_.size() && offers_[i] == offer) {
            offers_.erase(offers_.begin() + static_cast<std::ptrdiff_t>(i));
        } else {
            for (std::size_t j = offers_.size(); j-- > 0;) {
                if (offers_[j] == offer) {
                    offers_.erase(offers_.begin() + static_cast<std::ptrdiff_t>(j));
                    break;
                }
            }
        }
        return;
    }
}

void LocationManager::showAlert(const std::string& message) {
    TOVREL_ASSERT_MAIN_THREAD(mainLoop());
    showMessageAlert(environment_, message);
}

void LocationManager::showToastMessage(const std::string& message) {
    showToastMessage(Environment::current(), message);
}

void LocationManager::showToastMessage(Environment& environment, const std::string& message) {
    showToast(environment, message);
}

}  // namespace tovrel
