// RemoteFileIdsSerializer: saves a RemoteFileIds to a stream and fills one back from it.
//
//   RemoteFileIdsSerializerText().Serialize(&ids, &stop, out);
//   RemoteFileIds restored;
//   RemoteFileIdsSerializerText().Deserialize(&stop, &restored, in);
//
// Both forms hold one record per linked item, parents before children: path, id, kind, trash
// flag and mapped names. Not linked items are not saved. A false answer leaves in `ids` what was
// read so far; the caller throws it away and downloads the tree again.
#pragma once

#include <atomic>
#include <functional>
#include <ostream>
#include <sstream>
#include <string>

class RemoteFileIds;

class RemoteFileIdsSerializer {
 public:
  virtual ~RemoteFileIdsSerializer() = default;
  virtual bool Serialize(RemoteFileIds* ids, const std::atomic<bool>* stop, std::ostream& out) = 0;
  virtual bool Deserialize(const std::atomic<bool>* stop, RemoteFileIds* ids,
                           std::stringstream& in) = 0;

 protected:
  // The path of the root record.
  static constexpr const char* kRootPath = "root";

  struct Record {
    std::string path;
    std::string id;
    bool folder = false;
    bool trashed = false;
    std::string original_name;
    std::string mapped_name;
  };

  static bool IsStopped(const std::atomic<bool>* stop) { return stop && stop->load(); }
  // Hands the record of every linked item to `sink`, parents first. False when the stop flag
  // cut the walk short.
  static bool CollectRecords(RemoteFileIds* ids, const std::atomic<bool>* stop,
                             const std::function<void(const Record&)>& sink);
  // Adds the item of a record that is not the root under its parent, then its trash flag and
  // mapped names. Logs and answers false when the item could not be added.
  static bool InsertRecord(RemoteFileIds* ids, const Record& record);
};
