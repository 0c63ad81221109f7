#include "ProgressBar.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>

namespace corvane {
namespace {

constexpr int kWidth = 40;
constexpr auto kRedrawPeriod = std::chrono::milliseconds(200);

}  // namespace

ProgressBar::ProgressBar(std::string label, std::function<double()> fraction)
    : label_(std::move(label)), fraction_(std::move(fraction)) {
  if (isatty(STDERR_FILENO)) {
    painter_ = std::thread([this] { Run(); });
  }
}

ProgressBar::~ProgressBar() {
  if (!painter_.joinable()) {
    return;
  }
  {
    std::lock_guard<std::mutex> lock(mutex_);
    done_ = true;
  }
  done_condition_.notify_all();
  painter_.join();
  // Wipe the bar, so that what follows starts on a clean line.
  std::fprintf(stderr, "\r%*s\r", kWidth + static_cast<int>(label_.size()) + 12, "");
}

void ProgressBar::Run() {
  std::unique_lock<std::mutex> lock(mutex_);
  while (!done_condition_.wait_for(lock, kRedrawPeriod, [this] { return done_; })) {
    Draw(fraction_());
  }
}

void ProgressBar::Draw(double fraction) const {
  fraction = std::clamp(fraction, 0.0, 1.0);
  int filled = static_cast<int>(fraction * kWidth);
  std::string bar(filled, '#');
  bar.resize(kWidth, '.');
  std::fprintf(stderr, "\r%s [%s] %5.1f%%", label_.c_str(), bar.c_str(), fraction * 100);
  std::fflush(stderr);
}

}  // namespace corvane
