#include "store/postgres/pg_group_commit.h"

#include <algorithm>

namespace tovrel::server {

using platform::Lock;

void PgGroupCommit::execute(PgStatement statement) {
    Write mine(std::move(statement));
    bool leading = false;
    {
        Lock lock(mutex_);
        queue_.push_back(&mine);
        leading = !committing_;
        committing_ = true;
    }
    if (!leading) {
        mine.woken.acquire();
        Lock lock(mutex_);
        leading = !mine.done;
    }
    if (leading) {
        lead(mine);
    }
    if (mine.error) {
        std::rethrow_exception(mine.error);
    }
}

void PgGroupCommit::lead(Write& mine) {
    std::vector<Write*> batch;
    {
        Lock lock(mutex_);
        // The queue's oldest write is this caller's: it was first when no commit ran, or woken as such.
        const auto end = queue_.begin() + static_cast<std::ptrdiff_t>(std::min(queue_.size(), kMostWrites));
        batch.assign(queue_.begin(), end);
        queue_.erase(queue_.begin(), end);
    }
    commit(batch);
    Write* next = nullptr;
    {
        Lock lock(mutex_);
        for (Write* write : batch) {
            write->done = true;
        }
        ++counts_.commits;
        counts_.writes += batch.size();
        if (queue_.empty()) {
            committing_ = false;
        } else {
            next = queue_.front();
        }
    }
    // A released writer returns and its Write is gone: none is touched after its release.
    for (Write* write : batch) {
        if (write != &mine) {
            write->woken.release();
        }
    }
    if (next != nullptr) {
        next->woken.release();
    }
}

void PgGroupCommit::commit(const std::vector<Write*>& writes) {
    try {
        auto conn = pool_.acquire();
        std::vector<const PgStatement*> statements;
        statements.reserve(writes.size());
        for (const Write* write : writes) {
            statements.push_back(&write->statement);
        }
        const std::optional<PgRefusal> refusal = conn->execTogether(statements);
        if (!refusal) {
            return;
        }
        if (writes.size() == 1) {
            writes.front()->error = std::make_exception_ptr(refusal->error);
            return;
        }
        for (Write* write : writes) {
            try {
                conn->execParams(write->statement.sql, write->statement.params);
            } catch (...) {
                write->error = std::current_exception();
            }
        }
    } catch (...) {
        for (Write* write : writes) {
            write->error = std::current_exception();
        }
    }
}

void PgGroupCommit::countCommit(std::size_t writes) {
    Lock lock(mutex_);
    ++counts_.commits;
    counts_.writes += writes;
}

PgGroupCommit::Counts PgGroupCommit::counts() const {
    Lock lock(mutex_);
    return counts_;
}

}  // namespace tovrel::server
