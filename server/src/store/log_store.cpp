#include "store/log_store.h"

#include <algorithm>
#include <exception>

#include "store/postgres/pg_log_store.h"
#include "store/sqlite/sqlite_log_store.h"

namespace tovrel::server {

using nlohmann::json;

namespace {

// The message as the device sent it: JSON when it parses (it was checked on the way in), text otherwise.
json messageJson(const std::string& text) {
    json parsed = json::parse(text, nullptr, false);
    return parsed.is_discarded() ? json(text) : parsed;
}

double seconds(const std::string& text) {
    return text.empty() ? 0 : std::stod(text);
}

}  // namespace

LogStore::LogStore(std::size_t mostPerCommit)
    : grouped_(mostPerCommit > 1),
      queue_(mostPerCommit, [this](std::span<Entry* const> batch) { commit(batch); }) {}

void LogStore::add(LogMessage message) {
    queue_.submit(std::move(message));
}

bool LogStore::start(LogMessage message, WriteDone written, Launch launch) {
    return grouped_ && queue_.submit(std::move(message), std::move(written), std::move(launch));
}

void LogStore::commit(std::span<Entry* const> batch) {
    std::vector<const LogMessage*> messages;
    messages.reserve(batch.size());
    for (const Entry* entry : batch) {
        messages.push_back(&entry->item);
    }
    try {
        append(messages);
        return;
    } catch (...) {
        if (batch.size() == 1) {
            throw;
        }
    }
    for (Entry* entry : batch) {
        try {
            const LogMessage* one = &entry->item;
            append({&one, 1});
        } catch (...) {
            entry->error = std::current_exception();
        }
    }
}

json LogStore::ofDevice(const std::string& deviceId, bool withMessages) {
    json logs = {{"count", 0}, {"byEvent", json::object()}};
    transact(
        [&](const SqlSource& source) {
            int64_t count = 0;
            for (const auto& r :
                 source.query("SELECT event_name, COUNT(*) FROM log_messages WHERE device_id = ? "
                              "GROUP BY event_name ORDER BY 1",
                              {deviceId})) {
                logs["byEvent"][r[0]] = std::stoll(r[1]);
                count += std::stoll(r[1]);
            }
            logs["count"] = count;
            if (withMessages) {
                json& messages = logs["messages"] = json::array();
                for (const auto& r : source.query("SELECT event_name, received_at, message FROM log_messages "
                                                  "WHERE device_id = ? ORDER BY id",
                                                  {deviceId})) {
                    messages.push_back(
                        {{"eventName", r[0]}, {"receivedAt", seconds(r[1])}, {"message", messageJson(r[2])}});
                }
            }
        },
        true);
    return logs;
}

std::vector<std::pair<double, std::string>> LogStore::between(const std::string& deviceId, double from,
                                                              double to, int limit) {
    std::vector<std::pair<double, std::string>> messages;
    transact(
        [&](const SqlSource& source) {
            for (const auto& r :
                 source.query("SELECT received_at, message FROM log_messages WHERE device_id = ? AND "
                              "received_at >= CAST(? AS DOUBLE PRECISION) AND received_at < CAST(? AS DOUBLE "
                              "PRECISION) "
                              "ORDER BY received_at, id LIMIT " +
                                  std::to_string(std::max(0, limit)),
                              {deviceId, sqlNumber(from), sqlNumber(to)})) {
                messages.emplace_back(std::stod(r[0]), r[1]);
            }
        },
        true);
    return messages;
}

int64_t LogStore::erase(const std::string& deviceId) {
    int64_t removed = 0;
    transact(
        [&](const SqlSource& source) {
            removed = static_cast<int64_t>(
                source.query("DELETE FROM log_messages WHERE device_id = ? RETURNING 1", {deviceId}).size());
        },
        false);
    return removed;
}

int64_t LogStore::prune(double before, int limit) {
    int64_t removed = 0;
    transact(
        [&](const SqlSource& source) {
            const std::string cutoff = sqlNumber(before).value_or("0");
            removed = source.run(
                "DELETE FROM log_messages WHERE id IN (SELECT id FROM log_messages WHERE received_at < " +
                cutoff + " ORDER BY id LIMIT " + std::to_string(std::max(1, limit)) + ")");
        },
        false);
    return removed;
}

std::optional<double> LogStore::oldest() {
    std::optional<double> at;
    transact(
        [&](const SqlSource& source) {
            // Ids grow with time: the first row is the oldest, read from the key alone.
            const auto rows = source.rows("SELECT received_at FROM log_messages ORDER BY id LIMIT 1");
            if (!rows.empty() && !rows[0][0].empty()) {
                at = std::stod(rows[0][0]);
            }
        },
        true);
    return at;
}

std::map<std::string, int64_t> LogStore::countsByEvent() {
    std::map<std::string, int64_t> counts;
    transact(
        [&](const SqlSource& source) {
            for (const auto& r :
                 source.rows("SELECT event_name, COUNT(*) FROM log_messages GROUP BY event_name")) {
                counts[r[0]] = std::stoll(r[1]);
            }
        },
        true);
    return counts;
}

std::unique_ptr<LogStore> openLogStore(const std::string& location, const StoreOptions& options) {
    if (isPostgresLocation(location)) {
        return std::make_unique<PgLogStore>(location, options);
    }
    return std::make_unique<SqliteLogStore>(location, options);
}

}  // namespace tovrel::server
