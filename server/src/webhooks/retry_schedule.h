#pragma once

#include <array>
#include <optional>
#include <string_view>

namespace tovrel::server::webhooks {

/// Seconds after the first failed attempt, then after each next one: 5 s, 5 min, 30 min, 2 h, 5 h, 10 h, 14
/// h, 20 h, 24 h. Constant; any thread.
inline constexpr std::array<double, 9> kRetryDelays{5,         5 * 60,    30 * 60,   2 * 3600, 5 * 3600,
                                                    10 * 3600, 14 * 3600, 20 * 3600, 24 * 3600};

/// Seconds from now to the next attempt after `failedAttempts` failures (1 = the first attempt failed), the
/// scheduled delay scaled by a jitter of ±10% drawn from `unit` in [0, 1) (0 gives -10%; values outside are
/// clamped); 0 when no attempt has failed yet (the first one is due at once); nullopt once the schedule is
/// spent (after 10 attempts in all). Pure; any thread.
std::optional<double> retryDelay(int failedAttempts, double unit);

/// A Retry-After header's value (delta-seconds or an HTTP-date in any of its three forms, read against `now`,
/// seconds since 1970) as seconds from now, at least 0 and at most 86400; nullopt when unreadable. Pure; any
/// thread.
std::optional<double> parseRetryAfter(std::string_view value, double now);

}  // namespace tovrel::server::webhooks
