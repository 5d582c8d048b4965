#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <stdexcept>
#include <string>

#include "store/store.h"

namespace tovrel::server {

class Database;

/// What operators list and change, shared by the admin API and the command line. Each function runs
/// on a connection its caller holds; the caller rebuilds the catalogue after a change to campaigns,
/// offers or places. Lists are JSON arrays of objects with the members the admin API documents.
namespace admin_store {

/// A change that the current data forbids (a campaign that still has offers); answered 409.
class Conflict : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

/// Every app: key, name, createdAt, disabled.
nlohmann::json listApps(Database& db);
/// Adds an app; an empty key makes a new random one. Returns the key. false in `added` when the key
/// was already there (it is then renamed).
std::string addApp(Database& db, std::string key, const std::string& name, double now, bool* added = nullptr);
/// Gives an app a new random key (sessions started with the old one stay valid; new ones need the new
/// key). nullopt when there is no such app.
std::optional<std::string> rotateApp(Database& db, const std::string& key);
/// False when there is no such app.
bool removeApp(Database& db, const std::string& key);
bool setAppDisabled(Database& db, const std::string& key, bool disabled);

/// Every campaign: id, name, startDate, endDate, perDeviceCap (or null), disabled, offers (how many).
nlohmann::json listCampaigns(Database& db);
/// The id of the campaign with that name, or of that id written in decimal; nullopt when none.
std::optional<int64_t> findCampaign(Database& db, const std::string& nameOrId);
bool setCampaignDisabled(Database& db, int64_t id, bool disabled);
/// Removes a campaign without offers. Throws Conflict when offers still belong to it.
bool removeCampaign(Database& db, int64_t id);

/// Every offer: eventId, campaign, eventName, mediaType, mediaUrl, dwellTime, eventTypeId, disabled,
/// places (how many).
nlohmann::json listOffers(Database& db);
bool setOfferDisabled(Database& db, int64_t id, bool disabled);
/// Removes an offer and its place links (device events keep their counts).
bool removeOffer(Database& db, int64_t id);

/// Up to `limit` places with an id above `after`, by id: placeId, name, lat, lon, radius, offers,
/// disabled.
nlohmann::json listPlaces(Database& db, int64_t after, int limit, const std::optional<PlaceArea>& area);
bool setPlaceDisabled(Database& db, int64_t id, bool disabled);
bool removePlace(Database& db, int64_t id);

/// Every campaign as a place file defines it, so that a place posted alone may name them.
nlohmann::json campaignDefinitions(Database& db);

}  // namespace admin_store
}  // namespace tovrel::server
