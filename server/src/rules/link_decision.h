#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "rules/rules.h"

namespace tovrel::server {

/// Why a link was answered `suppressMessage` 1, in the order the rules are asked.
enum class Suppression : std::uint8_t {
    none,
    schedule,      ///< outside the campaign's schedule
    quietHours,    ///< inside the app's quiet hours
    control,       ///< the device is in the campaign's control group
    lifetimeCap,   ///< perDeviceCap live links of the campaign
    frequencyCap,  ///< one of the campaign's caps over a rolling window
    fatigueCap,    ///< the app's dailyOfferCap across campaigns
};

/// "schedule", "quiet-hours", "control", "cap", "frequency", "fatigue"; "" for none.
std::string_view suppressionName(Suppression reason);
/// The reverse of suppressionName; none for anything else.
Suppression suppressionFrom(std::string_view name);

/// What a link's store transaction counted, and what the service found before it.
struct LinkFacts {
    bool outsideSchedule = false;
    bool quietHours = false;
    bool control = false;
    std::int64_t liveLinks = 0;  ///< live links of the device to the campaign
    std::optional<std::int64_t> perDeviceCap;
    std::vector<std::int64_t> deliveredInCap;  ///< deliveries within each of `caps`' windows
    const std::vector<FrequencyCap>* caps = nullptr;
    std::int64_t deliveredToday = 0;  ///< deliveries to the device in 24 hours, all campaigns
    std::optional<std::int64_t> dailyOfferCap;
};

/// The first rule that holds the offer back, or none: it is delivered.
Suppression decideLink(const LinkFacts& facts);

/// The rule that held a link back, in words ("outside its schedule (Mon–Fri 11:30–14:00 Europe/Berlin)",
/// "frequency cap 1 per day, 3 per week"), from the campaign's rules (nullptr when it is gone) and the
/// app's. Pure.
std::string describeHold(Suppression reason, const CampaignRules* campaign,
                         std::optional<std::int64_t> perDeviceCap, const AppRules& app);

/// Whether a device belongs to a campaign's control group: a keyed hash of the two names, so the
/// answer is the same on every replica and after restarts, and no device can predict it. Any thread.
bool inControlGroup(std::string_view key, std::string_view deviceId, std::string_view campaign, double share);

}  // namespace tovrel::server
