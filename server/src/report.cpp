#include "report.h"

#include <algorithm>
#include <cstdint>
#include <map>
#include <sstream>
#include <string_view>

#include "database.h"

namespace tovrel_server {

Report readReport(Database& db) {
    Report report;
    std::map<int64_t, std::size_t> index;
    Statement offers = db.prepare(
        "SELECT o.id, o.event_name, c.name, (SELECT COUNT(*) FROM device_events e WHERE e.offer = o.id) "
        "FROM offers o JOIN campaigns c ON c.id = o.campaign ORDER BY o.id");
    while (offers.step()) {
        index[offers.integer(0)] = report.offers.size();
        report.offers.push_back(
            OfferReport{offers.integer(0), offers.text(1), offers.text(2), offers.integer(3)});
    }
    Statement statuses = db.prepare(
        "SELECT e.offer, s.status, COUNT(DISTINCT s.device_event) FROM device_event_status s "
        "JOIN device_events e ON e.id = s.device_event GROUP BY e.offer, s.status");
    while (statuses.step()) {
        const auto it = index.find(statuses.integer(0));
        if (it == index.end()) {
            continue;
        }
        OfferReport& row = report.offers[it->second];
        const std::string status = statuses.text(1);
        const int64_t n = statuses.integer(2);
        if (status == "ack") {
            row.ack = n;
        } else if (status == "seen") {
            row.seen = n;
        } else if (status == "saved") {
            row.saved = n;
        } else if (status == "declined") {
            row.declined = n;
        }
    }
    Statement logs = db.prepare("SELECT event_name, COUNT(*) FROM log_messages GROUP BY event_name");
    while (logs.step()) {
        report.logCounts[logs.text(0)] = logs.integer(1);
    }
    return report;
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

}  // namespace tovrel_server
