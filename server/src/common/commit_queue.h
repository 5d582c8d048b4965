#pragma once

#include <algorithm>
#include <cstddef>
#include <exception>
#include <functional>
#include <semaphore>
#include <span>
#include <utility>
#include <vector>

#include "tovrel/platform/thread_annotations.h"

namespace tovrel::server {

/// Items that arrive together share one commit. The caller whose turn it is takes every item queued (up
/// to a bound), commits them together while the items that arrive meanwhile queue, then wakes the
/// oldest of those to commit the next batch, and every caller it committed, and no other. Nothing waits
/// for a timer: batches grow with the load. A caller returns only once the commit that holds its item
/// is done, so an answer still means the item is on disk. Thread-safe.
template <typename Item>
class CommitQueue {
  public:
    /// One item queued, and what became of it.
    class Entry {
      public:
        explicit Entry(Item i) : item(std::move(i)) {}
        Item item;
        std::exception_ptr error;  ///< set by the commit that holds it; rethrown to its caller

      private:
        friend class CommitQueue;
        bool done = false;               ///< under the queue's mutex; else woken to commit the next batch
        std::binary_semaphore woken{0};  ///< released once: done, or its turn to commit
    };
    /// Commits a batch, oldest first, setting the error of each entry that failed. Runs on the thread of
    /// one of the batch's callers, one batch at a time, with no lock held.
    using Commit = std::function<void(std::span<Entry* const>)>;

    /// Transactions committed and the items they held, so far.
    struct Counts {
        std::size_t commits = 0;
        std::size_t writes = 0;
    };

    CommitQueue(std::size_t mostPerCommit, Commit commit)
        : mostPerCommit_(std::max<std::size_t>(1, mostPerCommit)), commit_(std::move(commit)) {}

    /// Queues `item` and returns once the commit that holds it is done; throws the error that commit set
    /// for it. Any thread.
    void submit(Item item) {
        Entry mine(std::move(item));
        bool leading = false;
        {
            platform::Lock lock(mutex_);
            queue_.push_back(&mine);
            leading = !committing_;
            committing_ = true;
        }
        if (!leading) {
            mine.woken.acquire();
            platform::Lock lock(mutex_);
            leading = !mine.done;
        }
        if (leading) {
            lead(mine);
        }
        if (mine.error) {
            std::rethrow_exception(mine.error);
        }
    }

    Counts counts() const {
        platform::Lock lock(mutex_);
        return counts_;
    }
    /// Counts a commit of `writes` items made outside submit(). Any thread.
    void countCommit(std::size_t writes) {
        platform::Lock lock(mutex_);
        ++counts_.commits;
        counts_.writes += writes;
    }

  private:
    /// Commits the items queued (the caller's own first) and hands the queue to the next caller.
    void lead(Entry& mine) {
        std::vector<Entry*> batch;
        {
            platform::Lock lock(mutex_);
            // The queue's oldest entry is the caller's: it was first when no commit ran, or woken as such.
            const auto end =
                queue_.begin() + static_cast<std::ptrdiff_t>(std::min(queue_.size(), mostPerCommit_));
            batch.assign(queue_.begin(), end);
            queue_.erase(queue_.begin(), end);
        }
        try {
            commit_(batch);
        } catch (...) {
            for (Entry* entry : batch) {
                entry->error = std::current_exception();
            }
        }
        Entry* next = nullptr;
        {
            platform::Lock lock(mutex_);
            for (Entry* entry : batch) {
                entry->done = true;
            }
            ++counts_.commits;
            counts_.writes += batch.size();
            if (queue_.empty()) {
                committing_ = false;
            } else {
                next = queue_.front();
            }
        }
        // A released caller returns and its Entry is gone: none is touched after its release.
        for (Entry* entry : batch) {
            if (entry != &mine) {
                entry->woken.release();
            }
        }
        if (next != nullptr) {
            next->woken.release();
        }
    }

    const std::size_t mostPerCommit_;
    const Commit commit_;
    mutable platform::Mutex mutex_;
    std::vector<Entry*> queue_ TOVREL_GUARDED_BY(mutex_);
    bool committing_ TOVREL_GUARDED_BY(mutex_) = false;
    Counts counts_ TOVREL_GUARDED_BY(mutex_);
};

}  // namespace tovrel::server
