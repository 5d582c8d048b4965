#include "store/link_suppression.h"

#include <optional>
#include <string>

namespace tovrel::server {
namespace {

int64_t count(const SqlRows& rows) {
    return rows.empty() || rows.front().empty() ? 0 : std::stoll(rows.front().front());
}

}  // namespace

std::vector<double> capWindowStarts(const NewLink& link, double now) {
    std::vector<double> starts;
    if (link.rules != nullptr) {
        for (const FrequencyCap& cap : link.rules->caps) {
            starts.push_back(now - static_cast<double>(cap.seconds));
        }
    }
    return starts;
}

double fatigueWindowStart(double now) {
    return now - 86400;
}

LinkVerdict linkVerdict(const NewLink& link, const LinkContext& context, double now) {
    LinkFacts facts;
    facts.outsideSchedule = link.outsideSchedule;
    const AppRules appRules = context.deviceId ? appRulesFrom(context.appRules) : AppRules{};
    facts.quietHours = !facts.outsideSchedule && appRules.quietHours && appRules.quietHours->contains(now);
    const CampaignRules noRules;
    const CampaignRules& rules = link.rules ? *link.rules : noRules;
    facts.control =
        rules.controlGroup > 0 && context.deviceId && context.controlGroupKey &&
        inControlGroup(*context.controlGroupKey, *context.deviceId, link.campaignName, rules.controlGroup);
    facts.perDeviceCap = link.perDeviceCap;
    facts.liveLinks = context.liveInCampaign;
    facts.caps = &rules.caps;
    facts.deliveredInCap = context.deliveredInCap;
    facts.deliveredInCap.resize(rules.caps.size());
    facts.dailyOfferCap = appRules.dailyOfferCap;
    facts.deliveredToday = context.deliveredToday;
    return {decideLink(facts), facts.control};
}

LinkVerdict linkSuppression(const SqlSource& db, int64_t device, const NewLink& link, double now) {
    // Parameters, not numbers in the text: the statements are prepared once per connection.
    LinkContext context;
    const SqlParam who = sqlNumber(device);
    const SqlParam campaign = sqlNumber(link.campaign);
    const auto app = db.query(
        "SELECT d.device_id, coalesce(a.rules, '') FROM devices d LEFT JOIN apps a ON a.key = d.app_key "
        "WHERE d.id = CAST(? AS BIGINT)",
        {who});
    if (!app.empty()) {
        context.deviceId = app.front()[0];
        context.appRules = app.front()[1];
    }
    const auto key = db.query("SELECT value FROM settings WHERE name = 'control_group_key'", {});
    if (!key.empty()) {
        context.controlGroupKey = key.front()[0];
    }
    if (link.perDeviceCap) {
        context.liveInCampaign =
            count(db.query("SELECT count(*) FROM device_events WHERE device = CAST(? AS "
                           "BIGINT) AND campaign = CAST(? AS BIGINT) AND cleared_at IS NULL",
                           {who, campaign}));
    }
    // Only what reached the device counts toward a cap: held-back links were never seen.
    for (const double start : capWindowStarts(link, now)) {
        context.deliveredInCap.push_back(count(db.query(
            "SELECT count(*) FROM device_events WHERE device = CAST(? AS BIGINT) AND NOT suppressed AND "
            "campaign = CAST(? AS BIGINT) AND created_at > CAST(? AS DOUBLE PRECISION)",
            {who, campaign, sqlNumber(start)})));
    }
    if (!context.appRules.empty()) {
        context.deliveredToday = count(db.query(
            "SELECT count(*) FROM device_events WHERE device = CAST(? AS BIGINT) AND NOT suppressed AND "
            "created_at > CAST(? AS DOUBLE PRECISION)",
            {who, sqlNumber(fatigueWindowStart(now))}));
    }
    return linkVerdict(link, context, now);
}

std::optional<HeldBackLink> readHeldBack(const SqlSource& db, int64_t deviceEvent) {
    const auto row = db.rows(
        "SELECT e.suppressed_by, e.campaign, e.created_at, e.device, coalesce(a.rules, '') FROM "
        "device_events e "
        "JOIN devices d ON d.id = e.device LEFT JOIN apps a ON a.key = d.app_key WHERE e.id = " +
        std::to_string(deviceEvent));
    if (row.empty() || row.front()[0].empty()) {
        return std::nullopt;
    }
    const auto& r = row.front();
    HeldBackLink held{suppressionFrom(r[0]), std::stoll(r[1]), std::stod(r[2]), r[4], std::nullopt};
    if (held.reason == Suppression::frequencyCap || held.reason == Suppression::fatigueCap) {
        const std::string sameCampaign =
            held.reason == Suppression::frequencyCap ? " AND campaign = " + r[1] : std::string();
        const auto last = db.rows("SELECT max(created_at) FROM device_events WHERE device = " + r[3] +
                                  " AND NOT suppressed AND created_at <= " + r[2] + sameCampaign);
        if (!last.empty() && !last.front()[0].empty()) {
            held.lastDelivery = std::stod(last.front()[0]);
        }
    }
    return held;
}

}  // namespace tovrel::server
