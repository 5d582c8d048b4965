#include "common/rate_limiter.h"

#include <algorithm>

#include "common/session_keys.h"

namespace tovrel::server {

RateLimiter::RateLimiter(double rate, double burst, std::size_t maxClients)
    : rate_(rate), burst_(std::max(burst, 1.0)), maxClients_(maxClients) {}

bool RateLimiter::allow(std::string_view client, double now) {
    if (rate_ <= 0) {
        return true;
    }
    std::string key = compactKey(client);
    Lock lock(mutex_);
    auto found = buckets_.find(key);
    if (found == buckets_.end()) {
        if (buckets_.size() >= maxClients_) {
            // A bucket that has refilled since its last use says nothing: forgetting it is free.
            std::erase_if(buckets_, [&](const auto& entry) {
                return entry.second.tokens + (now - entry.second.at) * rate_ >= burst_;
            });
            if (buckets_.size() >= maxClients_) {
                return true;
            }
        }
        found = buckets_.emplace(std::move(key), Bucket{burst_, now}).first;
    }
    Bucket& bucket = found->second;
    bucket.tokens = std::min(burst_, bucket.tokens + std::max(0.0, now - bucket.at) * rate_);
    bucket.at = std::max(bucket.at, now);
    if (bucket.tokens < 1) {
        ++limited_;
        return false;
    }
    bucket.tokens -= 1;
    return true;
}

std::uint64_t RateLimiter::limited() const {
    Lock lock(mutex_);
    return limited_;
}

}  // namespace tovrel::server
