#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace tovrel::server {

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

/// How far a campaign's or an offer's visits went: device events, and how many of them received each
/// status at least once.
struct FunnelCounts {
    int64_t links = 0;  ///< device events created (cleared ones included)
    int64_t ack = 0;
    int64_t seen = 0;
    int64_t saved = 0;
    int64_t declined = 0;

    bool operator==(const FunnelCounts&) const = default;
};

/// One line of a funnel: a campaign (eventId 0) or an offer, over all time or on one day.
struct FunnelRow {
    std::string day;  ///< "YYYY-MM-DD" (UTC) in the by-day lists, "" in the totals
    int64_t campaignId = 0;
    std::string campaignName;
    int64_t eventId = 0;  ///< offer rows only
    std::string eventName;
    FunnelCounts counts;
};

/// The funnel of a database. A campaign's row counts the device events linked under it; an offer's
/// row is listed with its current campaign. By day, a link counts on the day it was made and a
/// status on the day it was received (an event answered "seen" on two days counts on both).
/// Why the service held a link back (answered it `suppressMessage` 1).
struct HeldBack {
    std::string rule;  ///< "schedule", "quiet-hours", "control", "cap", "frequency" or "fatigue"
    std::string text;  ///< the rule in words: "outside its schedule (Mon–Fri 11:30–14:00 Europe/Berlin)"
    std::optional<double> lastDelivery;  ///< the delivery that filled a cap, in seconds since 1970
};

/// One side of a control-group comparison: the devices that visited the campaign (linked any of its
/// offers), their visits, the visits they answered, and the devices that came back (linked the
/// campaign again) within 7 days of their first visit.
struct GroupCounts {
    int64_t devices = 0;
    int64_t visits = 0;
    int64_t answered = 0;
    int64_t returned = 0;

    bool operator==(const GroupCounts&) const = default;
};

/// A campaign that holds devices out: exposed devices against the control group. `lift` is the
/// exposed return rate over the control's, minus 1, with a 95% interval (see liftOf()).
struct ControlComparison {
    int64_t campaignId = 0;
    std::string campaignName;
    GroupCounts exposed;
    GroupCounts control;
    std::optional<double> lift;  ///< none while either side has no device that came back
    std::optional<double> liftLow;
    std::optional<double> liftHigh;
};

/// Sets a comparison's lift and its 95% interval from its counts: the ratio of the two return rates,
/// with the normal approximation of its logarithm (devices independent, each side with a handful of
/// returns at least). Pure.
void liftOf(ControlComparison& comparison);

struct Funnel {
    std::vector<ControlComparison> control;  ///< campaigns with a control group, by id
    std::vector<FunnelRow> campaigns;        ///< every campaign, by id
    std::vector<FunnelRow> offers;           ///< every offer, by eventId
    std::vector<FunnelRow> campaignDays;     ///< with byDay: each day and campaign with activity, by day, id
    std::vector<FunnelRow> offerDays;  ///< with byDay: each day and offer with activity, by day, eventId
};

/// Imports a GeoJSON place file into the database at dbPath (created when missing). All or nothing:
/// a file with any error writes nothing. Throws ImportError for a bad file, std::runtime_error for
/// a database failure.
ImportSummary importGeoJsonFile(const std::string& dbPath, const std::string& geojsonPath);

/// Adds (or renames) an app key in the database at dbPath (created when missing).
void addAppKey(const std::string& dbPath, const std::string& key, const std::string& name);

/// Reads the usage counts of the database at dbPath, the log messages' from logDbPath ("": dbPath).
Report readReport(const std::string& dbPath, const std::string& logDbPath = "");

/// The report as aligned text tables.
std::string formatReport(const Report& report);

/// Reads the funnel of the database at dbPath, with the by-day lists when byDay. Any thread (opens
/// its own connection).
Funnel readFunnel(const std::string& dbPath, bool byDay = false);

/// The funnel (and the log counts) as text tables aligned by display width, as `report` prints them.
/// Any thread.
std::string formatReport(const Funnel& funnel, const std::map<std::string, int64_t>& logCounts);

}  // namespace tovrel::server
