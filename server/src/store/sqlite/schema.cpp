#include <array>
#include <stdexcept>
#include <string>

#include "store/sqlite/database.h"

namespace tovrel::server {
namespace {

// Migration i brings a database from version i to version i + 1. Append only; never edit one
// that has shipped.
constexpr std::array<const char*, 8> kMigrations = {
    R"sql(
CREATE TABLE apps(
    key TEXT PRIMARY KEY,
    name TEXT NOT NULL,
    created_at REAL NOT NULL);
CREATE TABLE devices(
    id INTEGER PRIMARY KEY,
    device_id TEXT NOT NULL UNIQUE,
    device_type TEXT NOT NULL,
    device_model TEXT NOT NULL,
    app_key TEXT NOT NULL,
    first_seen REAL NOT NULL,
    last_seen REAL NOT NULL);
CREATE TABLE sessions(
    session_key TEXT PRIMARY KEY,
    device INTEGER NOT NULL REFERENCES devices(id),
    app_key TEXT NOT NULL,
    created_at REAL NOT NULL) WITHOUT ROWID;
CREATE TABLE campaigns(
    id INTEGER PRIMARY KEY,
    name TEXT NOT NULL UNIQUE,
    start_date TEXT NOT NULL,
    end_date TEXT NOT NULL,
    start_time REAL,
    end_time REAL,
    per_device_cap INTEGER);
CREATE TABLE places(
    id INTEGER PRIMARY KEY,
    name TEXT NOT NULL,
    lat REAL NOT NULL,
    lon REAL NOT NULL,
    radius REAL NOT NULL);
CREATE TABLE offers(
    id INTEGER PRIMARY KEY,
    campaign INTEGER NOT NULL REFERENCES campaigns(id),
    event_name TEXT NOT NULL,
    alert_text TEXT NOT NULL,
    media_type TEXT NOT NULL,
    media_url TEXT NOT NULL,
    tags TEXT NOT NULL,
    dwell_time INTEGER NOT NULL,
    event_type INTEGER NOT NULL);
CREATE TABLE place_offers(
    place INTEGER NOT NULL REFERENCES places(id),
    offer INTEGER NOT NULL REFERENCES offers(id),
    PRIMARY KEY(place, offer)) WITHOUT ROWID;
CREATE TABLE device_events(
    id INTEGER PRIMARY KEY,
    device INTEGER NOT NULL REFERENCES devices(id),
    offer INTEGER NOT NULL,
    place INTEGER NOT NULL,
    campaign INTEGER NOT NULL,
    suppressed INTEGER NOT NULL,
    created_at REAL NOT NULL,
    cleared_at REAL);
CREATE UNIQUE INDEX device_events_live ON device_events(device, offer, place) WHERE cleared_at IS NULL;
CREATE INDEX device_events_offer ON device_events(offer);
CREATE TABLE device_event_status(
    id INTEGER PRIMARY KEY,
    device_event INTEGER NOT NULL REFERENCES device_events(id),
    status TEXT NOT NULL,
    at REAL NOT NULL);
CREATE INDEX device_event_status_event ON device_event_status(device_event);
CREATE TABLE device_tags(
    device INTEGER NOT NULL REFERENCES devices(id),
    group_tag TEXT NOT NULL,
    tag TEXT NOT NULL,
    value TEXT NOT NULL,
    updated_at REAL NOT NULL,
    PRIMARY KEY(device, group_tag, tag)) WITHOUT ROWID;
CREATE TABLE log_messages(
    id INTEGER PRIMARY KEY,
    device_id TEXT NOT NULL,
    event_name TEXT NOT NULL,
    message TEXT NOT NULL,
    received_at REAL NOT NULL);
)sql",
    // Reports count log messages by event name; without this they scan the whole table.
    R"sql(
CREATE INDEX log_messages_event ON log_messages(event_name);
)sql",
    // Session keys are kept as their SHA-256 only (sha256_hex is the database's own function).
    R"sql(
ALTER TABLE sessions RENAME COLUMN session_key TO key_hash;
UPDATE sessions SET key_hash = sha256_hex(key_hash);
)sql",
    // Operators disable apps, campaigns, offers and places without losing what they counted.
    R"sql(
ALTER TABLE apps ADD COLUMN disabled INTEGER NOT NULL DEFAULT 0;
ALTER TABLE campaigns ADD COLUMN disabled INTEGER NOT NULL DEFAULT 0;
ALTER TABLE offers ADD COLUMN disabled INTEGER NOT NULL DEFAULT 0;
ALTER TABLE places ADD COLUMN disabled INTEGER NOT NULL DEFAULT 0;
)sql",
    // A device's data is looked up and erased by its rows, and old sessions found, without scanning
    // whole tables; the funnel keeps counting what erased or expired links did (by UTC day, and '' for
    // the totals).
    R"sql(
