#include "tovrel/analytics_manager.h"

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
    logMessage(nlohmann::json(message), deviceId, std::move(completion));
}

void AnalyticsManager::logMessage(nlohmann::json&& message, const std::string& deviceId,
                                  Completion completion) {
    nlohmann::json body(nlohmann::json::value_t::object);
    auto& members = body.get_ref<nlohmann::json::object_t&>();
    members.emplace(protocol::member::kDeviceId, deviceId);
    members.emplace(protocol::member::kMessage, std::move(message));
    const std::string url = serviceBaseURL_ + std::string(protocol::kLogPath);
    auto& log = *platform_.log;
    platform_.http->postJson(url, body,
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
