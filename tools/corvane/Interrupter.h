// Interrupter: Ctrl-C (SIGINT) and SIGTERM become Stop() on the running adapter, from a thread of
// its own, so that the operation in progress answers STOPPED and the program can close the file
// slot cleanly instead of dying in the middle of a request. A second signal ends the program.
//
//   Interrupter interrupter;          // first thing in main, before any thread starts
//   interrupter.Watch(&session->fs());
//   ... if (interrupter.Interrupted()) ...
#pragma once

#include <pthread.h>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>

class Stoppable;

namespace corvane {

class Interrupter {
 public:
  // Blocks the signals in this thread and in every thread started after it.
  Interrupter();
  ~Interrupter();
  Interrupter(const Interrupter&) = delete;
  Interrupter& operator=(const Interrupter&) = delete;

  // `target` (may be null) gets Stop() on the next signal.
  void Watch(Stoppable* target);
  bool Interrupted() const { return interrupted_.load(); }
  // Returns on the first signal (at once if one came already).
  void WaitForSignal();

 private:
  void Run();

  sigset_t signals_;
  std::mutex mutex_;
  std::condition_variable signalled_;
  Stoppable* target_ = nullptr;
  std::atomic<bool> interrupted_{false};
  std::atomic<bool> closing_{false};
  std::thread watcher_;
};

}  // namespace corvane
