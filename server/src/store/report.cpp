#include "store/report.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <map>
#include <sstream>
#include <string_view>

#include "store/sqlite/database.h"

namespace tovrel::server {

namespace {

void addCount(FunnelCounts& counts, const std::string& kind, int64_t n) {
    if (kind == "link") {
        counts.links += n;
    } else if (kind == "ack") {
        counts.ack += n;
    } else if (kind == "seen") {
        counts.seen += n;
    } else if (kind == "saved") {
        counts.saved += n;
    } else if (kind == "declined") {
        counts.declined += n;
    }
}

// Counts by `key` (offer or campaign), and by UTC day too when byDay, into rows[{day, id}]: the rows
// held, then the counts erased devices left behind.
void countEvents(const SqlSource& source, const std::string& key, bool byDay,
                 std::map<std::pair<std::string, int64_t>, FunnelCounts>& rows) {
    const std::string linkDay = byDay ? source.utcDay("e.created_at") : "''";
    const std::string statusDay = byDay ? source.utcDay("s.at") : "''";
    for (const auto& row :
         source.rows("SELECT " + linkDay + ", e." + key + ", COUNT(*) FROM device_events e GROUP BY 1, 2")) {
        addCount(rows[{row[0], std::stoll(row[1])}], "link", std::stoll(row[2]));
    }
    for (const auto& row :
         source.rows("SELECT " + statusDay + ", e." + key +
                     ", s.status, COUNT(DISTINCT s.device_event) FROM device_event_status s "
                     "JOIN device_events e ON e.id = s.device_event GROUP BY 1, 2, 3")) {
        addCount(rows[{row[0], std::stoll(row[1])}], row[2], std::stoll(row[3]));
    }
    for (const auto& row : source.rows("SELECT day, " + key + ", kind, SUM(count) FROM funnel_erased WHERE " +
                                       (byDay ? "day <> ''" : "day = ''") + " GROUP BY 1, 2, 3")) {
        addCount(rows[{row[0], std::stoll(row[1])}], row[2], std::stoll(row[3]));
    }
}

}  // namespace

namespace {

SqlRows allRows(Statement& st) {
    SqlRows rows;
    while (st.step()) {
        auto& row = rows.emplace_back();
        for (int i = 0; i < st.columns(); ++i) {
            row.push_back(st.text(i));
        }
    }
    return rows;
}

}  // namespace

SqlSource sqliteSource(Database& db) {
    // SQL without parameters spells its numbers: kept, it would push out the statements that come again.
    return SqlSource{[&db](const std::string& sql) {
                         Statement st = db.prepareOnce(sql);
                         return allRows(st);
                     },
                     [](const std::string& seconds) { return "date(" + seconds + ", 'unixepoch')"; },
                     [&db](const std::string& sql) {
                         db.prepareOnce(sql).run();
                         return db.changes();
                     },
                     "",
                     [&db](const std::string& sql, const std::vector<SqlParam>& params) {
                         Statement st = db.prepare(sql);
                         st.withTexts(params);
                         return allRows(st);
                     }};
}

Funnel readFunnel(Database& db, bool byDay) {
    return readFunnel(sqliteSource(db), byDay);
}

void liftOf(ControlComparison& c) {
    c.lift = c.liftLow = c.liftHigh = std::nullopt;
    if (c.exposed.returned == 0 || c.control.returned == 0) {
        return;
    }
    const auto rate = [](const GroupCounts& g) {
        return static_cast<double>(g.returned) / static_cast<double>(g.devices);
    };
    const double exposed = rate(c.exposed);
    const double control = rate(c.control);
    const double logRatio = std::log(exposed / control);
    const double error = std::sqrt((1 - exposed) / static_cast<double>(c.exposed.returned) +
                                   (1 - control) / static_cast<double>(c.control.returned));
    c.lift = exposed / control - 1;
    c.liftLow = std::exp(logRatio - 1.959964 * error) - 1;
    c.liftHigh = std::exp(logRatio + 1.959964 * error) - 1;
}

namespace {

// Exposed and held-out devices of every campaign that has held any out.
void readControlGroups(const SqlSource& source, Funnel& funnel) {
    std::map<int64_t, ControlComparison> byCampaign;
    const auto side = [&](const std::vector<std::string>& row) -> GroupCounts& {
        ControlComparison& c = byCampaign[std::stoll(row[0])];
        return row[1] == "0" ? c.exposed : c.control;
    };
    for (const auto& row : source.rows(
             "SELECT e.campaign, e.control_group, count(DISTINCT e.device), count(*), sum(CASE WHEN EXISTS("
             "SELECT 1 FROM device_event_status s WHERE s.device_event = e.id) THEN 1 ELSE 0 END) FROM "
             "device_events e WHERE e.campaign IN (SELECT campaign FROM device_events WHERE control_group = "
             "1) "
             "GROUP BY e.campaign, e.control_group")) {
        GroupCounts& g = side(row);
        g.devices = std::stoll(row[2]);
        g.visits = std::stoll(row[3]);
        g.answered = std::stoll(row[4]);
    }
    if (byCampaign.empty()) {
        return;
    }
    for (const auto& row : source.rows(
             "SELECT f.campaign, f.control_group, count(*) FROM (SELECT device, campaign, control_group, "
             "min(created_at) AS first FROM device_events WHERE campaign IN (SELECT campaign FROM "
             "device_events WHERE control_group = 1) GROUP BY device, campaign, control_group) f WHERE "
             "EXISTS("
             "SELECT 1 FROM device_events r WHERE r.device = f.device AND r.campaign = f.campaign AND "
             "r.created_at > f.first AND r.created_at <= f.first + 604800) GROUP BY f.campaign, "
             "f.control_group")) {
        side(row).returned = std::stoll(row[2]);
    }
    for (auto& [id, c] : byCampaign) {
        c.campaignId = id;
        for (const FunnelRow& row : funnel.campaigns) {
            if (row.campaignId == id) {
                c.campaignName = row.campaignName;
            }
        }
        liftOf(c);
        funnel.control.push_back(std::move(c));
    }
}

}  // namespace

Funnel readFunnel(const SqlSource& source, bool byDay) {
    Funnel funnel;
    std::map<int64_t, std::size_t> campaignIndex;
    for (const auto& row : source.rows("SELECT id, name FROM campaigns ORDER BY id")) {
        campaignIndex[std::stoll(row[0])] = funnel.campaigns.size();
        funnel.campaigns.push_back(FunnelRow{"", std::stoll(row[0]), row[1], 0, "", {}});
    }
    std::map<int64_t, std::size_t> offerIndex;
    for (const auto& row :
         source.rows("SELECT o.id, o.event_name, c.id, c.name FROM offers o JOIN campaigns c "
                     "ON c.id = o.campaign ORDER BY o.id")) {
        offerIndex[std::stoll(row[0])] = funnel.offers.size();
        funnel.offers.push_back(FunnelRow{"", std::stoll(row[2]), row[3], std::stoll(row[0]), row[1], {}});
    }

    std::map<std::pair<std::string, int64_t>, FunnelCounts> byCampaign;
    std::map<std::pair<std::string, int64_t>, FunnelCounts> byOffer;
    countEvents(source, "campaign", false, byCampaign);
    countEvents(source, "offer", false, byOffer);
    for (const auto& [key, counts] : byCampaign) {
        if (const auto it = campaignIndex.find(key.second); it != campaignIndex.end()) {
            funnel.campaigns[it->second].counts = counts;
        }
    }
    for (const auto& [key, counts] : byOffer) {
        if (const auto it = offerIndex.find(key.second); it != offerIndex.end()) {
            funnel.offers[it->second].counts = counts;
        }
    }
    readControlGroups(source, funnel);
    if (!byDay) {
        return funnel;
    }
    byCampaign.clear();
    byOffer.clear();
    countEvents(source, "campaign", true, byCampaign);
    countEvents(source, "offer", true, byOffer);
    for (const auto& [key, counts] : byCampaign) {
        FunnelRow row{key.first, key.second, "", 0, "", counts};
        if (const auto it = campaignIndex.find(key.second); it != campaignIndex.end()) {
            row.campaignName = funnel.campaigns[it->second].campaignName;
        }
        funnel.campaignDays.push_back(std::move(row));
    }
    for (const auto& [key, counts] : byOffer) {
        FunnelRow row{key.first, 0, "", key.second, "", counts};
        if (const auto it = offerIndex.find(key.second); it != offerIndex.end()) {
            const FunnelRow& offer = funnel.offers[it->second];
            row.campaignId = offer.campaignId;
            row.campaignName = offer.campaignName;
            row.eventName = offer.eventName;
        }
        funnel.offerDays.push_back(std::move(row));
    }
    return funnel;
}

Report readReport(Database& db) {
    Report report;
    for (const FunnelRow& o : readFunnel(db, false).offers) {
        report.offers.push_back(OfferReport{o.eventId, o.eventName, o.campaignName, o.counts.links,
                                            o.counts.ack, o.counts.seen, o.counts.saved, o.counts.declined});
    }
    return report;
}

nlohmann::json funnelJson(const Funnel& funnel) {
    const auto rows = [](const std::vector<FunnelRow>& list, bool offers) {
        nlohmann::json out = nlohmann::json::array();
        for (const FunnelRow& r : list) {
            nlohmann::json row;
            if (!r.day.empty()) {
                row["day"] = r.day;
            }
            if (offers) {
                row["eventId"] = r.eventId;
                row["eventName"] = r.eventName;
            }
            row["campaignId"] = r.campaignId;
            row["campaign"] = r.campaignName;
            row["links"] = r.counts.links;
            row["ack"] = r.counts.ack;
            row["seen"] = r.counts.seen;
            row["saved"] = r.counts.saved;
            row["declined"] = r.counts.declined;
            out.push_back(std::move(row));
        }
        return out;
    };
    nlohmann::json out{{"campaigns", rows(funnel.campaigns, false)}, {"offers", rows(funnel.offers, true)}};
    if (!funnel.control.empty()) {
        const auto group = [](const GroupCounts& g) {
            return nlohmann::json{{"devices", g.devices},
                                  {"visits", g.visits},
                                  {"answered", g.answered},
                                  {"returned", g.returned}};
        };
        const auto number = [](const std::optional<double>& v) {
            return v ? nlohmann::json(*v) : nlohmann::json();
        };
        nlohmann::json control = nlohmann::json::array();
        for (const ControlComparison& c : funnel.control) {
            control.push_back({{"campaignId", c.campaignId},
                               {"campaign", c.campaignName},
                               {"exposed", group(c.exposed)},
                               {"control", group(c.control)},
                               {"lift", number(c.lift)},
                               {"liftLow", number(c.liftLow)},
                               {"liftHigh", number(c.liftHigh)}});
        }
        out["control"] = std::move(control);
    }
    if (!funnel.campaignDays.empty() || !funnel.offerDays.empty()) {
        out["days"] = {{"campaigns", rows(funnel.campaignDays, false)},
                       {"offers", rows(funnel.offerDays, true)}};
    }
    return out;
}

namespace {

/// The columns `text` takes in a terminal: one per character, none for combining marks, two for wide
/// (East Asian, emoji) characters. Invalid UTF-8 counts a column a byte.
std::size_t displayWidth(std::string_view text) {
    std::size_t width = 0;
    for (std::size_t i = 0; i < text.size();) {
        const auto lead = static_cast<unsigned char>(text[i]);
        const std::size_t length = lead < 0x80    ? 1
                                   : lead >= 0xF0 ? 4
                                   : lead >= 0xE0 ? 3
                                   : lead >= 0xC0 ? 2
                                                  : 1;
        if (length == 1 || i + length > text.size()) {
            ++width;
            ++i;
            continue;
        }
        std::uint32_t c = lead & (0xFF >> (length + 1));
        for (std::size_t k = 1; k < length; ++k) {
            c = (c << 6) | (static_cast<unsigned char>(text[i + k]) & 0x3F);
        }
        i += length;
        const bool combining = (c >= 0x0300 && c <= 0x036F) || (c >= 0x1AB0 && c <= 0x1AFF) ||
                               (c >= 0x20D0 && c <= 0x20FF) || (c >= 0xFE20 && c <= 0xFE2F) || c == 0x200D ||
                               (c >= 0xFE00 && c <= 0xFE0F);
        const bool wide = (c >= 0x1100 && c <= 0x115F) || (c >= 0x2E80 && c <= 0xA4CF) ||
                          (c >= 0xAC00 && c <= 0xD7A3) || (c >= 0xF900 && c <= 0xFAFF) ||
                          (c >= 0xFF00 && c <= 0xFF60) || (c >= 0xFFE0 && c <= 0xFFE6) ||
                          (c >= 0x1F300 && c <= 0x1FAFF) || (c >= 0x20000 && c <= 0x3FFFD);
        width += combining ? 0 : wide ? 2 : 1;
    }
    return width;
}

// Columns padded to their widest cell (in terminal columns, not bytes); numbers right-aligned.
std::string table(const std::vector<std::vector<std::string>>& rows, std::size_t numericFrom) {
    std::vector<std::size_t> width;
    for (const auto& row : rows) {
        width.resize(std::max(width.size(), row.size()));
        for (std::size_t i = 0; i < row.size(); ++i) {
            width[i] = std::max(width[i], displayWidth(row[i]));
        }
    }
    std::ostringstream out;
    for (const auto& row : rows) {
        std::string line;
        for (std::size_t i = 0; i < row.size(); ++i) {
            const std::string pad(width[i] - displayWidth(row[i]), ' ');
            line += i >= numericFrom ? pad + row[i] : row[i] + pad;
            line += i + 1 < row.size() ? "  " : "";
        }
        out << line.substr(0, line.find_last_not_of(' ') + 1) << '\n';
    }
    return out.str();
}

}  // namespace

std::string formatReport(const Funnel& funnel, const std::map<std::string, int64_t>& logCounts) {
    const auto counts = [](std::vector<std::string> row, const FunnelCounts& c) {
        for (const int64_t n : {c.links, c.ack, c.seen, c.saved, c.declined}) {
            row.push_back(std::to_string(n));
        }
        return row;
    };
    std::vector<std::vector<std::string>> campaigns{
        {"campaign", "links", "ack", "seen", "saved", "declined"}};
    for (const FunnelRow& c : funnel.campaigns) {
        campaigns.push_back(counts({c.campaignName}, c.counts));
    }
    std::vector<std::vector<std::string>> offers{
        {"eventId", "campaign", "eventName", "links", "ack", "seen", "saved", "declined"}};
    for (const FunnelRow& o : funnel.offers) {
        offers.push_back(counts({std::to_string(o.eventId), o.campaignName, o.eventName}, o.counts));
    }
    std::string text = "Campaigns\n" + table(campaigns, 1) + "\nOffers\n" + table(offers, 3);
    if (!funnel.campaignDays.empty()) {
        std::vector<std::vector<std::string>> days{
            {"day", "campaign", "links", "ack", "seen", "saved", "declined"}};
        for (const FunnelRow& c : funnel.campaignDays) {
            days.push_back(counts({c.day, c.campaignName}, c.counts));
        }
        text += "\nCampaigns by day (UTC)\n" + table(days, 2);
    }
    if (!funnel.offerDays.empty()) {
        std::vector<std::vector<std::string>> days{
            {"day", "eventId", "eventName", "links", "ack", "seen", "saved", "declined"}};
        for (const FunnelRow& o : funnel.offerDays) {
            days.push_back(counts({o.day, std::to_string(o.eventId), o.eventName}, o.counts));
        }
        text += "\nOffers by day (UTC)\n" + table(days, 3);
    }
    std::vector<std::vector<std::string>> logs{{"log event", "messages"}};
    for (const auto& [name, count] : logCounts) {
        logs.push_back({name, std::to_string(count)});
    }
    return text + "\nLog messages\n" + table(logs, 1);
}

std::string formatReport(const Report& report) {
    std::vector<std::vector<std::string>> offers{
        {"eventId", "campaign", "eventName", "links", "ack", "seen", "saved", "declined"}};
    for (const OfferReport& o : report.offers) {
        offers.push_back({std::to_string(o.eventId), o.campaignName, o.eventName, std::to_string(o.links),
                          std::to_string(o.ack), std::to_string(o.seen), std::to_string(o.saved),
                          std::to_string(o.declined)});
    }
    std::vector<std::vector<std::string>> logs{{"log event", "messages"}};
    for (const auto& [name, count] : report.logCounts) {
        logs.push_back({name, std::to_string(count)});
    }
    return "Offers\n" + table(offers, 3) + "\nLog messages\n" + table(logs, 1);
}

std::string formatTable(const std::vector<std::vector<std::string>>& rows, std::size_t numericFrom) {
    return table(rows, numericFrom);
}

}  // namespace tovrel::server
