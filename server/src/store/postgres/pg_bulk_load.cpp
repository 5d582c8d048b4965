#include "store/postgres/pg_bulk_load.h"

namespace tovrel::server {
namespace {

constexpr const char* kEmpty =
    "SELECT NOT EXISTS (SELECT 1 FROM offers) AND NOT EXISTS (SELECT 1 FROM places) AND NOT EXISTS "
    "(SELECT 1 FROM place_offers)";

// What to drop and how to make it again, read from the schema as it is: foreign keys dropped first,
// and made again last, once the indexes their checks use are back.
constexpr const char* kDropped =
    "SELECT 'ALTER TABLE ' || c.conrelid::regclass || ' DROP CONSTRAINT ' || quote_ident(c.conname), "
    "'ALTER TABLE ' || c.conrelid::regclass || ' ADD CONSTRAINT ' || quote_ident(c.conname) || ' ' || "
    "pg_get_constraintdef(c.oid), 1 FROM pg_constraint c WHERE c.contype = 'f' AND c.conrelid IN "
    "('offers'::regclass, 'places'::regclass, 'place_offers'::regclass) UNION ALL SELECT 'DROP INDEX ' || "
    "i.indexrelid::regclass, pg_get_indexdef(i.indexrelid), 0 FROM pg_index i WHERE i.indrelid IN "
    "('offers'::regclass, 'places'::regclass, 'place_offers'::regclass) AND NOT i.indisunique ORDER BY 3 "
    "DESC";

}  // namespace

std::optional<PgBulkLoad> PgBulkLoad::begin(PgConnection& conn) {
    // Asked before the lock too: an import into a catalogue in use must not hold its readers back.
    if (!conn.exec(kEmpty).boolean(0, 0)) {
        return std::nullopt;
    }
    conn.exec("LOCK TABLE offers, places, place_offers IN ACCESS EXCLUSIVE MODE");
    if (!conn.exec(kEmpty).boolean(0, 0)) {
        return std::nullopt;
    }
    const PgResult dropped = conn.exec(kDropped);
    std::vector<std::string> restore;
    for (int i = 0; i < dropped.rows(); ++i) {
        conn.exec(dropped.text(i, 0));
        restore.push_back(dropped.text(i, 1));
    }
    return PgBulkLoad(conn, std::move(restore));
}

void PgBulkLoad::finish() {
    // In the reverse of the order dropped.
    for (auto sql = restore_.rbegin(); sql != restore_.rend(); ++sql) {
        conn_->exec(*sql);
    }
    restore_.clear();
}

}  // namespace tovrel::server
