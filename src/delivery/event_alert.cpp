#include "delivery/delivery_policy.h"
#include "foundation/format.h"
#include "foundation/value.h"
#include "tovrel/environment.h"
#include "tovrel/location_manager.h"
#include "tovrel/notification_names.h"

namespace tovrel {
namespace {

constexpr double kToastSeconds = 2.0;

enum EventAlertButton : int { kNever = 0, kView = 1, kLater = 2 };

}  // namespace

void LocationManager::showEventAlert(const std::string& message, int deviceEventId) {
    TOVREL_ASSERT_MAIN_THREAD(mainLoop());
    platform::AlertSpec alert;
    alert.message = message;
    if (presentOfferView) {
        alert.cancelButtonTitle = "Never";
        alert.otherButtonTitles = {"View", "Later"};
    } else {
        alert.cancelButtonTitle = "OK";
    }
    alert.tag = deviceEventId;
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
    switch (buttonIndex) {
        case kNever:
            // Also the one-button alert's "OK": dismissing it refuses the offer.
            reportStatus(reported, "declined");
            return;
        case kLater:
            reportStatus(reported, "saved");
            return;
        case kView:
            break;
        default:
            return;
    }

    const std::vector<Json> snapshot = offers();
    for (std::size_t i = snapshot.size(); i-- > 0;) {
        const Json& offer = snapshot[i];
        if (integerValueFor(delivery::offerElement(offer), "deviceEventId") != alertTag) {
            continue;
        }
        const Json copy = offer;
        const Json& element = delivery::offerElement(copy);
        if (!delivery::hasOfferMediaKeys(element)) {
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
    environment_.platform().alerts->show(platform::AlertSpec{"Message", message, "OK", {}, 0, nullptr});
}

void LocationManager::showToastMessage(const std::string& message) {
    showToastMessage(Environment::current(), message);
}

void LocationManager::showToastMessage(Environment& environment, const std::string& message) {
    const auto& platform = environment.platform();
    TOVREL_ASSERT_MAIN_THREAD(*platform.mainLoop);
    const platform::AlertId id =
        platform.alerts->show(platform::AlertSpec{std::nullopt, message, std::nullopt, {}, 0, nullptr});
    platform.mainLoop->scheduleTimer(kToastSeconds, false,
                                     [alerts = platform.alerts, id] { alerts->dismiss(id, 0, true); });
}

}  // namespace tovrel
