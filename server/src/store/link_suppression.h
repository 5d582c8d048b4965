#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "store/report.h"
#include "store/store.h"

namespace tovrel::server {

/// What the rules make of a new link.
struct LinkVerdict {
    Suppression reason = Suppression::none;  ///< why it is held back, or none
    bool control = false;  ///< the device is in the campaign's control group (whatever held it back)
};

/// What the database holds that a new link's verdict depends on, read in the transaction that inserts
/// it (which holds the device's row, so that replicas linking one device take turns).
struct LinkContext {
    std::optional<std::string> deviceId;  ///< the device's own id (keys the control group); none: no row
    std::string appRules;                 ///< the device's app's rules as stored; "" for none
    std::optional<std::string> controlGroupKey;
    int64_t liveInCampaign = 0;           ///< live links of the device to the campaign
    std::vector<int64_t> deliveredInCap;  ///< deliveries within each of the campaign's caps' windows
    int64_t deliveredToday = 0;           ///< deliveries to the device in the last 24 hours
};

/// The start of each window the campaign's caps count deliveries in, in the order of its rules' caps;
/// and of the fatigue cap's 24 hours. Pure.
std::vector<double> capWindowStarts(const NewLink& link, double now);
double fatigueWindowStart(double now);

/// The rules of a new link's campaign and of the device's app, asked of `context`. Pure.
LinkVerdict linkVerdict(const NewLink& link, const LinkContext& context, double now);

/// linkVerdict() of the context counted from the rows of `db` in the caller's transaction. Only numbers
/// go into the SQL. Runs on the caller's thread.
LinkVerdict linkSuppression(const SqlSource& db, int64_t device, const NewLink& link, double now);

/// A link as held back, read from `db`; nullopt when there is no such link or it was delivered. Runs on
/// the caller's thread.
std::optional<HeldBackLink> readHeldBack(const SqlSource& db, int64_t deviceEvent);

}  // namespace tovrel::server
