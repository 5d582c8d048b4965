#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "common/commit_queue.h"
#include "store/sql_source.h"
#include "store/store.h"

namespace tovrel::server {

/// A diagnostics message as a device sent it.
struct LogMessage {
    std::string deviceId;
    std::string eventName;
    std::string text;  ///< the message's JSON text as received
    double receivedAt = 0;
};

/// Where diagnostics messages are kept: a database of their own (`--log-db`) or the service's (then in
/// a table no other write touches, on connections of their own). Messages that arrive together are
/// written in one transaction, so diagnostics never queue behind the service's other writes, nor those
/// behind them. Kept by UTC day: today and the days before it, StoreOptions::logRetentionDays in all.
/// Thread-safe. Every operation throws DatabaseBusy when the database cannot take it now (nothing was
/// written), std::runtime_error on other failures.
class LogStore {
  public:
    /// The most messages one transaction takes.
    static constexpr std::size_t kMostMessages = 2000;

    /// Transactions take at most `mostPerCommit` messages (1: each commits alone).
    explicit LogStore(std::size_t mostPerCommit);
    virtual ~LogStore() = default;
    LogStore(const LogStore&) = delete;
    LogStore& operator=(const LogStore&) = delete;

    /// The store's kind, for logs: "sqlite" or "postgresql".
    virtual std::string kind() const = 0;
    /// Keeps the message and returns once the transaction that holds it committed, shared with the
    /// messages that arrived meanwhile. When that transaction fails, each of its messages is written
    /// again alone: one bad message cannot fail its neighbours. Any thread.
    void add(LogMessage message);
    /// Starts add() and returns at once; `written` hears of it as add() would have returned or thrown.
    /// False when messages commit one at a time, or `launch` was needed and refused: then nothing was
    /// started. Any thread.
    bool start(LogMessage message, WriteDone written, Launch launch);
    /// Whether messages that arrive together share a commit (so that start() can take them). Any thread.
    bool sharesCommits() const { return grouped_; }

    /// The device's messages: {"count", "byEvent": {name: count}} and, when `withMessages`, "messages":
    /// [{"eventName", "receivedAt", "message"}] in the order received. Any thread.
    nlohmann::json ofDevice(const std::string& deviceId, bool withMessages);
    /// The device's messages received in [from, to) (received at, text), oldest first, at most `limit`.
    /// Any thread.
    std::vector<std::pair<double, std::string>> between(const std::string& deviceId, double from, double to,
                                                        int limit);
    /// Removes the device's messages; returns how many. Any thread.
    int64_t erase(const std::string& deviceId);
    /// Removes at most `limit` messages received before `before`, oldest first. Any thread.
    int64_t prune(double before, int limit);
    /// When the oldest message kept was received; nullopt when there is none. Any thread.
    std::optional<double> oldest();
    /// Messages kept per event name. Any thread.
    std::map<std::string, int64_t> countsByEvent();
    /// Transactions that wrote messages, and the messages they held, so far. Any thread.
    CommitQueue<LogMessage>::Counts counts() const { return queue_.counts(); }
    /// True when the database answers a read now; waits at most the busy timeout. Any thread.
    virtual bool reachable() = 0;

  protected:
    /// Writes `messages` in one transaction, all or nothing, after removing the days past retention when
    /// they start a new day. One call at a time.
    virtual void append(std::span<const LogMessage* const> messages) = 0;
    /// Runs `work` in one transaction, committed when it returns and rolled back when it throws; one
    /// snapshot of what was committed before it when `reading`, which then writes nothing. Any thread.
    virtual void transact(const std::function<void(const SqlSource&)>& work, bool reading) = 0;

  private:
    using Entry = CommitQueue<LogMessage>::Entry;
    void commit(std::span<Entry* const> batch);

    const bool grouped_;
    CommitQueue<LogMessage> queue_;
};

/// Opens the log store at `location` (an SQLite file, ":memory:", or a postgresql:// address) and creates
/// its table unless it exists. At the service's own location it shares the service's database. Messages
/// share commits unless options.groupCommit is false. Throws std::runtime_error.
std::unique_ptr<LogStore> openLogStore(const std::string& location, const StoreOptions& options = {});

}  // namespace tovrel::server
