// GoogleRateLimiter: the adaptive pause of the Google adapter. Drive answers a burst of requests
// with a rate limit; each such answer doubles the pause taken before the next try (up to 30
// minutes), and good requests halve it again.
//
//   if (rate_limited) {
//     WaitForStop(limiter.NextWaitMs());
//     limiter.OnWaited();
//   } else {
//     limiter.OnGoodRequest();
//   }
//
// The counter of good requests is never reset, so that after five good requests every further
// one halves the pause, down to 0: a rate limit after a quiet while then costs only the random
// part of 1 to 7 seconds. Safe from any thread.
#pragma once

#include <atomic>
#include <cstdint>

class GoogleRateLimiter {
 public:
  static constexpr std::uint32_t kInitialSec = 5;
  static constexpr std::uint32_t kMaxSec = 1800;

  void OnGoodRequest();
  // The pause owed for a rate limit now: the value, plus 1 to 7 seconds.
  std::int64_t NextWaitMs() const;
  // After the pause: the value doubles (or stays at the cap) and the good requests count one less.
  void OnWaited();
  void SetMinValueSec(std::uint32_t seconds);

  std::uint32_t ValueSec() const { return value_sec_; }
  std::uint32_t MinValueSec() const { return min_sec_; }
  std::uint32_t RequestsSinceRateLimit() const { return requests_since_rate_limit_; }

 private:
  std::atomic<std::uint32_t> min_sec_{kInitialSec};
  std::atomic<std::uint32_t> value_sec_{kInitialSec};
  std::atomic<std::uint32_t> requests_since_rate_limit_{0};
};
