// InterThreadQueue: a blocking queue for several producers and consumers, with optional bounds on
// the number of items and on their summed size.
//
//   utils::InterThreadQueue<Job> jobs;           // no bounds
//   jobs.Push(Job{...});                         // producer thread
//   Job job = jobs.Pop();                        // consumer thread, waits for an item
//
// The size of an item is what ItemSize answers; a derived queue gives the size its bound means.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <utility>

#include "core/Clock.h"
#include "core/LoggerWrapper.h"

namespace utils {

template <typename T>
class InterThreadQueue {
 public:
  // A bound of 0 or less is no bound.
  explicit InterThreadQueue(std::int64_t maxCount = 0, std::int64_t maxSize = 0)
      : maxCount_(maxCount), maxSize_(maxSize) {}

  virtual ~InterThreadQueue() {
    if (count_ != 0) {
      LOG_WARNING << "Non empty queue destroyed.";
    }
  }

  InterThreadQueue(const InterThreadQueue&) = delete;
  InterThreadQueue& operator=(const InterThreadQueue&) = delete;

  virtual std::uint64_t ItemSize(const T&) const { return sizeof(T); }

  // Waits while the queue is full: for as long as it takes when `waitMs` is negative, else up to
  // `waitMs`. False when the item was dropped: the queue is closed, or the wait ran out.
  bool Push(T item, std::int64_t waitMs = -1) {
    std::unique_lock<std::mutex> lock(mutex_);
    const std::int64_t deadline = GetClock().SteadyMs() + waitMs;
    while (!closed_ && IsFull()) {
      if (waitMs < 0) {
        notFull_.wait(lock);
        continue;
      }
      const std::int64_t left = deadline - GetClock().SteadyMs();
      if (left <= 0) {
        return false;
      }
      GetClock().WaitFor(notFull_, lock, left, [this] { return closed_ || !IsFull(); });
    }
    if (closed_) {
      return false;
    }
    totalSize_ += ItemSize(item);
    ++count_;
    items_.push_back(std::move(item));
    notEmpty_.notify_all();
    return true;
  }

  T Pop() {
    std::unique_lock<std::mutex> lock(mutex_);
    notEmpty_.wait(lock, [this] { return !items_.empty(); });
    T item = std::move(items_.front());
    items_.pop_front();
    totalSize_ -= ItemSize(item);
    --count_;
    notFull_.notify_all();
    return item;
  }

  void Clear() {
    std::lock_guard<std::mutex> lock(mutex_);
    items_.clear();
    count_ = 0;
    totalSize_ = 0;
    notFull_.notify_all();
  }

  // Refuses every later push and ends the waits of producers; consumers still take what is left.
  void Close() {
    std::lock_guard<std::mutex> lock(mutex_);
    closed_ = true;
    notFull_.notify_all();
  }

  bool IsEmpty() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return items_.empty() && totalSize_ == 0;
  }

 private:
  bool IsFull() const {
    return (maxSize_ > 0 && totalSize_ >= static_cast<std::uint64_t>(maxSize_)) ||
           (maxCount_ > 0 && count_ >= static_cast<std::uint64_t>(maxCount_));
  }

  bool closed_ = false;
  std::uint64_t totalSize_ = 0;
  std::int64_t maxCount_;
  std::int64_t maxSize_;
  std::uint64_t count_ = 0;
  std::deque<T> items_;
  mutable std::mutex mutex_;
  std::condition_variable notEmpty_;
  std::condition_variable notFull_;
};

}  // namespace utils
