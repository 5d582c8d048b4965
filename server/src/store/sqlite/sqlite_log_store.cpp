#include "store/sqlite/sqlite_log_store.h"

#include "store/report.h"

namespace tovrel::server {

namespace {

// The same table as the service's own schema makes, for a file that holds diagnostics alone.
constexpr const char* kLogSchema = R"sql(
CREATE TABLE IF NOT EXISTS log_messages(
    id INTEGER PRIMARY KEY,
    device_id TEXT NOT NULL,
    event_name TEXT NOT NULL,
    message TEXT NOT NULL,
    received_at REAL NOT NULL);
CREATE INDEX IF NOT EXISTS log_messages_event ON log_messages(event_name);
CREATE INDEX IF NOT EXISTS log_messages_device ON log_messages(device_id);
)sql";

}  // namespace

SqliteLogStore::SqliteLogStore(const std::string& location, const StoreOptions& options)
    : LogStore(options.groupCommit ? kMostMessages : 1),
      options_(options),
      db_(location, options.busyTimeoutMs, false) {
    platform::Lock lock(mutex_);
    try {
        db_.exec(kLogSchema);
    } catch (const std::exception& e) {
        throw std::runtime_error("cannot use log database " + location + ": " + e.what());
    }
}

void SqliteLogStore::append(std::span<const LogMessage* const> messages) {
    platform::Lock lock(mutex_);
    Transaction tx(db_);
    const int64_t day = utcDayNumber(messages.back()->receivedAt);
    if (options_.logRetentionDays > 0 && day != logDay_) {
        const double oldestKept = static_cast<double>(day - options_.logRetentionDays + 1) * 86400;
        db_.prepare("DELETE FROM log_messages WHERE received_at < ?").with(oldestKept).run();
    }
    for (const LogMessage* message : messages) {
        db_.prepare(
               "INSERT INTO log_messages(device_id, event_name, message, received_at) VALUES(?, ?, ?, ?)")
            .with(message->deviceId, message->eventName, message->text, message->receivedAt)
            .run();
    }
    tx.commit();
    logDay_ = day;
}

void SqliteLogStore::transact(const std::function<void(const SqlSource&)>& work, bool reading) {
    platform::Lock lock(mutex_);
    Transaction tx(db_, reading ? Transaction::Kind::read : Transaction::Kind::write);
    work(sqliteSource(db_));
    tx.commit();
}

bool SqliteLogStore::reachable() {
    try {
        platform::Lock lock(mutex_);
        return db_.prepare("SELECT 1").step();
    } catch (const std::exception&) {
        return false;
    }
}

}  // namespace tovrel::server
