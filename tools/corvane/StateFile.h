// StateFile: `--state FILE`, the tool's stand-in for what the client's core keeps between runs of
// an adapter that saves its state (NeedSavingStateInFile): the core's tree of the account and,
// after it, the adapter's own Serialize section.
//
//   Snapshot snapshot;
//   if (StateFile::Load(path, fs, &snapshot, &why)) { ... fs.PrepareAfterTreeDeserialized() ... }
//   StateFile::Save(path, fs, snapshot, &why);
//
// The tree is one item a line: "D" or "F", the time, for a file the size, the hash's kind and hex,
// then the path percent-encoded (a name may hold any byte but "/" and NUL).
#pragma once

#include <string>

#include "AccountTree.h"

namespace corvane {

class StateFile {
 public:
  // Into an empty `snapshot`. False, with `*why`, when the file is missing or any part of it is
  // refused; `snapshot` is then empty again and the adapter as it was.
  static bool Load(const std::string& path, RemoteFileSystem& fs, Snapshot* snapshot,
                   std::string* why);
  // Written beside the file and renamed over it, so a failed save leaves the last good one.
  static bool Save(const std::string& path, RemoteFileSystem& fs, const Snapshot& snapshot,
                   std::string* why);
};

}  // namespace corvane
