// SelfMadeChanges: the record of what an adapter has just done itself, so that the echo of it in
// the change feed is dropped instead of applied again. One mechanism for every adapter with a
// feed; each keeps its own record types and its own rules for what makes a match.
//
//   SelfMadeChanges<std::string> folders;            // keyed by lower-case path
//   folders.Expect(ToLower(path));                   // after CreateFolderImpl succeeded
//   ...
//   if (folders.Take(ToLower(change.path))) return true;  // the echo: dropped, record used up
//
// A record lives until its echo arrives or the adapter goes; it is used once. Records are added
// on the thread of a file operation and taken on the thread of the feed, so the set has a lock of
// its own, held for one look-up.
#pragma once

#include <functional>
#include <mutex>
#include <unordered_set>

template <typename Record, typename Hash = std::hash<Record>,
          typename Equal = std::equal_to<Record>>
class SelfMadeChanges {
 public:
  void Expect(Record record) {
    std::lock_guard<std::mutex> lock(mutex_);
    records_.insert(std::move(record));
  }

  // True, and the record is gone, when `record` was expected.
  bool Take(const Record& record) {
    std::lock_guard<std::mutex> lock(mutex_);
    return records_.erase(record) > 0;
  }

  bool Empty() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return records_.empty();
  }

 private:
  mutable std::mutex mutex_;
  std::unordered_set<Record, Hash, Equal> records_;
};
