#include "notification_json.h"

#include <memory>
#include <stdexcept>

#include "tovrel/notification_center.h"
#include "tovrel/platform/json_text.h"
#include "tovrel/reachability.h"
#include "tovrel/region.h"

namespace tovrel::capi {

namespace {

nlohmann::json localNotificationJson(const platform::LocalNotification& notification) {
    nlohmann::json out{{"alertBody", notification.alertBody},
                       {"alertAction", notification.alertAction},
                       {"soundName", notification.soundName},
                       {"userInfo", notification.userInfo},
                       {"applicationIconBadgeNumber", notification.applicationIconBadgeNumber}};
    if (notification.fireDate) {
        out["fireDate"] = *notification.fireDate;
    }
    return out;
}

nlohmann::json regionJson(const hRegion& region) {
    return {{"latitude", region.center.latitude},
            {"longitude", region.center.longitude},
            {"radius", region.radius},
            {"identifier", region.identifier},
            {"eventId", region.eventId},
            {"eventName", region.eventName},
            {"alertText", region.alertText},
            {"mediaType", region.mediaType}};
}

std::string textMember(const nlohmann::json& object, const char* name) {
    const auto found = object.find(name);
    if (found == object.end() || found->is_null()) {
        return {};
    }
    if (!found->is_string()) {
        throw std::invalid_argument(std::string("the notification's \"") + name + "\" is not text");
    }
    return found->get<std::string>();
}

}  // namespace

nlohmann::json notificationObjectJson(const std::any& object) {
    if (const auto* json = std::any_cast<nlohmann::json>(&object)) {
        return *json;
    }
    if (const auto* local = std::any_cast<platform::LocalNotification>(&object)) {
        return localNotificationJson(*local);
    }
    if (const auto* region = std::any_cast<std::shared_ptr<hRegion>>(&object)) {
        return *region ? regionJson(**region) : nlohmann::json();
    }
    if (const auto* monitor = std::any_cast<Reachability*>(&object)) {
        return *monitor ? nlohmann::json{{"status", (*monitor)->currentReachabilityStatus()}}
                        : nlohmann::json();
    }
    if (const auto* launch = std::any_cast<Notification>(&object)) {
        return {{"name", launch->name}, {"userInfo", launch->userInfo}};
    }
    return nullptr;
}

std::string jsonText(const nlohmann::json& value) {
    return value.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

platform::LocalNotification localNotificationFromJson(std::string_view text) {
    const platform::JsonText parsed = platform::parseJsonText(text);
    if (!parsed.ok()) {
        throw std::invalid_argument("the notification is not usable JSON (" + parsed.error + ")");
    }
    if (!parsed.value.is_object()) {
        throw std::invalid_argument("the notification is not a JSON object");
    }
    platform::LocalNotification notification;
    notification.alertBody = textMember(parsed.value, "alertBody");
    notification.alertAction = textMember(parsed.value, "alertAction");
    notification.soundName = textMember(parsed.value, "soundName");
    if (const auto userInfo = parsed.value.find("userInfo");
        userInfo != parsed.value.end() && !userInfo->is_null()) {
        if (!userInfo->is_object()) {
            throw std::invalid_argument("the notification's \"userInfo\" is not an object");
        }
        notification.userInfo = *userInfo;
    }
    return notification;
}

}  // namespace tovrel::capi
