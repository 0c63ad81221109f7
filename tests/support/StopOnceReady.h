// For the tests of a Stop from another thread: the call runs on the test's thread, and the Stop
// comes once the call stands where the test wants it, however loaded the machine is.
#pragma once

#include <chrono>
#include <functional>
#include <thread>
#include <utility>

namespace test {

template <typename Value>
struct Stopped {
  Value value;                               // what the call returned
  std::chrono::steady_clock::duration took;  // from the call's start to its return
};

// Runs `call`, and `stop` from another thread once `ready` holds. `ready` is asked every 10 ms for
// 5 s at most: a call that never gets there is stopped all the same, and the test's checks tell.
template <typename Call>
auto StopOnceReady(Call call, const std::function<bool()>& ready, const std::function<void()>& stop)
    -> Stopped<decltype(call())> {
  std::thread stopper([&ready, &stop] {
    for (int i = 0; i < 500 && !ready(); ++i)
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    stop();
  });
  const auto started = std::chrono::steady_clock::now();
  auto value = call();
  const auto took = std::chrono::steady_clock::now() - started;
  stopper.join();
  return {std::move(value), took};
}

}  // namespace test
