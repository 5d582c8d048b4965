#pragma once

#include <cstdint>
#include <set>
#include <string>

#include "store/log_store.h"
#include "store/postgres/pg_connection.h"
#include "tovrel/platform/thread_annotations.h"

namespace tovrel::server {

/// Diagnostics messages in PostgreSQL: one partition of log_messages a day (log_messages_YYYYMMDD,
/// made by the first message of the day), so that days past retention are dropped whole; each batch
/// written by one COPY. Thread-safe.
class PgLogStore final : public LogStore {
  public:
    /// Connects and creates the partitioned table unless it exists. Throws std::runtime_error.
    PgLogStore(const std::string& location, const StoreOptions& options);

    std::string kind() const override { return "postgresql"; }
    bool reachable() override;

  protected:
    void append(std::span<const LogMessage* const> messages) override;
    void transact(const std::function<void(const SqlSource&)>& work, bool reading) override;

  private:
    /// Connections: one for the batch being written, one for readers and retention.
    static constexpr std::size_t kPoolSize = 2;

    /// Creates the partition of the day of `seconds` unless this store already made sure of it; at a
    /// new day drops the days past retention.
    void ensurePartition(PgConnection& conn, double seconds) TOVREL_EXCLUDES(partitionsMutex_);

    StoreOptions options_;
    PgPool pool_;
    platform::Mutex partitionsMutex_;
    std::set<int64_t> partitions_ TOVREL_GUARDED_BY(partitionsMutex_);  ///< days whose partition exists
};

}  // namespace tovrel::server
