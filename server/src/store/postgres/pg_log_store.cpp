#include "store/postgres/pg_log_store.h"

#include <algorithm>

#include "common/utc_time.h"

namespace tovrel::server {

namespace {

// The same table as the service's own schema makes, for a database that holds diagnostics alone.
constexpr const char* kLogSchema = R"sql(
CREATE TABLE IF NOT EXISTS log_messages(
    id bigserial,
    device_id text NOT NULL,
    event_name text NOT NULL,
    message text NOT NULL,
    received_at double precision NOT NULL,
    day date NOT NULL,
    PRIMARY KEY(id, day)) PARTITION BY RANGE(day);
CREATE INDEX IF NOT EXISTS log_messages_event ON log_messages(event_name);
CREATE INDEX IF NOT EXISTS log_messages_device ON log_messages(device_id);
)sql";

// Held while the table is made, so that replicas starting together do not race to make it.
constexpr const char* kSchemaLock = "7413602214";

}  // namespace

PgLogStore::PgLogStore(const std::string& location, const StoreOptions& options)
    : LogStore(options.groupCommit ? kMostMessages : 1),
      options_(options),
      pool_(location, options.busyTimeoutMs, kPoolSize) {
    try {
        auto conn = pool_.acquire();
        PgTransaction tx(*conn);
        conn->exec(std::string("SELECT pg_advisory_xact_lock(") + kSchemaLock + ")");
        conn->exec(kLogSchema);
        tx.commit();
    } catch (const std::exception& e) {
        throw std::runtime_error("cannot use log database " + displayLocation(location) + ": " + e.what());
    }
}

void PgLogStore::ensurePartition(PgConnection& conn, double seconds) {
    const int64_t dayNumber = utcDayNumber(seconds);
    {
        platform::Lock lock(partitionsMutex_);
        if (partitions_.contains(dayNumber)) {
            return;
        }
    }
    const std::string day = utcDay(seconds);
    std::string name = "log_messages_" + day;
    std::erase(name, '-');
    try {
        conn.exec("CREATE TABLE IF NOT EXISTS " + name + " PARTITION OF log_messages FOR VALUES FROM ('" +
                  day + "') TO (date '" + day + "' + 1)");
    } catch (const PgError& e) {
        // Another replica created it at the same moment.
        if (e.sqlState() != "42P07" && e.sqlState() != "23505") {
            throw;
        }
    }
    if (options_.logRetentionDays > 0) {
        const std::string oldestKept =
            utcDay(static_cast<double>(dayNumber - options_.logRetentionDays + 1) * 86400);
        const PgResult old = conn.exec(
            "SELECT c.relname FROM pg_inherits i JOIN pg_class c ON c.oid = i.inhrelid WHERE i.inhparent = "
            "'log_messages'::regclass AND c.relname ~ '^log_messages_[0-9]{8}$' AND "
            "to_date(substr(c.relname, 14), 'YYYYMMDD') < $1::date",
            oldestKept);
        for (int i = 0; i < old.rows(); ++i) {
            conn.exec("DROP TABLE IF EXISTS " + old.text(i, 0));
        }
    }
    platform::Lock lock(partitionsMutex_);
    partitions_.insert(dayNumber);
}

void PgLogStore::append(std::span<const LogMessage* const> messages) {
    auto conn = pool_.acquire();
    int64_t lastDay = -1;
    for (const LogMessage* message : messages) {
        if (const int64_t day = utcDayNumber(message->receivedAt); day != lastDay) {
            ensurePartition(*conn, message->receivedAt);
            lastDay = day;
        }
    }
    // A copy costs more than an insert until it carries a few rows.
    if (messages.size() == 1) {
        const LogMessage& m = *messages.front();
        conn->exec(
            "INSERT INTO log_messages(device_id, event_name, message, received_at, day) VALUES($1, $2, "
            "$3, $4, $5)",
            m.deviceId, m.eventName, m.text, m.receivedAt, utcDay(m.receivedAt));
        return;
    }
    PgTransaction tx(*conn);
    PgCopy copy(*conn, "COPY log_messages(device_id, event_name, message, received_at, day) FROM STDIN");
    for (const LogMessage* message : messages) {
        copy.field(message->deviceId)
            .field(message->eventName)
            .field(message->text)
            .field(message->receivedAt)
            .field(utcDay(message->receivedAt));
        copy.endRow();
    }
    copy.finish();
    tx.commit();
}

void PgLogStore::transact(const std::function<void(const SqlSource&)>& work, bool reading) {
    auto conn = pool_.acquire();
    PgTransaction tx(*conn, reading ? "BEGIN ISOLATION LEVEL REPEATABLE READ READ ONLY" : "BEGIN");
    work(pgSource(*conn));
    tx.commit();
}

bool PgLogStore::reachable() {
    return pool_.reachable();
}

}  // namespace tovrel::server
