#include "core/Clock.h"

#include <algorithm>
#include <chrono>
#include <thread>

namespace utils {

namespace {

SystemClock& DefaultClock() {
  static SystemClock* clock = new SystemClock();
  return *clock;
}

std::atomic<Clock*>& CurrentClock() {
  static std::atomic<Clock*> current{&DefaultClock()};
  return current;
}

}  // namespace

std::int64_t SystemClock::NowMs() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

std::int64_t SystemClock::SteadyMs() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

bool SystemClock::WaitFor(std::condition_variable& condition, std::unique_lock<std::mutex>& lock,
                          std::int64_t ms, const std::function<bool()>& stopped) {
  return condition.wait_for(lock, std::chrono::milliseconds(std::max<std::int64_t>(ms, 0)),
                            stopped);
}

void SystemClock::SleepMs(std::int64_t ms, const std::atomic<bool>* stop) {
  // Short slices keep a stop felt within 20 ms without a condition to wake us.
  const std::int64_t end = SteadyMs() + ms;
  for (std::int64_t left = ms; left > 0; left = end - SteadyMs()) {
    if (stop && stop->load()) {
      return;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(std::min<std::int64_t>(left, 20)));
  }
}

ManualClock::ManualClock(std::int64_t now_ms) : wall_ms_(now_ms) {}

std::int64_t ManualClock::NowMs() {
  std::lock_guard<std::mutex> lock(mutex_);
  return wall_ms_;
}

std::int64_t ManualClock::SteadyMs() {
  std::lock_guard<std::mutex> lock(mutex_);
  return steady_ms_;
}

void ManualClock::Record(std::int64_t ms) {
  std::function<void(std::int64_t)> on_wait;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    waits_.push_back(ms);
    on_wait = on_wait_;
  }
  if (on_wait) {
    on_wait(ms);
  }
}

bool ManualClock::WaitFor(std::condition_variable&, std::unique_lock<std::mutex>& lock,
                          std::int64_t ms, const std::function<bool()>& stopped) {
  // The hook may take the caller's own mutex (a Stop() does), so it runs without it.
  lock.unlock();
  Record(ms);
  lock.lock();
  if (stopped()) {
    return true;
  }
  Advance(ms);
  return stopped();
}

void ManualClock::SleepMs(std::int64_t ms, const std::atomic<bool>* stop) {
  Record(ms);
  if (stop && stop->load()) {
    return;
  }
  Advance(ms);
}

void ManualClock::Advance(std::int64_t ms) {
  std::lock_guard<std::mutex> lock(mutex_);
  wall_ms_ += ms;
  steady_ms_ += ms;
}

void ManualClock::SetWallMs(std::int64_t now_ms) {
  std::lock_guard<std::mutex> lock(mutex_);
  wall_ms_ = now_ms;
}

std::vector<std::int64_t> ManualClock::Waits() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return waits_;
}

void ManualClock::SetOnWait(std::function<void(std::int64_t)> on_wait) {
  std::lock_guard<std::mutex> lock(mutex_);
  on_wait_ = std::move(on_wait);
}

Clock& GetClock() {
  return *CurrentClock().load();
}

ScopedClock::ScopedClock(Clock* clock) : previous_(CurrentClock().exchange(clock)) {}

ScopedClock::~ScopedClock() {
  CurrentClock().store(previous_);
}

}  // namespace utils
