// The clock and the waits of the library, injectable so that a rule of "60 seconds since the
// last tree" or a 20-minute poll is tested in milliseconds.
//
//   std::unique_lock<std::mutex> lock(stop_mutex_);
//   bool stopped = utils::GetClock().WaitFor(stop_condition_, lock, 30'000,
//                                            [this] { return stop_flag_.load(); });
//
// Production uses the system clock. A test installs a ManualClock with utils::ScopedClock: waits
// then return at once, move the clock forward by their length, and are recorded.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <vector>

namespace utils {

class Clock {
 public:
  virtual ~Clock() = default;
  // Wall time, milliseconds since the Unix epoch.
  virtual std::int64_t NowMs() = 0;
  // Monotonic time for durations, milliseconds from an arbitrary start.
  virtual std::int64_t SteadyMs() = 0;
  // Waits up to `ms` on `condition` (with `lock` held), returning early once `stopped()` is true.
  // Answers whether `stopped()` was true at the end.
  virtual bool WaitFor(std::condition_variable& condition, std::unique_lock<std::mutex>& lock,
                       std::int64_t ms, const std::function<bool()>& stopped) = 0;
  // Sleeps up to `ms`, returning early once `*stop` is set (when given).
  virtual void SleepMs(std::int64_t ms, const std::atomic<bool>* stop) = 0;
};

class SystemClock : public Clock {
 public:
  std::int64_t NowMs() override;
  std::int64_t SteadyMs() override;
  bool WaitFor(std::condition_variable& condition, std::unique_lock<std::mutex>& lock,
               std::int64_t ms, const std::function<bool()>& stopped) override;
  void SleepMs(std::int64_t ms, const std::atomic<bool>* stop) override;
};

// Time moves only by Advance() and by the waits themselves, which return at once.
class ManualClock : public Clock {
 public:
  explicit ManualClock(std::int64_t now_ms = 1'700'000'000'000);
  std::int64_t NowMs() override;
  std::int64_t SteadyMs() override;
  bool WaitFor(std::condition_variable& condition, std::unique_lock<std::mutex>& lock,
               std::int64_t ms, const std::function<bool()>& stopped) override;
  void SleepMs(std::int64_t ms, const std::atomic<bool>* stop) override;

  void Advance(std::int64_t ms);
  // Wall time may jump, backwards too, without moving the monotonic time.
  void SetWallMs(std::int64_t now_ms);
  // The lengths of the waits and sleeps so far, in order.
  std::vector<std::int64_t> Waits() const;
  // Called (outside the clock's lock) at the start of every wait, e.g. to Stop() an adapter.
  void SetOnWait(std::function<void(std::int64_t ms)> on_wait);

 private:
  void Record(std::int64_t ms);

  mutable std::mutex mutex_;
  std::int64_t wall_ms_;
  std::int64_t steady_ms_ = 0;
  std::vector<std::int64_t> waits_;
  std::function<void(std::int64_t)> on_wait_;
};

Clock& GetClock();

// Installs a clock for the life of the object (tests).
class ScopedClock {
 public:
  explicit ScopedClock(Clock* clock);
  ~ScopedClock();
  ScopedClock(const ScopedClock&) = delete;
  ScopedClock& operator=(const ScopedClock&) = delete;

 private:
  Clock* previous_;
};

}  // namespace utils
