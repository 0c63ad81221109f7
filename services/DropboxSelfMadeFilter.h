// DropboxSelfMadeFilter: Dropbox's form of the self-made change records. The feed reports paths,
// so every record is a lower-case path: an upload with its content, a created folder, a deleted
// item. A change that matches a record is the echo of the adapter's own work and is dropped once.
//
//   filter.ExpectFolder("docs/new");                       // CreateFolderImpl succeeded
//   filter.ExpectFolderDelete(node, "docs/old");           // the folder and all below it
//   if (filter.IsSelfMadeChange(change)) return true;      // in ApplyRemoteChange
//
// Safe from two threads: file operations add, the feed takes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "core/FileSystem.h"
#include "core/SomeHash.h"
#include "services/SelfMadeChanges.h"

class FileNode;
class FolderNode;

namespace dropbox {

struct ExpectedRemoteChangeUpload {
  HashDropbox hash;
  std::uint64_t size = 0;
  std::string path;  // lower case
};

// Equal sizes, equal content unless the file is empty, equal paths; the hash agrees.
struct ExpectedUploadHash {
  std::size_t operator()(const ExpectedRemoteChangeUpload& record) const;
};
struct ExpectedUploadEqual {
  bool operator()(const ExpectedRemoteChangeUpload& a, const ExpectedRemoteChangeUpload& b) const;
};

}  // namespace dropbox

class DropboxSelfMadeFilter {
 public:
  // Paths as the adapter was given them; the filter lower-cases them.
  void ExpectUpload(const std::string& path, const HashDropbox& hash, std::uint64_t size);
  void ExpectFolder(const std::string& path);
  void ExpectDelete(const std::string& path);
  // The folder and every file and folder below it, from the tree the core holds.
  void ExpectFolderDelete(const FolderNode& folder, const std::string& path);
  void ExpectFileMove(const FileNode& file, const std::string& from, const std::string& to);
  void ExpectFolderMove(const FolderNode& folder, const std::string& from, const std::string& to);

  // True, and the record is used up, for the echo of a change the adapter made.
  bool IsSelfMadeChange(const FileSystem::Change& change);

 private:
  void ExpectTreeCreated(const FolderNode& folder, const std::string& path);

  SelfMadeChanges<dropbox::ExpectedRemoteChangeUpload, dropbox::ExpectedUploadHash,
                  dropbox::ExpectedUploadEqual>
      uploads_;
  SelfMadeChanges<std::string> folders_;
  SelfMadeChanges<std::string> deletes_;
};
