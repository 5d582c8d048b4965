#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "tovrel_server/admin.h"

namespace tovrel_server {

class Database;

struct AppDef {
    std::string key;
    std::string name;
};

struct CampaignDef {
    int64_t id = 0;  ///< database id; 0 before it is stored
    std::string name;
    std::string startDate;  ///< as written in the place file; may be empty
    std::string endDate;
    std::optional<double> startTime;  ///< seconds since 1970; none = open
    std::optional<double> endTime;
    std::optional<int64_t> perDeviceCap;

    bool operator==(const CampaignDef&) const = default;
};

struct OfferDef {
    int64_t id = 0;        ///< the offer's "eventId"
    std::string campaign;  ///< campaign name
    std::string eventName;
    std::string alertText;
    std::string mediaType;
    std::string mediaUrl;
    std::string tags;
    int dwellTime = 0;  ///< minutes
    int eventType = 3;  ///< 1, 2 or 3

    bool operator==(const OfferDef&) const = default;
};

struct PlaceDef {
    int64_t id = 0;  ///< the place's "placeId"
    std::string name;
    double lat = 0;
    double lon = 0;
    double radius = 0;            ///< metres
    std::vector<int64_t> offers;  ///< offer ids, in file order
};

/// Everything a place file defines, or everything the database holds.
struct CatalogData {
    std::vector<AppDef> apps;
    std::vector<CampaignDef> campaigns;
    std::vector<OfferDef> offers;
    std::vector<PlaceDef> places;
};

/// Parses a GeoJSON place file. label names the file in error messages. Throws ImportError.
CatalogData parseGeoJson(const std::string& text, const std::string& label);

/// Writes campaigns, offers, places and apps (insert or replace by id or name) in one transaction.
ImportSummary writeCatalog(Database& db, const CatalogData& data, double now);

/// Adds an app key, or renames an existing one.
void writeApp(Database& db, const AppDef& app, double now);

/// Reads every campaign, offer and place (apps are not read).
CatalogData readCatalog(Database& db);

/// Parses "YYYY-MM-DD" or "YYYY-MM-DDTHH:MM[:SS](Z|±HH:MM)" into seconds since 1970. A bare date
/// means its first second, or with endOfDay its last one.
std::optional<double> parseIsoTime(const std::string& text, bool endOfDay);

}  // namespace tovrel_server
