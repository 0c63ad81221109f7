// ProgressBar: a line on stderr that redraws itself while a long operation runs, only when stderr
// is a terminal (a log or a pipe gets nothing). The fraction is read from another thread.
//
//   ProgressBar bar("tree", [&fs] { return fs.GetFirstSnapshotProgress(); });
//   fs.GetFullTree(...);   // the bar redraws every 200 ms until `bar` goes
#pragma once

#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

namespace corvane {

class ProgressBar {
 public:
  ProgressBar(std::string label, std::function<double()> fraction);
  ~ProgressBar();
  ProgressBar(const ProgressBar&) = delete;
  ProgressBar& operator=(const ProgressBar&) = delete;

 private:
  void Run();
  void Draw(double fraction) const;

  std::string label_;
  std::function<double()> fraction_;
  std::mutex mutex_;
  std::condition_variable done_condition_;
  bool done_ = false;
  std::thread painter_;
};

}  // namespace corvane
