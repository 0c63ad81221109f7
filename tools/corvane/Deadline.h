// Deadline: the --timeout of the command line. When the time runs out, Stop() goes to the running
// adapter from a thread of its own, as a signal would, so that the operation answers STOPPED
// however the server behaves (a trickle, a walk that retries a folder without end).
//
//   Deadline deadline(&session->fs(), 30);
//   ... run the command ...
//   if (deadline.Expired()) { ... }
#pragma once

#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <thread>

class Stoppable;

namespace corvane {

class Deadline {
 public:
  Deadline(Stoppable* target, std::uint64_t seconds);
  // Ends the watch; the target is not stopped any more once this returns.
  ~Deadline();
  Deadline(const Deadline&) = delete;
  Deadline& operator=(const Deadline&) = delete;

  bool Expired() const;
  std::uint64_t Seconds() const { return seconds_; }

 private:
  void Run();

  Stoppable* target_;
  const std::uint64_t seconds_;
  mutable std::mutex mutex_;
  std::condition_variable cancelled_condition_;
  bool cancelled_ = false;
  bool expired_ = false;
  std::thread watcher_;
};

}  // namespace corvane
