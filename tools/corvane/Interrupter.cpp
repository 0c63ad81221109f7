#include "Interrupter.h"

#include <signal.h>
#include <unistd.h>

#include "core/Stoppable.h"

namespace corvane {

Interrupter::Interrupter() {
  sigemptyset(&signals_);
  sigaddset(&signals_, SIGINT);
  sigaddset(&signals_, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &signals_, nullptr);
  watcher_ = std::thread([this] { Run(); });
}

Interrupter::~Interrupter() {
  closing_ = true;
  pthread_kill(watcher_.native_handle(), SIGTERM);
  watcher_.join();
}

void Interrupter::Watch(Stoppable* target) {
  std::lock_guard<std::mutex> lock(mutex_);
  target_ = target;
}

void Interrupter::Run() {
  for (;;) {
    int signal = 0;
    if (sigwait(&signals_, &signal) != 0 || closing_) {
      return;
    }
    if (interrupted_.exchange(true)) {
      // The user insists: the operation did not come back from the first one.
      _exit(128 + signal);
    }
    std::lock_guard<std::mutex> lock(mutex_);
    if (target_) {
      target_->Stop();
    }
    signalled_.notify_all();
  }
}

void Interrupter::WaitForSignal() {
  std::unique_lock<std::mutex> lock(mutex_);
  signalled_.wait(lock, [this] { return interrupted_.load(); });
}

}  // namespace corvane
