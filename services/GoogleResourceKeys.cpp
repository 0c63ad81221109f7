#include "services/GoogleResourceKeys.h"

#include "core/RadarsLogger.h"
#include "services/GoogleStateSections.h"

namespace {

// The stop flag is looked at this often while a section is written or read.
constexpr std::size_t kStopCheckEvery = 20;

}  // namespace

void GoogleResourceKeys::Record(const std::string& id, const std::string& key) {
  if (key.empty()) {
    return;
  }
  RadarsLogger::instance().SendMetric("ggl_has_resource_key", "1", 1);
  QWriteLocker locker(&lock_);
  keys_[id] = key;
}

std::string GoogleResourceKeys::BuildHeader(const std::vector<std::string>& ids) const {
  std::string list;
  {
    QReadLocker locker(&lock_);
    for (const std::string& id : ids) {
      auto found = keys_.find(id);
      if (found == keys_.end()) {
        continue;
      }
      list += (list.empty() ? "" : ",") + id + "/" + found->second;
    }
  }
  return list.empty() ? std::string() : std::string(kHeaderName) + ": " + list;
}

void GoogleResourceKeys::Swap(GoogleResourceKeys& other) {
  if (&other == this) {
    return;
  }
  QWriteLocker mine(&lock_);
  QWriteLocker theirs(&other.lock_);
  keys_.swap(other.keys_);
}

std::size_t GoogleResourceKeys::Count() const {
  QReadLocker locker(&lock_);
  return keys_.size();
}

bool GoogleResourceKeys::Serialize(const std::atomic<bool>* stop, std::ostream& out) const {
  QReadLocker locker(&lock_);
  return GoogleStateSections::WritePairs(stop, keys_, kStopCheckEvery,
                                         "Time is over while serializing items with resource keys.",
                                         out);
}

bool GoogleResourceKeys::Deserialize(const std::atomic<bool>* stop, std::istream& in,
                                     const std::string& end_marker, GoogleResourceKeys* keys) {
  QWriteLocker locker(&keys->lock_);
  return GoogleStateSections::ReadPairs(stop, in, end_marker, nullptr,
                                        [keys](std::string&& id, std::string&& key) {
                                          if (!id.empty() && !key.empty()) {
                                            keys->keys_[std::move(id)] = std::move(key);
                                          }
                                        });
}
