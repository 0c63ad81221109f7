// AccountTree: where the tool finds an item, the way the core does. An adapter with a change feed
// resolves paths through the id tree that GetFullTree fills, and answers NOT_SUPPORTED to
// GetFolderListing; for it the whole tree is loaded once (quota first, then GetFullTree) and
// items are looked up in it. So is an adapter without a feed that reaches items by id (Box): it
// knows no id before its first tree. Any other adapter is asked for one folder's listing at a time.
//
//   AccountTree tree(fs, state_file, std::cerr);
//   Item item;
//   FileSystem::Result found = tree.Find("docs/a.txt", &item);
//   tree.Finish(false, true);  // saves the state when one was asked for
//
// With a state file and an adapter that keeps state, the tree comes from the file and is brought
// up to date by the change feed alone; the whole tree is downloaded only when the file is missing
// or refused, or the feed can't go on from it.
#pragma once

#include <functional>
#include <iosfwd>
#include <queue>
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

// Each change through PrepareRemoteChange, then ApplyRemoteChange or SkipRemoteChange, as the core
// does; `seen` is told each change and whether it was applied. False when an apply failed, with
// that change in `*failed`.
bool ApplyChanges(RemoteFileSystem& fs, std::queue<FileSystem::Change>* changes, Snapshot* snapshot,
                  const std::function<void(const FileSystem::Change&, bool applied)>& seen,
                  FileSystem::Change* failed);

class AccountTree {
 public:
  // `state_file` empty: no state is kept. `err` tells the user what became of the state.
  AccountTree(RemoteFileSystem& fs, std::string state_file, std::ostream& err)
      : fs_(fs), state_file_(std::move(state_file)), err_(err) {}

  // ITEM_MISSED when the folder of `path` holds no such name.
  FileSystem::Result Find(const std::string& path, Item* item);
  FileSystem::Result List(const std::string& folder, RemoteFileSystem::FolderListing* listing);
  // Before an item is made or reached without being looked up (mkdir, put, unlink): an adapter
  // that names items by id finds it or its parent in the tree it loaded, as under the core. Nothing
  // to do for an adapter that reaches items by path.
  FileSystem::Result Prepare() { return FromTree() ? Load() : FileSystem::SUCCEEDED; }
  // The whole tree, from the state or downloaded (quota first); `*failed_call` names the call
  // that failed.
  FileSystem::Result Load(std::string* failed_call = nullptr);
  Snapshot& snapshot() { return snapshot_; }
  // After the command: the state saved when it succeeded; when the command changed the account
  // (which the saved tree would not show) the file is removed, so that the next run lists afresh;
  // after a failure the file is left as it was.
  void Finish(bool account_changed, bool succeeded);

 private:
  bool FromTree() const;
  bool KeepsState() const;
  // The saved tree, caught up with the feed; false (tree empty again) when it can't be.
  bool Restore();
  bool CatchUp();

  RemoteFileSystem& fs_;
  const std::string state_file_;
  std::ostream& err_;
  bool loaded_ = false;
  Snapshot snapshot_;
};

}  // namespace corvane
