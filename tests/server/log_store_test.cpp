#include "store/log_store.h"

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <atomic>
#include <chrono>
#include <optional>
#include <thread>
#include <vector>

#include "store/postgres/pg_connection.h"
#include "test_support.h"

namespace tovrel::server::test {
namespace {

class LogStores : public StoreTest {};

// Holds log_messages locked for writing from a connection of its own until destroyed.
class TableLock {
  public:
    explicit TableLock(const std::string& location) {
        if (location.rfind("postgresql://", 0) == 0) {
            pg_.emplace(location, 5000);
            pg_->exec("BEGIN");
            pg_->exec("LOCK TABLE log_messages IN EXCLUSIVE MODE");
        } else {
            sqlite3_open(location.c_str(), &sqlite_);
            sqlite3_exec(sqlite_, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr);
        }
    }
    ~TableLock() {
        if (pg_) {
            pg_->exec("COMMIT");
        } else {
            sqlite3_exec(sqlite_, "COMMIT", nullptr, nullptr, nullptr);
            sqlite3_close(sqlite_);
        }
    }
    TableLock(const TableLock&) = delete;
    TableLock& operator=(const TableLock&) = delete;

  private:
    std::optional<PgConnection> pg_;
    sqlite3* sqlite_ = nullptr;
};

TEST_P(LogStores, MessagesArrivingTogetherShareACommitAndABadOneFailsAlone) {
    const TempDir dir;
    const std::string location = newDatabase(dir);
    const auto logs = openLogStore(location);
    executeSql(location,
               GetParam() == StoreKind::sqlite
                   ? "CREATE TRIGGER refused BEFORE INSERT ON log_messages WHEN NEW.event_name = "
                     "'refused' BEGIN SELECT RAISE(ABORT, 'refused'); END"
                   : "ALTER TABLE log_messages ADD CONSTRAINT refused CHECK (event_name <> 'refused')");
    constexpr int kThreads = 16;
    constexpr int kEach = 25;
    std::atomic<int> refused{0};
    // The first commit waits for this lock, so that the other threads' first messages queue behind it.
    auto lock = std::make_unique<TableLock>(location);
    writeTogether(
        kThreads, kEach, [&] { lock.reset(); },
        [&](int n) {
            try {
                logs->add(LogMessage{"D" + std::to_string(n), n == 13 ? "refused" : "e", "{}", 1e9 + n});
            } catch (const std::exception&) {
                ++refused;
            }
        });
    // Every message but the refused one is there, though it shared a transaction with it.
    EXPECT_EQ(refused, 1);
    EXPECT_EQ(logs->countsByEvent(), (std::map<std::string, int64_t>{{"e", kThreads * kEach - 1}}));
    EXPECT_EQ(logs->ofDevice("D12", true)["messages"].size(), 1u);
    EXPECT_EQ(logs->ofDevice("D13", true)["messages"].size(), 0u);
    const auto counts = logs->counts();
    EXPECT_EQ(counts.writes, std::size_t{kThreads * kEach});
    EXPECT_LE(counts.commits, counts.writes - (kThreads - 2))
        << "messages queued together did not share a commit";
}

TOVREL_ON_BOTH_STORES(LogStores);

}  // namespace
}  // namespace tovrel::server::test
