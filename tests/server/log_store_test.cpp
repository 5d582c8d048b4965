#include "store/log_store.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "test_support.h"

namespace tovrel::server::test {
namespace {

class LogStores : public StoreTest {};

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
    std::atomic<int> ready{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            ++ready;
            while (ready < kThreads) {
                std::this_thread::yield();
            }
            for (int i = 0; i < kEach; ++i) {
                const int n = t * kEach + i;
                try {
                    logs->add(LogMessage{"D" + std::to_string(n), n == 13 ? "refused" : "e", "{}", 1e9 + n});
                } catch (const std::exception&) {
                    ++refused;
                }
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    // Every message but the refused one is there, though it shared a transaction with it.
    EXPECT_EQ(refused, 1);
    EXPECT_EQ(logs->countsByEvent(), (std::map<std::string, int64_t>{{"e", kThreads * kEach - 1}}));
    EXPECT_EQ(logs->ofDevice("D12", true)["messages"].size(), 1u);
    EXPECT_EQ(logs->ofDevice("D13", true)["messages"].size(), 0u);
    const auto counts = logs->counts();
    EXPECT_EQ(counts.writes, std::size_t{kThreads * kEach});
    // An SQLite commit takes microseconds here: whether the threads meet in one is the scheduler's choice.
    if (GetParam() == StoreKind::postgresql) {
        EXPECT_LT(counts.commits, counts.writes / 2)
            << "messages from 16 threads at once did not share commits";
    }
}

TOVREL_ON_BOTH_STORES(LogStores);

}  // namespace
}  // namespace tovrel::server::test
