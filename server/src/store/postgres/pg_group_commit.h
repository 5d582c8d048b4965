#pragma once

#include <cstddef>
#include <exception>
#include <semaphore>
#include <vector>

#include "store/postgres/pg_connection.h"
#include "tovrel/platform/thread_annotations.h"

namespace tovrel::server {

/// Writes of one statement each that arrive together share one transaction: the caller whose turn it is
/// takes every write queued (up to kMostWrites), sends them at once on one connection and commits them
/// together, while the writes that arrive meanwhile queue; then it wakes the oldest of those to commit
/// the next batch, and every writer it committed, and no other. A caller
/// returns only once the commit that holds its write is done, so an answer still means the write is on
/// disk. When one statement fails, the transaction rolls back and each write of it runs again alone: one
/// bad row cannot fail its neighbours. Thread-safe.
class PgGroupCommit {
  public:
    /// The most writes one transaction takes: their statements and results stay far below what the
    /// sockets buffer, so sending them all before reading cannot stall.
    static constexpr std::size_t kMostWrites = 256;

    explicit PgGroupCommit(PgPool& pool) : pool_(pool) {}

    /// Runs `statement` in a transaction shared with the writes queued with it and returns once that
    /// committed. Throws what PgConnection::execParams throws for this statement alone: PgError when
    /// PostgreSQL refused it, DatabaseBusy when it cannot take it now. Any thread.
    void execute(PgStatement statement);

    /// Transactions committed and the writes they held, so far. Any thread.
    struct Counts {
        std::size_t commits = 0;
        std::size_t writes = 0;
    };
    Counts counts() const;
    /// Counts a commit of `writes` made outside execute() (links, several statements each). Any thread.
    void countCommit(std::size_t writes);

  private:
    struct Write {
        explicit Write(PgStatement s) : statement(std::move(s)) {}
        PgStatement statement;
        std::exception_ptr error;        ///< set by the caller that commits it, before it is released
        bool done = false;               ///< under mutex_; else woken to commit the next batch
        std::binary_semaphore woken{0};  ///< released once: done, or its turn to commit
    };

    /// Commits the writes queued (its own first) and hands the queue to the next writer. No lock held.
    void lead(Write& mine);
    /// Commits `writes` together (or one by one after a refusal), setting each one's error. No lock held.
    void commit(const std::vector<Write*>& writes);

    PgPool& pool_;
    mutable platform::Mutex mutex_;
    std::vector<Write*> queue_ TOVREL_GUARDED_BY(mutex_);
    bool committing_ TOVREL_GUARDED_BY(mutex_) = false;
    Counts counts_ TOVREL_GUARDED_BY(mutex_);
};

}  // namespace tovrel::server
