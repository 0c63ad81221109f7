#include "Deadline.h"

#include <algorithm>
#include <chrono>

#include "core/Stoppable.h"

namespace corvane {

Deadline::Deadline(Stoppable* target, std::uint64_t seconds)
    : target_(target), seconds_(seconds), watcher_([this] { Run(); }) {}

Deadline::~Deadline() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    cancelled_ = true;
  }
  cancelled_condition_.notify_all();
  watcher_.join();
}

bool Deadline::Expired() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return expired_;
}

void Deadline::Run() {
  std::unique_lock<std::mutex> lock(mutex_);
  // A user's wall time, not the library's clock: tests of the tool run it as a process.
  // Past a few years the wait is for ever, and the clock's arithmetic stays in range.
  constexpr std::uint64_t kLongest = 100'000'000;
  const std::chrono::seconds limit(std::min(seconds_, kLongest));
  if (cancelled_condition_.wait_for(lock, limit, [this] { return cancelled_; })) {
    return;
  }
  expired_ = true;
  target_->Stop();
}

}  // namespace corvane
