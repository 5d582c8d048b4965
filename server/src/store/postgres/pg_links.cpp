#include <algorithm>
#include <numeric>
#include <string>
#include <vector>

#include "store/link_suppression.h"
#include "store/postgres/pg_change_feed.h"
#include "store/postgres/pg_store.h"
#include "store/webhook_store.h"

namespace tovrel::server {
namespace {

// Taken before the context is read: under READ COMMITTED the statements after the lock see what the
// replica that held it last committed, so replicas linking one device count each other's links.
constexpr const char* kLockDevice = "SELECT 1 FROM devices WHERE id = $1 FOR UPDATE";

// Everything a link's verdict reads, and its id when it is new: the live link of the same offer and
// place if there is one, the device's app, the control group's key, and the counts of its caps (the
// deliveries in each window starting at $5's times, in order, and since $6).
constexpr const char* kLinkContext =
    "SELECT d.device_id, coalesce(a.rules, ''), (SELECT value FROM settings WHERE name = "
    "'control_group_key'), l.id, l.suppressed, l.suppressed_by, (SELECT count(*) FROM device_events WHERE "
    "device = $1 AND campaign = $4 AND cleared_at IS NULL), array_to_string(ARRAY(SELECT (SELECT count(*) "
    "FROM device_events WHERE device = $1 AND NOT suppressed AND campaign = $4 AND created_at > c.t) FROM "
    "unnest(CAST($5 AS double precision[])) WITH ORDINALITY AS c(t, n) ORDER BY c.n), ','), (SELECT "
    "count(*) FROM device_events WHERE device = $1 AND NOT suppressed AND created_at > $6), CASE WHEN l.id "
    "IS NULL THEN nextval(pg_get_serial_sequence('device_events', 'id')) END FROM devices d LEFT JOIN apps "
    "a ON a.key = d.app_key LEFT JOIN LATERAL (SELECT id, suppressed, suppressed_by FROM device_events "
    "WHERE device = $1 AND offer = $2 AND place = $3 AND cleared_at IS NULL) l ON true WHERE d.id = $1";

// A link's statements find rows by key, whatever the values: planned once per connection, not at every
// execution, where planning was most of a link's cost to PostgreSQL.
constexpr const char* kBeginLinks = "BEGIN; SET LOCAL plan_cache_mode = force_generic_plan";

constexpr const char* kInsertLink =
    "INSERT INTO device_events(id, device, offer, place, campaign, suppressed, suppressed_by, control_group, "
    "created_at) OVERRIDING SYSTEM VALUE VALUES($1, $2, $3, $4, $5, $6, $7, $8, $9)";

std::vector<int64_t> counts(const std::string& list) {
    std::vector<int64_t> out;
    for (std::size_t at = 0; at < list.size();) {
        const std::size_t comma = std::min(list.find(',', at), list.size());
        out.push_back(std::stoll(list.substr(at, comma - at)));
        at = comma + 1;
    }
    return out;
}

LinkContext contextFrom(const PgResult& r) {
    LinkContext context;
    context.deviceId = r.text(0, 0);
    context.appRules = r.text(0, 1);
    if (!r.isNull(0, 2)) {
        context.controlGroupKey = r.text(0, 2);
    }
    context.liveInCampaign = r.integer(0, 6);
    context.deliveredInCap = counts(r.text(0, 7));
    context.deliveredToday = r.integer(0, 8);
    return context;
}

}  // namespace

LinkRow PgStore::addLink(int64_t device, const NewLink& link, double now) {
    auto conn = pool_.acquire();
    PgTransaction tx(*conn, kBeginLinks);
    const LinkRequest request{device, &link};
    const LinkRow row = addLinksOn(*conn, {&request, 1}, now).front();
    tx.commit();
    return row;
}

std::vector<LinkResult> PgStore::addLinks(std::span<const LinkRequest> links, double now) {
    if (!group_ || links.size() < 2) {
        return Store::addLinks(links, now);
    }
    std::vector<LinkRow> rows;
    try {
        auto conn = pool_.acquire();
        PgTransaction tx(*conn, kBeginLinks);
        rows = addLinksOn(*conn, links, now);
        tx.commit();
        group_->countCommit(links.size());
    } catch (...) {
        // Rare (an erased device, a lost connection): the batch rolled back, each link goes again alone.
        return Store::addLinks(links, now);
    }
    return {rows.begin(), rows.end()};
}

std::vector<LinkRow> PgStore::addLinksOn(PgConnection& conn, std::span<const LinkRequest> links, double now) {
    // Devices locked in ascending order: two replicas' batches wait for each other, never deadlock.
    std::vector<std::size_t> pending(links.size());
    std::iota(pending.begin(), pending.end(), std::size_t{0});
    std::stable_sort(pending.begin(), pending.end(),
                     [&](std::size_t a, std::size_t b) { return links[a].device < links[b].device; });
    std::vector<LinkRow> rows(links.size());
    // Two round trips a round, whatever the round holds: every device's row locked and its context
    // read, then every new link written. A device linked twice goes again in the next round, whose
    // counts see its first link.
    while (!pending.empty()) {
        std::vector<std::size_t> round;
        std::vector<std::size_t> later;
        for (const std::size_t i : pending) {
            (!round.empty() && links[round.back()].device == links[i].device ? later : round).push_back(i);
        }
        std::vector<PgStatement> reads;
        reads.reserve(2 * round.size());
        for (const std::size_t i : round) {
            const LinkRequest& r = links[i];
            reads.push_back(statement(kLockDevice, r.device));
            reads.push_back(PgStatement{
                kLinkContext,
                {pgParam(r.device), pgParam(r.link->offer), pgParam(r.link->place), pgParam(r.link->campaign),
                 numberArray(capWindowStarts(*r.link, now)), pgParam(fatigueWindowStart(now))}});
        }
        const std::vector<PgResult> read = conn.execPipelined(statementPointers(reads));
        std::vector<PgStatement> writes;
        for (std::size_t k = 0; k < round.size(); ++k) {
            const std::size_t i = round[k];
            const LinkRequest& r = links[i];
            const PgResult& context = read[2 * k + 1];
            if (read[2 * k].rows() == 0 || context.rows() == 0) {
                throw DeviceGone("the device was erased");
            }
            if (!context.isNull(0, 3)) {
                rows[i] = LinkRow{context.integer(0, 3), r.link->offer,
                                  r.link->place,         r.link->campaign,
                                  context.boolean(0, 4), suppressionFrom(context.text(0, 5))};
                continue;
            }
            const LinkVerdict verdict = linkVerdict(*r.link, contextFrom(context), now);
            const bool suppressed = verdict.reason != Suppression::none;
            rows[i] = LinkRow{context.integer(0, 9), r.link->offer, r.link->place,
                              r.link->campaign,      suppressed,    verdict.reason};
            writes.push_back(statement(
                kInsertLink, rows[i].id, r.device, r.link->offer, r.link->place, r.link->campaign, suppressed,
                std::string(suppressionName(verdict.reason)), verdict.control ? 1 : 0, now));
            OutboxInsert outbox = outboxInsert(visitLinked(r.device, rows[i], r.link->campaignName), now);
            writes.push_back(PgStatement{numberedParameters(outbox.sql), std::move(outbox.params)});
            writes.push_back(deviceChanged(r.device));
        }
        if (!writes.empty()) {
            conn.execPipelined(statementPointers(writes));
        }
        pending = std::move(later);
    }
    return rows;
}

PgStatement PgStore::deviceChanged(int64_t device) const {
    return statement("SELECT pg_notify($1, $2)", std::string(kDeviceChannel),
                     std::to_string(device) + ' ' + origin_);
}

void PgStore::notifyDeviceChanged(PgConnection& conn, int64_t device) {
    const PgStatement notify = deviceChanged(device);
    conn.execParams(notify.sql, notify.params);
}

}  // namespace tovrel::server
