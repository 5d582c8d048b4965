#include "admin/catalogue_export.h"

#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "common/request_fields.h"

namespace tovrel::server {

using nlohmann::json;

namespace {

// An id as the importer reads it (a number or a string of digits), as a key.
std::string idKey(const json& id) {
    return id.is_string() ? id.get_ref<const std::string&>() : id.dump();
}

const json& member(const json& object, const char* name) {
    static const json kNull;
    if (!object.is_object()) {
        return kNull;
    }
    const auto it = object.find(name);
    return it != object.end() ? *it : kNull;
}

// A string member, or "" when there is none.
std::string textOf(const json& object, const char* name) {
    const json& value = member(object, name);
    return value.is_string() ? value.get_ref<const std::string&>() : std::string();
}

}  // namespace

json exportCatalogue(Store& store, const std::optional<PlaceArea>& area, std::size_t maxPlaces) {
    std::unordered_set<std::string> disabledCampaigns;
    for (const json& campaign : store.listCampaigns()) {
        if (member(campaign, "disabled") == true) {
            disabledCampaigns.insert(textOf(campaign, "name"));
        }
    }
    json campaigns = json::array();
    for (json& campaign : store.campaignDefinitions()) {
        if (!disabledCampaigns.contains(textOf(campaign, "name"))) {
            campaigns.push_back(std::move(campaign));
        }
    }
    std::unordered_map<int64_t, json> offers;
    for (json& offer : store.listOffers()) {
        if (!member(offer, "disabled") == true && !disabledCampaigns.contains(textOf(offer, "campaign"))) {
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
            if (member(place, "disabled") == true) {
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

json mergeImport(json live, const json& file) {
    const json& features = member(file, "features");
    if (!file.is_object() || !features.is_array()) {
        throw ApiError(400, "the file must be a GeoJSON FeatureCollection with \"features\"");
    }
    // Campaigns by name: the file's, whether listed or written inside an offer, replace the live ones.
    std::unordered_map<std::string, json> campaigns;
    std::vector<std::string> order;
    const auto define = [&](const json& campaign) {
        const std::string name = textOf(campaign, "name");
        if (campaigns.insert_or_assign(name, campaign).second) {
            order.push_back(name);
        }
    };
    for (const json& campaign : live["properties"]["campaigns"]) {
        define(campaign);
    }
    for (const json& campaign : member(member(file, "properties"), "campaigns")) {
        define(campaign);
    }
    std::unordered_map<std::string, json> offers;
    for (const json& feature : features) {
        for (const json& offer : member(member(feature, "properties"), "offers")) {
            if (member(offer, "campaign").is_object()) {
                define(offer["campaign"]);
            }
            offers.insert_or_assign(idKey(member(offer, "eventId")), offer);
        }
    }
    std::unordered_map<std::string, std::size_t> placeAt;
    json merged = json::array();
    for (json& feature : live["features"]) {
        for (json& offer : feature["properties"]["offers"]) {
            if (const auto changed = offers.find(idKey(offer["eventId"])); changed != offers.end()) {
                offer = changed->second;
            }
        }
        placeAt.emplace(idKey(feature["properties"]["placeId"]), merged.size());
        merged.push_back(std::move(feature));
    }
    for (const json& feature : features) {
        const std::string id = idKey(member(member(feature, "properties"), "placeId"));
        if (const auto at = placeAt.find(id); at != placeAt.end()) {
            merged[at->second] = feature;
        } else {
            placeAt.emplace(id, merged.size());
            merged.push_back(feature);
        }
    }
    json list = json::array();
    for (const std::string& name : order) {
        json campaign = campaigns[name];
        list.push_back(std::move(campaign));
    }
    // Offers carry their campaign by name: a campaign object inside one is listed instead.
    for (json& feature : merged) {
        if (!member(member(feature, "properties"), "offers").is_array()) {
            continue;
        }
        for (json& offer : feature["properties"]["offers"]) {
            if (member(offer, "campaign").is_object()) {
                offer["campaign"] = member(offer["campaign"], "name");
            }
        }
    }
    live["features"] = std::move(merged);
    live["properties"]["campaigns"] = std::move(list);
    return live;
}

}  // namespace tovrel::server
