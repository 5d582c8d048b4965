#include "store/link_suppression.h"

#include <optional>
#include <string>

namespace tovrel::server {
namespace {

int64_t count(const SqlSource& db, const std::string& sql) {
    const auto rows = db.rows(sql);
    return rows.empty() || rows.front().empty() ? 0 : std::stoll(rows.front().front());
}

// Seconds as SQL: whole numbers print exactly, and the rest needs no more than microseconds.
std::string seconds(double t) {
    return std::to_string(t);
}

}  // namespace

LinkVerdict linkSuppression(const SqlSource& db, int64_t device, const NewLink& link, double now) {
    LinkFacts facts;
    facts.outsideSchedule = link.outsideSchedule;
    const std::string who = std::to_string(device);
    const auto app = db.rows(
        "SELECT d.device_id, coalesce(a.rules, '') FROM devices d LEFT JOIN apps a ON "
        "a.key = d.app_key WHERE d.id = " +
        who);
    const AppRules appRules = app.empty() ? AppRules{} : appRulesFrom(app.front()[1]);
    facts.quietHours = !facts.outsideSchedule && appRules.quietHours && appRules.quietHours->contains(now);
    const CampaignRules noRules;
    const CampaignRules& rules = link.rules ? *link.rules : noRules;
    if (rules.controlGroup > 0 && !app.empty()) {
        const auto key = db.rows("SELECT value FROM settings WHERE name = 'control_group_key'");
        facts.control = !key.empty() &&
                        inControlGroup(key.front()[0], app.front()[0], link.campaignName, rules.controlGroup);
    }
    if (facts.outsideSchedule || facts.quietHours || facts.control) {
        return {decideLink(facts), facts.control};
    }
    const std::string campaign = std::to_string(link.campaign);
    facts.perDeviceCap = link.perDeviceCap;
    if (link.perDeviceCap) {
        facts.liveLinks = count(db, "SELECT count(*) FROM device_events WHERE device = " + who +
                                        " AND campaign = " + campaign + " AND cleared_at IS NULL");
    }
    // Only what reached the device counts toward a cap: held-back links were never seen.
    const std::string delivered =
        "SELECT count(*) FROM device_events WHERE device = " + who + " AND NOT suppressed";
    facts.caps = &rules.caps;
    for (const FrequencyCap& cap : rules.caps) {
        facts.deliveredInCap.push_back(count(db, delivered + " AND campaign = " + campaign +
                                                     " AND created_at > " +
                                                     seconds(now - static_cast<double>(cap.seconds))));
    }
    facts.dailyOfferCap = appRules.dailyOfferCap;
    if (appRules.dailyOfferCap) {
        facts.deliveredToday = count(db, delivered + " AND created_at > " + seconds(now - 86400));
    }
    return {decideLink(facts), false};
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
