#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_map>

#include "tovrel/platform/thread_annotations.h"

namespace tovrel::server {

using tovrel::platform::Lock;
using tovrel::platform::Mutex;
using tovrel::platform::ReaderLock;
using tovrel::platform::SharedMutex;

/// Token buckets per client (an address, a device, an SDK key): each may make `rate` requests a second
/// on average and `burst` at once. Memory is bounded in entries and bytes: a client is held by a key of
/// at most 32 bytes (compactKey), and beyond `maxClients` clients idle ones are forgotten; when none
/// is idle a new client goes unlimited rather than evicting an active one. Thread-safe.
class RateLimiter {
  public:
    /// `rate` 0 turns limiting off.
    RateLimiter(double rate, double burst, std::size_t maxClients = 65536);

    /// Takes a token for `client` at `now` (seconds on a steady clock); false when none is left. Any
    /// thread.
    bool allow(std::string_view client, double now);
    /// Requests refused so far.
    [[nodiscard]] std::uint64_t limited() const;

  private:
    struct Bucket {
        double tokens = 0;
        double at = 0;
    };

    const double rate_;
    const double burst_;
    const std::size_t maxClients_;
    mutable Mutex mutex_;
    std::unordered_map<std::string, Bucket> buckets_ TOVREL_GUARDED_BY(mutex_);
    std::uint64_t limited_ TOVREL_GUARDED_BY(mutex_) = 0;
};

}  // namespace tovrel::server
