// GoogleResourceKeys: the resource keys of items shared by link. Drive wants an item's key in
// the "X-Goog-Drive-Resource-Keys" header of every request that names the item; the keys come
// with the items of the listing and of the change feed.
//
//   keys.Record(id, item_key);                  // from each listed item
//   std::string header = keys.BuildHeader({id});  // "X-Goog-Drive-Resource-Keys: ID/KEY" or ""
//
// One set serves every adapter of the account (it lives in the shared data), so a key learned by
// one instance opens the item to all. Safe from any thread.
#pragma once

#include <QReadWriteLock>

#include <atomic>
#include <iosfwd>
#include <string>
#include <unordered_map>
#include <vector>

class GoogleResourceKeys {
 public:
  static constexpr const char* kHeaderName = "X-Goog-Drive-Resource-Keys";

  // An empty key is no key; a later key of the same id replaces the earlier.
  void Record(const std::string& id, const std::string& key);
  // The whole header line for the ids that have a key, in their order; empty when none has.
  std::string BuildHeader(const std::vector<std::string>& ids) const;
  void Swap(GoogleResourceKeys& other);
  std::size_t Count() const;

  // Two lines a key, id then key; the caller ends the section with its marker line.
  bool Serialize(const std::atomic<bool>* stop, std::ostream& out) const;
  // Reads pairs up to the line `end_marker` into `keys`; false when the stream ends before it or
  // `stop` is raised.
  static bool Deserialize(const std::atomic<bool>* stop, std::istream& in,
                          const std::string& end_marker, GoogleResourceKeys* keys);

 private:
  mutable QReadWriteLock lock_;
  std::unordered_map<std::string, std::string> keys_;
};
