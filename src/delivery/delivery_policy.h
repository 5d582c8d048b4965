#pragma once

#include <any>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

#include "tovrel/platform/notifications.h"

namespace tovrel::delivery {

/// `body` with every "%" replaced by the full-width percent sign U+FF05, so that the system never
/// reads a notification's text as a format string.
std::string fullWidthPercent(std::string_view body);

/// The local notification for one offer message: the body (full-width percent signs), "Resume", the
/// default sound and {"deviceeventId": "%d"}; no fire date, badge or category.
platform::LocalNotification offerNotification(std::string_view body, int deviceEventId);

/// The user info of the object posted with "tovrelNotificationReceived": a local notification's, or
/// the launch notification's (the launch options); null for anything else.
nlohmann::json userInfoOf(const std::any& object);

/// The four members an offer record's first element needs before its view can open.
bool hasOfferMediaKeys(const nlohmann::json& element);

/// The first element of an offer record (null when the record is not a non-empty array).
const nlohmann::json& offerElement(const nlohmann::json& offer);

}  // namespace tovrel::delivery
