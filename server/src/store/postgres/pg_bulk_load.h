#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "store/postgres/pg_connection.h"

namespace tovrel::server {

/// An import into an empty catalogue, loaded as PostgreSQL advises for bulk loads: the foreign keys
/// of offers and of their links and the catalogue's secondary indexes (the spatial one among them)
/// are dropped in the import's transaction and made again once its rows are in, each in one pass
/// rather than one check or one index insertion per row. The catalogue's tables stay locked until
/// the transaction ends: empty, they have nothing to serve meanwhile. Not thread-safe.
class PgBulkLoad {
  public:
    /// Places from which an import into an empty catalogue is loaded this way; fewer go row by row.
    static constexpr std::size_t kMinPlaces = 10'000;

    /// In the transaction begun on `conn`: when the catalogue's tables are empty, locks them, drops
    /// their foreign keys and secondary indexes, and returns the load that makes them again; nullopt
    /// otherwise, with nothing dropped. Throws as PgConnection::exec().
    static std::optional<PgBulkLoad> begin(PgConnection& conn);

    /// Makes the indexes and then the foreign keys again, which checks every row at once: a row that
    /// breaks one fails the transaction. Throws as PgConnection::exec().
    void finish();

  private:
    PgBulkLoad(PgConnection& conn, std::vector<std::string> restore)
        : conn_(&conn), restore_(std::move(restore)) {}

    PgConnection* conn_;
    std::vector<std::string> restore_;  ///< statements that make again what was dropped, in the order dropped
};

}  // namespace tovrel::server
