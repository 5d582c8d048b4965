#pragma once

#include <cstdint>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

namespace tovrel_server {

/// A place file that cannot be imported; what() names the file and the line or feature at fault,
/// for example "places.geojson: feature 3: missing properties.offers".
class ImportError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

/// What one import wrote.
struct ImportSummary {
    int apps = 0;
    int campaigns = 0;
    int places = 0;
    int offers = 0;
};

/// Counts for one offer.
struct OfferReport {
    int64_t eventId = 0;
    std::string eventName;
    std::string campaignName;
    int64_t links = 0;  ///< device events ever created, cleared ones included
    int64_t ack = 0;    ///< device events that received the status at least once
    int64_t seen = 0;
    int64_t saved = 0;
    int64_t declined = 0;
};

/// Usage counts of a database.
struct Report {
    std::vector<OfferReport> offers;           ///< ordered by eventId
    std::map<std::string, int64_t> logCounts;  ///< log messages by event name
};

/// Imports a GeoJSON place file into the database at dbPath (created when missing). All or nothing:
/// a file with any error writes nothing. Throws ImportError for a bad file, std::runtime_error for
/// a database failure.
ImportSummary importGeoJsonFile(const std::string& dbPath, const std::string& geojsonPath);

/// Adds (or renames) an app key in the database at dbPath (created when missing).
void addAppKey(const std::string& dbPath, const std::string& key, const std::string& name);

/// Reads the usage counts of the database at dbPath.
Report readReport(const std::string& dbPath);

/// The report as aligned text tables.
std::string formatReport(const Report& report);

}  // namespace tovrel_server
