#include "services/GoogleRateLimiter.h"

#include <cstdlib>

#include "core/RadarsLogger.h"

void GoogleRateLimiter::OnGoodRequest() {
  if (requests_since_rate_limit_.fetch_add(1) + 1 <= 5) {
    return;
  }
  // The minimum does not hold the value up: a quiet account earns a pause of 0.
  value_sec_ = value_sec_.load() >> 1;
  RadarsLogger::instance().SendMetric("rate_limit_down", "1", 1);
}

std::int64_t GoogleRateLimiter::NextWaitMs() const {
  return (static_cast<std::int64_t>(value_sec_.load()) + 1 + std::rand() % 7) * 1000;
}

void GoogleRateLimiter::OnWaited() {
  std::uint32_t value = value_sec_.load();
  if (value < kMaxSec) {
    value_sec_ = value * 2;
    RadarsLogger::instance().SendMetric("rate_limit_up", "1", 1);
  } else {
    RadarsLogger::instance().SendMetric("rate_limit_max", "1", 1);
  }
  std::uint32_t count = requests_since_rate_limit_.load();
  if (count != 0) {
    requests_since_rate_limit_ = count - 1;
  }
}

void GoogleRateLimiter::SetMinValueSec(std::uint32_t seconds) {
  if (seconds != min_sec_.load()) {
    value_sec_ = seconds;
  }
  min_sec_ = seconds;
}