CREATE INDEX device_events_device ON device_events(device);
CREATE INDEX sessions_device ON sessions(device);
CREATE INDEX sessions_created ON sessions(created_at);
CREATE INDEX log_messages_device ON log_messages(device_id);
CREATE TABLE funnel_erased(
    day TEXT NOT NULL,
    campaign INTEGER NOT NULL,
    offer INTEGER NOT NULL,
    kind TEXT NOT NULL,
    count INTEGER NOT NULL);
)sql",
    // Campaign and app rules (JSON, '' for none); why a link was suppressed and whether its device is
    // in the campaign's control group; deliveries counted over rolling windows; the key that places devices
    // in control groups, the same for every replica.
    R"sql(
ALTER TABLE campaigns ADD COLUMN rules TEXT NOT NULL DEFAULT '';
ALTER TABLE apps ADD COLUMN rules TEXT NOT NULL DEFAULT '';
ALTER TABLE device_events ADD COLUMN suppressed_by TEXT NOT NULL DEFAULT '';
ALTER TABLE device_events ADD COLUMN control_group INTEGER NOT NULL DEFAULT 0;
CREATE INDEX device_events_delivered ON device_events(device, created_at) WHERE NOT suppressed;
CREATE TABLE settings(name TEXT PRIMARY KEY, value TEXT NOT NULL) WITHOUT ROWID;
INSERT INTO settings(name, value) VALUES('control_group_key', lower(hex(randomblob(32))));
)sql",
    // Webhook endpoints and their outbox: a message is written in the transaction of the write it
    // reports, one for each endpoint that takes its type, and leaves when a delivery thread claims it.
    R"sql(
CREATE TABLE webhook_endpoints(
    id INTEGER PRIMARY KEY AUTOINCREMENT,
    url TEXT NOT NULL,
    event_types TEXT NOT NULL DEFAULT '*',
    enabled INTEGER NOT NULL DEFAULT 1,
    include_device INTEGER NOT NULL DEFAULT 0,
    secret TEXT NOT NULL,
    previous_secret TEXT NOT NULL DEFAULT '',
    previous_until REAL NOT NULL DEFAULT 0,
    disabled_reason TEXT NOT NULL DEFAULT '',
    created_at REAL NOT NULL);
CREATE TABLE webhook_messages(
    id INTEGER PRIMARY KEY AUTOINCREMENT,
    message_id TEXT NOT NULL,
    endpoint INTEGER NOT NULL,
    type TEXT NOT NULL,
    device INTEGER,
    data TEXT NOT NULL,
    created_at REAL NOT NULL,
    next_attempt REAL NOT NULL,
    attempts INTEGER NOT NULL DEFAULT 0,
    state TEXT NOT NULL DEFAULT 'pending',
    claimed_until REAL NOT NULL DEFAULT 0,
    last_status INTEGER NOT NULL DEFAULT 0,
    ended_at REAL);
CREATE INDEX webhook_messages_due ON webhook_messages(next_attempt, id) WHERE state = 'pending';
CREATE INDEX webhook_messages_endpoint ON webhook_messages(endpoint, created_at);
CREATE INDEX webhook_messages_ended ON webhook_messages(ended_at) WHERE state <> 'pending';
CREATE TABLE webhook_attempts(
    id INTEGER PRIMARY KEY AUTOINCREMENT,
    message INTEGER NOT NULL,
    endpoint INTEGER NOT NULL,
    at REAL NOT NULL,
    status INTEGER NOT NULL,
    seconds REAL NOT NULL,
    error TEXT NOT NULL DEFAULT '');
CREATE INDEX webhook_attempts_endpoint ON webhook_attempts(endpoint, id);
)sql",
    // Named admin tokens, each with a role, kept as the SHA-256 of the token; the audit trail of the admin
    // API's changes; the key of the hashes that stand for device ids in it.
    R"sql(
CREATE TABLE admin_tokens(
    name TEXT PRIMARY KEY,
    role TEXT NOT NULL,
    token_hash TEXT NOT NULL UNIQUE,
    created_at REAL NOT NULL,
    created_by TEXT NOT NULL DEFAULT '');
CREATE TABLE audit_log(
    id INTEGER PRIMARY KEY AUTOINCREMENT,
    at REAL NOT NULL,
    token TEXT NOT NULL,
    action TEXT NOT NULL,
    item TEXT NOT NULL DEFAULT '',
    status INTEGER NOT NULL);
INSERT INTO settings(name, value) VALUES('audit_key', lower(hex(randomblob(32))));
)sql",
};

}  // namespace

int currentSchemaVersion() {
    return static_cast<int>(kMigrations.size());
}

void migrate(Database& db) {
    const int version = db.userVersion();
    if (version > currentSchemaVersion()) {
        throw std::runtime_error("the database has schema version " + std::to_string(version) +
                                 ", newer than this program's " + std::to_string(currentSchemaVersion()));
    }
    for (int v = version; v < currentSchemaVersion(); ++v) {
        Transaction tx(db);
        db.exec(kMigrations[static_cast<std::size_t>(v)]);
        db.exec("PRAGMA user_version = " + std::to_string(v + 1));
        tx.commit();
    }
}

}  // namespace tovrel::server
