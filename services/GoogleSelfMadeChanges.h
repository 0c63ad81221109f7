// GoogleSelfMadeChanges: what the Google adapter has just done itself, kept until the change feed
// reports it back, so that the echo is dropped instead of applied to a tree that holds it already.
//
//   GoogleSelfMadeChanges expected;
//   expected.ExpectFolder(id);                   // after a folder was made
//   if (expected.TakeFolder(id)) { ... }          // on the feed's thread: the echo, used up
//
// Records are added on the thread of a file operation and taken on the feed's thread: one mutex
// guards the collections, held for a single look-up and erase, or across the walk of a trashed
// folder (Locked). No request is ever made under it.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <unordered_set>
#include <utility>

#include "core/SomeHash.h"

namespace google {

// An upload, rename or move done by the adapter. The echo of it carries the same id and the
// version the server answered with; Drive raises the version with every change of the item, so
// the pair names this one change.
struct ExpectedRemoteChangeUpload {
  std::string id;
  HashGoogle hash;
  std::uint64_t size = 0;
  std::int64_t version = 0;
  std::string parent_id;
  std::string path;

  struct Hash {
    std::size_t operator()(const ExpectedRemoteChangeUpload& record) const;
  };
  struct Equal {
    bool operator()(const ExpectedRemoteChangeUpload& a, const ExpectedRemoteChangeUpload& b) const;
  };
};

}  // namespace google

class GoogleSelfMadeChanges {
 public:
  struct Records {
    std::unordered_set<google::ExpectedRemoteChangeUpload, google::ExpectedRemoteChangeUpload::Hash,
                       google::ExpectedRemoteChangeUpload::Equal>
        expected_uploads;
    std::unordered_set<std::string> expected_trashings;
    std::unordered_set<std::string> expected_folders;
    // Folders being made right now, by parent id and name: the id the feed met for one of them
    // before the creating request had answered, or empty.
    std::map<std::pair<std::string, std::string>, std::string> folders_in_flight;
  };

  void ExpectUpload(google::ExpectedRemoteChangeUpload record);
  bool TakeUpload(const google::ExpectedRemoteChangeUpload& record);
  void ExpectTrashing(const std::string& id);
  bool TakeTrashing(const std::string& id);
  void ExpectFolder(const std::string& id);
  bool TakeFolder(const std::string& id);

  // A folder creation begins: its echo may come before its id does.
  void BeginFolderCreation(const std::string& parent_id, const std::string& name);
  // It ended; `id` is the new folder's, empty when the request failed. The echo is expected
  // unless the feed met it already.
  void EndFolderCreation(const std::string& parent_id, const std::string& name,
                         const std::string& id);
  // On the feed's thread: a folder unknown so far that is one being made is taken as its echo.
  bool ClaimFolderInFlight(const std::string& parent_id, const std::string& name,
                           const std::string& id);

  // Runs `work` with the records under the mutex; `work` makes no request.
  void Locked(const std::function<void(Records&)>& work);

 private:
  std::mutex mutex_;
  Records records_;
};
