// AccountTree: where the tool finds an item, the way the core does. An adapter with a change feed
// resolves paths through the id tree that GetFullTree fills, and answers NOT_SUPPORTED to
// GetFolderListing; for it the whole tree is loaded once (quota first, then GetFullTree) and
// items are looked up in it. So is an adapter without a feed that reaches items by id (Box): it
// knows no id before its first tree. Any other adapter is asked for one folder's listing at a time.
//
//   AccountTree tree(fs);
//   Item item;
//   FileSystem::Result found = tree.Find("docs/a.txt", &item);
#pragma once

#include <string>

#include "Output.h"
#include "core/Nodes.h"
#include "core/RemoteFileSystem.h"

namespace corvane {

struct Snapshot {
  FolderNode root;
  std::uint64_t free = 0;
  std::uint64_t total = 0;
  tsl::htrie_set<char> service_items;
};

// GetFullTree into an empty snapshot, with the progress bar.
FileSystem::Result DownloadTree(RemoteFileSystem& fs, Snapshot* snapshot);

class AccountTree {
 public:
  explicit AccountTree(RemoteFileSystem& fs) : fs_(fs) {}

  // ITEM_MISSED when the folder of `path` holds no such name.
  FileSystem::Result Find(const std::string& path, Item* item);
  FileSystem::Result List(const std::string& folder, RemoteFileSystem::FolderListing* listing);
  // Before an item is made or reached without being looked up (mkdir, put, unlink): an adapter
  // that names items by id finds it or its parent in the tree it loaded, as under the core. Nothing
  // to do for an adapter that reaches items by path.
  FileSystem::Result Prepare() { return FromTree() ? Load() : FileSystem::SUCCEEDED; }

 private:
  bool FromTree() const;
  FileSystem::Result Load();

  RemoteFileSystem& fs_;
  bool loaded_ = false;
  Snapshot snapshot_;
};

}  // namespace corvane
