#pragma once

#include <cstdint>
#include <string>

#include "store/log_store.h"
#include "store/sqlite/database.h"
#include "tovrel/platform/thread_annotations.h"

namespace tovrel::server {

/// Diagnostics messages in SQLite, on a connection of their own: each batch one transaction of one
/// prepared insert run per message. Days past retention are deleted when the first message of a day
/// arrives. Thread-safe: one operation at a time.
class SqliteLogStore final : public LogStore {
  public:
    /// Opens the file (another connection when it is the service's own) and creates the table unless it
    /// exists. Throws std::runtime_error.
    SqliteLogStore(const std::string& location, const StoreOptions& options);

    std::string kind() const override { return "sqlite"; }
    bool reachable() override;

  protected:
    void append(std::span<const LogMessage* const> messages) override;
    void transact(const std::function<void(const SqlSource&)>& work, bool reading) override;

  private:
    StoreOptions options_;
    platform::Mutex mutex_;
    Database db_ TOVREL_GUARDED_BY(mutex_);
    int64_t logDay_ TOVREL_GUARDED_BY(mutex_) = -1;  ///< the UTC day of the last message written
};

}  // namespace tovrel::server
