#pragma once

#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace date {
class time_zone;
}

namespace tovrel::server {

/// A rule written wrongly: `member` is a JSON Pointer relative to the object that holds the rule
/// ("/schedule/windows/0/from"), `what()` the sentence that says why.
class RuleError : public std::invalid_argument {
  public:
    RuleError(std::string at, const std::string& message)
        : std::invalid_argument(message), member(std::move(at)) {}
    std::string member;
};

/// Hours of some days of the week, in wall-clock time. `to` before `from` crosses midnight: the window
/// then ends on the day after each of its days.
struct TimeWindow {
    std::uint8_t days = 0;  ///< bit 0 Monday .. bit 6 Sunday
    int from = 0;           ///< minutes after midnight
    int to = 0;             ///< minutes after midnight, 1..1440

    bool operator==(const TimeWindow&) const = default;
};

/// Windows of wall-clock time in one IANA time zone. Times that a clock change skips never occur, and a
/// repeated hour is in a window both times: the windows follow the clock on the wall. Any thread.
struct Schedule {
    std::string timeZone;
    const date::time_zone* zone = nullptr;
    std::vector<TimeWindow> windows;

    /// Whether the instant (seconds since 1970) falls in one of the windows.
    bool contains(double unixTime) const;
    /// "Mon–Fri 11:30–14:00 Europe/Berlin"; windows separated by ", ".
    std::string describe() const;

    bool operator==(const Schedule& o) const { return timeZone == o.timeZone && windows == o.windows; }
};

/// At most `count` deliveries in any `seconds` long stretch ending now.
struct FrequencyCap {
    std::int64_t count = 0;
    std::string per;  ///< "hour", "day" or "week"
    std::int64_t seconds = 0;

    bool operator==(const FrequencyCap&) const = default;
};

/// What a campaign asks beyond its dates and lifetime cap.
struct CampaignRules {
    std::optional<Schedule> schedule;
    std::vector<FrequencyCap> caps;
    int priority = 0;         ///< higher first among the offers of one place
    double controlGroup = 0;  ///< share of devices held out, 0 <= share < 1

    bool empty() const { return !schedule && caps.empty() && priority == 0 && controlGroup == 0; }
    bool operator==(const CampaignRules&) const = default;
};

/// What an app asks of every campaign its devices see.
struct AppRules {
    std::optional<Schedule> quietHours;         ///< one window, every day
    std::optional<std::int64_t> dailyOfferCap;  ///< deliveries to one device in 24 hours, all campaigns

    bool empty() const { return !quietHours && !dailyOfferCap; }
    bool operator==(const AppRules&) const = default;
};

/// Reads the rule members of a campaign object ("schedule", "caps", "priority", "controlGroup"); the
/// others are left to the caller. Throws RuleError.
CampaignRules parseCampaignRules(const nlohmann::json& campaign);
/// Reads "quietHours" and "dailyOfferCap" of an app object. Throws RuleError.
AppRules parseAppRules(const nlohmann::json& app);
/// The members the parsers read, as they read them; nothing for rules left at their defaults.
void writeRules(nlohmann::json& campaign, const CampaignRules& rules);
void writeRules(nlohmann::json& app, const AppRules& rules);
/// The rules as stored in a text column ("" when there are none), and back. A column that does not
/// read (written by a newer program, say) gives no rules rather than a failed catalogue.
std::string rulesText(const CampaignRules& rules);
std::string rulesText(const AppRules& rules);
CampaignRules campaignRulesFrom(std::string_view text);
AppRules appRulesFrom(std::string_view text);
/// Adds the members of a stored rules column to a campaign or app object, as they were written.
void addStoredRules(nlohmann::json& object, std::string_view text);

}  // namespace tovrel::server
