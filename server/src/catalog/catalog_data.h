#pragma once

#include <cstdint>
#include <initializer_list>
#include <iosfwd>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "rules/rules.h"
#include "tovrel_server/admin.h"

namespace tovrel::server {

class Database;

struct AppDef {
    std::string key;
    std::string name;
    AppRules rules;

    bool operator==(const AppDef&) const = default;
};

struct CampaignDef {
    int64_t id = 0;  ///< database id; 0 before it is stored
    std::string name;
    std::string startDate;  ///< as written in the place file; may be empty
    std::string endDate;
    std::optional<double> startTime;  ///< seconds since 1970; none = open
    std::optional<double> endTime;
    std::optional<int64_t> perDeviceCap;
    CampaignRules rules;

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
    /// The store's catalogue version this snapshot was read at; 0 where the store keeps none.
    std::uint64_t version = 0;
};

/// What changed in the catalogue after a version: the ids of the changed rows and those rows as they
/// are now (a changed id without a row was removed or disabled).
struct CatalogChanges {
    std::uint64_t version = 0;  ///< the store's catalogue version these changes bring a catalogue to
    /// Every enabled campaign, when any campaign changed (their offers are then among offerIds).
    std::optional<std::vector<CampaignDef>> campaigns;
    std::vector<int64_t> offerIds;  ///< ascending, unique
    std::vector<OfferDef> offers;   ///< the enabled ones of offerIds
    std::vector<int64_t> placeIds;  ///< ascending, unique
    std::vector<PlaceDef> places;   ///< the enabled ones of placeIds, with all their links
};

/// What a place file defines, held compactly while a large file is read: the offers' and places'
/// strings in one arena, fixed-size rows beside it (1M places with an offer each take ~200 MB where
/// CatalogData takes ~700). Apps and campaigns, always few, are plain. Built on one thread; const
/// members may then be called from any thread.
class PlaceCatalog {
  public:
    std::vector<AppDef> apps;
    std::vector<CampaignDef> campaigns;  ///< by name

    std::size_t offerCount() const { return offers_.size(); }
    std::size_t placeCount() const { return places_.size(); }
    /// The i-th offer, in order of first appearance.
    OfferDef offer(std::size_t i) const;
    /// The i-th place, in file order.
    PlaceDef place(std::size_t i) const;
    /// The same catalogue as plain structures.
    CatalogData expand() const;

    void addOffer(const OfferDef& offer, uint32_t featureNumber);
    /// Whether offer i holds exactly `offer`.
    bool sameOffer(std::size_t i, const OfferDef& offer) const;
    /// The feature that defined offer i first.
    uint32_t offerFeature(std::size_t i) const { return offers_[i].feature; }
    void addPlace(const PlaceDef& place);

  private:
    struct OfferRow {
        int32_t id;
        int16_t dwellTime;
        int8_t eventType;
        uint32_t size;  ///< bytes of the strings' record in the arena
        uint32_t feature;
        uint64_t text;  ///< the arena's handle of campaign, eventName, alertText, mediaType, mediaUrl, tags
    };
    struct PlaceRow {
        int32_t id;
        uint32_t firstOffer;  ///< into placeOffers_
        uint32_t offerCount;
        double lat;
        double lon;
        double radius;
        uint64_t name;
    };
    uint64_t store(std::initializer_list<std::string_view> strings, uint32_t& size);
    const char* at(uint64_t handle) const;

    static constexpr std::size_t kBlock = 4 << 20;
    std::vector<std::unique_ptr<char[]>> blocks_;
    std::size_t used_ = kBlock;  ///< bytes used in the last block
    std::string scratch_;
    std::vector<OfferRow> offers_;
    std::vector<PlaceRow> places_;
    std::vector<int32_t> placeOffers_;
};

/// One fault of a place file.
struct PlaceFileProblem {
    std::optional<std::size_t> feature;  ///< counted from 1, as in the messages; none: the collection
    std::string
        member;  ///< JSON Pointer of the member at fault ("/features/2/properties/radius"); "" for the file
    std::string message;  ///< the whole line: "places.geojson: feature 3: properties.radius must be ..."
};

/// Everything wrong with a place file, or its catalogue when nothing is.
struct PlaceFileCheck {
    std::vector<PlaceFileProblem>
        problems;  ///< every faulty feature once, in file order, after the collection's
    std::optional<PlaceCatalog> catalog;  ///< set when problems is empty
};

/// Reads a GeoJSON place file as a stream (one feature in memory at a time) and checks all of it.
/// label names the file in messages. Any thread (no shared state), as are the functions below.
PlaceFileCheck checkPlaceFile(std::string_view text, const std::string& label);
/// The same, reading `in` in chunks of chunkSize bytes.
PlaceFileCheck checkPlaceFile(std::istream& in, const std::string& label, std::size_t chunkSize = 1 << 16);

/// Opens and checks the place file at path. Throws ImportError when it cannot be opened.
PlaceFileCheck checkPlaceFile(const std::string& path);

/// The problems as one import error text: the first 50 lines, then "(and N more)".
std::string describeProblems(const std::vector<PlaceFileProblem>& problems);

/// Parses a GeoJSON place file held in memory. label names the file in error messages. Throws
/// ImportError with every faulty feature (describeProblems).
CatalogData parseGeoJson(const std::string& text, const std::string& label);

/// Writes campaigns, offers, places and apps (insert or replace by id or name) in one transaction.
ImportSummary writeCatalog(Database& db, const CatalogData& data, double now);
/// The same for a catalogue read by checkPlaceFile.
ImportSummary writeCatalog(Database& db, const PlaceCatalog& data, double now);

/// Adds an app key, or renames an existing one.
void writeApp(Database& db, const AppDef& app, double now);

/// Reads every campaign, offer and place (apps are not read).
CatalogData readCatalog(Database& db);
/// Fills in the rows of `changes`' offer and place ids as they are now, with every campaign and all
/// the offers of campaignIds when that is not empty; false when that makes more than `limit` ids.
bool readChangedRows(Database& db, CatalogChanges& changes, const std::vector<int64_t>& campaignIds,
                     std::size_t limit);

/// Parses "YYYY-MM-DD" or "YYYY-MM-DDTHH:MM[:SS](Z|±HH:MM)" into seconds since 1970. A bare date
/// means its first second, or with endOfDay its last one.
std::optional<double> parseIsoTime(const std::string& text, bool endOfDay);

}  // namespace tovrel::server
