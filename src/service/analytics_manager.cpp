#include "tovrel/analytics_manager.h"

#include "foundation/json_writer.h"
#include "foundation/log.h"
#include "tovrel/environment.h"
#include "tovrel/protocol.h"

namespace tovrel {

AnalyticsManager::AnalyticsManager(const platform::Platform& platform, std::string serviceBaseURL)
    : platform_(platform), serviceBaseURL_(std::move(serviceBaseURL)) {}

AnalyticsManager& AnalyticsManager::instance() {
    return Environment::current().analyticsManager();
}

void AnalyticsManager::logMessage(const nlohmann::json& message, const std::string& deviceId,
                                  Completion completion) {
    std::string text;
    appendJson(text, message);
    logMessageText(text, deviceId, std::move(completion));
}

void AnalyticsManager::logMessageText(std::string_view message, const std::string& deviceId,
                                      Completion completion) {
    // {"deviceid": ..., "message": ...}: the members in the order a dump prints them.
    std::string body = "{";
    appendMemberName(body, protocol::member::kDeviceId, true);
    appendJsonString(body, deviceId);
    appendMemberName(body, protocol::member::kMessage);
    body += message;
    body += '}';
    const std::string url = serviceBaseURL_ + std::string(protocol::kLogPath);
    auto& log = *platform_.log;
    platform_.http->postJson(url, std::move(body),
                             [&log, completion = std::move(completion)](const platform::JsonResult& result) {
                                 if (!result.ok()) {
                                     TOVREL_LOG(log, "%s", result.error->localizedDescription.c_str());
                                 }
                                 if (completion) {
                                     completion(result.error);
                                 }
                             });
}

nlohmann::json AnalyticsManager::buildLocationDictionaryWithLatitude(double latitude, double longitude) {
    return {{protocol::member::kLatitude, static_cast<float>(latitude)},
            {protocol::member::kLongitude, static_cast<float>(longitude)}};
}

}  // namespace tovrel
