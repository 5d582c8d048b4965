#include "admin/catalogue_export.h"

#include <string>
#include <unordered_map>
#include <unordered_set>

#include "common/request_fields.h"

namespace tovrel::server {

using nlohmann::json;

json exportCatalogue(Store& store, const std::optional<PlaceArea>& area, std::size_t maxPlaces) {
    std::unordered_set<std::string> disabledCampaigns;
    for (const json& campaign : store.listCampaigns()) {
        if (campaign.value("disabled", false)) {
            disabledCampaigns.insert(campaign.value("name", ""));
        }
    }
    json campaigns = json::array();
    for (json& campaign : store.campaignDefinitions()) {
        if (!disabledCampaigns.contains(campaign.value("name", ""))) {
            campaigns.push_back(std::move(campaign));
        }
    }
    std::unordered_map<int64_t, json> offers;
    for (json& offer : store.listOffers()) {
        if (!offer.value("disabled", false) && !disabledCampaigns.contains(offer.value("campaign", ""))) {
            offer.erase("disabled");
            offer.erase("places");
            offers.emplace(offer["eventId"].get<int64_t>(), std::move(offer));
        }
    }
    constexpr int kPage = 1000;
    json features = json::array();
    for (int64_t after = 0;;) {
        json page = store.listPlaces(after, kPage, area);
        for (json& place : page) {
            if (place.value("disabled", false)) {
                continue;
            }
            if (features.size() == maxPlaces) {
                throw ApiError(422, "more than " + std::to_string(maxPlaces) +
                                        " places would be exported; ask for an area with bbox");
            }
            json linked = json::array();
            for (const json& id : place["offers"]) {
                if (const auto offer = offers.find(id.get<int64_t>()); offer != offers.end()) {
                    linked.push_back(offer->second);
                }
            }
            json properties{
                {"placeId", place["placeId"]}, {"radius", place["radius"]}, {"offers", std::move(linked)}};
            if (!place["name"].get_ref<const std::string&>().empty()) {
                properties["name"] = place["name"];
            }
            features.push_back(
                {{"type", "Feature"},
                 {"geometry", {{"type", "Point"}, {"coordinates", {place["lon"], place["lat"]}}}},
                 {"properties", std::move(properties)}});
        }
        if (page.size() < static_cast<std::size_t>(kPage)) {
            break;
        }
        after = page.back()["placeId"].get<int64_t>();
    }
    return json{{"type", "FeatureCollection"},
                {"properties", {{"campaigns", std::move(campaigns)}}},
                {"features", std::move(features)}};
}

}  // namespace tovrel::server
