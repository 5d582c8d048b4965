#pragma once

#include <atomic>
#include <chrono>
#include <string>
#include <thread>

#include "store/postgres/pg_connection.h"
#include "store/store.h"

namespace tovrel::server {

/// The channel the catalogue's triggers notify once per transaction; an operator's own
/// `NOTIFY tovrel_catalog` after SQL works as well.
inline constexpr const char* kCatalogChannel = "tovrel_catalog";
/// The channel a replica notifies when it links or clears a device's events: "<device> <origin>".
inline constexpr const char* kDeviceChannel = "tovrel_links";

/// Follows what other replicas and operators change in a PostgreSQL store: listens on a connection of
/// its own, and checks the catalogue's version every StoreOptions::changeCheckSeconds in case a
/// notification was missed. A lost connection is opened again with back-off, after which the listener
/// resynchronises. Its thread alone calls the listener; the destructor stops and joins it.
class PgChangeFeed final : public ChangeFeed {
  public:
    /// Starts the feed's thread. `origin` is this replica's name in device notifications (those it sent
    /// itself are not passed on). Any thread.
    PgChangeFeed(std::string location, const StoreOptions& options, std::string origin,
                 ChangeListener& listener);
    /// Stops the thread, waiting at most for a listener call in progress. Any thread but the feed's.
    ~PgChangeFeed() override;
    PgChangeFeed(const PgChangeFeed&) = delete;
    PgChangeFeed& operator=(const PgChangeFeed&) = delete;

  private:
    using Clock = std::chrono::steady_clock;

    void run();
    /// Passes on the notifications read so far; true when one was about the catalogue.
    bool dispatch(PgConnection& conn);
    /// Waits until `socket` (unless negative) has data, the feed is stopped, or `until`; false when
    /// stopped.
    bool wait(int socket, Clock::time_point until);

    std::string location_;
    StoreOptions options_;
    std::string origin_;
    ChangeListener& listener_;
    int wakeFd_ = -1;
    std::atomic<bool> stopping_{false};
    std::thread thread_;
};

}  // namespace tovrel::server
