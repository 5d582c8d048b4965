#pragma once

#include <cstddef>
#include <exception>
#include <span>

#include "common/commit_queue.h"
#include "store/postgres/pg_connection.h"

namespace tovrel::server {

/// A write of one statement that shares a commit. When `ifNoRow` is set, the statement returns a row
/// when it wrote, and its caller hears `ifNoRow` when it returned none (a condition in the statement
/// itself found nothing to write).
struct PgWrite {
    PgStatement statement;
    std::exception_ptr ifNoRow;
};

/// Writes of one statement each that arrive together share one transaction (a CommitQueue): the batch's
/// statements are sent at once on one connection and committed together. When one statement fails, the
/// transaction rolls back and each write of it runs again alone: one bad row cannot fail its neighbours.
/// Thread-safe.
class PgGroupCommit {
  public:
    /// The most writes one transaction takes: their statements and results stay far below what the
    /// sockets buffer, so sending them all before reading cannot stall.
    static constexpr std::size_t kMostWrites = 256;

    using Counts = CommitQueue<PgWrite>::Counts;

    explicit PgGroupCommit(PgPool& pool)
        : pool_(pool), queue_(kMostWrites, [this](std::span<Write* const> writes) { commit(writes); }) {}

    /// Runs `statement` in a transaction shared with the writes queued with it and returns once that
    /// committed. Throws what PgConnection::execParams throws for this statement alone: PgError when
    /// PostgreSQL refused it, DatabaseBusy when it cannot take it now. Any thread.
    void execute(PgStatement statement) { queue_.submit(PgWrite{std::move(statement), nullptr}); }
    /// Starts `write` in a transaction shared with the writes queued with it and returns at once;
    /// `written` hears of it as execute() would have returned or thrown. False when `launch` was
    /// needed and refused: then nothing was started. Any thread.
    bool start(PgWrite write, WriteDone written, Launch launch) {
        return queue_.submit(std::move(write), std::move(written), std::move(launch));
    }

    /// Transactions committed and the writes they held, so far. Any thread.
    Counts counts() const { return queue_.counts(); }
    /// Counts a commit of `writes` made outside execute() (links, several statements each). Any thread.
    void countCommit(std::size_t writes) { queue_.countCommit(writes); }

  private:
    using Write = CommitQueue<PgWrite>::Entry;

    /// Commits `writes` together (or one by one after a refusal), setting each one's error.
    void commit(std::span<Write* const> writes);

    PgPool& pool_;
    CommitQueue<PgWrite> queue_;
};

}  // namespace tovrel::server
