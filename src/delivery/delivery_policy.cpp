#include "delivery/delivery_policy.h"

#include <memory>

#include "foundation/format.h"
#include "foundation/value.h"
#include "tovrel/notification_center.h"

namespace tovrel::delivery {

std::string fullWidthPercent(std::string_view body) {
    static constexpr std::string_view kFullWidthPercent = "\xEF\xBC\x85";
    std::string out;
    out.reserve(body.size());
    for (const char c : body) {
        if (c == '%') {
            out.append(kFullWidthPercent);
        } else {
            out.push_back(c);
        }
    }
    return out;
}

platform::LocalNotification offerNotification(std::string_view body, int deviceEventId) {
    platform::LocalNotification notification;
    notification.alertBody = fullWidthPercent(body);
    notification.alertAction = "Resume";
    notification.soundName = platform::kDefaultSoundName;
    notification.userInfo = nlohmann::json{{"deviceeventId", formatD(deviceEventId)}};
    return notification;
}

nlohmann::json userInfoOf(const std::any& object) {
    if (const auto* local = std::any_cast<platform::LocalNotification>(&object)) {
        return local->userInfo;
    }
    if (const auto* shared = std::any_cast<std::shared_ptr<platform::LocalNotification>>(&object)) {
        return *shared ? (*shared)->userInfo : nlohmann::json();
    }
    if (const auto* posted = std::any_cast<Notification>(&object)) {
        return posted->userInfo;
    }
    if (const auto* json = std::any_cast<nlohmann::json>(&object)) {
        return memberOrNull(*json, "userInfo");
    }
    return nullptr;
}

bool hasOfferMediaKeys(const nlohmann::json& element) {
    if (!element.is_object()) {
        return false;
    }
    for (const char* key : {"eventId", "deviceEventId", "mediaType", "mediaUrl"}) {
        if (!element.contains(key)) {
            return false;
        }
    }
    return true;
}

const nlohmann::json& offerElement(const nlohmann::json& offer) {
    static const nlohmann::json kNull;
    return offer.is_array() && !offer.empty() ? offer.front() : kNull;
}

}  // namespace tovrel::delivery
