#pragma once

#include <algorithm>
#include <cstddef>
#include <exception>
#include <functional>
#include <memory>
#include <span>
#include <utility>
#include <vector>

#include "common/started_write.h"
#include "common/wakeup.h"
#include "tovrel/platform/thread_annotations.h"

namespace tovrel::server {

/// Items that arrive together share one commit. The thread whose turn it is takes every item queued (up
/// to a bound), commits them together while the items that arrive meanwhile queue, then hands the queue
/// to the next: the oldest caller waiting, or a job launched for items whose callers did not wait.
/// Nothing waits for a timer: batches grow with the load. An item's caller hears of it only once the
/// commit that holds it is done, so an answer still means the item is on disk. Thread-safe.
template <typename Item>
class CommitQueue {
  public:
    /// One item queued, and what became of it.
    class Entry {
      public:
        explicit Entry(Item i) : item(std::move(i)) {}
        Item item;
        std::exception_ptr error;  ///< set by the commit that holds it; given to its caller

      private:
        friend class CommitQueue;
        bool done = false;  ///< under the queue's mutex; else woken to commit the next batch
        Wakeup woken;       ///< a waiting caller's: woken once, done or its turn to commit
        WriteDone written;  ///< a caller's that did not wait; the queue owns the entry then
        Launch launch;      ///< with `written`: how to start a commit for it
    };
    /// Commits a batch, oldest first, setting the error of each entry that failed. Runs on the thread of
    /// one of the batch's callers or a launched job, one batch at a time, with no lock held.
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
            mine.woken.wait();
            platform::Lock lock(mutex_);
            leading = !mine.done;
        }
        if (leading) {
            lead(&mine);
        }
        if (mine.error) {
            std::rethrow_exception(mine.error);
        }
    }

    /// Queues `item` and returns at once; `written` hears of it once the commit that holds it is done.
    /// When no commit is running, `launch` is asked for a thread to run one, with the queue's lock held
    /// (it must only queue the job); false when it refused, and then nothing was queued and `written`
    /// is never called. Any thread.
    bool submit(Item item, WriteDone written, Launch launch) {
        auto entry = std::make_unique<Entry>(std::move(item));
        entry->written = std::move(written);
        entry->launch = std::move(launch);
        platform::Lock lock(mutex_);
        // Under the lock, so that no caller can queue behind a commit that will not run.
        if (!committing_ && !entry->launch([this] { lead(nullptr); })) {
            return false;
        }
        committing_ = true;
        queue_.push_back(entry.release());
        return true;
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
    /// Commits the items queued, oldest first, and hands the queue on. `mine` is the waiting caller's
    /// own entry, or nullptr on a launched job, which goes on committing while only callers that did not
    /// wait are queued.
    void lead(Entry* mine) {
        for (;;) {
            std::vector<Entry*> batch;
            {
                platform::Lock lock(mutex_);
                // A waiting caller's entry is the oldest: first when no commit ran, or woken as such.
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
            // A woken caller returns and its entry is gone: none is touched after it is woken.
            for (Entry* entry : batch) {
                if (entry->written) {
                    finish(std::unique_ptr<Entry>(entry));
                } else if (entry != mine) {
                    entry->woken.wake();
                }
            }
            if (next == nullptr) {
                return;
            }
            if (!next->written) {
                next->woken.wake();
                return;
            }
            // A waiting caller whose item is committed returns now, unless no thread can take over.
            if (mine != nullptr && next->launch([this] { lead(nullptr); })) {
                return;
            }
        }
    }

    /// Tells a caller that did not wait what became of its item. A callback that throws loses only its
    /// own answer: the queue goes on.
    static void finish(std::unique_ptr<Entry> entry) noexcept {
        try {
            // The error goes with the answer: whichever thread reads it last frees it, and no other.
            entry->written(std::move(entry->error));
        } catch (...) {
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
